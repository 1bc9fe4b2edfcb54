#include "support/numfmt.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(NumFmtTest, GroupsDigits) {
    struct Case {
        int64_t value;
        char separator;
        const char* text;
    } cases[] = {
        {1234, ',', "1,234"}, {1234567, ',', "1,234,567"},
        {-123, ',', "-,123"},  // the sign counts as a digit
        {-12, ',', "-12"}, {INT64_MIN, ',', "-9,223,372,036,854,775,808"},
        {1235, '.', "1.23"},  // thousandths cut to two decimals
        {7, '.', ""},
    };
    for (const auto& c : cases) {
        char buf[NUM_BUF_SIZE];
        EXPECT_STREQ(ValueStr(c.value, buf, c.separator), c.text) << c.value;
    }
}

TEST(NumFmtTest, EditsByteCountsInMetricUnits) {
    struct Case {
        uint64_t value;
        const char* text;
    } cases[] = {
        {0, " bytes"}, {500, "50 bytes"}, {999999, "999.99 bytes"}, {1000001, "1.00mb (1,000,001)"},
        {999999999, "1.000.00mb (999,999,999)"},  // 1,000,000 thousandths, grouped with '.'
        {5500000000, "5.50gb (5,500,000,000)"}, {2500000000000, "2.50tb (2,500,000,000,000)"},
    };
    for (const auto& c : cases) {
        char buf[NUM_BUF_SIZE];
        EXPECT_STREQ(EditValueMetric(c.value, buf), c.text) << c.value;
    }
}

TEST(NumFmtTest, ReadsCountsWithUnitLetters) {
    constexpr uint64_t bad = ~uint64_t{0};
    struct Case {
        const char* text;
        int allowSuffix;
        uint64_t value;
    } cases[] = {
        {"", 0, 0},          {"42", 0, 42},          {"10k", 1, 10000},          {"10K", 1, 10240},
        {"2G", 1, 2147483648}, {"10k", 0, bad},      {"1k0", 1, bad},            {"-1", 1, bad},
        {"4294967295", 0, 4294967295}, {"4294967296", 0, bad}, {"5000000000", 1, 5000000000},
    };
    for (const auto& c : cases) EXPECT_EQ(NumericString(c.text, c.allowSuffix), c.value) << c.text;
}

}  // namespace
