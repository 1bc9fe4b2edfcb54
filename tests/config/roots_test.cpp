#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "config/roots.h"
#include "tests/config/config_testutil.h"
#include "tests/support/testutil.h"

static AuditRoot* AddRoot(const std::string& path) {
    AuditRoot* root = NewRoot();
    root->path = strdup(path.c_str());
    (rootLast ? rootLast->next : rootList) = root;
    return rootLast = root;
}

TEST(ValidateRootListDeathTest, RefusesRootsThatResolveAlike) {
    ScopedTempDir dir;
    char buf[PATH_MAX];
    const std::string real = realpath(dir.path.c_str(), buf);
    for (const char* name : {"a", "Aa", "aA"}) mkdir((dir / name).c_str(), 0755);
    symlink((dir / "a").c_str(), (dir / "link").c_str());
    struct Case {
        const char *first, *second, *reported;
    } cases[] = {{"a", "link", "a"}, {"Aa", "aA", "aA"}};  // case is ignored
    for (const Case& c : cases) {
        AddRoot(dir / c.first);
        AddRoot(dir / c.second);
        EXPECT_EXIT(ValidateRootList(), testing::ExitedWithCode(1),
                    testing::Eq("Duplicate root path: " + real + "/" + c.reported + "\n"));
        ResetRoots();
    }
}
