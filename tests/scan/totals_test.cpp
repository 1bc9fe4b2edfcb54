#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "config/roots.h"
#include "log/log.h"
#include "scan/totals.h"
#include "tests/config/config_testutil.h"

// Everything logged while fn runs.
template <typename Fn>
static std::string Logged(Fn fn) {
    FILE* saved = logFile;
    logFile = tmpfile();
    fn();
    fflush(logFile);
    rewind(logFile);
    std::string out;
    for (int c; (c = fgetc(logFile)) != EOF;) out += static_cast<char>(c);
    fclose(logFile);
    logFile = saved;
    return out;
}

TEST(DisplayTemplateSummary, ListsTemplatesAsWrittenNewestFirst) {
    struct Case {
        std::vector<const char*> includeDirs, excludeFiles;
        std::string log;
    } cases[] = {
        {{}, {}, " Include dirs: all\n Exclude dirs: none\nInclude files: all\nExclude files: none\n"},
        {{"/a", "/b/*", "/c'*"}, {"*.o"},
         " Include dirs: /c'*, /b/*, /a\n Exclude dirs: none\nInclude files: all\nExclude files: *.o\n"},
    };
    for (const Case& c : cases) {
        AuditRoot root{};
        for (const char* t : c.includeDirs) AddIncludeDir(&root, t);
        for (const char* t : c.excludeFiles) AddExcludeFile(&root, t);
        EXPECT_EQ(Logged([&] { DisplayTemplateSummary(&root); }), c.log);
        FreeTemplates(root.includeDirs);
        FreeTemplates(root.excludeFiles);
    }
    AuditRoot root{};
    AddIncludeFile(&root, "x");
    AddExcludeDir(&root, "/y");
    EXPECT_EQ(Logged([&] { DisplayTemplateSummary(&root); }),
              " Include dirs: all\n Exclude dirs: /y\nInclude files: x\nExclude files: none\n");
    FreeTemplates(root.includeFiles);
    FreeTemplates(root.excludeDirs);
}
