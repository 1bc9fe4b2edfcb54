// Compression of the detail file: in place when it is closed, read back by an
// independent zlib; the failures of the rewrite, a directory without room
// for the compressed copy, a detail file of more than 4 GiB, and the
// inflater's refusals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "detail/compress.h"
#include "detail/dtlfile.h"
#include "tests/support/testutil.h"

namespace {

// Bytes that deflate cannot shrink: the compressed copy is the larger one.
std::string Random(size_t bytes) {
    std::mt19937 rng(11);
    std::string s(bytes, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
}

// The message of a compression whose temporary file could not be written.
std::string NoTempFile(const std::string& path, int errnum) {
    return "Error occurred during compression of '" + path + "'\nCould not write temp file: " + path +
           "-[0-9]+\\.tmp\n  \\(p" + std::to_string(errnum) + "\\) ";
}

// Pieces of every kind of block: stored (random bytes), coded, zeros, each
// piece's end falling inside one.
std::string Mixed() {
    std::string text;
    for (int i = 0; text.size() < DEFLATE_PIECE; i++)
        text += "/srv/data/" + std::to_string(i * 7919 % 100003) + ".log\n";
    return Random(DEFLATE_PIECE + 4097) + text + std::string(DEFLATE_PIECE / 2, '\0') + Random(777);
}

// In-place compression keeps the permissions, an independent zlib (python's)
// reads what it wrote, and the program's own inflater restores every byte;
// several pieces of the file are joined into the one stream, the same
// stream whether one processor deflates them or several do.
TEST(Compression, InPlaceRoundTripsAgreeWithAnIndependentZlib) {
    const char* inflate = "import sys, zlib\n"
                          "open(sys.argv[2], 'wb').write(zlib.decompress(open(sys.argv[1], 'rb').read()))\n";
    cpu_set_t all, one;
    ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
    CPU_ZERO(&one);
    int cpu = 0;
    while (!CPU_ISSET(cpu, &all)) cpu++;
    CPU_SET(cpu, &one);
    const std::string mixed = Mixed();
    for (const std::string& plain :
         {std::string(), Random(2 * COMPRESS_BUFFER_SIZE + 777), mixed, mixed.substr(0, 2 * DEFLATE_PIECE)}) {
        SCOPED_TRACE(plain.size());
        ScopedTempDir dir;
        const std::string path = dir / "ferro.dtl";
        WriteFile(path, plain);
        chmod(path.c_str(), 0640);
        testing::internal::CaptureStdout();
        CloseDtlFile(fopen(path.c_str(), "rb"), path.c_str(), 1);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "Compressing DTL file\n");
        EXPECT_EQ(ReadFile(path).substr(0, 2), "\x78\x01");
        EXPECT_EQ(Entries(dir.path), std::set<std::string>{"ferro.dtl"});
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0640u);
        RunResult r = RunProgram("python3", {"-c", inflate, path, dir / "theirs-back"});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_TRUE(ReadFile(dir / "theirs-back") == plain);
        EXPECT_EQ(decompressFile(path.c_str(), (dir / "back").c_str()), 0);
        EXPECT_TRUE(ReadFile(dir / "back") == plain);
        ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
        int alone = compressFile((dir / "back").c_str(), (dir / "alone").c_str());
        ASSERT_EQ(sched_setaffinity(0, sizeof all, &all), 0);
        ASSERT_EQ(alone, 0);
        EXPECT_TRUE(ReadFile(dir / "alone") == ReadFile(path));
    }
}

