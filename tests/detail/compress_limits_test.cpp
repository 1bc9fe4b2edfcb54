// Compression at the limits: a directory without room for the compressed
// copy, a file-size limit below it, and a detail file of more than 4 GiB.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <random>
#include <set>
#include <vector>

#include "detail/compress.h"
#include "detail/dtlfile.h"
#include "tests/support/testutil.h"

namespace {

std::string Incompressible(size_t bytes) {
    std::mt19937 rng(3);
    std::string s(bytes, '\0');
    for (char& c : s) c = static_cast<char>(rng());
    return s;
}

// The message of a compression whose temporary file could not be written.
std::string NoTempFile(const std::string& path, int errnum) {
    return "Error occurred during compression of '" + path + "'\nCould not write temp file: " + path +
           "-[0-9]+\\.tmp\n  \\(p" + std::to_string(errnum) + "\\) ";
}

// The compressed stream is written into a map of the temporary file, so a
// file system that runs out of room raises a bus error while the deflater
// writes: it must end as any failed write does, with the message, the plain
// file intact and no temporary file left.
TEST(CompressionLimits, NoRoomForTheCompressedCopy) {
    ScopedTempDir dir;
    const std::string small = dir / "small";
    ASSERT_EQ(mkdir(small.c_str(), 0700), 0);
    if (mount("ferrovan-test", small.c_str(), "tmpfs", 0, "size=2m") != 0) {
        GTEST_SKIP() << "cannot mount a 2 MiB tmpfs (" << strerror(errno)
                     << "): needs root with CAP_SYS_ADMIN; CompressionLimits.FileSizeLimit covers the message";
    }
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{small};
    // 1.5 MiB that deflate cannot shrink, in 2 MiB: the copy finds half a MiB.
    const std::string path = small + "/ferro.dtl", plain = Incompressible(1536 * 1024);
    WriteFile(path, plain);
    EXPECT_EXIT(CloseDtlFile(nullptr, path.c_str(), 1), testing::ExitedWithCode(1), NoTempFile(path, ENOSPC));
    EXPECT_EQ(Entries(small), std::set<std::string>{"ferro.dtl"});
    EXPECT_TRUE(ReadFile(path) == plain);
    // With room, the same file compresses (the guard is gone with the call).
    WriteFile(path, std::string(1536 * 1024, 'z'));
    testing::internal::CaptureStdout();
    CloseDtlFile(nullptr, path.c_str(), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Compressing DTL file\n");
    EXPECT_EQ(ReadFile(path).substr(0, 2), "\x78\x01");
}

// A limit on file size (RLIMIT_FSIZE) below the compressed copy's size.
TEST(CompressionLimits, FileSizeLimit) {
    ScopedTempDir dir;
    const std::string path = dir / "ferro.dtl", plain = Incompressible(1 << 20);
    WriteFile(path, plain);
    auto limited = [&] {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{65536, 65536};
        setrlimit(RLIMIT_FSIZE, &limit);
        CloseDtlFile(nullptr, path.c_str(), 1);
    };
    EXPECT_EXIT(limited(), testing::ExitedWithCode(1), NoTempFile(path, EFBIG));
    EXPECT_EQ(Entries(dir.path), std::set<std::string>{"ferro.dtl"});
    EXPECT_TRUE(ReadFile(path) == plain);
}

// A detail file of 4 GiB and more is compressed whole, not its size modulo
// 2^32: a sparse file with marks on both sides of the 4 GiB line, inflated
// by zlib's own wrapper (which checks the header and the Adler-32 trailer).
TEST(CompressionLimits, FilesOf4GiBAndMoreAreCompressedWhole) {
    ScopedTempDir dir;
    const std::string plain = dir / "big.dtl", packed = dir / "big.z";
    const uint64_t size = (uint64_t{4} << 30) + 3 * 4096 + 123;
    struct statvfs vfs;
    ASSERT_EQ(statvfs(dir.path.c_str(), &vfs), 0);
    // Holes cost nothing; the marks' blocks and the stream (about 4 MiB) do.
    if (uint64_t{vfs.f_bavail} * vfs.f_frsize < (uint64_t{64} << 20)) {
        GTEST_SKIP() << "less than 64 MiB free in " << dir.path;
    }
    int fd = open(plain.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    ASSERT_GE(fd, 0);
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        close(fd);
        GTEST_SKIP() << "the file system of " << dir.path << " holds no file of " << size << " bytes ("
                     << strerror(errno) << ")";
    }
    const std::vector<std::pair<uint64_t, std::string>> marks = {{0, "FDTL"},
                                                                 {(uint64_t{1} << 32) - 5, "across the 4 GiB line"},
                                                                 {(uint64_t{1} << 32) + 4096, "beyond"},
                                                                 {size - 4, "end!"}};
    for (const auto& [at, text] : marks)
        ASSERT_EQ(pwrite(fd, text.data(), text.size(), static_cast<off_t>(at)), static_cast<ssize_t>(text.size()));
    close(fd);

    testing::internal::CaptureStdout();
    int status = compressFile(plain.c_str(), packed.c_str());
    std::string said = testing::internal::GetCapturedStdout();
    ASSERT_EQ(status, 0) << said;
    unlink(plain.c_str());

    // Inflate in pieces, checking every byte: the marks where they were put,
    // zeros everywhere else, and exactly size bytes.
    std::string stream = ReadFile(packed);
    ASSERT_EQ(stream.substr(0, 2), "\x78\x01");
    z_stream z{};
    ASSERT_EQ(inflateInit(&z), Z_OK);
    z.next_in = reinterpret_cast<Bytef*>(stream.data());
    z.avail_in = static_cast<uInt>(stream.size());
    std::vector<unsigned char> piece(1 << 24);
    const std::vector<unsigned char> zeros(piece.size(), 0);
    uint64_t at = 0, wrongPieces = 0;
    int result = Z_OK;
    while (result == Z_OK) {
        z.next_out = piece.data();
        z.avail_out = static_cast<uInt>(piece.size());
        result = inflate(&z, Z_NO_FLUSH);
        size_t got = piece.size() - z.avail_out;
        // Each mark's bytes are checked and cleared; the piece must then be zeros.
        for (const auto& [markAt, text] : marks) {
            for (size_t i = 0; i < text.size(); i++) {
                if (markAt + i < at || markAt + i >= at + got) continue;
                unsigned char& byte = piece[markAt + i - at];
                if (byte != static_cast<unsigned char>(text[i])) wrongPieces++;
                byte = 0;
            }
        }
        if (memcmp(piece.data(), zeros.data(), got) != 0) wrongPieces++;
        at += got;
    }
    inflateEnd(&z);
    EXPECT_EQ(result, Z_STREAM_END);  // the trailer's Adler-32 matched
    EXPECT_EQ(z.avail_in, 0u);
    EXPECT_EQ(at, size);
    EXPECT_EQ(wrongPieces, 0u);
}

}  // namespace
