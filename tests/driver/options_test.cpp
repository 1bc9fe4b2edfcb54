#include "driver/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

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
        std::vector<std::string> text = c.args;
        text.insert(text.begin(), "prog");
        std::vector<char*> argv;
        for (std::string& t : text) argv.push_back(t.data());
        argv.push_back(nullptr);
        char* errText = nullptr;
        const int argc = static_cast<int>(text.size());
        ASSERT_EQ(ParseCommandLineEx(OPT_MODE_NO_EXIT, argc, argv.data(), table.data(), &errText), 0) << errText;
        EXPECT_EQ(Summary(table), c.result);
        std::string left;  // argv[1..] as the parser leaves it, consumed elements shown as "_"
        for (int i = 1; i < argc; i++) left += std::string(i > 1 ? "," : "") + (argv[i] ? argv[i] : "_");
        EXPECT_EQ(left, c.left);
    }
}

}  // namespace
