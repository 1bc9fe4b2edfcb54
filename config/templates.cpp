#include "config/templates.h"

#include <cstdlib>
#include <cstring>

#include "config/roots.h"
#include "support/memory.h"

// Characters that an apostrophe makes literal.
static bool IsEscapable(char c) { return c == '\'' || c == '*' || c == '?' || c == '~'; }

uint32_t ConvertTemplate(const char* src, int srcLength, char* dst, uint32_t* dstLength) {
    uint32_t out = 0;
    for (int i = 0; i < srcLength; i++) {
        char c = src[i];
        if (c == '*') {
            c = TEMPLATE_SOME;
        } else if (c == '?') {
            c = TEMPLATE_ONE;
        } else if (c == '~') {
            c = TEMPLATE_ANY;
        } else if (c == '\'' && i + 1 < srcLength && IsEscapable(src[i + 1])) {
            c = src[++i];
        }
        dst[out++] = c;
    }
    dst[out] = '\0';
    if (dstLength) *dstLength = out;
    return out;
}

void AddIncludeExcludeTemplate(TemplateRec** listHead, const char* text) {
    size_t origLength = strlen(text);
    auto* converted = static_cast<char*>(GetMem(origLength + 1, "template"));
    uint32_t matchLength = ConvertTemplate(text, static_cast<int>(origLength), converted, nullptr);

    auto* rec = static_cast<TemplateRec*>(
        GetMem(origLength + matchLength + TEMPLATE_REC_EXTRA, "AddIncludeExcludeTemplate"));
    rec->matchText = reinterpret_cast<char*>(rec + 1);
    rec->matchLength = matchLength;
    memcpy(rec->matchText, converted, matchLength + 1);
    rec->origText = rec->matchText + matchLength + 1;
    rec->origLength = static_cast<uint32_t>(origLength);
    memcpy(rec->origText, text, origLength + 1);
    free(converted);

    rec->next = *listHead;
    *listHead = rec;
}

void AddIncludeDir(AuditRoot* root, const char* text) { AddIncludeExcludeTemplate(&root->includeDirs, text); }
void AddExcludeDir(AuditRoot* root, const char* text) { AddIncludeExcludeTemplate(&root->excludeDirs, text); }
void AddIncludeFile(AuditRoot* root, const char* text) { AddIncludeExcludeTemplate(&root->includeFiles, text); }
void AddExcludeFile(AuditRoot* root, const char* text) { AddIncludeExcludeTemplate(&root->excludeFiles, text); }

static bool IsRunCode(unsigned char c) { return c >= TEMPLATE_ONE && c <= TEMPLATE_ANY; }

// Runs for every entry of a scan and every template of the root: no
// allocation, and linear in the text.
//
// A wildcard run followed by a literal matches when some later occurrence of
// that literal lets the rest of the template match the rest of the text. Any
// such run swallows whatever it skips, separators included, so only the most
// recent run ever needs to take more text: an earlier run's choice can always
// be shifted onto the later one. That turns the search into a single pass that
// backs up to the latest run, O(text x template) at worst, with no recursion.
int TemplateMatch(const char* text, const char* matchText, int useBackslash) {
    const unsigned char sep = useBackslash ? '\\' : '/';
    auto* t = reinterpret_cast<const unsigned char*>(text);
    auto* p = reinterpret_cast<const unsigned char*>(matchText);
    const unsigned char* runLiteral = nullptr;  // the literal behind the latest run
    const unsigned char* runResume = nullptr;   // where the search for it goes on
    const char* lastSep = nullptr;               // found once, when a trailing '*' needs it
    bool lastSepFound = false;

    for (;;) {
        unsigned char c = *p;
        if (c == '\0') {
            if (*t == '\0') return 1;
        } else if (c == TEMPLATE_ONE) {
            if (*t != '\0' && *t != sep) {
                t++;
                p++;
                continue;
            }
        } else if (IsRunCode(c)) {
            // '?' codes inside a run are absorbed on purpose: "*?" is a lone "*".
            bool any = false;
            while (IsRunCode(*p)) any |= (*p++ == TEMPLATE_ANY);
            if (*p != '\0') {
                // A new run: search for its literal from here (below).
                runLiteral = p;
                runResume = t;
            } else {
                if (any) return 1;
                // A trailing '*' stops at a separator; the text left must hold none.
                if (!lastSepFound) {
                    lastSep = strrchr(text, sep);
                    lastSepFound = true;
                }
                if (!lastSep || reinterpret_cast<const unsigned char*>(lastSep) < t) return 1;
            }
        } else if (*t == c) {
            t++;
            p++;
            continue;
        }

        // A new run, or a mismatch: let the latest run take up to the next
        // occurrence of its literal.
        if (!runLiteral) return 0;
        t = reinterpret_cast<const unsigned char*>(
            strchr(reinterpret_cast<const char*>(runResume), *runLiteral));
        if (!t) return 0;
        runResume = ++t;
        p = runLiteral + 1;
    }
}

// Hot: called for every directory and every non-directory entry.
static int Selected(const char* text, const TemplateRec* include, const TemplateRec* exclude) {
    if (include) {
        while (include && !TemplateMatch(text, include->matchText, 0)) include = include->next;
        if (!include) return 0;
    }
    for (; exclude; exclude = exclude->next)
        if (TemplateMatch(text, exclude->matchText, 0)) return 0;
    return 1;
}

int IsDirectorySelected(const char* logicalPath, const AuditRoot* root) {
    return Selected(logicalPath, root->includeDirs, root->excludeDirs);
}

int IsFileSelected(const char* name, const AuditRoot* root) {
    return Selected(name, root->includeFiles, root->excludeFiles);
}
