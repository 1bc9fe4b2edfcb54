#include "scan/totals.h"

#include "config/roots.h"
#include "config/templates.h"
#include "log/log.h"
#include "support/numfmt.h"

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

void DisplayTotals(const AuditRoot* root) {
    LogEntry("---- Totals ----\n\n");
    LogEntry("\tDirectories: %d\n", static_cast<int32_t>(root->dirCount));
    if (static_cast<int32_t>(root->emptyDirCount) > 0)
        LogEntry("\tEmpty dirs: %d\n", static_cast<int32_t>(root->emptyDirCount));
    LogEntry("\tFiles: %d\n", static_cast<int32_t>(root->fileCount));
    char capacity[NUM_BUF_SIZE], total[NUM_BUF_SIZE], available[NUM_BUF_SIZE];
    EditValueMetric(root->volumeCapacity, capacity);
    EditValueMetric(root->totalFileSize, total);
    EditValueMetric(root->availableSpace, available);
    LogEntry("\tVolume capacity: %s\n", capacity);
    LogEntry("\tTotal file size: %s\n", total);
    LogEntry("\tAvailable space: %s\n", available);
    if (static_cast<int32_t>(root->symlinkCount) > 0)
        LogEntry("\tSymbolic links: %d\n", static_cast<int32_t>(root->symlinkCount));
    if (root->hardLinkCount > 0) LogEntry("\tHard links: %d\n", root->hardLinkCount);
}
