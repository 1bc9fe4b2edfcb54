#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "log/log.h"
#include "tests/support/testutil.h"

TEST(LogRouting, ErrorsGoToTheErrorFileAndToTheLogUnlessCombined) {
    const std::string errors = "Could not stat() '/r/\xff\xfe'\n  (p2) No such file or directory\n"
                               "Unable to open directory '/r'\n  (p13) Permission denied\nplain error\n";
    for (bool combined : {false, true}) {
        char *log = nullptr, *err = nullptr;
        size_t logSize = 0, errSize = 0;
        logFile = open_memstream(&log, &logSize);
        errFile = open_memstream(&err, &errSize);
        errLogCombined = combined;
        LogEntry("banner %d\n", 7);
        errno = ENOENT;
        LogPosixErr(0, "Could not stat() '%s'\n", "/r/\xff\xfe");
        LogPosixErr(EACCES, "Unable to open directory '%s'\n", "/r");
        LogErr("plain %s\n", "error");
        // A memory stream shows what was flushed: each message is in its file
        // as soon as it is logged, so a run killed at any moment leaves its
        // log whole up to its last message.
        EXPECT_EQ(std::string(err, errSize), errors);
        EXPECT_EQ(std::string(log, logSize), combined ? "banner 7\n" : "banner 7\n" + errors);
        fclose(logFile);
        fclose(errFile);
        logFile = errFile = nullptr;
        errLogCombined = 0;
        free(log);
        free(err);
    }
}

TEST(MakeFilename, ReplacesPercentDWithTheLocalTimeAndKeepsTheLetter) {
    char stamp[16];
    time_t now = time(nullptr);
    strftime(stamp, sizeof stamp, "%y%m%d", localtime(&now));
    const std::string day = stamp;
    struct Case {
        const char* name;
        std::string before, after;  // around the stamp's time of day
    } cases[] = {
        {"run%d.log", "run" + day + ".", "d.log"},
        {"out%D.txt", "out" + day + ".", "D.txt"},
        {"a%%db%x%", "a%" + day + ".", "db%x%"},
    };
    char out[MAX_PATH];
    for (const auto& c : cases) {
        std::string made = MakeFilename(c.name, out);
        ASSERT_EQ(made.find_first_not_of("0123456789", c.before.size()), c.before.size() + 6) << made;
        EXPECT_EQ(made.replace(c.before.size(), 6, "hhmmss"), c.before + "hhmmss" + c.after);
    }
}

TEST(MakeFilename, RefusesANameThatDoesNotFit) {
    char out[MAX_PATH];
    std::string fits(MAX_PATH - 1, 'a');
    EXPECT_EQ(strlen(MakeFilename(fits.c_str(), out)), fits.size());
    std::string tooLong = std::string(MAX_PATH - 10, 'a') + "%d";
    EXPECT_EXIT(MakeFilename(tooLong.c_str(), out), testing::ExitedWithCode(1), "File name too long");
}

// Four names at a time; a fifth is refused rather than forgotten silently.
// (The removal itself is checked on the real program: a run that fails
// removes the detail file it created, and one that has kept it does not.)
TEST(Ending, AFifthRegistrationIsRefused) {
    int slots[FATAL_EXIT_SLOTS];
    for (int& slot : slots) EXPECT_GE(slot = RemoveOnFatalExit("/nonexistent/x"), 0);
    EXPECT_EQ(RemoveOnFatalExit("/nonexistent/x"), -1);
    for (int slot : slots) KeepOnFatalExit(slot);
}

// A fatal error and the handler of an interrupt end the run alike: -p's
// lines still waiting reach the log, registered files go, the message
// reaches the error file and standard error; status 1, or 128 + N.
// A signal ignored at the start, as nohup leaves SIGHUP, stays ignored.
TEST(Ending, AFatalErrorOrAnInterruptEndsTheRun) {
    for (bool interrupt : {false, true}) {
        ScopedTempDir dir;
        WriteFile(dir / "made", "x");
        const std::string errPath = dir / "err", logPath = dir / "log";
        const std::string message = interrupt ? "Scan interrupted by signal 15 (Terminated)\n"
                                              : "Root '/x' is an invalid path\n  (p2) No such file or directory\n";
        EXPECT_EXIT(
            {
                errFile = fopen(errPath.c_str(), "w");
                logFile = fopen(logPath.c_str(), "w");
                LogTraceLine("/a");
                LogTraceLine("/a/b");
                RemoveOnFatalExit((dir / "made").c_str());
                InstallInterruptHandlers();
                if (interrupt) raise(SIGTERM);
                PosixErrExit(ENOENT, "Root '%s' is an invalid path\n", "/x");
            },
            testing::ExitedWithCode(interrupt ? 128 + SIGTERM : 1), testing::Eq(message));
        EXPECT_EQ(ReadFile(errPath), message);
        EXPECT_EQ(ReadFile(logPath), "/a\n/a/b\n");
        EXPECT_FALSE(PathExists(dir / "made"));
    }
    EXPECT_EXIT(
        {
            errFile = stderr;
            signal(SIGHUP, SIG_IGN);
            InstallInterruptHandlers();
            raise(SIGHUP);
            // A signal held back arrives when it is let through.
            HoldInterrupts();
            raise(SIGINT);
            fprintf(stderr, "still running\n");
            ReleaseInterrupts();
            exit(0);
        },
        testing::ExitedWithCode(128 + SIGINT), "^still running\nScan interrupted by signal 2 \\(Interrupt\\)\n$");
}
