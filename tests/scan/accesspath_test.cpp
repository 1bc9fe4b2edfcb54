#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "scan/accesspath.h"

TEST(AccessPaths, JoinBaseMiddleAndNameAndTurnBackslashesIntoSlashes) {
    struct Case {
        const char *prefix, *base, *path, *name;
        const char *prefixed, *access;  // null: not built
        int length;
    } cases[] = {
        // The documented examples: A = 16, B = 10, C = len + 2, D = len.
        {nullptr, "/vol/data", "/", nullptr, nullptr, "/vol/data", 16 + 10 + 2 * 3},
        {nullptr, "/vol/data", "/a/b", "f", nullptr, "/vol/data/a/b/f", 16 + 10 + 2 * 7},
        {nullptr, "/vol/data", "/", "f", nullptr, "/vol/data/f", 16 + 10 + 2 * 4},
        // Middle part: no leading separator, a trailing one, null.
        {nullptr, "/r", "a/b", "f", nullptr, "/r/a/b/f", 16 + 3 + 2 * 6},
        {nullptr, "/r", "/a/b/", "f", nullptr, "/r/a/b/f", 16 + 3 + 2 * 8},
        {nullptr, "/r", nullptr, "f", nullptr, "/r/f", 16 + 3 + 2 * 1},
        // Name: one leading separator is skipped.
        {nullptr, "/r", "/a", "/f", nullptr, "/r/a/f", 16 + 3 + 2 * 6},
        // Backslashes anywhere come out as "/".
        {nullptr, "C:\\vol", "\\a\\b", "x\\y", nullptr, "C:/vol/a/b/x/y", 16 + 7 + 2 * 9},
        // With a prefix both paths are built, the prefixed one first.
        {"\\\\srv", "/r", "/a", "f", "//srv/a/f", "/r/a/f", 5 + 17 + 3 + 2 * 5},
        // No path but a name: both strings need the middle "/" that C does not
        // count, so the exact 16 + 5 + 5 replaces the formula's 19 + 3 + 2.
        {"/p", "/r", nullptr, "f", "/p/f", "/r/f", 16 + 5 + 5},
        {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, 16},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.base ? c.base : "-") + " | " + (c.path ? c.path : "-") + " | " +
                     (c.name ? c.name : "-"));
        int length = AccessStructLength(c.prefix, c.base, c.path, c.name);
        EXPECT_EQ(length, c.length);
        // Exactly the reported size on the heap, so that a write past it is caught.
        auto memory = std::make_unique<char[]>(static_cast<size_t>(length));
        AccessPaths* paths = BuildAccessPaths(c.prefix, c.base, c.path, c.name, memory.get());
        EXPECT_EQ(static_cast<void*>(paths), memory.get());
        EXPECT_STREQ(paths->prefixedPath, c.prefixed);
        EXPECT_STREQ(paths->accessPath, c.access);
        // The texts follow the two pointers, prefixed path first.
        const char* text = memory.get() + sizeof(AccessPaths);
        if (c.prefixed) {
            EXPECT_EQ(paths->prefixedPath, text);
        }
        if (c.access) {
            EXPECT_EQ(paths->accessPath, c.prefixed ? text + strlen(c.prefixed) + 1 : text);
        }
    }
}
