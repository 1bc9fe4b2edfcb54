// Helpers of the configuration tests: releasing roots and templates.
#pragma once

#include <cstdlib>

#include "config/roots.h"
#include "config/templates.h"

/// Frees the four template lists of root.
inline void FreeTemplateLists(AuditRoot* root) {
    for (TemplateRec* list : {root->includeDirs, root->excludeDirs, root->includeFiles, root->excludeFiles})
        for (TemplateRec* next; list; list = next) {
            next = list->next;
            free(list);
        }
}

/// Frees every root of rootList and empties the list.
inline void ResetRoots() {
    for (AuditRoot* next; rootList; rootList = next) {
        next = rootList->next;
        FreeTemplateLists(rootList);
        free(rootList->path);
        free(rootList);
    }
    rootLast = nullptr;
    rootCount = 0;
}
