#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

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

// The program's tree page files are named here: in the system's temporary
// directory, after the base, and a new name each time.
TEST(DefinedTempName, UsesTheTemporaryDirectoryAndAShortPrefix) {
    char* a = DefinedTempName("kpage.tmp");
    char* b = DefinedTempName("kpage.tmp");
    EXPECT_EQ(std::string(a).rfind(std::string(P_tmpdir) + "/kpage", 0), 0u) << a;
    EXPECT_STRNE(a, b);
    free(a);
    free(b);
}
