// The parts of the walk that a whole run cannot reach on purpose: a link
// target that changes between lstat and readlink, and a subdirectory that is
// no longer a directory when the walk comes to open it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "config/roots.h"
#include "log/log.h"
#include "scan/dispatch.h"
#include "scan/idtable.h"
#include "scan/walk.h"
#include "tests/support/testutil.h"
#include "tests/support/treebuilder.h"

namespace {

TEST(ProcessFile, ReadsLinkTargetsCutAtTheLstatSizeWithoutStaleBytes) {
    ScopedTempDir dir;
    MakeTree(dir.path, {{TreeItem::SYMLINK, "long", "abcdefghij"}, {TreeItem::SYMLINK, "short", "ab"}});
    struct Case {
        const char* name;
        off_t size;  // as lstat reported it; differs when the link changed in between
        const char* target;
    } cases[] = {
        {"long", 10, "abcdefghij"},
        {"short", 10, "ab"},  // shrank: zeros, not the last target's bytes
        {"long", 4, "abcd"},  // grew: cut at the lstat size
        {"gone", 6, ""},      // cannot be read: empty
    };
    IdTableOpen();
    dispatchDirFd = open(dir.path.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dispatchDirFd, 0);
    FileRecord record{};
    record.linkTarget = NewStringObject("init", 1024);
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " of size " + std::to_string(c.size));
        record.entryFlags = 0;
        fstatat(dispatchDirFd, c.name, &record.statData, AT_SYMLINK_NOFOLLOW);
        record.statData.st_mode = S_IFLNK | 0777;
        record.statData.st_size = c.size;
        snprintf(record.name, sizeof record.name, "%s", c.name);
        EXPECT_EQ(ProcessFile(&record), static_cast<uint32_t>(S_IFLNK));
        EXPECT_EQ(record.entryFlags, FLAG_SYMLINK);
        EXPECT_EQ(std::string(record.linkTarget->text), c.target);
    }
    close(dispatchDirFd);
    dispatchDirFd = AT_FDCWD;
    FreeStringObject(record.linkTarget);
    IdTableFree();
}

TEST(ProcessSubdir, ASubdirectoryReplacedSinceItWasListedIsReportedNotFollowed) {
    ScopedTempDir dir;
    MakeTree(dir.path, {{TreeItem::DIR, "elsewhere"}, {TreeItem::FILE, "elsewhere/secret"},
                        {TreeItem::SYMLINK, "link", "elsewhere"}});
    AuditRoot root{};
    root.path = dir.path.data();
    // The listing found a directory named link; by now it is a link to one.
    char name[] = "link";
    SubdirNode node{nullptr, 4, name};
    int rootFd = open(dir.path.c_str(), O_RDONLY | O_DIRECTORY);
    EXPECT_EQ(WrittenTo(errFile, [&] { ProcessSubdir(&root, "/", &node, rootFd, 1); }),
              "Unable to open directory '" + dir.path + "/link'\n  (p20) Not a directory\n");
    close(rootFd);
    EXPECT_EQ(root.dirCount, 1u);  // counted like any directory that cannot be opened
}

}  // namespace
