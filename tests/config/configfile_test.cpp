#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "config/configfile.h"

// The logical lines ReadConfigLine delivers for content, then its last result as "=<code>".
static std::vector<std::string> LogicalLines(std::string content) {
    FILE* f = fmemopen(content.data(), content.size(), "r");
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
        {"# c\n\n \t\nincludedirs = x # note\n", {"includedirs = x", "=0"}},
        {"path = /a/b/_\n# x\n\nc\n", {"path = /a/b/c", "=0"}},  // joined over comments and empty lines
        {"x _\n  y  \n", {"x   y", "=0"}},                      // blanks kept inside, dropped at the end
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
