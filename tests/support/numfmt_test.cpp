#include "support/numfmt.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(NumFmtTest, EditsByteCountsInMetricUnits) {
    struct Case {
        uint64_t value;
        const char* text;
    } cases[] = {
        {0, " bytes"}, {500, "50 bytes"}, {999999, "999.99 bytes"}, {1000001, "1.00mb (1,000,001)"},
        {999999999, "1.000.00mb (999,999,999)"},  // 1,000,000 thousandths, grouped with '.'
        {5500000000, "5.50gb (5,500,000,000)"}, {2500000000000, "2.50tb (2,500,000,000,000)"},
        // The exact count is grouped as a signed number, its sign counted as a digit.
        {18323287284697205938ull, "18.323.287.28tb (-,123,456,789,012,345,678)"},
    };
    for (const auto& c : cases) {
        char buf[NUM_BUF_SIZE];
        EXPECT_STREQ(EditValueMetric(c.value, buf), c.text) << c.value;
    }
}

}  // namespace
