#include "support/utf8.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::wstring Decode(const std::string& utf) {
    std::vector<wchar_t> out(utf.size() + 1);
    return UtfToWChr(out.data(), utf.c_str());
}

std::string DecodeNarrow(const std::string& utf) {
    std::vector<char> out(utf.size() + 1);
    return UtfToChr(out.data(), utf.c_str());
}

std::string Encode(const std::wstring& wide) {
    std::vector<char> out(WChrUtfLen(wide.c_str()));
    WChrToUtf(out.data(), wide.c_str());
    return std::string(out.data(), out.size() - 1);
}

TEST(Utf8Test, DecodesWithTheSuitesMasks) {
    struct Case {
        std::string utf;
        std::wstring wide;
    } cases[] = {
        {"", L""},
        {"Az", L"Az"},
        {"\xC3\xA9", L"\xE9"},
        {"\xE2\x82\xAC", std::wstring(1, wchar_t(0xE20AC))},       // lead byte's top bits kept
        {"\xE0\x90\x80", std::wstring(1, wchar_t(0xE0400))},
        {"\x80\x81\x82", std::wstring(1, wchar_t(0x80042))},      // a stray continuation is a three-byte lead
        {"\xF0\x9F\x98", std::wstring(1, wchar_t(0xF07D8))},      // so is a four-byte lead
        {"a\xC3\xA9z", std::wstring(L"a\xE9z")},
        {"\xC3", std::wstring(1, wchar_t(0xC0))},                // the terminator ends the sequence
        {"\xE2\x82", std::wstring(1, wchar_t(0xE2080))},
    };
    for (const auto& c : cases) EXPECT_EQ(Decode(c.utf), c.wide) << c.utf;
}

TEST(Utf8Test, DecodesToNarrowLowBytes) {
    EXPECT_EQ(DecodeNarrow("\xC3\xA9"), "\xE9");
    EXPECT_EQ(DecodeNarrow("\xE2\x82\xAC!"), "\xAC!");
    EXPECT_EQ(DecodeNarrow(""), "");
}

TEST(Utf8Test, EncodesWithTheThreeByteFormFrom0x400) {
    struct Case {
        std::wstring wide;
        std::string utf;
    } cases[] = {
        {L"", ""},
        {L"abc", "abc"},
        {L"\x7F", "\x7F"},
        {L"\x80", "\xC2\x80"},
        {L"\xE9", "\xC3\xA9"},
        {L"\x3FF", "\xCF\xBF"},
        {L"\x400", "\xE0\x90\x80"},
        {L"\x7FF", "\xE0\x9F\xBF"},
        {L"\xFFFF", "\xEF\xBF\xBF"},
        {std::wstring(1, wchar_t(0x12345)), "\xE2\x8D\x85"},  // bits above 16 are lost
        {std::wstring(1, wchar_t(-2)), "\xFE"},               // negative: one byte
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Encode(c.wide), c.utf) << int(c.wide.empty() ? 0 : c.wide[0]);
        EXPECT_EQ(WChrUtfLen(c.wide.c_str()), c.utf.size() + 1);
    }
}

TEST(Utf8Test, CopiesBytesUnchanged) {
    char out[8];
    EXPECT_STREQ(ChrToUtf(out, "\xE9"), "\xE9");
    EXPECT_EQ(ChrUtfLen("\xE9"), 2u);
    EXPECT_EQ(ChrUtfLen(""), 1u);
    EXPECT_STREQ(ChrToUtf(out, ""), "");
}

TEST(Utf8Test, CountsCharactersWithTheSuitesBoundaries) {
    struct Case {
        std::string utf;
        uint32_t count;
    } cases[] = {
        {"", 0},
        {"abc", 3},
        {"\xC3\xA9\x41", 2},
        {"\xE0\x41\x41", 2},  // E0 is a two-byte lead
        {"\xC0\x41", 2},      // C0 is a one-byte character
        {"\xC1\x41", 1},
        {"\xE1\x41\x41", 1},
        {"\xE2\x82", 1},      // cut off by the end: still one character
    };
    for (const auto& c : cases) EXPECT_EQ(UtfChrLen(c.utf.c_str()), c.count) << c.utf;
}

}  // namespace
