#include "driver/options.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/testutil.h"

namespace {

// A table using every feature of the parser; each case gets a fresh copy
// because the parser writes its results into the records.
std::vector<OptionRec> TestTable() {
    return {
        {"a", OPT_ARG | OPT_ATTACHED, 0, nullptr, 0},                      // 0
        {"o", OPT_ARG | OPT_ATTACHED_ONLY, 0, nullptr, 0},                 // 1
        {"m", OPT_ARG | OPT_ATTACHED | OPT_MULTIPLE, 0, nullptr, 0},       // 2
        {"n", OPT_ARG | OPT_NUMERIC | OPT_PLUS, 0, nullptr, 0},            // 3
        {"s", OPT_SHORT_ALONE, 0, nullptr, 0},                             // 4
        {"long", OPT_ARG | OPT_ATTACHED | OPT_LONG_JOINED, 0, nullptr, 0}, // 5
        {"lo", 0, 0, nullptr, 0},          {"x", 0, 0, nullptr, 0},        // 6, 7 (hidden by 11)
        {"req", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},                // 8
        {"v", OPT_ALIAS, 10, nullptr, 0},  {"verbose", OPT_PLUS, 0, nullptr, 0}, {"x", 0, 0, nullptr, 0},  // 9-11
        {nullptr, 0, 0, nullptr, 0},
    };
}

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

std::string Describe(uint32_t flags, uint32_t index, const char* arg, uint32_t number) {
    EXPECT_EQ(arg != nullptr, (flags & OPT_HAS_ARG) != 0);
    std::string s = "@";
    s += std::to_string(index);
    if (arg) s.append("=").append(arg);
    if (flags & OPT_ARG_NUMERIC) s.append("#").append(std::to_string(number));
    if (flags & OPT_ARG_SIGNED) s += "s";
    if (flags & OPT_PLUS_FORM) s += "+";
    return s;
}

// Every found record: name@argIndex=arg#number, 's' signed, '+' plus form; a
// repeatable one as name*count[occurrence,...], whose records it frees (the
// program keeps them for the run).
std::string Summary(std::vector<OptionRec>& table) {
    std::string s;
    for (OptionRec& r : table) {
        if (!r.optName || !(r.optFlags & OPT_FOUND)) continue;
        s.append(s.empty() ? "" : " ").append(r.optName);
        if (!(r.optFlags & OPT_MULTIPLE)) {
            s += Describe(r.optFlags, r.optArgIndex, r.optArg, r.optNumber);
            continue;
        }
        s.append("*").append(std::to_string(r.optNumber)).append("[");
        for (auto* o = reinterpret_cast<OptionOccurrence*>(r.optArg); o; free(std::exchange(o, o->next)))
            s += Describe(o->flags, o->argIndex, o->arg, o->number) + (o->next ? "," : "");
        s += "]";
    }
    return s;
}

// The no-exit mode: an accepted line gives the found records and what argv
// keeps; a refused one its code and the element it names.
TEST(OptionsTest, ParsesAgainstTheTable) {
    struct Case {
        std::vector<std::string> args;
        int mode, code;
        std::string result, left;
    } cases[] = {
        {{"-aval"}, 1, 0, "a@1=val", "_"},
        {{"-a", "val", "root"}, 1, 0, "a@1=val", "_,_,root"},  // the word is left for the driver
        {{"-a", "-x"}, 1, 0, "a@1 x@2", "_,_"},                // a dash word is the next option
        {{"-xa", "b"}, 0, 0, "a@1=b x@1", "_,_"},              // the second option of an element takes the next
        {{"-o", "val"}, 1, 0, "o@1", "_,val"},                 // attached only
        {{"-m1", "-m", "two", "-m"}, 1, 0, "m*3[@1=1#1,@2=two,@4]", "_,_,_,_"},
        {{"+n", "4294967295"}, 1, 0, "n@1=4294967295#4294967295+", "_,_"},
        {{"-lo", "-longer"}, 1, 0, "long@2=er lo@1", "_,_"},  // the longest name; text only behind "long"
        {{"+v"}, 1, 0, "verbose@1+", "_"},
        {{"-LONG", "-V"}, 3, 0, "long@1 verbose@2", "_,_"},
        {{"-lox"}, 1, OPT_ERR_UNKNOWN, "-lox", "_"},
        {{"root", "-x", "-x"}, 1, OPT_ERR_CONFLICT, "-x", "root,_,_"},
        {{"-req", "-x"}, 3, OPT_ERR_NO_ARG, "-req", "_,-x"},
        {{"-n", "12abc"}, 1, OPT_ERR_NOT_NUMERIC, "-n", "_,_"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.args[0]);
        auto table = TestTable();
        Argv argv(c.args);
        char sentinel[] = "unset";
        char* errText = sentinel;
        EXPECT_EQ(ParseCommandLineEx(c.mode, argv.argc(), argv.ptr.data(), table.data(), &errText), c.code);
        std::string summary = Summary(table);
        EXPECT_EQ(c.code ? std::string(errText) : summary, c.result);
        EXPECT_EQ(argv.Left(), c.left);
        if (!c.code && (c.mode & OPT_MODE_NO_EXIT)) {
            EXPECT_EQ(errText, nullptr);
        }
    }
}

TEST(OptionsTest, CheckOptionTable) {
    struct Case {
        const char* text;
        int mode;
        uint32_t index, len;
    } cases[] = {
        {"longer", 0, 5, 4}, {"l", 0, OPT_NOT_FOUND, 0}, {"x", 0, 11, 1},  // the later x
        {"vx", 0, 10, 1},    {"LONG", 0, OPT_NOT_FOUND, 0}, {"LONGER", 2, 5, 4},  // folded over the name only
    };
    auto table = TestTable();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        uint32_t len = 99;
        EXPECT_EQ(CheckOptionTable(c.mode, c.text, table.data(), &len), c.index);
        EXPECT_EQ(len, c.len);
    }
    // Aliases that leave the table or loop match nothing instead of running away.
    OptionRec broken[] = {{"out", OPT_ALIAS, 7, nullptr, 0}, {"ping", OPT_ALIAS, 2, nullptr, 0},
                          {"pong", OPT_ALIAS, 1, nullptr, 0}, {"", 0, 0, nullptr, 0}, {nullptr, 0, 0, nullptr, 0}};
    for (const char* text : {"out", "ping", "z"}) {
        uint32_t len = 99;
        EXPECT_EQ(CheckOptionTable(0, text, broken, &len), OPT_NOT_FOUND) << text;
        EXPECT_EQ(len, 0u);
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
        {{"+pf"}, "'+p' is an unknown option\n"},
        {{"-log", "a", "-log", "b"}, "'-log b' is a conflicting option\n"},
        {{"-p", "-f", "-p"}, "'-p' is a conflicting option\n"},
        {{"-cfg", "-p"}, "'-cfg' requires an argument\n"},
        {{"-touch", "abc"}, "'-touch' arguments must be numeric\n"},
        {{"-pf", "-tmod", "-zip", "-", "tree"}, ""},
        {{"tree", "-touch", "0x10", "-f"}, ""},
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
