// dtldump browse: a full-screen browser of one scan in the terminal. The
// scan is read once from front to back for its directories and what lies
// below each (browsetree.cpp); a directory's own entries are read from the
// file again when it is opened (DtlSeekRead), so memory grows with the
// directories, never with the entries. The screen is drawn with ncurses
// (browsescreen.cpp).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "reader/dtlinput.h"
#include "reader/dtlread.h"

/// One directory the walk entered (one header record) and what lies below it.
struct BrowseDir {
    std::string name;         ///< its name in its parent; "" for the root
    uint32_t parent = 0;      ///< row of its parent; 0 (itself) for the root
    uint64_t pos = 0;         ///< offset of its header record
    uint64_t bytes = 0;       ///< every entry record below it, a hard-linked inode once
    uint64_t apparent = 0;    ///< the same with every name of a hard-linked inode counted
    uint64_t entries = 0;     ///< entry records below it, at any depth
    uint32_t firstChild = 0;  ///< its subdirectories' rows: BrowseTree::children[firstChild, + childCount)
    uint32_t childCount = 0;
};

/// A scan opened for browsing.
struct BrowseTree {
    std::string path;  ///< the detail file as named
    DtlLogHeader log{};
    DtlStrings strings;
    bool compressed = false;
    bool unfinished = false;          ///< "IDTL": the scan did not complete
    bool complete = false;            ///< every record was read and the whole file is sound
    bool opened = false;              ///< the file could be opened (a fault then has an offset)
    DtlFault fault;                   ///< what ended the reading early
    uint64_t readEnd = UINT64_MAX;    ///< records at or past this offset are not shown (a partial file's fault)
    std::vector<BrowseDir> dirs;      ///< in walk order: each after its parent
    std::vector<uint32_t> children;   ///< every directory's subdirectories, in walk order, one run each
    std::vector<uint64_t> uncounted;  ///< offsets of the records of an inode counted at an earlier name, ascending
    DtlSeeker seeker;
};

/// One entry of an opened directory.
struct BrowseEntry {
    std::string name;
    std::string target;  ///< a symbolic link's target
    DtlRecordFixed fixed{};
    uint64_t pos = 0;       ///< offset of its record
    bool counted = true;    ///< its size counts here: not a later name of a hard-linked inode
    int64_t dir = -1;       ///< a directory the walk entered: its row in BrowseTree::dirs
    uint64_t bytes = 0;     ///< a file: its size when counted, else 0; a directory: everything below it
    uint64_t apparent = 0;  ///< the same with every name counted
    uint64_t entries = 0;   ///< a directory: entry records below it
};

/// Reads the detail file at path for browsing. False when it cannot be
/// browsed: it cannot be opened or (without partial) it is unfinished or
/// damaged; tree->fault says why. With partial, the directories stop at the
/// first fault. BrowseClose must follow in every case.
bool BrowseOpen(const char* path, bool partial, BrowseTree* tree);

/// Reads the entries of directory row dir from the file, in the order the
/// directory listed them. False with *error filled when they cannot be read.
bool BrowseList(BrowseTree* tree, uint32_t dir, std::vector<BrowseEntry>* entries, std::string* error);

/// Closes the file.
void BrowseClose(BrowseTree* tree);

/// The keys entries sort by.
enum BrowseSort { SORT_SIZE, SORT_NAME, SORT_COUNT, SORT_MTIME };

/// Sorts entries by key: size, entry count and time largest first, names in
/// byte order; reversed when asked; ties by name. apparent: sizes with every
/// name of a hard-linked inode counted.
void SortEntries(std::vector<BrowseEntry>* entries, BrowseSort key, bool reverse, bool apparent);

/// The logical path of directory row dir: "/" for the root, "/a/b" below it.
std::string BrowsePath(const BrowseTree& tree, uint32_t dir);

/// A mode as ls shows it: "drwxr-xr-x", "-rwsr-x---".
std::string ModeText(uint32_t mode);

/// dtldump browse [--partial] FILE: browses the file until the user quits.
/// Returns the exit status: 0; 1 when the file cannot be browsed; 2 when
/// standard input or output is not a terminal; 128 + N after signal N.
int BrowseMain(const char* file, bool partial);
