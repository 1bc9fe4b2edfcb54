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

TEST(DefinedTempName, ChoosesTheDirectoryAsTempnamDoesWithAShortPrefix) {
    ScopedTempDir env, given;
    const std::string system = P_tmpdir, missing = env / "missing", slashed = env.path + "/";
    struct Case {
        const char* what;
        const char* tmpdir;  // TMPDIR; null: unset
        const char* dir;     // tempDir
        const char* id;      // tempId
        std::string expectedPrefix;
    } cases[] = {
        {"neither", nullptr, nullptr, nullptr, system + "/kpage"},
        {"the directory given", nullptr, given.path.c_str(), nullptr, given / "kpage"},
        {"TMPDIR before the directory given", env.path.c_str(), given.path.c_str(), nullptr, env / "kpage"},
        {"TMPDIR alone", env.path.c_str(), nullptr, nullptr, env / "kpage"},
        {"TMPDIR with a slash at its end", slashed.c_str(), nullptr, nullptr, env / "kpage"},
        {"TMPDIR that is no directory", missing.c_str(), given.path.c_str(), nullptr, given / "kpage"},
        {"neither is a directory", missing.c_str(), missing.c_str(), nullptr, system + "/kpage"},
        {"an empty TMPDIR", "", nullptr, nullptr, system + "/kpage"},
        {"the id before the base", nullptr, given.path.c_str(), "run", given / "run.k"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ScopedEnv tmpdir("TMPDIR", c.tmpdir);
        tempDir = const_cast<char*>(c.dir);
        tempId = const_cast<char*>(c.id);
        char* a = DefinedTempName("kpage.tmp");
        char* b = DefinedTempName("kpage.tmp");
        std::string name(a);
        EXPECT_EQ(name.rfind(c.expectedPrefix, 0), 0u) << name;
        EXPECT_EQ(name.size(), c.expectedPrefix.size() + 6) << name;
        EXPECT_STRNE(a, b);
        free(a);
        free(b);
        tempDir = tempId = nullptr;
    }
}
