// The figures of a scan that dtldump's reports show, gathered in one pass
// over its detail file: every directory the walk entered with what lies
// below it, owners, ages and kinds of the entries; and the comparison of two
// scans of one root. Plain structures, free of any printing, so that other
// renderers can draw from the same figures.
//
// Sizes count as the root totals count them: every entry record's size,
// directories included, but a hard-linked inode (by the low 32 bits of its
// number) only at its first record in walk order. "Files" are entry records
// that are not directories, as the detail file counts them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "reader/dtlread.h"

/// What a group of entry records adds up to.
struct Tally {
    uint64_t entries = 0;  ///< entry records
    uint64_t files = 0;    ///< of them, those that are not directories
    uint64_t bytes = 0;    ///< their sizes as the totals count them
};

/// One directory the walk entered (one header record) and what lies below
/// it. The rows form the tree: each names its parent's row; DirPath joins
/// the names into the directory's path.
struct DirRow {
    std::string name;        ///< its name in its parent; "" for the root
    uint32_t parent = 0;     ///< row of the parent directory; 0 (itself) for the root
    uint32_t depth = 0;      ///< 0 for the root, 1 for its subdirectories, ...
    Tally own;               ///< the directory's own entry records
    Tally total;             ///< every entry record below it, at any depth (own included)
    uint64_t coldFiles = 0;  ///< of total.files, those that are cold (see ReportOptions::coldAge)
    uint64_t coldBytes = 0;
    uint32_t ownNewest = 0;  ///< the latest modification time among its own entry records; 0: none
    uint32_t newest = 0;     ///< the latest among every entry record below it (own included); 0: none
};

/// The logical path of a row: "/" for the root, "/a/b" below it.
std::string DirPath(const std::vector<DirRow>& dirs, size_t row);

/// Files (non-directory entries) whose modification or access time is
/// between two ages, measured back from the scan's start.
struct AgeRow {
    int64_t from = 0;   ///< seconds, inclusive
    int64_t to = -1;    ///< seconds, exclusive; -1: no upper bound
    std::string label;  ///< "< 1m", "1m - 6m", ">= 3y"
    Tally modified;     ///< by modification time
    Tally accessed;     ///< by access time
};

/// The row of ages (from ReadReport with ages on) that a time falls in,
/// measured back from runTime as the age report measures it.
size_t AgeRowOf(const std::vector<AgeRow>& ages, int64_t runTime, uint32_t time);

/// One user or group.
struct OwnerRow {
    uint32_t id = 0;
    std::string name;  ///< from this machine's user or group database; empty when it has none
    Tally tally;
};

/// The kinds of entries the types report tells apart.
enum EntryKind { KIND_FILE, KIND_DIR, KIND_SYMLINK, KIND_OTHER, KIND_COUNT };

/// Regular files of one name extension ("" for those without one).
struct ExtensionRow {
    std::string extension;
    Tally tally;
};

/// One file (an entry record that is not a directory) whose size counts.
struct FileRow {
    std::string logical;  ///< logical path below the root: "/a/b"
    uint64_t bytes = 0;
    uint64_t pos = 0;  ///< offset of its record: the walk's order
    uint32_t dir = 0;  ///< its directory's row in ReportScan::dirs, when they are gathered
    uint32_t uid = 0, gid = 0, mtime = 0;
};

/// Which figures to gather, and how.
struct ReportOptions {
    bool dirs = false;    ///< ReportScan::dirs
    bool owners = false;  ///< users and groups
    bool ages = false;    ///< ages
    bool types = false;   ///< kinds and extensions
    /// Report on an unfinished ("IDTL") or damaged file as far as its records
    /// go instead of refusing it.
    bool partial = false;
    /// Upper bounds of the age rows but the last, in seconds, ascending, with
    /// the texts that name them.
    std::vector<int64_t> ageBounds = {};
    std::vector<std::string> ageNames = {};
    /// A file is cold when neither modified nor accessed for at least this
    /// many seconds before the scan started.
    int64_t coldAge = 31557600;
    bool ownerNames = true;  ///< look up names of users and groups
    size_t largestFiles = 0;  ///< ReportScan::largest: this many of the largest files
    /// ReportScan::bigFiles: the files of at least this share (0 to 1) of
    /// the root's size; below 0 none.
    double fileShare = -1;
};

