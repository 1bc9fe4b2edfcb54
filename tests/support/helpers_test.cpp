#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/helpers.h"

// The program's tree page files are named here: in the system's temporary
// directory, after the base, and a new name each time.
TEST(DefinedTempName, UsesTheTemporaryDirectoryAndAShortPrefix) {
    char* a = DefinedTempName("kpage.tmp");
    char* b = DefinedTempName("kpage.tmp");
    EXPECT_EQ(std::string(a).rfind(std::string(P_tmpdir) + "/kpage", 0), 0u) << a;
    EXPECT_STRNE(a, b);
    free(a);
    free(b);
}
