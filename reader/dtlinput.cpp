#include "reader/dtlinput.h"

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "detail/compress.h"

namespace {

constexpr size_t INFLATE_INPUT_SIZE = 256 << 10;

// Reads what is there, retrying after a signal. -1 on a read error.
ssize_t ReadSome(int fd, uint8_t* buf, size_t cap) {
    for (;;) {
        ssize_t got = read(fd, buf, cap);
        if (got >= 0 || errno != EINTR) return got;
    }
}

std::string ReadError() { return std::string("read error: ") + strerror(errno); }

}  // namespace

struct DtlInflater {
    z_stream z{};
    std::vector<uint8_t> in;
    uLong adler = 0;
    bool eof = false;        // the file has no more compressed bytes
    bool streamEnd = false;  // the deflate data is over and the trailer was checked
    uint64_t lastPoint = 0;  // plain offset of the last checkpoint taken
    bool fromCheckpoint = false;  // started inside the stream: the trailer's sum cannot be checked
};

static std::string Damaged(const char* what) {
    return std::string("compressed detail file cannot be decompressed: ") + what;
}

bool DtlInputOpen(DtlInput* in, const char* path, std::string* error) {
    in->fd = open(path, O_RDONLY | O_CLOEXEC);
    if (in->fd < 0) {
        *error = std::string("cannot open: ") + strerror(errno);
        return false;
    }
    // Two bytes tell the kinds apart; a plain file gets them back first.
    while (in->pendingLen < 2) {
        ssize_t got = ReadSome(in->fd, in->pending + in->pendingLen, 2 - in->pendingLen);
        if (got < 0) {
            *error = ReadError();
            return false;
        }
        if (got == 0) break;
        in->pendingLen += static_cast<size_t>(got);
    }
    if (in->pendingLen < 2 || in->pending[0] != ZLIB_HEADER_0 || in->pending[1] != ZLIB_HEADER_1) return true;
    in->compressed = true;
    in->pendingLen = 0;
    in->compressedRead = 2;
    in->inflater = new DtlInflater;
    DtlInflater& f = *in->inflater;
    f.in.resize(INFLATE_INPUT_SIZE);
    f.adler = adler32(0, nullptr, 0);
    if (inflateInit2(&f.z, -MAX_WBITS) != Z_OK) {
        *error = Damaged("the inflater could not start");
        return false;
    }
    return true;
}

// The deflate data is over: exactly four bytes must follow, the Adler-32 of
// the plain bytes, big-endian, and then the end of the file.
static bool CheckTrailer(DtlInput* in, std::string* error) {
    DtlInflater& f = *in->inflater;
    uint8_t trailer[4];
    size_t have = f.z.avail_in < 4 ? f.z.avail_in : 4;
    memcpy(trailer, f.z.next_in, have);
    f.z.next_in += have;
    f.z.avail_in -= static_cast<uInt>(have);
    while (have < 4) {
        ssize_t got = ReadSome(in->fd, trailer + have, 4 - have);
        if (got < 0) return *error = ReadError(), false;
        if (got == 0) return *error = Damaged("the file ends inside its Adler-32 trailer"), false;
        have += static_cast<size_t>(got);
        in->compressedRead += static_cast<uint64_t>(got);
    }
    uint32_t stored = static_cast<uint32_t>(trailer[0]) << 24 | trailer[1] << 16 | trailer[2] << 8 | trailer[3];
    if (stored != static_cast<uint32_t>(f.adler)) {
        char text[128];
        snprintf(text, sizeof text, "its Adler-32 trailer 0x%08x does not match the decompressed bytes (0x%08x)",
                 stored, static_cast<uint32_t>(f.adler));
        *error = Damaged(text);
        return false;
    }
    uint8_t more;
    ssize_t got = f.z.avail_in ? 1 : ReadSome(in->fd, &more, 1);
    if (got < 0) return *error = ReadError(), false;
    if (got > 0) return *error = Damaged("bytes follow the end of its compressed stream"), false;
    return true;
}

// At the end of a deflate block (bit 128 of data_type, and not the last
// block, bit 64) far enough from the last checkpoint: one more.
static void TakeCheckpoint(DtlInput* in) {
    DtlInflater& f = *in->inflater;
    z_stream& z = f.z;
    if (!(z.data_type & 128) || (z.data_type & 64) || z.total_out - f.lastPoint < in->checkpoints->spacing) return;
    DtlCheckpoint& point = in->checkpoints->points.emplace_back();
    point.plainPos = f.lastPoint = z.total_out;
    point.compressedPos = 2 + z.total_in;  // the zlib header's two bytes come first
    point.bits = z.data_type & 7;
    point.window.resize(32768);
    uInt length = 0;
    inflateGetDictionary(&z, point.window.data(), &length);
    point.window.resize(length);
}

