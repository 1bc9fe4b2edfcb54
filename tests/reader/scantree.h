// Helpers of the reader tests. Trees built in a fresh directory, scanned by
// the real program, and walked by the test itself, in the scan's order but
// without the reader, so that each report can be checked against figures
// computed from the tree; and Python, whose parsers read what dtldump writes.
#pragma once

#include <sys/stat.h>

#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "reader/report.h"
#include "tests/support/testutil.h"

/// Runs a Python program on input and returns what it prints ("" and a test
/// failure when it fails).
std::string Python(const std::string& program, const std::string& input);

/// The lines of text with each run of blanks made one blank, for checking
/// table rows without their alignment: "\nrow\nrow\n".
std::string Rows(const std::string& text);

/// Scans dirs.root and renames the detail file to dirs.work/name; fails the
/// test when the scan fails.
std::string ScanTree(const RunDirs& dirs, const std::string& name);

/// One entry as the test's own walk saw it.
struct SeenEntry {
    std::string path;  ///< logical path below the root: "/a/b"
    std::string dir;   ///< logical path of its directory: "/" or "/a"
    std::string name;
    struct stat st;
    bool counted = false;  ///< not hard-linked, or the first name of its inode (low 32 bits) in walk order
};

/// Walks root as the scan does: a directory's entries in listing order,
/// then its subdirectories in that order, depth first; lstat only. Walks
/// twice and returns the second walk, so that the directories' access
/// times are those the scan will see.
std::vector<SeenEntry> WalkTree(const std::string& root);

/// Tallies compare, print and add up by their three figures.
inline bool operator==(const Tally& a, const Tally& b) {
    return a.entries == b.entries && a.files == b.files && a.bytes == b.bytes;
}
inline void PrintTo(const Tally& t, std::ostream* os) { *os << t.entries << "/" << t.files << "/" << t.bytes; }
inline Tally& operator+=(Tally& a, const Tally& b) {
    a = {a.entries + b.entries, a.files + b.files, a.bytes + b.bytes};
    return a;
}

/// Adds the entry to t as the reports count it.
void Count(Tally* t, const SeenEntry& e);

/// Every directory of the walk (by logical path, the root "/" included)
/// with the figures of everything below it.
std::map<std::string, Tally> DirectoryFigures(const std::vector<SeenEntry>& seen);
