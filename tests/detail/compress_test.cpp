// Compression of the detail file: in place when it is closed, the zlib
// streams themselves, and the failures of the rewrite and of the inflater.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <random>
#include <set>

#include "detail/compress.h"
#include "detail/dtlfile.h"
#include "tests/support/testutil.h"

namespace {

// Detail-like content: 48-byte records with varying fields and names.
std::string DetailLike(size_t bytes) {
    std::string s;
    std::mt19937 rng(7);
    for (uint32_t i = 0; s.size() < bytes; i++) {
        char record[48] = {};
        uint32_t fields[] = {0x80000000u, 1000, 1000, 5000000 + i, 0100644,
                             static_cast<uint32_t>(1700000000 + rng() % 86400)};
        memcpy(record, fields, sizeof fields);
        s.append(record, sizeof record);
        s += "file-" + std::to_string(rng() % 5000) + ".txt";
        s += '\0';
    }
    s.resize(bytes);
    return s;
}

std::string Random(size_t bytes) {
    std::mt19937 rng(11);
    std::string s(bytes, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
}

// Runs op with standard output captured; returns what it printed.
template <typename Op>
std::string Stdout(Op op) {
    testing::internal::CaptureStdout();
    op();
    return testing::internal::GetCapturedStdout();
}

// In-place compression keeps the permissions, an independent zlib (python's)
// reads what it wrote, and the reader's inflater restores every byte.
TEST(Compression, InPlaceRoundTripsAgreeWithAnIndependentZlib) {
    const char* inflate = "import sys, zlib\n"
                          "open(sys.argv[2], 'wb').write(zlib.decompress(open(sys.argv[1], 'rb').read()))\n";
    const std::string cases[] = {"", DetailLike(2 * COMPRESS_BUFFER_SIZE + 12345),
                                 Random(2 * COMPRESS_BUFFER_SIZE + 777)};
    for (const std::string& plain : cases) {
        SCOPED_TRACE(plain.size());
        ScopedTempDir dir;
        const std::string path = dir / "ferro.dtl";
        WriteFile(path, plain);
        chmod(path.c_str(), 0640);
        EXPECT_EQ(Stdout([&] { CloseDtlFile(fopen(path.c_str(), "rb"), path.c_str(), 1); }), "Compressing DTL file\n");
        EXPECT_EQ(ReadFile(path).substr(0, 2), "\x78\x01");
        EXPECT_EQ(Entries(dir.path), std::set<std::string>{"ferro.dtl"});
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0640u);
        RunResult r = RunProgram("python3", {"-c", inflate, path, dir / "theirs-back"});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(ReadFile(dir / "theirs-back") == plain);

        int in = open(path.c_str(), O_RDONLY), out = open((dir / "back").c_str(), O_WRONLY | O_CREAT, 0600);
        EXPECT_EQ(InflateFd(in, out), 0);
        close(in);
        close(out);
        EXPECT_TRUE(ReadFile(dir / "back") == plain);
    }
}

// The reader's inflater refuses a damaged stream quietly, with the EBADMSG
// that the reader reports: a bad block, a bad checksum, a stream cut short.
TEST(Compression, TheInflaterRefusesDamagedStreams) {
    ScopedTempDir dir;
    WriteFile(dir / "plain", DetailLike(COMPRESS_BUFFER_SIZE + 999));
    ASSERT_EQ(compressFile((dir / "plain").c_str(), (dir / "good").c_str()), 0);
    const std::string good = ReadFile(dir / "good");
    std::string badBlock = good, badSum = good;
    badBlock[2] ^= 0x02;  // the first block's type turns from dynamic (2) into the invalid 3
    badSum.back() ^= 0x01;
    for (const std::string& bad : {badBlock, badSum, good.substr(0, good.size() / 2)}) {
        WriteFile(dir / "bad", bad);
        int in = open((dir / "bad").c_str(), O_RDONLY), out = open("/dev/null", O_WRONLY), result = 0, error = 0;
        EXPECT_EQ(Stdout([&] { result = InflateFd(in, out, true), error = errno; }), "");
        EXPECT_EQ(result, 1);
        EXPECT_EQ(error, EBADMSG);
        close(in);
        close(out);
    }
}

// Every failure of the in-place compression ends the run with its message,
// leaves the detail file as it was, removes its own temporary file and never
// touches anyone else's.
TEST(Compression, FailuresAreFatalAndLeaveTheOriginalAndNoTemporaryFile) {
    ScopedTempDir dir;
    const std::string plain = Random(COMPRESS_BUFFER_SIZE + 100), path = dir / "ferro.dtl";
    // A path whose temporary name does not fit the 1024-byte name buffer.
    std::string deep = dir.path;
    for (int i = 0; i < 5; i++) mkdir((deep += "/" + std::string(200, 'd')).c_str(), 0700);
    const std::string tooLong = deep + "/ferro.dtl";
    const std::string exists =
        "Error. Could not write temp file for decompressing '" + path + "'\n  \\(p17\\) File exists\n";
    struct Case {
        std::string path;
        char plant;            // in the temporary names: 'f' a file, 'l' a link to a file
        rlim_t fileSizeLimit;  // 0: none
        std::string message;
    } cases[] = {
        {path, 'f', 0, exists},
        {path, 'l', 0, exists},
        {path, 0, 4096,  // fails once its temporary file is written
         "Error occurred during compression of '" + path + "'\nCould not write temp file: " + path +
             "-[0-9]+.tmp\n  \\(p27\\) File too large\n"},
        {tooLong, 0, 0,
         "DTL file path too long for its temporary file \\(more than 1023 bytes\\): '" + tooLong + "'\n"},
    };
    WriteFile(dir / "target", "link target");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        WriteFile(c.path, plain);
        std::vector<std::string> temps;  // the names the run may pick in the next few seconds
        for (time_t t = time(nullptr), end = t + 3; t < end; t++)
            temps.push_back(c.path + "-" + std::to_string(t) + ".tmp");
        for (const std::string& temp : temps) {
            if (c.plant == 'f') WriteFile(temp, "planted");
            ASSERT_TRUE(c.plant != 'l' || symlink((dir / "target").c_str(), temp.c_str()) == 0) << temp;
        }
        const std::set<std::string> before = Entries(dir.path);
        auto compress = [&] {
            if (c.fileSizeLimit) {
                signal(SIGXFSZ, SIG_IGN);  // a write past the limit fails with EFBIG instead
                rlimit limit{c.fileSizeLimit, c.fileSizeLimit};
                setrlimit(RLIMIT_FSIZE, &limit);
            }
            CloseDtlFile(nullptr, c.path.c_str(), 1);
        };
        EXPECT_EXIT(compress(), testing::ExitedWithCode(1), c.message);
        EXPECT_EQ(Entries(dir.path), before);
        EXPECT_TRUE(ReadFile(c.path) == plain);
        EXPECT_EQ(ReadFile(dir / "target"), "link target");
        for (const std::string& temp : temps) unlink(temp.c_str());
    }
}

}  // namespace
