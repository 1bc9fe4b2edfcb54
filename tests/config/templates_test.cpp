#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/templates.h"
#include "tests/config/reference_match.h"

static std::string Convert(const std::string& written) {
    std::string out(written.size() + 1, '\x7f');
    uint32_t stored = 0;
    out.resize(ConvertTemplate(written.data(), static_cast<int>(written.size()), out.data(), &stored) + 1);
    EXPECT_EQ(out.back(), '\0');
    out.pop_back();
    EXPECT_EQ(out.size(), stored);
    return out;
}

TEST(ConvertTemplate, WildcardsBecomeCodesAndTheApostropheEscapes) {
    const std::pair<std::string, std::string> cases[] = {
        {"*.t?~", "\x02.t\x01\x03"},
        {"'*'?'~", "*?~"}, {"''", "'"},  // an escaped wildcard or apostrophe is a literal
        {"'a", "'a"},                     // any other apostrophe stays
    };
    for (const auto& [written, converted] : cases) EXPECT_EQ(Convert(written), converted) << written;
}

// Every template of up to four characters over a small alphabet against every
// text of up to five, compared with the literal recursive rule; an escaped
// wildcard is a literal that only the text itself matches.
TEST(TemplateMatch, AgreesWithTheRecursiveRuleOnEverySmallCase) {
    auto all = [](const std::string& alphabet, size_t maxLength) {
        std::vector<std::string> out{""};
        for (size_t i = 0; out[i].size() < maxLength; i++)
            for (char c : alphabet) out.push_back(out[i] + c);
        return out;
    };
    int mismatches = 0;
    for (const std::string& written : all("a/?*~'", 4)) {
        std::string pattern = Convert(written);
        for (const std::string& text : all("ab/*", 5)) {
            int expected = ReferenceMatcher(text, pattern, false).Match();
            if (TemplateMatch(text.c_str(), pattern.c_str(), 0) != expected && ++mismatches <= 10)
                ADD_FAILURE() << "template '" << written << "' text '" << text << "' expected " << expected;
        }
    }
    EXPECT_EQ(mismatches, 0);
}
