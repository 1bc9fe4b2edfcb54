// The HTML report of dtldump: one self-contained page, its style sheet,
// script and data inline, with a zoomable treemap of the directories and the
// tables of the top, owners, age and types reports. Everything on it is drawn
// from the figures of reader/report.h and the tables of reader/reportprint.h;
// the page's script only lays them out. The template, style sheet and script
// are reader/html/, carried in the program (see reader/html/embed.cmake).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "reader/report.h"
#include "reader/reportprint.h"

/// How the page is made.
struct HtmlOptions {
    PrintOptions print;        ///< rows and depth of the tables, the cold age's name
    double minShare = 0.001;   ///< --min-share: directories and files below this share of the root's size are folded
    bool colourByAge = false;  ///< the treemap opens coloured by age of last modification
    std::string history;       ///< --history: the section of sizes over time (reader/history.h), or ""
};

/// The default of --min-share, in percent of the root's size.
constexpr const char* DEFAULT_MIN_SHARE = "0.1";
/// The least share of the root's size that a file needs to be a cell of its
/// own, whatever --min-share says: at most 10,000 files, so that the page
/// of a scan of millions of files stays small (at --min-share 0 every
/// directory is carried, but not every file).
constexpr double MIN_FILE_SHARE = 0.0001;

/// One cell of the treemap.
struct MapCell {
    uint32_t row = 0;     ///< the directory's row in scan.dirs; for "other", its directory's
    int32_t parent = -1;  ///< the cell of the directory it lies in; -1 for the root
    bool other = false;   ///< the rest of a directory: its own entries and the subdirectories folded
    uint32_t folded = 0;  ///< other: the subdirectories folded into it
    Tally tally;          ///< what lies in it (a directory: everything below it)
    uint32_t newest = 0;  ///< the latest modification time in it; 0: none
    int32_t file = -1;    ///< a file of its own: its row in scan.bigFiles (row is its directory's)
};

/// The cells of the treemap: the root, then in walk order every directory
/// whose size is above zero and at least minShare of the root's, then every
/// file of scan.bigFiles that is too (read with fileShare at minShare), then for
/// each of those, when anything is left in it, one "other" cell with what its
/// carried subdirectories leave: so the cells in a directory add up to it
/// exactly, and a page holds at most (depth of the tree) / minShare
/// directories, whatever the number of entries.
std::vector<MapCell> MapCells(const ReportScan& scan, double minShare);

/// The treemap's data as JSON (the cells in columns; names written as the
/// text reports write them), not yet made safe for a script element.
std::string MapJson(const ReportScan& scan, const std::vector<MapCell>& cells, const HtmlOptions& options);

/// JSON made safe to stand inside a <script> element: '<', '>', '&' and the
/// line and paragraph separators U+2028 and U+2029 written as \u escapes,
/// so that no name can end the element or open a comment in it. The JSON
/// means the same.
std::string ScriptSafe(std::string_view json);

/// HTML text: the text with '&', '<', '>', '"' and '\'' as character
/// references, fit for an element's content or a quoted attribute.
void AppendHtmlText(std::string* out, std::string_view text);

/// A report table as an HTML table (class "sortable"), its numbers right
/// aligned and the headers saying how the page's script sorts them.
void AppendHtmlTable(std::string* out, const TextTable& table);

/// The whole page of a scan read with every figure on (dirs, owners, ages,
/// types).
void AppendHtmlReport(std::string* out, const ReportScan& scan, const HtmlOptions& options);
