#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "config/roots.h"
#include "config/templates.h"
#include "tests/config/reference_match.h"

static std::string Convert(const std::string& written) {
    std::string out(written.size() + 1, '\x7f');
    uint32_t stored = 0xFFFF;
    uint32_t length = ConvertTemplate(written.data(), static_cast<int>(written.size()), out.data(), &stored);
    EXPECT_EQ(length, stored);
    EXPECT_EQ(out[length], '\0');
    out.resize(length);
    return out;
}

static void FreeList(TemplateRec*& list) {
    while (list) {
        TemplateRec* next = list->next;
        free(list);
        list = next;
    }
}

TEST(ConvertTemplate, WildcardsBecomeCodesAndTheApostropheEscapes) {
    struct Case {
        std::string written, converted;
    } cases[] = {
        {"", ""},
        {"abc", "abc"},
        {"*.txt", "\x02.txt"},
        {"a?c", "a\x01" "c"},
        {"/src/~", "/src/\x03"},
        {"'*", "*"},              // an escaped wildcard is a literal
        {"'?'~", "?~"},
        {"''", "'"},              // two apostrophes are one
        {"'''", "''"},            // the third has nothing to escape
        {"'a", "'a"},             // an apostrophe before anything else stays
        {"a'", "a'"},             // and so does one at the end
        {"'", "'"},
        {"''*", "'\x02"},
        {"\xe9*\xff", "\xe9\x02\xff"},  // high bytes pass unchanged
        {"\x01\x02", "\x01\x02"},       // code bytes in the source stay codes
    };
    for (const Case& c : cases) EXPECT_EQ(Convert(c.written), c.converted) << "template '" << c.written << "'";

    char dst[4] = "xyz";
    uint32_t length = 7;
    EXPECT_EQ(ConvertTemplate("abc", -1, dst, &length), 0u);
    EXPECT_EQ(length, 0u);
    EXPECT_STREQ(dst, "");
}

TEST(TemplateMatch, FollowsTheWildcardRules) {
    struct Case {
        const char* written;
        const char* text;
        int result;
    } cases[] = {
        {"*.txt", "a.txt", 1},
        {"*.txt", "x/a.txt", 1},  // a run followed by more template crosses separators
        {"/src/*", "/src/a", 1},
        {"/src/*", "/src/a/b", 0},  // a trailing '*' does not
        {"/src/~", "/src/a/b", 1},
        {"/a/*/c", "/a/b/x/c", 1},
        {"a?c", "a/c", 0},
        {"a?c", "abc", 1},
        {"a?c", "ac", 0},
        {"*?", "", 1},       // '?' inside a run asks for no character
        {"*??x", "x", 1},
        {"?*", "", 0},       // before the run it does
        {"*~", "a/b", 1},    // a '~' anywhere in a trailing run lets it cross
        {"~*", "a/b", 1},
        {"*.TXT", "a.txt", 0},
        {"", "", 1},
        {"", "a", 0},
        {"abc", "ab", 0},
        {"ab", "abc", 0},
        {"*", "", 1},
        {"*", "name", 1},
        {"*", "/a", 0},      // '*' alone matches no logical path
        {"/*", "/a", 1},
        {"/*", "/a/b", 0},
        {"*/*", "a/b/c", 1},  // the first run takes up to the last separator
        {"*a", "aaa", 1},
        {"*ab", "aab", 1},
        {"*a*b*c", "xaxbxcx", 0},
        {"*a*b*c", "xaxbxc", 1},
        {"*a*b", "ab/ab/a", 0},
        {"'*", "*", 1},
        {"'*", "a", 0},
        {"''", "'", 1},
        {"'a", "'a", 1},
        {"a'", "a'", 1},
        {"x'?", "x?", 1},
        {"x'?", "xy", 0},
        {"*'~", "a/b~", 1},
    };
    for (const Case& c : cases)
        EXPECT_EQ(TemplateMatch(c.text, Convert(c.written).c_str(), 0), c.result)
            << "template '" << c.written << "' text '" << c.text << "'";
}

