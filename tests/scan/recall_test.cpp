#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "log/log.h"
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
        char* text = nullptr;
        size_t size = 0;
        errFile = open_memstream(&text, &size);
        errLogCombined = 1;  // each message once, to the error output
        alignas(16) char memory[64];
        ASSERT_LE(AccessStructLength(nullptr, "/r", "/", "f"), static_cast<int>(sizeof memory));
        ForceFileRecall(fd, 12, BuildAccessPaths(nullptr, "/r", "/", "f", memory));
        close(fd);
        fclose(errFile);
        errFile = nullptr;
        errLogCombined = 0;
        EXPECT_EQ(std::string(text, size), c.errors);
        free(text);
        EXPECT_EQ(ReadFile(dir / "f"), "offline data");
    }
}
