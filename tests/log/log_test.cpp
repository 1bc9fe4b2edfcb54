#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "log/log.h"
#include "tests/support/testutil.h"

// Points the log and error outputs at two temporary files for one test.
struct CapturedOutputs {
    ScopedTempDir dir;
    CapturedOutputs(bool combined) {
        logFile = fopen((dir / "log").c_str(), "w+");
        errFile = fopen((dir / "err").c_str(), "w+");
        errLogCombined = combined;
    }
    ~CapturedOutputs() {
        fclose(logFile);
        fclose(errFile);
        logFile = errFile = nullptr;
        errLogCombined = 0;
    }
    std::string Log() { return Read(logFile); }
    std::string Err() { return Read(errFile); }
    static std::string Read(FILE* f) {
        fflush(f);
        rewind(f);
        std::string s;
        for (int c; (c = fgetc(f)) != EOF;) s += static_cast<char>(c);
        return s;
    }
};

TEST(LogRouting, ErrorsGoToTheErrorFileAndToTheLogUnlessCombined) {
    const std::string line = "Could not stat() '/r/\xff\xfe'\n  (p2) No such file or directory\n";
    for (bool combined : {false, true}) {
        CapturedOutputs out(combined);
        LogEntry("banner %d\n", 7);
        errno = ENOENT;
        LogPosixErr(0, "Could not stat() '%s'\n", "/r/\xff\xfe");
        LogPosixErr(EACCES, "Unable to open directory '%s'\n", "/r");
        LogErr("plain %s\n", "error");
        LogPosixErr(-1, "Error touching (truncate) '%s'\n", "/r/f");
        std::string errors = line + "Unable to open directory '/r'\n  (p13) Permission denied\nplain error\n" +
                             "Error touching (truncate) '/r/f'\n  (p-1) Unknown error -1\n";
        EXPECT_EQ(out.Err(), errors);
        EXPECT_EQ(out.Log(), combined ? "banner 7\n" : "banner 7\n" + errors);
    }
}

TEST(LogRouting, FatalMessagesReachTheErrorFileAndStandardError) {
    ScopedTempDir dir;
    std::string errPath = dir / "err";
    EXPECT_EXIT(
        {
            errFile = fopen(errPath.c_str(), "w");
            PosixErrExit(ENOENT, "Root '%s' is an invalid path\n", "/x");
        },
        testing::ExitedWithCode(1), "Root '/x' is an invalid path\n  \\(p2\\) No such file or directory\n");
    EXPECT_EQ(ReadFile(errPath), "Root '/x' is an invalid path\n  (p2) No such file or directory\n");
    EXPECT_EXIT(ErrExitWithRetCode(3, "code %d\n", 3), testing::ExitedWithCode(3), "code 3\n");
}

// True when text has the shape of pattern, in which '#' stands for any digit.
static bool Shaped(const std::string& text, const std::string& pattern) {
    if (text.size() != pattern.size()) return false;
    for (size_t i = 0; i < text.size(); i++) {
        if (pattern[i] == '#' ? !isdigit(static_cast<unsigned char>(text[i])) : text[i] != pattern[i]) return false;
    }
    return true;
}

TEST(MakeFilename, ReplacesPercentDWithTheLocalTimeAndKeepsTheLetter) {
    char out[MAX_PATH];
    struct Case {
        const char* name;
        const char* shape;
    } cases[] = {
        {"plain.log", "plain.log"},
        {"run%d.log", "run######.######d.log"},
        {"out%D.txt", "out######.######D.txt"},
        {"a%%db%x%", "a%######.######db%x%"},
    };
    for (const auto& c : cases) {
        MakeFilename(c.name, out);
        EXPECT_TRUE(Shaped(out, c.shape)) << c.name << " -> " << out;
    }
    time_t now = time(nullptr);
    char expected[16];
    strftime(expected, sizeof expected, "%y%m%d", localtime(&now));
    MakeFilename("%d", out);
    EXPECT_EQ(std::string(out).substr(0, 6), expected);
}

TEST(MakeFilename, RefusesANameThatDoesNotFit) {
    char out[MAX_PATH];
    std::string fits(MAX_PATH - 1, 'a');
    MakeFilename(fits.c_str(), out);
    EXPECT_EQ(strlen(out), fits.size());
    std::string tooLong = std::string(MAX_PATH - 10, 'a') + "%d";
    EXPECT_EXIT(MakeFilename(tooLong.c_str(), out), testing::ExitedWithCode(1), "File name too long");
}

TEST(PosixErrMsg, WidensTheSystemText) {
    EXPECT_EQ(std::wstring(PosixErrMsg(ENOENT)), L"No such file or directory");
}
