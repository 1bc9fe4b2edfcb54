// Builds small directory trees for the walk's end-to-end tests, from a list
// of nodes in creation order.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/// One node of a tree; path is relative to the tree's base.
struct TreeItem {
    enum Kind { DIR, FILE, SYMLINK, HARDLINK, FIFO, SPARSE } kind;
    std::string path;
    std::string arg = "";  ///< FILE: content; SYMLINK: target; HARDLINK: existing path (relative to base)
    uint64_t size = 0;     ///< SPARSE: length of the file, without data blocks
};

/// Creates the nodes under base (which must exist) in order; throws
/// std::runtime_error naming the node that could not be made.
void MakeTree(const std::string& base, const std::vector<TreeItem>& nodes);

/// Creates base/name/name/... with levels directories, working relative to
/// each new directory so that the chain may be longer than any path the
/// system accepts (ScopedTempDir still removes it); returns the deepest path.
std::string MakeChain(const std::string& base, const std::string& name, int levels);
