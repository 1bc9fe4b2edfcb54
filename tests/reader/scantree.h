// Trees for the report tests: built in a fresh directory, scanned by the
// real program, and walked by the test itself, in the scan's order but
// without the reader, so that each report can be checked against figures
// computed from the tree.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tests/support/testutil.h"

/// A tree beside the working directory that receives its detail files.
struct ScanSpace {
    ScopedTempDir dir;
    std::string root, work;
    ScanSpace();
    /// Scans the tree into work/name with extra options; fails the test when the scan fails.
    std::string Scan(const std::string& name, const std::vector<std::string>& extra = {}) const;
};

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

/// What entries add up to, as the test computes it.
struct Figures {
    uint64_t entries = 0, files = 0, bytes = 0;
    bool operator==(const Figures&) const = default;
};

/// Every directory of the walk (by logical path, the root "/" included)
/// with the figures of everything below it.
std::map<std::string, Figures> DirectoryFigures(const std::vector<SeenEntry>& seen);

/// Sets a file's access and modification times (seconds) without following links.
void SetTimes(const std::string& path, int64_t atime, int64_t mtime);
