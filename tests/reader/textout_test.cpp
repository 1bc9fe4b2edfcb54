// The pure pieces of the reports: how texts, sizes, times and numbers are
// written, and how the options' ages and the names' extensions are read.
#include "reader/textout.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>

#include "reader/report.h"

namespace {

TEST(TextOut, WritesTimesAsIso8601Utc) {
    // Days around leap days, the century rule and the ends of the 32-bit range.
    for (int64_t t : {0ll, 59ll, 86399ll, 86400ll, 951782400ll, 951868799ll, 951868800ll, 1078012800ll, 1700000003ll,
                      2147483647ll, 4107542400ll, 4107456000ll, 4294967295ll, -1ll, -86401ll}) {
        char text[32];
        struct tm tm;
        time_t when = t;
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&when, &tm));
        char mine[24];
        EXPECT_EQ(std::string(mine, PutIsoTime(mine, t)), text) << t;
    }
    EXPECT_EQ(HeadingTime(1700000003), "2023-11-14 22:13:23 UTC");
}

TEST(TextOut, WritesNumbersAndSizes) {
    for (uint64_t v : {0ull, 9ull, 10ull, 99ull, 100ull, 12345ull, 4294967295ull, 4294967296ull, 10000000000ull,
                       18446744073709551615ull}) {
        char text[24];
        EXPECT_EQ(std::string(text, PutDecimal(text, v)), std::to_string(v));
    }
    const std::pair<uint64_t, const char*> sizes[] = {
        {0, "0 B"},
        {1023, "1023 B"},
        {1024, "1.00 KiB"},
        {10189, "9.95 KiB"},
        {10235, "10.0 KiB"},
        {102348, "99.9 KiB"},
        {1048575, "1.00 MiB"},
        {~0ull, "16.0 EiB"},
    };
    for (const auto& [bytes, text] : sizes) EXPECT_EQ(HumanSize(bytes), text) << bytes;
}

TEST(TextOut, WritesNamesInEachFormat) {
    struct Case {
        std::string name, text, json, csv;
    } cases[] = {
        {"plain", "plain", "\"plain\"", "plain"},
        {"a,b", "a,b", "\"a,b\"", "\"a,b\""},
        {"say \"hi\"", "say \"hi\"", "\"say \\\"hi\\\"\"", "\"say \"\"hi\"\"\""},
        {"two\nlines\r", "two\\nlines\\x0d", "\"two\\u000alines\\u000d\"", "\"two\nlines\r\""},
        {"back\\slash\t", "back\\\\slash\\t", "\"back\\\\slash\\u0009\"", "back\\slash\t"},
        {"caf\xc3\xa9", "caf\xc3\xa9", "\"caf\xc3\xa9\"", "caf\xc3\xa9"},
        {"bad\xff\xc3", "bad\\xff\\xc3", "\"bad\xEF\xBF\xBD\xEF\xBF\xBD\"", "bad\xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const Case& c : cases) {
        std::string text, json, csv;
        AppendEscaped(&text, c.name, false);
        AppendJsonString(&json, c.name);
        AppendCsvField(&csv, c.name);
        EXPECT_EQ(text, c.text);
        EXPECT_EQ(json, c.json);
        EXPECT_EQ(csv, c.csv);
    }
    std::string member;
    AppendJsonMember(&member, "name", "x\xff");
    EXPECT_EQ(member, "\"name\": \"x\xEF\xBF\xBD\", \"nameHex\": \"78ff\"");
}

TEST(Report, ReadsAgeListsExtensionsAndPaths) {
    struct Age {
        const char* text;
        std::vector<int64_t> bounds;
        const char* error;
    } ages[] = {
        {"1m,6m,1y,3y", {2629800, 15778800, 31557600, 94672800}, ""},
        {"12h,2d,1w,12m", {43200, 172800, 604800, 31557600}, ""},
        {"1y,12m", {}, "ages must grow from left to right: '12m' follows '1y'"},
        {"", {}, "'' is not an age"},
        {"5", {}, "'5' is not an age"},
        {"0d", {}, "'0d' is not an age"},
        {"1x", {}, "'1x' is not an age"},
    };
    for (const Age& a : ages) {
        std::vector<int64_t> bounds;
        std::vector<std::string> names;
        std::string error;
        EXPECT_EQ(ParseAgeList(a.text, &bounds, &names, &error), !*a.error) << a.text;
        EXPECT_EQ(bounds, *a.error ? std::vector<int64_t>{} : a.bounds) << a.text;
        EXPECT_EQ(error.substr(0, strlen(a.error)), a.error) << a.text;
    }
    const std::pair<const char*, const char*> extensions[] = {
        {"photo.JPG", "jpg"},        {"a.tar.gz", "gz"}, {".bashrc", ""},
        {"trailing.", ""},           {"none", ""},       {"x.0123456789abcdef", "0123456789abcdef"},
        {"x.0123456789abcdefg", ""}, {"..", ""},         {"a.B-c_D", "b-c_d"},
    };
    for (const auto& [name, ext] : extensions) {
        char buffer[16];
        EXPECT_EQ(ExtensionOf(name, buffer), ext) << name;
    }
    const std::tuple<const char*, const char*, const char*> paths[] = {
        {"/data", "/", "/data"}, {"/data", "/a/b", "/data/a/b"}, {"/", "/", "/"},
        {"/", "/a", "/a"},       {"/data/", "/a", "/data/a"},
    };
    for (const auto& [root, logical, full] : paths) EXPECT_EQ(FullPath(root, logical), full);
}

}  // namespace
