#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "log/log.h"
#include "scan/recall.h"
#include "tests/support/testutil.h"

// Points the error output at a file for one test; log and errors count as
// combined, so each message is written once.
struct CapturedErrors {
    ScopedTempDir dir;
    CapturedErrors() {
        errFile = fopen((dir / "err").c_str(), "w+");
        logFile = stdout;
        errLogCombined = 1;
    }
    ~CapturedErrors() {
        fclose(errFile);
        errFile = logFile = nullptr;
        errLogCombined = 0;
    }
    std::string Text() {
        fflush(errFile);
        return ReadFile(dir / "err");
    }
};

TEST(ForceFileRecall, LeavesLengthAndContentAndReportsEachFailure) {
    enum Kind { WRITABLE, READ_ONLY, PIPE };
    struct Case {
        const char* what;
        Kind kind;
        std::string content;
        std::string errors;
    } cases[] = {
        {"empty file", WRITABLE, "", ""},
        {"file with data", WRITABLE, "offline data", ""},
        {"read-only descriptor", READ_ONLY, "abc",
         "Error touching (write) '/r/f'\n  (p9) Bad file descriptor\n"
         "Error touching (truncate) '/r/f'\n  (p-1) Unknown error -1\n"},
        {"not seekable", PIPE, "", "Error touching (seek) '/r/f'\n  (p29) Illegal seek\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        CapturedErrors errors;
        std::string path = errors.dir / "f";
        WriteFile(path, c.content);
        int fds[2] = {-1, -1};
        int fd;
        if (c.kind == PIPE) {
            ASSERT_EQ(pipe(fds), 0);
            fd = fds[1];
        } else {
            fd = open(path.c_str(), c.kind == READ_ONLY ? O_RDONLY : O_RDWR);
        }
        ASSERT_GE(fd, 0);
        alignas(16) char memory[64];
        ASSERT_LE(AccessStructLength(nullptr, "/r", "/", "f"), static_cast<int>(sizeof memory));
        ForceFileRecall(fd, static_cast<int64_t>(c.content.size()), BuildAccessPaths(nullptr, "/r", "/", "f", memory));
        close(fd);
        if (c.kind == PIPE) close(fds[0]);
        EXPECT_EQ(errors.Text(), c.errors);
        EXPECT_EQ(ReadFile(path), c.content);
    }
}
