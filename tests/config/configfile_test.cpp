#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "config/configfile.h"
#include "tests/config/config_testutil.h"
#include "tests/support/testutil.h"

// The logical lines ReadConfigLine delivers for content, then its last result as "=<code>".
static std::vector<std::string> LogicalLines(std::string content) {
    FILE* f = content.empty() ? tmpfile() : fmemopen(content.data(), content.size(), "r");
    configEOF = 0;
    std::vector<std::string> lines;
    char out[CONFIG_LINE_MAX + 1];
    int length;
    while ((length = ReadConfigLine(f, out)) > 0) lines.emplace_back(out, static_cast<size_t>(length));
    lines.push_back("=");
    lines.back() += std::to_string(length);
    EXPECT_EQ(configEOF, length == 0);
    fclose(f);
    return lines;
}

TEST(ReadConfigLine, BuildsLogicalLines) {
    const std::string x131(131, 'x'), p128(128, 'p'), p512 = p128 + p128 + p128 + p128;
    const std::string at512 = p128 + "_\n" + p128 + "_\n" + p128 + "_\n" + p128 + "\n";
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {"", {"=0"}},
        {"a\nb", {"a", "b", "=0"}},
        {"# c\n\n \t\nincludedirs = x # note\n", {"includedirs = x", "=0"}},
        {"path = /a/b/_\n# x\n\nc\n", {"path = /a/b/c", "=0"}},  // joined over comments and empty lines
        {"x _\n  y  \n", {"x   y", "=0"}},                      // blanks kept inside, dropped at the end
        {"a_", {"a", "=0"}},
        {"a\tb\x01" "caf\xc3\xa9s\r\n", {"a b caf  s", "=0"}},  // controls and high bytes become blanks
        {std::string("ab\0cd\nef\n", 9), {"ab", "ef", "=0"}},
        // A physical line of more than 132 bytes comes in pieces, each a line of its own.
        {x131 + "x" + "yy\n", {x131 + "x", "yy", "=0"}},
        {x131 + "_yz\n", {x131 + "yz", "=0"}},
        {"a#" + std::string(130, 'c') + "bc\n", {"a", "bc", "=0"}},
        {"ok\n" + at512 + "q\n", {"ok", p512, "q", "=0"}},  // 512 bytes fit
        {at512.substr(0, at512.size() - 1) + "q\n", {"=-1"}},
    };
    for (const auto& [content, lines] : cases) EXPECT_EQ(LogicalLines(content), lines) << content;
}

static std::vector<std::string> Texts(const TemplateRec* list) {
    std::vector<std::string> out;
    for (; list; list = list->next) out.push_back(list->origText);
    return out;
}

TEST(ProcessConfigFile, BuildsTheRootRecord) {
    ScopedTempDir dir;
    WriteFile(dir / "empty.cfg", "# nothing\n\n");
    ProcessConfigFile((dir / "empty.cfg").c_str());
    EXPECT_EQ(rootList, nullptr);

    WriteFile(dir / "c.cfg",
              "[scanROOT]\nPath = /one\n  INCLUDEDIRS=/a\nexcludeDirs = /b\nIncludeFiles = *.c\nincludefiles= *.h\n"
              "excludefiles =  *.o # objects\npath = /two/_\n  x\n");
    ProcessConfigFile((dir / "c.cfg").c_str());
    ASSERT_NE(rootList, nullptr);
    EXPECT_EQ(rootLast, rootList);
    EXPECT_STREQ(rootList->path, "/two/  x");  // the last path line wins
    EXPECT_EQ(Texts(rootList->includeDirs), std::vector<std::string>{"/a"});
    EXPECT_EQ(Texts(rootList->excludeDirs), std::vector<std::string>{"/b"});
    EXPECT_EQ(Texts(rootList->includeFiles), (std::vector<std::string>{"*.h", "*.c"}));
    EXPECT_EQ(Texts(rootList->excludeFiles), std::vector<std::string>{"*.o"});
    ResetRoots();
}
