#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "scan/recall.h"
#include "tests/support/testutil.h"

TEST(ForceFileRecall, LeavesLengthAndContentAndReportsEachFailure) {
    struct Case {
        int openFlags;
        std::string errors;
    } cases[] = {
        {O_RDWR, ""},
        {O_RDONLY, "Error touching (write) '/r/f'\n  (p9) Bad file descriptor\n"
                   "Error touching (truncate) '/r/f'\n  (p-1) Unknown error -1\n"},
    };
    for (const auto& c : cases) {
        ScopedTempDir dir;
        WriteFile(dir / "f", "offline data");
        int fd = open((dir / "f").c_str(), c.openFlags);
        ASSERT_GE(fd, 0);
        alignas(16) char memory[64];
        ASSERT_LE(AccessStructLength(nullptr, "/r", "/", "f"), static_cast<int>(sizeof memory));
        AccessPaths* paths = BuildAccessPaths(nullptr, "/r", "/", "f", memory);
        EXPECT_EQ(WrittenTo(errFile, [&] { ForceFileRecall(fd, 12, paths); }), c.errors);
        close(fd);
        EXPECT_EQ(ReadFile(dir / "f"), "offline data");
    }
}
