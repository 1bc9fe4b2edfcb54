#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scan/accesspath.h"

// The walk joins the root and a directory's logical path, and names the
// directory by the result in its messages. (No caller passes a prefix or a
// name.)
TEST(AccessPaths, JoinTheRootAndTheLogicalPathWithBackslashesTurnedIntoSlashes) {
    struct Case {
        const char *base, *path, *access;
    } cases[] = {
        {"/vol/data", "/", "/vol/data"},
        {"/vol/data", "/a/b", "/vol/data/a/b"},
        {"/r\\s", "/a\\b", "/r/s/a/b"},  // names may hold backslashes
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.base) + " | " + c.path);
        // The reported length must hold what is built (its exact formula is
        // the module's business): the bytes past it must stay untouched.
        const auto length = static_cast<size_t>(AccessStructLength(nullptr, c.base, c.path, nullptr));
        std::vector<char> memory(length + 64, '\x5a');
        AccessPaths* paths = BuildAccessPaths(nullptr, c.base, c.path, nullptr, memory.data());
        EXPECT_EQ(std::string(memory.begin() + length, memory.end()), std::string(64, '\x5a'));
        EXPECT_STREQ(paths->accessPath, c.access);
    }
}
