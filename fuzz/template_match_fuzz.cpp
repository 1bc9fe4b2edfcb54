// Fuzz target for the template matcher: the input is a written template, a
// newline and a text. The template is converted and listed by
// AddIncludeExcludeTemplate; TemplateMatch, with either separator, must give
// the same answer as the literal recursive form of the rule, and the
// selection rule must follow TemplateMatch.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "config/roots.h"
#include "config/templates.h"
#include "fuzz/memoryfile.h"
#include "tests/config/reference_match.h"

// The reference is polynomial but not linear; beyond these sizes only the
// real matcher runs, to look for crashes and slow cases.
constexpr size_t REFERENCE_TEMPLATE_MAX = 64;
constexpr size_t REFERENCE_TEXT_MAX = 256;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string input(reinterpret_cast<const char*>(data), size);
    size_t newline = input.find('\n');
    std::string written = input.substr(0, newline);
    std::string text = newline == std::string::npos ? "" : input.substr(newline + 1);
    // Both are zero-terminated texts where they are used.
    written.resize(strlen(written.c_str()));
    text.resize(strlen(text.c_str()));

    AuditRoot root{};
    AddIncludeFile(&root, written.c_str());
    const TemplateRec* rec = root.includeFiles;
    Check(rec->origText == written && rec->matchLength == strlen(rec->matchText));

    for (int useBackslash = 0; useBackslash < 2; useBackslash++) {
        int got = TemplateMatch(text.c_str(), rec->matchText, useBackslash);
        Check(got == 0 || got == 1);
        if (written.size() <= REFERENCE_TEMPLATE_MAX && text.size() <= REFERENCE_TEXT_MAX)
            Check(got == ReferenceMatcher(text, rec->matchText, useBackslash).Match());
        if (useBackslash == 0) {
            Check(IsFileSelected(text.c_str(), &root) == got);
            root.excludeFiles = root.includeFiles;
            root.includeFiles = nullptr;
            Check(IsFileSelected(text.c_str(), &root) == !got);
            root.includeFiles = root.excludeFiles;
            root.excludeFiles = nullptr;
        }
    }
    free(root.includeFiles);
    return 0;
}