/// A detail file's figures.
struct ReportScan {
    std::string path;     ///< the detail file as named
    bool opened = false;  ///< it could be opened (a fault then has an offset)
    bool compressed = false;
    bool unfinished = false;  ///< "IDTL": the scan that wrote it did not complete
    bool complete = false;    ///< every record was read and the whole file is sound
    DtlFault fault;           ///< the fault that ended the reading, when there was one
    DtlLogHeader log{};
    DtlRootHeader root{};  ///< as the file holds it (all zero in an unfinished file)
    DtlStrings strings;
    DtlTotals totals;                     ///< what the records read add up to
    std::vector<DirRow> dirs;             ///< in walk order: each directory after its parent
    std::vector<OwnerRow> users, groups;  ///< largest bytes first
    std::vector<AgeRow> ages;
    std::array<Tally, KIND_COUNT> kinds{};
    std::vector<ExtensionRow> extensions;  ///< largest bytes first
    std::vector<FileRow> largest;          ///< the largest files, largest first (walk order among equals)
    std::vector<FileRow> bigFiles;         ///< the files of at least fileShare of the root's size, in walk order
    /// A report over several scans (reader/multiscan.h): the scans it sums,
    /// each without its rows, and for each row of dirs the part it came
    /// from; such a row's name is its whole logical path in that scan, and
    /// its parent is itself. Both are empty in the report of one scan.
    std::vector<ReportScan> parts;
    std::vector<uint32_t> partOf;
};

/// Reads the detail file at path and gathers what options ask for. False
/// when it cannot be reported on: it cannot be opened, its headers are
/// damaged, or (without options.partial) it is unfinished or has any fault;
/// scan->fault then says why. With options.partial the figures stop at the
/// first fault and scan->complete is false.
bool ReadReport(const char* path, const ReportOptions& options, ReportScan* scan);
/// Opens the detail file at path into r for a report (a finished file, or
/// with partial an unfinished one too) and fills scan's head from it: the
/// path, whether it opened, compression, the headers and strings. False,
/// with scan->fault filled and r closed, when it cannot be read.
bool OpenScan(DtlReader* r, const char* path, bool partial, ReportScan* scan);

/// Parses a list of ages such as "1m,6m,1y,3y" (each a positive whole number
/// with a unit: h hours, d days, w weeks, m months of 1/12 year, y years of
/// 365.25 days; ascending) into options->ageBounds and ageNames. False with
/// *error filled (and the lists empty) when the text is not such a list.
bool ParseAgeList(std::string_view text, std::vector<int64_t>* bounds, std::vector<std::string>* names,
                  std::string* error);

/// The default rows: under a month, 1-6 months, 6-12 months, 1-3 years, older.
constexpr const char* DEFAULT_AGE_LIST = "1m,6m,1y,3y";

/// The kind an entry's mode makes it.
EntryKind KindOf(uint32_t mode);

/// A regular file's name extension as the types report groups it: the text
/// after the last dot when that dot is neither first nor last and the text
/// is at most 16 bytes, ASCII letters in lower case; else "".
std::string_view ExtensionOf(std::string_view name, char (&buffer)[16]);

/// The real path of a logical path below rootPath.
std::string FullPath(std::string_view rootPath, std::string_view logical);

/// One directory in the comparison of two scans.
struct DiffRow {
    std::string path;  ///< logical path below the root
    uint32_t depth = 0;
    bool inOld = false, inNew = false;
    Tally before, after;      ///< the directories' total figures; zero where absent
    uint64_t dirsInside = 0;  ///< appeared or vanished: directories below it that did too
    int64_t ByteChange() const { return static_cast<int64_t>(after.bytes - before.bytes); }
    int64_t EntryChange() const { return static_cast<int64_t>(after.entries - before.entries); }
};

/// Two scans compared directory by directory, matched by logical path (a
/// directory matches when its parent does and the names are equal).
struct ScanDiff {
    std::vector<DiffRow> changed;   ///< in both scans, with a different size or entry count
    std::vector<DiffRow> appeared;  ///< only in the new scan, and whose parent is in the old one
    std::vector<DiffRow> vanished;  ///< only in the old scan, and whose parent is in the new one
    uint64_t unchanged = 0;         ///< directories in both with the same figures
    uint64_t appearedDirs = 0;      ///< every directory only in the new scan
    uint64_t vanishedDirs = 0;      ///< every directory only in the old scan
};

/// Compares the directory figures of two scans (both read with dirs on).
/// Rows are in no particular order.
ScanDiff DiffScans(const ReportScan& before, const ReportScan& after);
