// Runs of the real program with configuration files and roots on the command
// line: the run line of a good run, and each mistake's message and status.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/testutil.h"

static std::string Expand(std::string text, const std::string& dir) {
    for (size_t at; (at = text.find("{dir}")) != std::string::npos;) text.replace(at, 5, dir);
    return text;
}

TEST(ConfigRun, GoodRunsLogTheRunLineAndMistakesTheirMessage) {
    const std::string p128(128, 'p'), noEntry = "  (p2) No such file or directory\n";
    const std::string line513 = p128 + "_\n" + p128 + "_\n" + p128 + "_\n" + p128 + "p\n";
    struct Case {
        const char* config;  // written to c.cfg unless null; "{dir}" is the run's directory
        std::vector<std::string> args;
        std::string err;     // empty for a good run
    } cases[] = {
        {nullptr, {"tree/../tree/."}, ""},
        // Keywords in any case, a continued value, the last path line wins.
        {"# audit\n[SCANROOT]\nPATH={dir}/none\npath={dir}/_\ntree\nIncludeFiles=*.c\n", {"-cfg", "c.cfg"}, ""},
        {nullptr, {}, "No scan root specified\n"},
        {nullptr, {"tree", "{dir}"}, "Only one scan root may be specified\n"},
        {nullptr, {"none"}, "Root 'none' is an invalid path\n" + noEntry},
        {nullptr, {"file"}, "Root '{dir}/file' is not a directory\n"},
        {nullptr, {"-cfg", "{dir}/none.cfg"}, "Cannot open configuration file '{dir}/none.cfg'" + noEntry},
        {nullptr, {"-cfg", "tree"}, "Cannot read configuration file 'tree'\n  (p21) Is a directory\n"},
        {"[ScanRoot]\npath = {dir}/tree\n", {"-cfg", "c.cfg", "tree"},
         "Scan root cannot be specified in both the configuration file and on the command line\n"},
        {"[ScanRoot] main\n", {"-cfg", "c.cfg"}, "Unknown section header: [ScanRoot] main\n"},
        {"[ScanRoot]\npath {dir}\n", {"-cfg", "c.cfg"}, "Missing '='\n"},
        {"path = /\n[ScanRoot]\n", {"-cfg", "c.cfg"}, "Line must be inside a root section\n"},
        {"[ScanRoot]\npath = /\n[scanroot]\n", {"-cfg", "c.cfg"}, "Only one scan root may be specified\n"},
        {"[ScanRoot]\n  Paths = /\n", {"-cfg", "c.cfg"}, "Unknown AuditRoot keyword: Paths\n"},
        {line513.c_str(), {"-cfg", "c.cfg"}, "Configuration line longer than 512 bytes in 'c.cfg'\n"},
    };
    struct utsname node;
    uname(&node);
    const std::string banner = "Zentrix Filesystem Audit Utility\n\n";
    const std::string runLine = banner + "Run on: " + node.nodename + ", Timestamp: ";
    for (const Case& c : cases) {
        ScopedTempDir tmp;
        char buf[PATH_MAX];
        const std::string dir = realpath(tmp.path.c_str(), buf);
        mkdir((dir + "/tree").c_str(), 0755);
        WriteFile(dir + "/file", "x");
        if (c.config) WriteFile(dir + "/c.cfg", Expand(c.config, dir));
        std::vector<std::string> args;
        for (const std::string& a : c.args) args.push_back(Expand(a, dir));
        RunResult r = RunFerrovan(args, {.cwd = dir});
        const std::string what = (c.config ? c.config : "") + testing::PrintToString(args);
        EXPECT_EQ(r.err, Expand(c.err, dir)) << what;
        if (c.err.empty()) {
            EXPECT_EQ(r.status, 0) << what;
            EXPECT_EQ(r.out.rfind(runLine, 0), 0u) << what << "\n" << r.out;
            EXPECT_NE(r.out.find("\nEnd time: "), std::string::npos) << what << "\n" << r.out;
        } else {
            EXPECT_EQ(r.status, 1) << what;
            EXPECT_EQ(r.out, banner) << what;
        }
    }
}
