#include "scan/totals.h"

#include "config/roots.h"
#include "config/templates.h"
#include "log/log.h"

void DisplayIncludeExclude(const TemplateRec* list, const char* label, const char* emptyText) {
    LogEntry("%s: ", label);
    if (!list) LogEntry("%s", emptyText);
    for (const TemplateRec* t = list; t; t = t->next) LogEntry(t == list ? "%s" : ", %s", t->origText);
    LogEntry("\n");
}

void DisplayTemplateSummary(const AuditRoot* root) {
    // The directory labels begin with a blank so that all four are 13 characters long.
    DisplayIncludeExclude(root->includeDirs, " Include dirs", "all");
    DisplayIncludeExclude(root->excludeDirs, " Exclude dirs", "none");
    DisplayIncludeExclude(root->includeFiles, "Include files", "all");
    DisplayIncludeExclude(root->excludeFiles, "Exclude files", "none");
}
