#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "support/helpers.h"
#include "tests/support/testutil.h"

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

// The hard-link chain's file lives where TMPDIR says, unnamed from the start.
TEST(AnonymousTempFile, LivesInTmpdirWithoutAName) {
    ScopedTempDir scratch;
    ScopedEnv tmpdir("TMPDIR", scratch.path.c_str());
    FILE* f = AnonymousTempFile();
    ASSERT_NE(f, nullptr);
    char target[4096] = {};
    ASSERT_GT(readlink(("/proc/self/fd/" + std::to_string(fileno(f))).c_str(), target, sizeof target - 1), 0);
    EXPECT_EQ(std::string(target).rfind(scratch.path + "/", 0), 0u) << target;
    EXPECT_EQ(Entries(scratch.path), std::set<std::string>{});
    fclose(f);
}
