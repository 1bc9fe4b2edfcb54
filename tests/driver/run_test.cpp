// The real program's answer to each command line and configuration: what it
// says, its status, and the detail file it leaves. A run that fails before
// its root is valid destroys nothing: an existing detail file stays byte for
// byte as it was, even with -f, and one that the run created is removed, so
// that the next run is not asked about it.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>

#include <set>
#include <string>
#include <vector>

#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"
#include "tests/support/treebuilder.h"

namespace {

std::string Expand(std::string text, const std::string& dir) {
    for (size_t at; (at = text.find("{dir}")) != std::string::npos;) text.replace(at, 5, dir);
    return text;
}

TEST(FerrovanRun, AnswersEachLineAndDestroysNothingWhenItFails) {
    const std::string program = FERROVAN_BIN, here = FERROVAN_SOURCE_DIR "/tests/driver/";
    const std::string banner = "Zentrix Filesystem Audit Utility\n\n", noEntry = "  (p2) No such file or directory\n";
    const std::string p128(128, 'p'), line513 = p128 + "_\n" + p128 + "_\n" + p128 + "_\n" + p128 + "p\n";
    struct Case {
        const char* config;             // written to c.cfg unless null; "{dir}" is the run's directory
        std::vector<std::string> args;  // then "-dtl out.dtl -f"
        int status;
        std::string out, err;  // out of a run that scans (status 0, out ""): its run line and end time
        bool unprivileged = false;
    } cases[] = {
        {nullptr, {"tree/../tree/."}, 0, "", ""},
        // Keywords in any case, a continued value, the last path line wins.
        {"# audit\n[SCANROOT]\nPATH={dir}/none\npath={dir}/_\ntree\nIncludeFiles=*.c\n", {"-cfg", "c.cfg"}, 0, "", ""},
        // The usage and version texts, byte for byte (tabs, trailing blanks and
        // misspellings included), end the run before anything else is read.
        {nullptr, {"+?", "-bogus"}, 0,
         ReadFile(here + "usage.txt") + "For version information enter '" + program + " -?V'\n", ""},
        {nullptr, {"-?V"}, 0, ReadFile(here + "version.txt") + "For usage information enter '" + program + " -?'\n", ""},
        {nullptr, {"-CFG", "x"}, 1, "", "'-CFG' is an unknown option\n"},
        {nullptr, {"-pz"}, 1, "", "'-z' is an unknown option\n"},
        {nullptr, {"-ftag", "x"}, 1, "", "'-ftag' is an unknown option\n"},  // a longer name only alone in its element
        {nullptr, {"+pf"}, 1, "", "'+p' is an unknown option\n"},
        {nullptr, {"-log", "a", "-log", "b"}, 1, "", "'-log b' is a conflicting option\n"},
        {nullptr, {"-p", "-f", "-p"}, 1, "", "'-p' is a conflicting option\n"},
        {nullptr, {"-cfg", "-p"}, 1, "", "'-cfg' requires an argument\n"},
        {nullptr, {"-touch", "abc"}, 1, "", "'-touch' arguments must be numeric\n"},
        {nullptr, {"tre", "-log", "{dir}/no/run.log"}, 1, "", "Unable to create log file '{dir}/no/run.log'\n" + noEntry},
        {nullptr, {"tre", "-err", "{dir}/no/run.err"}, 1, "", "Unable to create error file '{dir}/no/run.err'\n" + noEntry},
        // The detail file is opened (not emptied) before the root is looked at.
        {nullptr, {"tre"}, 1, "", "Unable to create audit detail file 'out.dtl'\n  (p13) Permission denied\n", true},
        {nullptr, {"tre"}, 1, banner, "Root 'tre' is an invalid path\n" + noEntry},  // a typo in the root
        {nullptr, {}, 1, banner, "No scan root specified\n"},
        {nullptr, {"tree", "{dir}"}, 1, banner, "Only one scan root may be specified\n"},
        {nullptr, {"file"}, 1, banner, "Root '{dir}/file' is not a directory\n"},
        {nullptr, {"-cfg", "{dir}/none.cfg"}, 1, banner, "Cannot open configuration file '{dir}/none.cfg'" + noEntry},
        {nullptr, {"-cfg", "tree"}, 1, banner, "Cannot read configuration file 'tree'\n  (p21) Is a directory\n"},
        {"[ScanRoot]\npath = {dir}/tree\n", {"-cfg", "c.cfg", "tree"}, 1, banner,
         "Scan root cannot be specified in both the configuration file and on the command line\n"},
        {"[ScanRoot] main\n", {"-cfg", "c.cfg"}, 1, banner, "Unknown section header: [ScanRoot] main\n"},
        {"[ScanRoot]\npath {dir}\n", {"-cfg", "c.cfg"}, 1, banner, "Missing '='\n"},
        {"path = /\n[ScanRoot]\n", {"-cfg", "c.cfg"}, 1, banner, "Line must be inside a root section\n"},
        {"[ScanRoot]\npath = /\n[scanroot]\n", {"-cfg", "c.cfg"}, 1, banner, "Only one scan root may be specified\n"},
        {"[ScanRoot]\n  Paths = /\n", {"-cfg", "c.cfg"}, 1, banner, "Unknown AuditRoot keyword: Paths\n"},
        {line513.c_str(), {"-cfg", "c.cfg"}, 1, banner, "Configuration line longer than 512 bytes in 'c.cfg'\n"},
    };
    struct utsname node;
    uname(&node);
    const std::string runLine = banner + "Run on: " + node.nodename + ", Timestamp: ";
    for (const Case& c : cases) {
        const bool scans = c.status == 0 && c.out.empty();
        for (bool existing : {false, true}) {
            if ((c.unprivileged && !existing) || (scans && existing)) continue;
            RunDirs dirs;
            const std::string dir = dirs.work, dtl = dir + "/out.dtl";
            MakeTree(dir, {{TreeItem::DIR, "tree"}, {TreeItem::FILE, "tree/f", "data"}, {TreeItem::FILE, "file", "x"}});
            if (c.config) WriteFile(dir + "/c.cfg", Expand(c.config, dir));
            if (existing) {
                ASSERT_EQ(RunFerrovan({"tree", "-dtl", "out.dtl"}, {.cwd = dir}).status, 0);
                if (c.unprivileged) chmod(dtl.c_str(), 0444);
            }
            const std::string before = ReadFile(dtl);
            std::vector<std::string> args;
            for (const std::string& a : c.args) args.push_back(Expand(a, dir));
            args.insert(args.end(), {"-dtl", "out.dtl", "-f"});
            RunResult r = RunFerrovan(args, {.cwd = dir, .unprivileged = c.unprivileged});
            SCOPED_TRACE((c.config ? c.config : "") + testing::PrintToString(args) + (existing ? " existing" : ""));
            EXPECT_EQ(r.status, c.status);
            EXPECT_EQ(r.err, Expand(c.err, dir));
            if (scans) {
                EXPECT_EQ(r.out.rfind(runLine, 0), 0u) << r.out;
                EXPECT_NE(r.out.find("\nEnd time: "), std::string::npos) << r.out;
                EXPECT_TRUE(ReadDetail(dtl).sound);
            } else {
                EXPECT_EQ(r.out, c.out);
                EXPECT_EQ(PathExists(dtl), existing);
                EXPECT_TRUE(ReadFile(dtl) == before);
            }
        }
    }
}

// The walk's thread count comes from the environment; a wrong one is refused
// before anything is opened or written: no log, no error file, no detail file.
TEST(FerrovanRun, AThreadCountThatIsNotOneTo1024EndsTheRunFirst) {
    struct Case {
        const char* value;
        bool valid;
    } cases[] = {
        {"1", true}, {"1024", true}, {"0008", true}, {"", false},    {"0", false},  {"1025", false},
        {"-1", false}, {"+4", false}, {"4x", false}, {" 4", false}, {"99999999999", false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string("'") + c.value + "'");
        RunDirs dirs;
        WriteFile(dirs.root + "/f", "data");
        RunResult r = RunFerrovan({dirs.root, "-dtl", "out.dtl", "-log", "run.log", "-err", "run.err"},
                                  {.cwd = dirs.work, .env = {std::string("FERROVAN_THREADS=") + c.value}});
        if (c.valid) {
            EXPECT_EQ(r.status, 0) << r.err;
            EXPECT_TRUE(ReadDetail(dirs.work + "/out.dtl").sound);
            continue;
        }
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, std::string("FERROVAN_THREADS must be a whole number from 1 to 1024, not '") + c.value + "'\n");
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(Entries(dirs.work), std::set<std::string>{});
    }
}

// Without -f an existing file is replaced whole once the root is valid (nothing
// of a longer former content stays behind the new one): after a yes to the
// question, or at once when it is the "IDTL" file of a run that never finished.
TEST(FerrovanRun, ReplacesAnExistingFileWhole) {
    RunDirs dirs;
    WriteFile(dirs.root + "/f", "data");
    ASSERT_EQ(RunFerrovan({dirs.root, "-dtl", "fresh.dtl"}, {.cwd = dirs.work}).status, 0);
    const std::string fresh = ReadFile(dirs.work + "/fresh.dtl");
    for (const auto& [old, input] : {std::pair{"FDTL", "y\n"}, std::pair{"IDTL", ""}}) {
        SCOPED_TRACE(old);
        WriteFile(dirs.work + "/old.dtl", old + std::string(1 << 20, 'x'));
        RunResult r = RunFerrovan({dirs.root, "-dtl", "old.dtl"}, {.cwd = dirs.work, .input = input});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(ReadFile(dirs.work + "/old.dtl").size(), fresh.size());
        EXPECT_TRUE(ReadDetail(dirs.work + "/old.dtl").sound);
    }
}

}  // namespace
