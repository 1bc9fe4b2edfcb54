// Runs of the real program with configuration files and roots on the command
// line, up to the run line: each mistake's message and status, exactly.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <climits>
#include <cstdlib>
#include <regex>
#include <string>
#include <vector>

#include "tests/support/testutil.h"

static const std::string banner = "Zentrix Filesystem Audit Utility\n\n";

// Replaces every "{dir}" by the directory.
static std::string Expand(std::string text, const std::string& dir) {
    for (size_t at; (at = text.find("{dir}")) != std::string::npos;) text.replace(at, 5, dir);
    return text;
}

struct RunCase {
    const char* what;
    const char* config;  // written to {dir}/c.cfg when not null
    std::vector<std::string> args;
    std::string err;     // expected standard error; empty for a good run
};

// A fresh directory per case: {dir}/tree is a directory, {dir}/file a file.
static void RunCases(const std::vector<RunCase>& cases) {
    struct utsname node;
    uname(&node);
    const std::regex goodRun(banner + "Run on: " + node.nodename +
                             ", Timestamp: [A-Z][a-z]{2}, [0-9]{2} [A-Z][a-z]{2}, [0-9]{4} at [0-9:]{8}\n\n"
                             "\nEnd time: [0-9:]{8}\n Elapsed: 00:00:0[0-9]\n");
    for (const RunCase& c : cases) {
        ScopedTempDir tmp;
        char buf[PATH_MAX];
        const std::string dir = realpath(tmp.path.c_str(), buf);
        mkdir((dir + "/tree").c_str(), 0755);
        WriteFile(dir + "/file", "x");
        if (c.config) WriteFile(dir + "/c.cfg", Expand(c.config, dir));
        std::vector<std::string> args;
        for (const std::string& a : c.args) args.push_back(Expand(a, dir));

        RunOptions options;
        options.cwd = dir;
        RunResult r = RunFerrovan(args, options);
        if (c.err.empty()) {
            EXPECT_EQ(r.status, 0) << c.what;
            EXPECT_TRUE(std::regex_match(r.out, goodRun)) << c.what << "\n" << r.out;
            EXPECT_EQ(r.err, "") << c.what;
        } else {
            EXPECT_EQ(r.status, 1) << c.what;
            EXPECT_EQ(r.out, banner) << c.what;
            EXPECT_EQ(r.err, Expand(c.err, dir)) << c.what;
        }
    }
}

TEST(ConfigRun, GoodConfigurationsAndRoots) {
    RunCases({
        {"root on the command line", nullptr, {"{dir}/tree"}, ""},
        {"relative root", nullptr, {"tree/../tree/."}, ""},
        {"path in the file", "[ScanRoot]\npath = {dir}/tree\n", {"-cfg", "c.cfg"}, ""},
        {"keys in any case, no blanks", "# audit\n[SCANROOT]\nPATH={dir}/tree\nIncludeFiles=*.c\n", {"-cfg", "c.cfg"}, ""},
        {"continued path", "[ScanRoot]\npath = {dir}/_\ntree\n", {"-cfg", "c.cfg"}, ""},
        {"section without path takes the command line root", "[ScanRoot]\nexcludedirs = /tmp\n",
         {"-cfg", "c.cfg", "{dir}/tree"}, ""},
        {"empty file", "", {"-cfg", "c.cfg", "tree"}, ""},
        {"only comments", "# nothing\n\n   # here\n", {"{dir}/tree", "-cfg", "c.cfg"}, ""},
    });
}

TEST(ConfigRun, EveryMistakeEndsTheRunWithItsMessage) {
    const std::string long513 = std::string(128, 'p') + "_\n" + std::string(128, 'p') + "_\n" +
                                std::string(128, 'p') + "_\n" + std::string(129, 'p') + "\n";
    const std::string config513 = "[ScanRoot]\nincludedirs = x\n" + long513;
    RunCases({
        {"no root", nullptr, {}, "No scan root specified\n"},
        {"two roots", nullptr, {"{dir}/tree", "{dir}"}, "Only one scan root may be specified\n"},
        {"missing root", nullptr, {"{dir}/none"}, "Root '{dir}/none' is an invalid path\n  (p2) No such file or directory\n"},
        {"missing relative root", nullptr, {"none"}, "Root 'none' is an invalid path\n  (p2) No such file or directory\n"},
        {"file as root", nullptr, {"file"}, "Root '{dir}/file' is not a directory\n"},
        {"root below a file", nullptr, {"file/x"}, "Root 'file/x' is an invalid path\n  (p20) Not a directory\n"},
        {"no configuration file", nullptr, {"-cfg", "{dir}/none.cfg"},
         "Cannot open configuration file '{dir}/none.cfg'  (p2) No such file or directory\n"},
        {"directory as configuration file", nullptr, {"-cfg", "tree"},
         "Cannot read configuration file 'tree'\n  (p21) Is a directory\n"},
        {"root in both places", "[ScanRoot]\npath = {dir}/tree\n", {"-cfg", "c.cfg", "{dir}/tree"},
         "Scan root cannot be specified in both the configuration file and on the command line\n"},
        {"section without path", "[ScanRoot]\nincludefiles = *\n", {"-cfg", "c.cfg"}, "No scan root specified\n"},
        {"only comments, no root", "# x\n", {"-cfg", "c.cfg"}, "No scan root specified\n"},
        {"unknown header", "[Root]\npath = /\n", {"-cfg", "c.cfg"}, "Unknown section header: [Root]\n"},
        {"text after the header", "[ScanRoot] main\n", {"-cfg", "c.cfg"}, "Unknown section header: [ScanRoot] main\n"},
        {"unknown header inside", "[ScanRoot]\npath = /\n[Other]\n", {"-cfg", "c.cfg"}, "Unknown section header: [Other]\n"},
        {"blank before the header", " [ScanRoot]\n", {"-cfg", "c.cfg"}, "Missing '='\n"},
        {"setting without '=' first", "path /\n", {"-cfg", "c.cfg"}, "Missing '='\n"},
        {"setting before the header", "path = /\n[ScanRoot]\n", {"-cfg", "c.cfg"}, "Line must be inside a root section\n"},
        {"setting without '=' inside", "[ScanRoot]\npath {dir}\n", {"-cfg", "c.cfg"}, "Missing '='\n"},
        {"two sections", "[ScanRoot]\npath = /\n[scanroot]\n", {"-cfg", "c.cfg"}, "Only one scan root may be specified\n"},
        {"unknown key", "[ScanRoot]\n  Paths = /\n", {"-cfg", "c.cfg"}, "Unknown AuditRoot keyword: Paths\n"},
        {"empty key", "[ScanRoot]\n= /\n", {"-cfg", "c.cfg"}, "Unknown AuditRoot keyword: \n"},
        {"line past 512 bytes", config513.c_str(), {"-cfg", "c.cfg"},
         "Configuration line longer than 512 bytes in 'c.cfg'\n"},
        {"bad path in the file", "[ScanRoot]\npath = {dir}/file\n", {"-cfg", "c.cfg"},
         "Root '{dir}/file' is not a directory\n"},
        {"empty path in the file", "[ScanRoot]\npath =\n", {"-cfg", "c.cfg"},
         "Root '' is an invalid path\n  (p2) No such file or directory\n"},
    });
}
