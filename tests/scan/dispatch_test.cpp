// The part of the walk that a whole run cannot reach on purpose: a link
// target that changes between lstat and readlink.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "scan/readahead.h"
#include "tests/support/testutil.h"
#include "tests/support/treebuilder.h"

namespace {

TEST(ReadLinkTarget, CutsAtTheLstatSizeWithoutStaleBytes) {
    ScopedTempDir dir;
    MakeTree(dir.path, {{TreeItem::SYMLINK, "long", "abcdefghij"}, {TreeItem::SYMLINK, "short", "ab"}});
    struct Case {
        const char* name;
        size_t size;  // as lstat reported it; differs when the link changed in between
        const char* target;
    } cases[] = {
        {"long", 10, "abcdefghij"},
        {"short", 10, "ab"},  // shrank: zeros, not the last target's bytes
        {"long", 4, "abcd"},  // grew: cut at the lstat size
        {"gone", 6, ""},      // cannot be read: empty
    };
    int dirFd = open(dir.path.c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(dirFd, 0);
    char out[16];
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.name) + " of size " + std::to_string(c.size));
        memset(out, 'x', sizeof out);
        ReadLinkTarget(dirFd, c.name, c.size, out);
        EXPECT_EQ(std::string(out), c.target);
        EXPECT_EQ(std::string(out, c.size + 1), std::string(c.target) + std::string(c.size + 1 - strlen(c.target), '\0'));
    }
    close(dirFd);
}

}  // namespace
