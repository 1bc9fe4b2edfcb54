// The reports of dtldump as aligned text tables for people or as JSON, drawn
// from the figures of reader/report.h. Each function appends one whole
// report to *out.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "reader/report.h"

/// How a report is shown.
struct PrintOptions {
    bool json = false;
    size_t rows = 20;        ///< -n: rows of each ranked table
    int64_t depth = -1;      ///< --depth: only directories this deep or less (the root is 0); -1: any
    bool byEntries = false;  ///< --by entries: rank directories by entry count instead of size
    std::string coldName;    ///< --cold as given
};

/// top: the largest directories by recursive size or entry count.
void PrintTop(std::string* out, const ReportScan& scan, const PrintOptions& options);

/// top --files: the largest files (fileprint.cpp).
void PrintTopFiles(std::string* out, const ReportScan& scan, const PrintOptions& options);

/// owners: per user and per group.
void PrintOwners(std::string* out, const ReportScan& scan, const PrintOptions& options);

/// age: files by age of modification and of access; the coldest directories.
void PrintAges(std::string* out, const ReportScan& scan, const PrintOptions& options);

/// types: entries by kind, regular files by extension.
void PrintTypes(std::string* out, const ReportScan& scan, const PrintOptions& options);

/// diff: two scans of one root compared.
void PrintDiff(std::string* out, const ReportScan& before, const ReportScan& after, const ScanDiff& diff,
               const PrintOptions& options);

/// The rows of a comparison to show, ranked by key (largest first; only
/// keys above 0), no deeper than the options allow, at most options.rows.
std::vector<const DiffRow*> PickDiffRows(const std::vector<DiffRow>& rows, const PrintOptions& options,
                                         const std::function<int64_t(const DiffRow&)>& key);

/// The lines that say a report is partial, or "" for a complete one; for
/// the head of a text report and for standard error.
std::string PartialNote(const ReportScan& scan);

// Shared by the printing modules.

constexpr int SORT_ROWS = -2;

/// An aligned text table: a header row and rows of cells; numbers are right
/// aligned, text left aligned, the last column never padded. The HTML page
/// shows the same tables, sortable.
struct TextTable {
    std::vector<std::string> header;
    std::vector<bool> right;  ///< per column: right aligned
    std::vector<std::vector<std::string>> rows;
    /// Per column, the column whose numbers order it when sorted (a size
    /// sorts by the exact bytes beside it); -1 or none: its own cells;
    /// SORT_ROWS: the order in which the rows were made.
    std::vector<int> sortBy = {};
    size_t restRows = 0;  ///< trailing rows that add up the rows left out: not ranked with the others
};
void AppendTable(std::string* out, const TextTable& table);

/// The tables of the reports, as the text reports show them.
TextTable TopTable(const ReportScan& scan, const PrintOptions& options);
TextTable FilesTable(const ReportScan& scan);
TextTable OwnerTable(const std::vector<OwnerRow>& rows, const PrintOptions& options, bool users);
TextTable AgeTable(const ReportScan& scan);
/// The directories holding the most cold bytes; no rows when none holds any.
TextTable ColdTable(const ReportScan& scan, const PrintOptions& options);
TextTable KindTable(const ReportScan& scan);
TextTable ExtensionsTable(const ReportScan& scan, const PrintOptions& options);

/// The head of a text report: the file, the scan, and a partial note.
void AppendTextHead(std::string* out, const ReportScan& scan, const char* label);
/// The head members of a JSON report, without the braces around them.
void AppendJsonHead(std::string* out, const ReportScan& scan);
/// The rows of dirs no deeper than the options allow whose key is above 0,
/// largest key first (walk order among equals), at most options.rows.
std::vector<size_t> RankedDirs(const std::vector<DirRow>& dirs, const PrintOptions& options,
                               uint64_t (*key)(const DirRow&));
/// The scan a row of a report's directories came from: the report's own,
/// or over several scans the part it names.
const ReportScan& RowScan(const ReportScan& scan, size_t row);
/// A row's logical path in its scan.
std::string RowLogical(const ReportScan& scan, size_t row);
/// A row's real path for a table cell; over several scans "node:/path".
std::string RowCell(const ReportScan& scan, size_t row);
/// A row's JSON members "path" and "logicalPath", over several scans after
/// "scan" (the part's index) and "nodeName".
void AppendJsonRowPath(std::string* out, const ReportScan& scan, size_t row);
/// "entries", "files", "dirs" and "bytes" of a tally as JSON members.
void AppendJsonTally(std::string* out, const Tally& tally);
/// The heads of a report over several scans (reader/multiscan.cpp): a table
/// of the scans, and the JSON member "scans" with each one's head.
void AppendPartsHead(std::string* out, const ReportScan& scan);
void AppendPartsJsonHead(std::string* out, const ReportScan& scan);
/// A path for a table cell: escaped as text output escapes names.
std::string CellPath(std::string_view path);
std::string Number(uint64_t v);
/// "+1.50 GiB" / "-3.0 KiB" / "0 B".
std::string SignedSize(int64_t change);
std::string Signed(int64_t change);
