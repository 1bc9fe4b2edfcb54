#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "config/roots.h"
#include "log/log.h"
#include "scan/totals.h"
#include "tests/config/config_testutil.h"

TEST(DisplayTemplateSummary, ListsTemplatesAsWrittenNewestFirst) {
    AuditRoot root{};
    for (const char* t : {"/a", "/b/*", "/c'*"}) AddIncludeDir(&root, t);
    AddExcludeFile(&root, "*.o");
    AuditRoot empty{};
    const std::pair<const AuditRoot*, std::string> cases[] = {
        {&empty, " Include dirs: all\n Exclude dirs: none\nInclude files: all\nExclude files: none\n"},
        {&root, " Include dirs: /c'*, /b/*, /a\n Exclude dirs: none\nInclude files: all\nExclude files: *.o\n"},
    };
    FILE* saved = logFile;
    for (const auto& [r, expected] : cases) {
        char* text = nullptr;
        size_t size = 0;
        logFile = open_memstream(&text, &size);
        DisplayTemplateSummary(r);
        fclose(logFile);
        EXPECT_EQ(std::string(text, size), expected);
        free(text);
    }
    logFile = saved;
    FreeTemplateLists(&root);
}
