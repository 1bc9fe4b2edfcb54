// Helpers of the configuration tests and fuzz targets: releasing templates.
#pragma once

#include <cstdlib>

#include "config/roots.h"

/// Frees the four template lists of root.
inline void FreeTemplateLists(AuditRoot* root) {
    for (TemplateRec* list : {root->includeDirs, root->excludeDirs, root->includeFiles, root->excludeFiles})
        for (TemplateRec* next; list; list = next) {
            next = list->next;
            free(list);
        }
}
