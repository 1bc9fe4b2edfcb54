// The last-block walk that joins compressed pieces, against zlib's own
// account of the same streams: inflating with Z_BLOCK stops at every block
// boundary and tells the bit it stopped at.
#include <gtest/gtest.h>
#include <libdeflate.h>
#include <zlib.h>

#include <optional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "detail/blockwalk.h"

namespace {

using Bytes = std::vector<unsigned char>;
using Ends = std::optional<std::pair<uint64_t, uint64_t>>;  // last block's header, bit after its end code

Ends ZlibEnds(const Bytes& stream) {
    z_stream z{};
    if (inflateInit2(&z, -MAX_WBITS) != Z_OK) return std::nullopt;
    Bytes scratch(1 << 16);
    z.next_in = const_cast<unsigned char*>(stream.data());
    z.avail_in = static_cast<uInt>(stream.size());
    uint64_t last = 0;
    Ends ends;
    for (;;) {
        z.next_out = scratch.data();
        z.avail_out = static_cast<uInt>(scratch.size());
        if (inflate(&z, Z_BLOCK) != Z_OK) break;
        if (z.data_type & 128) {
            uint64_t at = uint64_t{stream.size() - z.avail_in} * 8 - (z.data_type & 7);
            if (z.data_type & 64) {
                ends = std::pair(last, at);
                break;
            }
            last = at;
        }
    }
    inflateEnd(&z);
    return ends;
}

Ends WalkEnds(const Bytes& stream) {
    uint64_t last, end;
    if (!FindLastBlock(stream.data(), stream.size(), &last, &end)) return std::nullopt;
    return std::pair(last, end);
}

Bytes Libdeflate(const Bytes& plain, int level) {
    libdeflate_compressor* c = libdeflate_alloc_compressor(level);
    Bytes out(libdeflate_deflate_compress_bound(c, plain.size()));
    out.resize(libdeflate_deflate_compress(c, plain.data(), plain.size(), out.data(), out.size()));
    libdeflate_free_compressor(c);
    return out;
}

// zlib's deflater makes what libdeflate's may not: fixed-code blocks, and
// empty stored blocks in the middle (a sync flush every 5,000 bytes).
Bytes Zlib(const Bytes& plain, int strategy) {
    z_stream z{};
    deflateInit2(&z, 6, Z_DEFLATED, -MAX_WBITS, 8, strategy);
    Bytes out(plain.size() * 2 + 1024);  // fixed codes spend 9 bits on some bytes
    z.next_out = out.data();
    z.avail_out = static_cast<uInt>(out.size());
    for (size_t at = 0;;) {
        size_t n = std::min<size_t>(5000, plain.size() - at);
        z.next_in = const_cast<unsigned char*>(plain.data() + at);
        z.avail_in = static_cast<uInt>(n);
        at += n;
        if (at == plain.size()) break;
        deflate(&z, Z_SYNC_FLUSH);
    }
    deflate(&z, Z_FINISH);
    out.resize(z.total_out);
    deflateEnd(&z);
    return out;
}

// Random bytes (stored blocks), zeros, or text that repeats with shifts and
// a random byte now and then (literals and matches).
Bytes Data(const std::string& kind, size_t size) {
    std::mt19937 rng(7);
    const std::string text = "/usr/share/doc/ copyright changelog.Debian.gz README\n";
    Bytes d(size);
    for (size_t i = 0; i < size; i++) {
        if (kind == "random") d[i] = static_cast<unsigned char>(rng());
        if (kind == "text") d[i] = static_cast<unsigned char>(rng() % 50 ? text[(i + i / 997 * 13) % text.size()] : rng());
    }
    return d;
}

TEST(BlockWalk, AgreesWithZlibOnEveryKindOfBlock) {
    for (const char* kind : {"random", "zeros", "text"})
        for (size_t size : {size_t{0}, size_t{1}, size_t{70000}, size_t{1} << 20}) {
            Bytes plain = Data(kind, size);
            std::vector<Bytes> made = {Zlib(plain, Z_FIXED), Zlib(plain, Z_DEFAULT_STRATEGY)};
            for (int level : {0, 1, 6, 12}) made.push_back(Libdeflate(plain, level));
            for (size_t i = 0; i < made.size(); i++) {
                SCOPED_TRACE(std::string(kind) + " " + std::to_string(size) + ", stream " + std::to_string(i));
                Ends theirs = ZlibEnds(made[i]);
                ASSERT_TRUE(theirs.has_value());
                EXPECT_EQ(WalkEnds(made[i]), theirs);
            }
        }
}

// A damaged stream: whatever zlib can walk, the walk finds the same ends;
// otherwise it fails or stays inside the stream, never reading outside it
// (the sanitizer build watches) or looping.
TEST(BlockWalk, DamagedStreamsFailOrAgree) {
    std::mt19937 rng(3);
    for (const char* kind : {"text", "random"}) {
        const Bytes good = Libdeflate(Data(kind, 200000), 6);
        std::vector<Bytes> damaged;
        for (size_t cut : {size_t{0}, size_t{1}, size_t{2}, good.size() / 3, good.size() - 1})
            damaged.emplace_back(good.begin(), good.begin() + static_cast<long>(cut));
        for (int i = 0; i < 300; i++) {
            Bytes flipped = good;
            size_t bit = rng() % (i < 100 ? 200 : good.size() * 8);  // headers and code tables are at the front
            flipped[bit / 8] ^= static_cast<unsigned char>(1u << (bit % 8));
            damaged.push_back(flipped);
        }
        for (const Bytes& bad : damaged) {
            Ends walked = WalkEnds(bad), theirs = ZlibEnds(bad);
            if (theirs) {
                EXPECT_EQ(walked, theirs);
            }
            if (walked) {
                EXPECT_LE(walked->second, uint64_t{bad.size()} * 8);
            }
        }
    }
}

}  // namespace