TEST(TemplateMatch, BackslashIsTheSeparatorWhenAsked) {
    struct Case {
        const char* written;
        const char* text;
        int withSlash, withBackslash;
    } cases[] = {
        {"\\src\\*", "\\src\\a\\b", 1, 0},
        {"/src/*", "/src/a/b", 0, 1},
        {"a?c", "a\\c", 1, 0},
        {"a?c", "a/c", 0, 1},
    };
    for (const Case& c : cases) {
        std::string pattern = Convert(c.written);
        EXPECT_EQ(TemplateMatch(c.text, pattern.c_str(), 0), c.withSlash) << c.written << " / " << c.text;
        EXPECT_EQ(TemplateMatch(c.text, pattern.c_str(), 1), c.withBackslash) << c.written << " \\ " << c.text;
    }
}

// Every written template of up to four characters over a small alphabet
// against every text of up to five, compared with the literal recursive rule.
TEST(TemplateMatch, AgreesWithTheRecursiveRuleOnEverySmallCase) {
    auto all = [](const std::string& alphabet, size_t maxLength) {
        std::vector<std::string> out{""};
        for (size_t from = 0; out.back().size() < maxLength;) {
            size_t to = out.size();
            for (size_t i = from; i < to; i++)
                for (char c : alphabet) out.push_back(out[i] + c);
            from = to;
        }
        return out;
    };
    const auto templates = all("a/?*~", 4);
    const auto texts = all("ab/", 5);
    int mismatches = 0;
    for (const std::string& written : templates) {
        std::string pattern = Convert(written);
        for (const std::string& text : texts) {
            int expected = ReferenceMatcher(text, pattern, false).Match();
            if (TemplateMatch(text.c_str(), pattern.c_str(), 0) != expected && ++mismatches <= 10)
                ADD_FAILURE() << "template '" << written << "' text '" << text << "' expected " << expected;
        }
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(Templates, ListsHoldBothTextsNewestFirst) {
    TemplateRec* list = nullptr;
    for (const char* text : {"A*", "'?b", "C"}) AddIncludeExcludeTemplate(&list, text);
    std::vector<std::string> orig, match;
    for (TemplateRec* t = list; t; t = t->next) {
        // Both texts sit in the record's own block, the written one after the converted one.
        EXPECT_EQ(t->matchText, reinterpret_cast<char*>(t + 1));
        EXPECT_EQ(t->origText, t->matchText + t->matchLength + 1);
        EXPECT_EQ(strlen(t->matchText), t->matchLength);
        EXPECT_EQ(strlen(t->origText), t->origLength);
        orig.push_back(t->origText);
        match.push_back(t->matchText);
    }
    EXPECT_EQ(orig, (std::vector<std::string>{"C", "'?b", "A*"}));
    EXPECT_EQ(match, (std::vector<std::string>{"C", "?b", "A\x02"}));
    FreeList(list);
}

TEST(Templates, SelectionRule) {
    struct Case {
        std::vector<const char*> include, exclude;
        const char* text;
        int selected;
    } cases[] = {
        {{}, {}, "a.c", 1},                    // no templates: everything
        {{"*.c"}, {}, "a.c", 1},
        {{"*.c"}, {}, "a.h", 0},               // not included
        {{"*.c", "*.h"}, {}, "a.h", 1},        // any include will do
        {{}, {"*.o"}, "a.o", 0},
        {{}, {"*.o"}, "a.c", 1},
        {{"a*"}, {"*.o"}, "a.o", 0},           // exclusion wins
        {{"a*"}, {"*.o", "b*"}, "a.c", 1},
    };
    auto freeAll = [](AuditRoot& root) {
        for (TemplateRec** list : {&root.includeDirs, &root.excludeDirs, &root.includeFiles, &root.excludeFiles})
            FreeList(*list);
    };
    for (const Case& c : cases) {
        // File templates see the name and leave directories alone ...
        AuditRoot files{};
        for (const char* t : c.include) AddIncludeFile(&files, t);
        for (const char* t : c.exclude) AddExcludeFile(&files, t);
        EXPECT_EQ(IsFileSelected(c.text, &files), c.selected) << c.text;
        EXPECT_EQ(IsDirectorySelected("/zzz", &files), 1) << c.text;
        freeAll(files);

        // ... and directory templates see the logical path and leave files alone.
        AuditRoot dirs{};
        for (const char* t : c.include) AddIncludeDir(&dirs, (std::string("/") + t).c_str());
        for (const char* t : c.exclude) AddExcludeDir(&dirs, (std::string("/") + t).c_str());
        EXPECT_EQ(IsDirectorySelected((std::string("/") + c.text).c_str(), &dirs), c.selected) << c.text;
        EXPECT_EQ(IsFileSelected("zzz", &dirs), 1) << c.text;
        freeAll(dirs);
    }
}
