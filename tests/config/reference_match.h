// A second, independent matcher for checking TemplateMatch: the matching
// rule transcribed literally, recursion over every candidate position and
// all, memoised on (text start, template start) so long inputs stay cheap.
#pragma once

#include <string>
#include <vector>

struct ReferenceMatcher {
    std::string text;
    std::string pattern;  // converted form
    char sep;
    std::vector<signed char> memo;  // -1 unknown, else the result

    ReferenceMatcher(std::string t, std::string p, bool useBackslash)
        : text(std::move(t)), pattern(std::move(p)), sep(useBackslash ? '\\' : '/'),
          memo((text.size() + 1) * (pattern.size() + 1), -1) {}

    bool Match() { return Match(0, 0); }

    // Matches text[t0..] against pattern[p0..].
    bool Match(size_t t0, size_t p0) {
        signed char& known = memo[t0 * (pattern.size() + 1) + p0];
        if (known < 0) known = Compute(t0, p0);
        return known;
    }

    static bool IsCode(char c) { return c >= 1 && c <= 3; }

    bool Compute(size_t t0, size_t p0) {
        const size_t n = text.size() - t0, m = pattern.size() - p0;
        auto T = [&](size_t i) { return text[t0 + i]; };
        auto P = [&](size_t i) { return pattern[p0 + i]; };
        size_t i = 0;
        while (i < m) {
            char c = P(i);
            if (c == 1) {
                if (i == n || T(i) == sep) return false;
                i++;
            } else if (IsCode(c)) {
                size_t j = i;
                bool any = false;
                for (; j < m && IsCode(P(j)); j++) any |= P(j) == 3;
                if (j == m) return any || text.find(sep, t0 + i) == std::string::npos;
                if (i == n) return false;
                for (size_t k = i; k < n; k++)
                    if (T(k) == P(j) && Match(t0 + k + 1, p0 + j + 1)) return true;
                return false;
            } else {
                if (i == n || T(i) != c) return false;
                i++;
            }
        }
        return i == n;
    }
};
