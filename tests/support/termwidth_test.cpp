#include "support/termwidth.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(TermWidthTest, ColumnsOfCharacters) {
    const std::pair<uint32_t, int> cases[] = {
        {'a', 1},     {0x1B, -1},   {0x7F, -1},   {0x85, -1},    {0xE9, 1},     {0x301, 0},    {0x200B, 0},
        {0x4E2D, 2},  {0xFF21, 2},  {0x1F600, 2}, {0xAC00, 2},   {0x1160, 0},   {0x2028, -1},  {0x10FFFD, 1},
        {0x3000, 2},  {0x20000, 2}, {0xFE0F, 0},  {0x2E80, 2},   {0x303F, 1},   {0xA960, 2},   {0xD7B0, 0},
    };
    for (const auto& [cp, columns] : cases) EXPECT_EQ(CharColumns(cp), columns) << std::hex << cp;
}

TEST(TermWidthTest, NamesBecomeSafePieces) {
    struct Case {
        std::string text, shown;
        size_t columns;
    } cases[] = {
        {"plain", "plain", 5},
        {"a\nb\tc\\", "a\\nb\\tc\\\\", 9},
        {"\x1b[2J", "\\x1b[2J", 7},
        {"\xff\xfe", "\\xff\\xfe", 8},
        {"\xc2\x85", "\\xc2\\x85", 8},            // a control character of two bytes
        {"\xe4\xb8\xad\xe6\x96\x87", "\xe4\xb8\xad\xe6\x96\x87", 4},
        {"e\xcc\x81", "e\xcc\x81", 1},
        {"\xc0\xaf", "\\xc0\\xaf", 8},            // overlong
        {"\xed\xa0\x80", "\\xed\\xa0\\x80", 12},  // a surrogate
        {"\xe4\xb8", "\\xe4\\xb8", 8},            // cut short
    };
    for (const Case& c : cases) {
        std::string shown;
        for (size_t at = 0; at < c.text.size();) {
            TermPiece p = NextTermPiece(c.text, &at);
            shown.append(p.text, p.length);
        }
        EXPECT_EQ(shown, c.shown);
        EXPECT_EQ(TermColumns(c.text), c.columns) << c.shown;
    }
}

}  // namespace
