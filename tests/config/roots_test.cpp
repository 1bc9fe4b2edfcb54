#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
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
    if (rootLast) rootLast->next = root; else rootList = root;
    rootLast = root;
    return root;
}

static std::string Resolved(const std::string& path) {
    char buf[PATH_MAX];
    return realpath(path.c_str(), buf) ? buf : "?";
}

TEST(ValidateRoot, StoresTheCanonicalPathAndVolumeFigures) {
    ScopedTempDir dir;
    const std::string real = Resolved(dir.path) + "/real";
    mkdir(real.c_str(), 0755);
    mkdir((real + "/sub").c_str(), 0755);
    symlink(real.c_str(), (dir / "link").c_str());
    snprintf(srvrName, sizeof srvrName, "%s", "node-7");

    int cwd = open(".", O_RDONLY | O_DIRECTORY);
    ASSERT_EQ(chdir((real + "/sub").c_str()), 0);
    struct Case {
        std::string given, stored;
    } cases[] = {
        {".", real + "/sub"},                 // relative to the working directory
        {"..", real},
        {dir / "link", real},                 // symbolic links resolved
        {dir / "link/./sub/../sub/", real + "/sub"},
    };
    for (const Case& c : cases) {
        AuditRoot* root = AddRoot(c.given);
        ValidateRootList();
        EXPECT_EQ(root->path, c.stored) << c.given;
        EXPECT_EQ(root->rootIndex, 0u) << c.given;
        EXPECT_EQ(rootCount, 1) << c.given;
        EXPECT_GT(root->volumeCapacity, 0u) << c.given;
        EXPECT_LE(root->availableSpace, root->volumeCapacity) << c.given;
        EXPECT_EQ(root->mountSource, nullptr) << c.given;
        EXPECT_STREQ(trgtSrvr, "node-7") << c.given;
        EXPECT_EQ(trgtName, nullptr) << c.given;
        EXPECT_STREQ(tvxRoot, root->path) << c.given;
        ResetRoots();
    }
    EXPECT_EQ(fchdir(cwd), 0);
    close(cwd);
}

TEST(ValidateRootListDeathTest, RefusesRootsThatResolveAlike) {
    ScopedTempDir dir;
    const std::string real = Resolved(dir.path);
    mkdir((dir / "a").c_str(), 0755);
    mkdir((dir / "Aa").c_str(), 0755);
    mkdir((dir / "aA").c_str(), 0755);
    symlink((dir / "a").c_str(), (dir / "link").c_str());
    struct Case {
        std::string first, second, reported;
    } cases[] = {
        {dir / "a", dir / "link", real + "/a"},
        {dir / "Aa", dir / "aA", real + "/aA"},  // paths are compared ignoring case
    };
    for (const Case& c : cases) {
        AddRoot(c.first);
        AddRoot(c.second);
        EXPECT_EXIT(ValidateRootList(), testing::ExitedWithCode(1),
                    testing::Eq("Duplicate root path: " + c.reported + "\n"));
        ResetRoots();
    }
}
