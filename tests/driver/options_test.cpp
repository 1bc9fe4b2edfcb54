#include "driver/options.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

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
// messages are checked on the real program in run_test.cpp.)
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

}  // namespace
