#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "scan/accesspath.h"

TEST(AccessPaths, JoinBaseMiddleAndNameAndTurnBackslashesIntoSlashes) {
    struct Case {
        const char *prefix, *base, *path, *name;
        const char *prefixed, *access;  // null: not built
    } cases[] = {
        // The documented examples.
        {nullptr, "/vol/data", "/", nullptr, nullptr, "/vol/data"},
        {nullptr, "/vol/data", "/a/b", "f", nullptr, "/vol/data/a/b/f"},
        {nullptr, "/vol/data", "/", "f", nullptr, "/vol/data/f"},
        // Middle part: no leading separator, a trailing one, null.
        {nullptr, "/r", "a/b", "f", nullptr, "/r/a/b/f"},
        {nullptr, "/r", "/a/b/", "f", nullptr, "/r/a/b/f"},
        {nullptr, "/r", nullptr, "f", nullptr, "/r/f"},
        // Name: one leading separator is skipped.
        {nullptr, "/r", "/a", "/f", nullptr, "/r/a/f"},
        // Backslashes anywhere come out as "/".
        {nullptr, "C:\\vol", "\\a\\b", "x\\y", nullptr, "C:/vol/a/b/x/y"},
        // With a prefix both paths are built, the prefixed one first; without
        // a path both need a middle "/" that the length formula leaves out.
        {"\\\\srv", "/r", "/a", "f", "//srv/a/f", "/r/a/f"},
        {"/p", "/r", nullptr, "f", "/p/f", "/r/f"},
        {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.base ? c.base : "-") + " | " + (c.path ? c.path : "-") + " | " +
                     (c.name ? c.name : "-"));
        // The reported length must hold what is built (its exact formula is
        // the module's business): the bytes past it must stay untouched.
        const auto length = static_cast<size_t>(AccessStructLength(c.prefix, c.base, c.path, c.name));
        std::vector<char> memory(length + 64, '\x5a');
        AccessPaths* paths = BuildAccessPaths(c.prefix, c.base, c.path, c.name, memory.data());
        EXPECT_EQ(std::string(memory.begin() + length, memory.end()), std::string(64, '\x5a'));
        EXPECT_EQ(static_cast<void*>(paths), memory.data());
        EXPECT_STREQ(paths->prefixedPath, c.prefixed);
        EXPECT_STREQ(paths->accessPath, c.access);
        // The texts follow the two pointers, prefixed path first.
        const char* text = memory.data() + sizeof(AccessPaths);
        if (c.prefixed) {
            EXPECT_EQ(paths->prefixedPath, text);
        }
        if (c.access) {
            EXPECT_EQ(paths->accessPath, c.prefixed ? text + strlen(c.prefixed) + 1 : text);
        }
    }
}
