// Include/exclude templates: their converted form, the lists a scan root
// keeps of them, the wildcard matcher and the rule that selects a directory
// or a file.
#pragma once

#include <cstddef>
#include <cstdint>

struct AuditRoot;

/// One converted template, newest first in its list. Both texts live in the
/// same block, directly behind this header.
struct TemplateRec {
    TemplateRec* next;     ///< next template of the same list; null at the end
    char* matchText;       ///< the converted template, zero-terminated
    uint32_t matchLength;  ///< length of matchText
    char* origText;        ///< the template as written, zero-terminated, after matchText's terminator
    uint32_t origLength;   ///< length of origText
};
static_assert(sizeof(TemplateRec) == 40);
static_assert(offsetof(TemplateRec, next) == 0);
static_assert(offsetof(TemplateRec, matchText) == 8);
static_assert(offsetof(TemplateRec, matchLength) == 16);
static_assert(offsetof(TemplateRec, origText) == 24);
static_assert(offsetof(TemplateRec, origLength) == 32);

/// Bytes allocated for a record beyond its two texts: the header and both terminators.
constexpr size_t TEMPLATE_REC_EXTRA = 42;

// Codes of the converted form; every other byte stands for itself.
constexpr char TEMPLATE_ONE = 1;   ///< '?': one character other than the separator
constexpr char TEMPLATE_SOME = 2;  ///< '*': any characters; not across a separator when it ends the template
constexpr char TEMPLATE_ANY = 3;   ///< '~': any characters at all

/// Converts srcLength bytes of a written template into dst (which must hold
/// srcLength + 1 bytes): the wildcards become their codes, an apostrophe
/// before ' * ? ~ makes that character literal. Zero-terminates dst and
/// returns the converted length, also stored in *dstLength (when not null).
/// A length of 0 or less gives the empty template.
uint32_t ConvertTemplate(const char* src, int srcLength, char* dst, uint32_t* dstLength);

/// Converts text and pushes it as a new record in front of *listHead. The
/// four functions below push onto one of root's lists.
void AddIncludeExcludeTemplate(TemplateRec** listHead, const char* text);
void AddIncludeDir(AuditRoot* root, const char* text);
void AddExcludeDir(AuditRoot* root, const char* text);
void AddIncludeFile(AuditRoot* root, const char* text);
void AddExcludeFile(AuditRoot* root, const char* text);

/// 1 when the whole text matches the whole converted template, else 0.
/// The separator is '/' when useBackslash is 0, else '\'. Case-sensitive.
int TemplateMatch(const char* text, const char* matchText, int useBackslash);

/// 1 when a directory's logical path (such as /a/b) passes root's directory templates.
int IsDirectorySelected(const char* logicalPath, const AuditRoot* root);
/// 1 when an entry name passes root's file templates.
int IsFileSelected(const char* name, const AuditRoot* root);