// The program's own inflater (decompressFile's) refuses a damaged stream,
// quietly when asked, with EBADMSG: a bad block, a bad checksum, a stream
// cut short.
TEST(Compression, TheInflaterRefusesDamagedStreams) {
    ScopedTempDir dir;
    WriteFile(dir / "plain", Random(COMPRESS_BUFFER_SIZE + 999));
    ASSERT_EQ(compressFile((dir / "plain").c_str(), (dir / "good").c_str()), 0);
    const std::string good = ReadFile(dir / "good");
    std::string badBlock = good, badSum = good;
    badBlock[2] |= 0x06;  // the first block's type turns into the invalid 3
    badSum.back() ^= 0x01;
    const int out = open("/dev/null", O_WRONLY);
    for (const std::string& bad : {badBlock, badSum, good.substr(0, good.size() / 2)}) {
        WriteFile(dir / "bad", bad);
        int in = open((dir / "bad").c_str(), O_RDONLY);
        testing::internal::CaptureStdout();
        int result = InflateFd(in, out, true), error = errno;
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
        EXPECT_EQ(std::pair(result, error), std::pair(1, EBADMSG));
        close(in);
    }
    close(out);
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
    struct Case {
        std::string path;
        bool planted;          // the temporary names are links to someone else's file
        rlim_t fileSizeLimit;  // 0: none; else the write fails once its temporary file is made
        std::string message;
    } cases[] = {
        {path, true, 0, "Error. Could not write temp file for decompressing '" + path + "'\n  \\(p17\\) File exists\n"},
        {path, false, 4096, NoTempFile(path, EFBIG)},
        {tooLong, false, 0,
         "DTL file path too long for its temporary file \\(more than 1023 bytes\\): '" + tooLong + "'\n"},
    };
    WriteFile(dir / "target", "link target");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        WriteFile(c.path, plain);
        std::vector<std::string> temps;  // the names the run may pick in the next few seconds
        for (time_t t = time(nullptr), end = t + 3; t < end; t++)
            temps.push_back(c.path + "-" + std::to_string(t) + ".tmp");
        for (const std::string& temp : temps)
            ASSERT_TRUE(!c.planted || symlink((dir / "target").c_str(), temp.c_str()) == 0) << temp;
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

// The compressed stream is written into a map of the temporary file, so a
// file system that runs out of room raises a bus error while the deflater
// writes, on whichever thread deflates the piece: it must end as any failed
// write does, with the message, the plain file intact and no temporary file
// left. Room for the stream and one piece more is enough: a piece's slot is
// given back once its stream has moved to the front.
TEST(Compression, RoomForTheCompressedCopy) {
    ScopedTempDir dir;
    const std::string small = dir / "small";
    ASSERT_EQ(mkdir(small.c_str(), 0700), 0);
    if (mount("ferrovan-test", small.c_str(), "tmpfs", 0, "size=64m") != 0) {
        GTEST_SKIP() << "cannot mount a 64 MiB tmpfs (" << strerror(errno) << "): needs root with CAP_SYS_ADMIN; "
                     << "the file-size limit of Compression.FailuresAreFatal... covers the message";
    }
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{small};
    // 48 MiB in 64: pieces that deflate cannot shrink need 48 more and fail;
    // pieces of 1 MiB of random bytes and 3 of zeros make a 12 MiB stream,
    // whose slots would take 12 more if they were not given back.
    const std::string path = small + "/ferro.dtl";
    std::string quarter;
    for (int i = 0; i < 12; i++) quarter += Random(1 << 20) + std::string(3 << 20, '\0');
    for (const std::string& plain : {Random(48 << 20), quarter}) {
        WriteFile(path, plain);
        if (plain != quarter) {
            EXPECT_EXIT(CloseDtlFile(nullptr, path.c_str(), 1), testing::ExitedWithCode(1), NoTempFile(path, ENOSPC));
            EXPECT_TRUE(ReadFile(path) == plain);
        } else {
            testing::internal::CaptureStdout();
            CloseDtlFile(nullptr, path.c_str(), 1);
            EXPECT_EQ(testing::internal::GetCapturedStdout(), "Compressing DTL file\n");
            EXPECT_EQ(ReadFile(path).substr(0, 2), "\x78\x01");
        }
        EXPECT_EQ(Entries(small), std::set<std::string>{"ferro.dtl"});
    }
}

// A detail file of 4 GiB and more is compressed whole, not its size modulo
// 2^32: a sparse file with marks on both sides of the 4 GiB line, inflated
// by zlib's own wrapper (which checks the header and the Adler-32 trailer).
TEST(Compression, FilesOf4GiBAndMoreAreCompressedWhole) {
    ScopedTempDir dir;
    const std::string plain = dir / "big.dtl", packed = dir / "big.z";
    const uint64_t size = (uint64_t{4} << 30) + 3 * 4096 + 123;
    struct statvfs vfs;
    ASSERT_EQ(statvfs(dir.path.c_str(), &vfs), 0);
    // Holes cost nothing; the marks' blocks and the stream (about 4 MiB) do.
    if (uint64_t{vfs.f_bavail} * vfs.f_frsize < (uint64_t{64} << 20)) GTEST_SKIP() << "less than 64 MiB free";
    int fd = open(plain.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        GTEST_SKIP() << "no file of " << size << " bytes in " << dir.path << " (" << strerror(errno) << ")";
    }
    const std::vector<std::pair<uint64_t, std::string>> marks = {{0, "FDTL"},
                                                                 {(uint64_t{1} << 32) - 5, "across the 4 GiB line"},
                                                                 {(uint64_t{1} << 32) + 4096, "beyond"},
                                                                 {size - 4, "end!"}};
    for (const auto& [at, text] : marks)
        ASSERT_EQ(pwrite(fd, text.data(), text.size(), static_cast<off_t>(at)), static_cast<ssize_t>(text.size()));
    close(fd);
    ASSERT_EQ(compressFile(plain.c_str(), packed.c_str()), 0);
    unlink(plain.c_str());

    // Inflate in pieces, checking every byte: the marks where they were put,
    // zeros everywhere else, and exactly size bytes.
    std::string stream = ReadFile(packed);
    z_stream z{};
    ASSERT_EQ(inflateInit(&z), Z_OK);
    z.next_in = reinterpret_cast<Bytef*>(stream.data());
    z.avail_in = static_cast<uInt>(stream.size());
    std::vector<unsigned char> piece(1 << 24);
    const std::vector<unsigned char> zeros(piece.size(), 0);
    uint64_t at = 0, wrong = 0;
    int result = Z_OK;
    while (result == Z_OK) {
        z.next_out = piece.data();
        z.avail_out = static_cast<uInt>(piece.size());
        result = inflate(&z, Z_NO_FLUSH);
        size_t got = piece.size() - z.avail_out;
        // Each mark's bytes are checked and cleared; the piece must then be zeros.
        for (const auto& [markAt, text] : marks)
            for (uint64_t i = markAt; i < markAt + text.size(); i++)
                if (i >= at && i < at + got) wrong += std::exchange(piece[i - at], 0) != uint8_t(text[i - markAt]);
        wrong += memcmp(piece.data(), zeros.data(), got) != 0;
        at += got;
    }
    inflateEnd(&z);
    EXPECT_EQ(result, Z_STREAM_END);  // the trailer's Adler-32 matched
    EXPECT_EQ(z.avail_in, 0u);
    EXPECT_EQ(at, size);
    EXPECT_EQ(wrong, 0u);
}

}  // namespace
