// The browser's pieces below the screen: reading a compressed file again at
// any offset through the checkpoints taken while it was first read, and the
// mode as text. The screen itself is tested in a real terminal
// (browse_test.py).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <random>
#include <string>

#include "detail/compress.h"
#include "reader/browse.h"
#include "reader/dtlinput.h"
#include "tests/support/testutil.h"

namespace {

TEST(BrowseTest, ReadsACompressedFileAtAnyOffsetFromItsCheckpoints) {
    // Text that deflates into many blocks: words from a small vocabulary.
    std::mt19937 random(7);
    std::string plain;
    static const char* const words[] = {"alpha ", "beta ", "gamma ", "delta\n", "epsilon ", "zeta "};
    while (plain.size() < (3 << 20)) plain += words[random() % 6];
    ScopedTempDir dir;
    WriteFile(dir / "plain", plain);
    ASSERT_EQ(compressFile((dir / "plain").c_str(), (dir / "packed").c_str()), 0);

    DtlCheckpoints checkpoints;
    checkpoints.spacing = 64 << 10;
    DtlInput in;
    std::string error;
    ASSERT_TRUE(DtlInputOpen(&in, (dir / "packed").c_str(), &error)) << error;
    ASSERT_TRUE(in.compressed);
    in.checkpoints = &checkpoints;
    std::string read(plain.size() + 1, '\0');
    size_t got = 0;
    for (ssize_t n; (n = DtlInputRead(&in, reinterpret_cast<uint8_t*>(read.data()) + got, read.size() - got,
                                      &error)) > 0;)
        got += static_cast<size_t>(n);
    DtlInputClose(&in);
    ASSERT_EQ(read.substr(0, got), plain) << error;  // taking checkpoints changes nothing read
    ASSERT_GT(checkpoints.points.size(), 5u);

    for (bool compressed : {true, false}) {
        DtlSeeker s;
        ASSERT_TRUE(DtlSeekOpen(&s, (dir / (compressed ? "packed" : "plain")).c_str(), compressed, checkpoints, &error));
        // Forward, backward, across checkpoints, on from the last read, the end.
        const uint64_t at[] = {0, 100, 2500000, 70000, checkpoints.points[3].plainPos,
                               checkpoints.points[3].plainPos - 1, 70010, 3000000, plain.size() - 5};
        for (uint64_t pos : at) {
            uint8_t buf[777];
            ssize_t n = DtlSeekRead(&s, pos, buf, sizeof buf, &error);
            ASSERT_GT(n, 0) << pos << ": " << error;
            EXPECT_EQ(std::string(reinterpret_cast<char*>(buf), static_cast<size_t>(n)), plain.substr(pos, n))
                << (compressed ? "compressed at " : "plain at ") << pos;
        }
        uint8_t byte;
        EXPECT_EQ(DtlSeekRead(&s, plain.size(), &byte, 1, &error), 0);
        DtlSeekClose(&s);
    }
}

TEST(BrowseTest, ModeAsText) {
    const std::pair<uint32_t, const char*> cases[] = {
        {S_IFDIR | 0755, "drwxr-xr-x"}, {S_IFREG | 0644, "-rw-r--r--"},  {S_IFLNK | 0777, "lrwxrwxrwx"},
        {S_IFREG | 04755, "-rwsr-xr-x"}, {S_IFREG | 02640, "-rw-r-S---"}, {S_IFDIR | 01777, "drwxrwxrwt"},
        {S_IFDIR | 01770, "drwxrwx--T"}, {S_IFIFO | 0600, "prw-------"},  {S_IFCHR | 0620, "crw--w----"},
        {S_IFBLK | 0660, "brw-rw----"},  {S_IFSOCK | 0777, "srwxrwxrwx"},
    };
    for (const auto& [mode, text] : cases) EXPECT_EQ(ModeText(mode), text) << std::oct << mode;
}

}  // namespace