// Runs once per buffer refill: one inflate call per compressed input chunk
// or output buffer, no allocation.
static ssize_t Inflate(DtlInput* in, uint8_t* buf, size_t cap, std::string* error) {
    DtlInflater& f = *in->inflater;
    if (f.streamEnd) return 0;
    z_stream& z = f.z;
    z.next_out = buf;
    z.avail_out = static_cast<uInt>(cap);
    while (z.avail_out == cap) {
        if (z.avail_in == 0 && !f.eof) {
            ssize_t got = ReadSome(in->fd, f.in.data(), f.in.size());
            if (got < 0) return *error = ReadError(), -1;
            f.eof = got == 0;
            z.next_in = f.in.data();
            z.avail_in = static_cast<uInt>(got);
            in->compressedRead += static_cast<uint64_t>(got);
        }
        // Gathering checkpoints, inflate stops at each block's end, where
        // one may be taken.
        int status = inflate(&z, in->checkpoints ? Z_BLOCK : Z_NO_FLUSH);
        if (status == Z_OK && in->checkpoints) TakeCheckpoint(in);
        if (status == Z_STREAM_END) {
            f.streamEnd = true;
            break;
        }
        // No progress for want of input: more is read, unless there is none.
        if (status == Z_BUF_ERROR && z.avail_in == 0) {
            if (!f.eof) continue;
            *error = Damaged("the file ends inside its compressed stream");
            return -1;
        }
        if (status != Z_OK) {
            char text[160];
            snprintf(text, sizeof text, "the deflate data is invalid at byte %llu of the compressed file (%s)",
                     static_cast<unsigned long long>(in->compressedRead - z.avail_in), z.msg ? z.msg : "no reason");
            *error = Damaged(text);
            return -1;
        }
    }
    size_t produced = cap - z.avail_out;
    f.adler = adler32(f.adler, buf, static_cast<uInt>(produced));
    if (f.streamEnd && !f.fromCheckpoint && !CheckTrailer(in, error)) return -1;
    return static_cast<ssize_t>(produced);
}

ssize_t DtlInputRead(DtlInput* in, uint8_t* buf, size_t cap, std::string* error) {
    if (cap == 0) return 0;
    if (in->compressed) return Inflate(in, buf, cap > (1u << 30) ? 1u << 30 : cap, error);
    if (in->pendingLen) {
        size_t n = in->pendingLen < cap ? in->pendingLen : cap;
        memcpy(buf, in->pending, n);
        memmove(in->pending, in->pending + n, in->pendingLen - n);
        in->pendingLen -= n;
        return static_cast<ssize_t>(n);
    }
    ssize_t got = ReadSome(in->fd, buf, cap);
    if (got < 0) *error = ReadError();
    return got;
}

void DtlInputClose(DtlInput* in) {
    if (in->fd >= 0) close(in->fd);
    in->fd = -1;
    if (in->inflater) {
        inflateEnd(&in->inflater->z);
        delete in->inflater;
        in->inflater = nullptr;
    }
}

bool DtlSeekOpen(DtlSeeker* seeker, const char* path, bool compressed, DtlCheckpoints checkpoints,
                 std::string* error) {
    DtlInput& in = seeker->input;
    in.fd = open(path, O_RDONLY | O_CLOEXEC);
    if (in.fd < 0) {
        *error = std::string("cannot open: ") + strerror(errno);
        return false;
    }
    in.compressed = compressed;
    seeker->checkpoints = std::move(checkpoints);
    if (!compressed) return true;
    // The start of the raw deflate data, behind the zlib header.
    std::vector<DtlCheckpoint>& points = seeker->checkpoints.points;
    if (points.empty() || points[0].plainPos != 0) points.insert(points.begin(), DtlCheckpoint{0, 2, 0, {}});
    in.inflater = new DtlInflater;
    in.inflater->in.resize(INFLATE_INPUT_SIZE);
    in.inflater->fromCheckpoint = true;
    if (inflateInit2(&in.inflater->z, -MAX_WBITS) != Z_OK) {
        *error = Damaged("the inflater could not start");
        return false;
    }
    seeker->plainAt = UINT64_MAX;  // nowhere yet
    return true;
}

// Starts the inflater afresh at the last checkpoint at or before pos.
static bool Restart(DtlSeeker* s, const DtlCheckpoint& point, std::string* error) {
    DtlInput& in = s->input;
    DtlInflater& f = *in.inflater;
    inflateReset(&f.z);
    f.z.avail_in = 0;
    f.eof = f.streamEnd = false;
    off_t from = static_cast<off_t>(point.compressedPos - (point.bits ? 1 : 0));
    if (lseek(in.fd, from, SEEK_SET) != from) return *error = ReadError(), false;
    in.compressedRead = static_cast<uint64_t>(from);
    if (point.bits) {
        uint8_t byte;
        if (ReadSome(in.fd, &byte, 1) != 1)
            return *error = Damaged("the file ends inside its compressed stream"), false;
        in.compressedRead++;
        inflatePrime(&f.z, point.bits, byte >> (8 - point.bits));
    }
    if (!point.window.empty()) inflateSetDictionary(&f.z, point.window.data(), static_cast<uInt>(point.window.size()));
    s->plainAt = point.plainPos;
    return true;
}

ssize_t DtlSeekRead(DtlSeeker* s, uint64_t pos, uint8_t* buf, size_t cap, std::string* error) {
    if (cap == 0) return 0;
    if (!s->input.compressed) {
        for (;;) {
            ssize_t got = pread(s->input.fd, buf, cap, static_cast<off_t>(pos));
            if (got >= 0 || errno != EINTR) {
                if (got < 0) *error = ReadError();
                return got;
            }
        }
    }
    // Going on from where the last read ended beats a checkpoint behind it.
    const std::vector<DtlCheckpoint>& points = s->checkpoints.points;
    auto after = std::upper_bound(points.begin(), points.end(), pos,
                                  [](uint64_t at, const DtlCheckpoint& p) { return at < p.plainPos; });
    bool onward = s->plainAt <= pos && s->plainAt >= (after - 1)->plainPos;
    if (!onward && !Restart(s, *(after - 1), error)) return -1;
    uint8_t skip[65536];
    while (s->plainAt < pos) {
        ssize_t got = DtlInputRead(&s->input, skip, std::min<uint64_t>(sizeof skip, pos - s->plainAt), error);
        if (got <= 0) return got;
        s->plainAt += static_cast<uint64_t>(got);
    }
    ssize_t got = DtlInputRead(&s->input, buf, cap, error);
    if (got > 0) s->plainAt += static_cast<uint64_t>(got);
    return got;
}

void DtlSeekClose(DtlSeeker* s) { DtlInputClose(&s->input); }
