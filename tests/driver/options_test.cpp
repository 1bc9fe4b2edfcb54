#include "driver/options.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/support/testutil.h"

namespace {

// A mutable argv with "prog" in front.
struct Argv {
    std::vector<std::string> text;
    std::vector<char*> ptr;
    explicit Argv(std::vector<std::string> args) : text(std::move(args)) {
        text.insert(text.begin(), "prog");
        for (auto& t : text) ptr.push_back(t.data());
        ptr.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(text.size()); }
    /// argv[1..] as left by the parser, consumed elements shown as "_".
    std::string Left() const {
        std::string s;
        for (int i = 1; i < argc(); i++) s += std::string(i > 1 ? "," : "") + (ptr[i] ? ptr[i] : "_");
        return s;
    }
};

// Every option found in the table: name@argIndex, "=arg" when one was taken,
// "#number" when it converted, "s" when it converted as signed.
std::string Summary(const std::vector<OptionRec>& table) {
    std::string s;
    for (const OptionRec& r : table) {
        if (!r.optName || !(r.optFlags & OPT_FOUND)) continue;
        s.append(s.empty() ? "" : " ").append(r.optName).append("@").append(std::to_string(r.optArgIndex));
        EXPECT_EQ(r.optArg != nullptr, (r.optFlags & OPT_HAS_ARG) != 0) << r.optName;
        if (r.optArg) s.append("=").append(r.optArg);
        if (r.optFlags & OPT_ARG_NUMERIC) s.append("#").append(std::to_string(r.optNumber));
        if (r.optFlags & OPT_ARG_SIGNED) s.append("s");
    }
    return s;
}

// Accepted lines against the program's own table: what each option took, and
// the words left in argv for the driver. (The refusals end the program; their
// messages are checked on the real program below.)
TEST(OptionsTest, ParsesAgainstTheProgramsTable) {
    struct Case {
        std::vector<std::string> args;
        std::string result, left;
    } cases[] = {
        {{"tree", "-cfg", "c.cfg", "-p"}, "cfg@2=c.cfg p@4", "tree,_,_,_"},
        {{"-pf", "-tmod", "-"}, "p@1 f@1 tmod@2", "_,_,_"},  // one-letter options share an element; "-" is dropped
        {{"-touch", "-3", "-dtl", "-5"}, "dtl@3=-5#4294967291s touch@1=-3#4294967293s", "_,_,_,_"},
        {{"-touch", "0x10", "tree", "-tag", "12x"}, "tag@4=12x touch@1=0x10#16", "_,_,tree,_,_"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        std::vector<OptionRec> table(cmdOpts, cmdOpts + CMD_ZIP + 2);  // a fresh copy: the parser marks it
        Argv argv(c.args);
        char* errText = nullptr;
        ASSERT_EQ(ParseCommandLineEx(OPT_MODE_NO_EXIT, argv.argc(), argv.ptr.data(), table.data(), &errText), 0)
            << errText;
        EXPECT_EQ(Summary(table), c.result);
        EXPECT_EQ(argv.Left(), c.left);
    }
}

// The real program: a refusal is one line on standard error, status 1,
// nothing on standard output and no detail file; an accepted line scans
// the real root "tree".
TEST(FerrovanOptions, RefusedAndAcceptedLines) {
    struct Case {
        std::vector<std::string> args;
        std::string err;      // empty for an accepted line
        const char* created = "ferro.dtl";  // the detail file an accepted line writes
    } cases[] = {
        {{"-CFG", "x"}, "'-CFG' is an unknown option\n"},
        {{"-pz"}, "'-z' is an unknown option\n"},
        {{"-ftag", "x"}, "'-ftag' is an unknown option\n"},  // a longer name only alone in its element
        {{"+pf"}, "'+p' is an unknown option\n"},
        {{"-log", "a", "-log", "b"}, "'-log b' is a conflicting option\n"},
        {{"-p", "-f", "-p"}, "'-p' is a conflicting option\n"},
        {{"-cfg", "-p"}, "'-cfg' requires an argument\n"},
        {{"-touch", "abc"}, "'-touch' arguments must be numeric\n"},
        {{"-pf", "-tmod", "-zip", "-", "tree"}, ""},
        {{"-touch", "-3", "-dtl", "-5", "tree"}, "", "-5"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0] + " " + c.err);
        ScopedTempDir dir;
        ASSERT_EQ(mkdir((dir / "tree").c_str(), 0755), 0);
        RunResult r = RunFerrovan(c.args, {.cwd = dir.path});
        EXPECT_EQ(r.status, c.err.empty() ? 0 : 1);
        EXPECT_EQ(r.err, c.err);
        if (c.err.empty()) {
            EXPECT_TRUE(PathExists(dir / c.created));
        } else {
            EXPECT_EQ(r.out, "");
            EXPECT_FALSE(PathExists(dir / "ferro.dtl"));
        }
    }
}

TEST(FerrovanOptions, UsageAndVersionTexts) {
    // The texts byte for byte (tabs, trailing blanks and misspellings
    // included) are kept beside this file.
    const std::string program = FerrovanPath(), here = FERROVAN_SOURCE_DIR "/tests/driver/";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        // The texts end the run before anything else is read.
        {{"+?", "-bogus"}, ReadFile(here + "usage.txt") + "For version information enter '" + program + " -?V'\n"},
        {{"-?V"}, ReadFile(here + "version.txt") + "For usage information enter '" + program + " -?'\n"},
    };
    for (const auto& [args, out] : cases) {
        ScopedTempDir dir;
        RunResult r = RunProgram(program, args, {.cwd = dir.path});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.err, "");
        EXPECT_EQ(r.out, out);
        EXPECT_FALSE(PathExists(dir / "ferro.dtl"));
    }
}

}  // namespace
