// Helpers of the configuration tests: releasing the root list between tests.
#pragma once

#include <cstdlib>

#include "config/roots.h"

inline void FreeTemplates(TemplateRec* list) {
    while (list) {
        TemplateRec* next = list->next;
        free(list);
        list = next;
    }
}

/// Frees every root record with its texts and templates and empties the list.
inline void ResetRoots() {
    while (rootList) {
        AuditRoot* next = rootList->next;
        for (TemplateRec* list : {rootList->includeDirs, rootList->excludeDirs, rootList->includeFiles,
                                  rootList->excludeFiles})
            FreeTemplates(list);
        free(rootList->path);
        free(rootList->mountSource);
        free(rootList);
        rootList = next;
    }
    rootLast = nullptr;
    rootCount = 0;
}
