#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "support/helpers.h"
#include "tests/support/testutil.h"

static int Sign(int v) { return (v > 0) - (v < 0); }

TEST(PathCmp, SortsSeparatorFirstButAfterTheEnd) {
    struct Case {
        const char* a;
        const char* b;
        int sign;
    } cases[] = {
        {"/a/b", "/a/b", 0}, {"/a/b", "/a-b", -1}, {"/a-b", "/a/b", 1}, {"/a", "/a/b", -1},
        {"/a/b", "/ab", -1}, {"/A", "/a", -1},     {"/a\xff", "/a", -1}, {"/a\xff", "/a/", 1},
    };
    for (const auto& c : cases) EXPECT_EQ(Sign(PathCmp(c.a, c.b)), c.sign) << c.a << " vs " << c.b;
}

TEST(Strtoul64, ReadsLeadingDigitsOnly) {
    struct Case {
        const char* in;
        uint64_t value;
        size_t endAt;
    } cases[] = {{"12ab", 12, 2}, {"-5", 0, 0}, {" 5", 0, 0}, {"18446744073709551615", 18446744073709551615ull, 20}};
    for (const auto& c : cases) {
        char* end = nullptr;
        EXPECT_EQ(strtoul64(c.in, &end), c.value) << c.in;
        EXPECT_EQ(static_cast<size_t>(end - c.in), c.endAt) << c.in;
    }
}

TEST(Cp, CopiesExactlyAndReportsFailures) {
    ScopedTempDir dir;
    std::string payload(10000, '\0');
    for (size_t i = 0; i < payload.size(); i++) payload[i] = static_cast<char>(i * 7);
    WriteFile(dir / "from", payload);
    WriteFile(dir / "to", std::string(20000, 'z'));  // longer: must be truncated
    ASSERT_EQ(cp((dir / "to").c_str(), (dir / "from").c_str()), 0);
    EXPECT_EQ(ReadFile(dir / "to"), payload);
    errno = 0;
    EXPECT_EQ(cp((dir / "copy").c_str(), (dir / "missing").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(PathExists(dir / "copy"));
}

TEST(DefinedTempName, UsesTheTemporaryDirectoryAndAShortPrefix) {
    char* a = DefinedTempName("kpage.tmp");
    char* b = DefinedTempName("kpage.tmp");
    std::string name(a);
    EXPECT_EQ(name.rfind(std::string(P_tmpdir) + "/kpage", 0), 0u) << name;
    EXPECT_EQ(name.size(), strlen(P_tmpdir) + 1 + 5 + 6);
    EXPECT_STRNE(a, b);
    free(a);
    free(b);

    ScopedTempDir dir;
    tempDir = dir.path.data();
    tempId = const_cast<char*>("run");
    char* c = DefinedTempName("tpage.tmp");
    EXPECT_EQ(std::string(c).rfind(dir.path + "/run.t", 0), 0u) << c;
    free(c);
    tempDir = tempId = nullptr;
}
