// The per-root pieces of the execution log: the summary of a root's
// include/exclude templates before its walk and its totals after it.
#pragma once

struct AuditRoot;
struct TemplateRec;

/// Logs "<label>: " and the list's templates as written, in list order
/// (newest first) and separated by ", ", or emptyText for an empty list; then "\n".
void DisplayIncludeExclude(const TemplateRec* list, const char* label, const char* emptyText);

/// Logs the four summary lines of root: directory includes and excludes,
/// then file includes and excludes, their labels aligned on the colon.
void DisplayTemplateSummary(const AuditRoot* root);

/// Logs root's totals block: directories, empty directories (when any),
/// files, the volume capacity, total file size and available space in metric
/// figures, then symbolic links and hard links (when any). Counts print as
/// signed 32-bit numbers.
void DisplayTotals(const AuditRoot* root);
