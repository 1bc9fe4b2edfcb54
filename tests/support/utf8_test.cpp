#include "support/utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

TEST(Utf8Test, DecodesWithTheSuitesMasks) {
    struct Case {
        std::string utf;
        std::wstring wide;
    } cases[] = {
        {"", L""}, {"a\xC3\xA9z", L"a\xE9z"},
        {"\xE2\x82\xAC", std::wstring(1, wchar_t(0xE20AC))},  // lead byte's top bits kept
        {"\xE0\x90\x80", std::wstring(1, wchar_t(0xE0400))},
        {"\x80\x81\x82", std::wstring(1, wchar_t(0x80042))},  // a stray continuation is a three-byte lead
        {"\xF0\x9F\x98", std::wstring(1, wchar_t(0xF07D8))},  // so is a four-byte lead
        {"\xC3", std::wstring(1, wchar_t(0xC0))},             // the terminator ends the sequence
    };
    for (const auto& c : cases) {
        std::vector<wchar_t> out(c.utf.size() + 1);
        EXPECT_EQ(std::wstring(UtfToWChr(out.data(), c.utf.c_str())), c.wide) << c.utf;
    }
}

TEST(Utf8Test, EncodesWithTheThreeByteFormFrom0x400) {
    struct Case {
        std::wstring wide;
        std::string utf;
    } cases[] = {
        {L"", ""}, {L"\x7F", "\x7F"}, {L"\x80", "\xC2\x80"}, {L"\x3FF", "\xCF\xBF"}, {L"\x400", "\xE0\x90\x80"},
        {L"\xFFFF", "\xEF\xBF\xBF"},
        {std::wstring(1, wchar_t(0x12345)), "\xE2\x8D\x85"},  // bits above 16 are lost
        {std::wstring(1, wchar_t(-2)), "\xFE"},               // negative: one byte
    };
    for (const auto& c : cases) {
        std::vector<char> out(WChrUtfLen(c.wide.c_str()));
        ASSERT_EQ(out.size(), c.utf.size() + 1);
        EXPECT_EQ(std::string(WChrToUtf(out.data(), c.wide.c_str())), c.utf);
    }
}

}  // namespace
