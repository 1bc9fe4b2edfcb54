#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "detail/compress.h"
#include "tests/support/testutil.h"

// Detail-like content: 48-byte records with varying fields and names.
static std::string DetailLike(size_t bytes) {
    std::string s;
    std::mt19937 rng(7);
    for (uint32_t i = 0; s.size() < bytes; i++) {
        char record[48] = {};
        uint32_t fields[] = {0x80000000u, 1000, 1000, 5000000 + i, 0100644, static_cast<uint32_t>(1700000000 + rng() % 86400)};
        memcpy(record, fields, sizeof fields);
        s.append(record, sizeof record);
        s += "file-" + std::to_string(rng() % 5000) + ".txt";
        s += '\0';
    }
    s.resize(bytes);
    return s;
}

static std::string Random(size_t bytes) {
    std::mt19937 rng(11);
    std::string s(bytes, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
}

// Runs op with standard output captured; returns what it printed.
template <typename Op>
static std::string Stdout(Op op) {
    testing::internal::CaptureStdout();
    op();
    return testing::internal::GetCapturedStdout();
}

// Our streams restore every byte and the permissions, and an independent zlib
// (python's) reads them; ours reads its level-1 streams, whose header is 0x78 0x01.
TEST(Compression, RoundTripsAgreeWithAnIndependentZlib) {
    const char* zlib = "import sys, zlib\n"
                       "data = open(sys.argv[2], 'rb').read()\n"
                       "out = zlib.compress(data, 1) if sys.argv[1] == 'c' else zlib.decompress(data)\n"
                       "open(sys.argv[3], 'wb').write(out)\n";
    struct Case {
        const char* what;
        std::string plain;
    } cases[] = {
        {"empty", ""},
        {"small", "FDTL" + std::string(84, '\0') + "one record"},
        {"compressible, several buffers", DetailLike(2 * COMPRESS_BUFFER_SIZE + 12345)},
        {"incompressible, several buffers", Random(2 * COMPRESS_BUFFER_SIZE + 777)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ScopedTempDir dir;
        WriteFile(dir / "plain", c.plain);
        chmod((dir / "plain").c_str(), 0640);
        ASSERT_EQ(compressFile((dir / "plain").c_str(), (dir / "packed").c_str()), 0);
        EXPECT_EQ(ReadFile(dir / "packed").substr(0, 2), "\x78\x01");
        ASSERT_EQ(decompressFile((dir / "packed").c_str(), (dir / "back").c_str()), 0);
        EXPECT_TRUE(ReadFile(dir / "back") == c.plain);
        struct stat st;
        ASSERT_EQ(stat((dir / "back").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0640u);

        RunResult r = RunProgram("python3", {"-c", zlib, "d", dir / "packed", dir / "theirs-back"});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(ReadFile(dir / "theirs-back") == c.plain);
        r = RunProgram("python3", {"-c", zlib, "c", dir / "plain", dir / "theirs"});
        ASSERT_EQ(r.status, 0) << r.err;
        ASSERT_EQ(decompressFile((dir / "theirs").c_str(), (dir / "ours-back").c_str()), 0);
        EXPECT_TRUE(ReadFile(dir / "ours-back") == c.plain);
    }
}

TEST(Compression, BadStreamsFailWithTheirStatusAndLeaveNoOutput) {
    ScopedTempDir dir;
    std::string plain = DetailLike(COMPRESS_BUFFER_SIZE + 999);
    WriteFile(dir / "plain", plain);
    ASSERT_EQ(compressFile((dir / "plain").c_str(), (dir / "good").c_str()), 0);
    const std::string good = ReadFile(dir / "good");
    auto flipped = [&](size_t at, int bits) {
        std::string s = good;
        s[at] = static_cast<char>(s[at] ^ bits);
        return s;
    };
    struct Case {
        const char* what;
        std::string packed;
        int status;
    } cases[] = {
        // The first block's type turns from dynamic (2) into the invalid 3.
        {"corrupt deflate data", flipped(2, 0x02), INFLATE_CORRUPT},
        {"wrong trailer", flipped(good.size() - 1, 0x01), INFLATE_BAD_CHECKSUM},
        {"other zlib header", "\x78\x9c" + good.substr(2), INFLATE_BAD_HEADER},
        {"header only", "\x78\x01", INFLATE_TRUNCATED},
        {"cut inside the stream", good.substr(0, good.size() / 2), INFLATE_TRUNCATED},
        {"bytes after the trailer", good + "x", INFLATE_TRAILING_DATA},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        WriteFile(dir / "bad", c.packed);
        int result = -1;
        std::string out = Stdout([&] { result = decompressFile((dir / "bad").c_str(), (dir / "out").c_str()); });
        EXPECT_EQ(result, 1);
        EXPECT_EQ(errno, EBADMSG);
        EXPECT_EQ(out, "tinfl_decompress() failed with status " + std::to_string(c.status) + "!\n");
        EXPECT_FALSE(PathExists(dir / "out"));
    }
}
