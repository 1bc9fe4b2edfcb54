#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "config/roots.h"
#include "driver/globals.h"
#include "tests/config/config_testutil.h"
#include "tests/support/testutil.h"

static AuditRoot* AddRoot(const std::string& path) {
    AuditRoot* root = NewRoot();
    root->path = strdup(path.c_str());
    (rootLast ? rootLast->next : rootList) = root;
    return rootLast = root;
}

TEST(ValidateRoot, StoresTheCanonicalPathAndVolumeFigures) {
    ScopedTempDir dir;
    char buf[PATH_MAX];
    const std::string real = std::string(realpath(dir.path.c_str(), buf)) + "/real";
    mkdir(real.c_str(), 0755);
    mkdir((real + "/sub").c_str(), 0755);
    symlink(real.c_str(), (dir / "link").c_str());
    snprintf(srvrName, sizeof srvrName, "node-7");
    const std::string cwd = getcwd(buf, sizeof buf);
    ASSERT_EQ(chdir((real + "/sub").c_str()), 0);
    const std::pair<std::string, std::string> cases[] = {
        {".", real + "/sub"}, {"..", real}, {dir / "link/./sub/../sub/", real + "/sub"},
    };
    for (const auto& [given, stored] : cases) {
        AuditRoot* root = AddRoot(given);
        ValidateRootList();
        EXPECT_EQ(root->path, stored) << given;
        EXPECT_EQ(root->rootIndex, 0u);
        EXPECT_EQ(rootCount, 1);
        EXPECT_GT(root->volumeCapacity, 0u);
        EXPECT_LE(root->availableSpace, root->volumeCapacity);
        EXPECT_EQ(root->mountSource, nullptr);  // a local file system
        EXPECT_STREQ(trgtSrvr, "node-7");
        EXPECT_STREQ(tvxRoot, root->path);
        ResetRoots();
    }
    EXPECT_EQ(chdir(cwd.c_str()), 0);
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
