// The walk of one scan root: the root's heading on the log, the depth-first
// walk that records each directory whole before entering its subdirectories,
// and the root's totals in the detail file and on the log. Listings may be
// read and examined ahead on helper threads (scan/readahead.h); the walk
// records them in its own order on the calling thread.
//
// Every entry is examined relative to its open directory (openat, fstatat,
// readlinkat) and subdirectories are opened without following links, so a
// tree that changes during the scan can never lead the walk outside the
// root. Messages still name the full access path: the root path joined with
// the logical path, and "%s/%s" with an entry's name.
#pragma once

#include <cstddef>
#include <cstdint>

#include "detail/writer.h"

struct AuditRoot;
struct AheadJob;

extern uint32_t showProgress;  ///< not 0 when -p asks the walk to log every directory it enters
extern uint32_t walkThreads;   ///< threads the walk may use, its own included (1: no helpers)

/// Deepest directory level the walk enters; the root is level 1. The detail
/// writer keeps one open-directory position per level.
constexpr int MAX_DIR_LEVEL = 100;
static_assert(MAX_DIR_LEVEL <= DTL_MAX_OPEN_DIRS, "the writer must hold every directory the walk enters");
/// Threads the walk uses when FERROVAN_THREADS does not say, its own included.
constexpr uint32_t WALK_THREADS_DEFAULT = 32;
/// Size of an access-path buffer: an entry's access path and its terminator must fit.
constexpr size_t ACCESS_PATH_SIZE = 4096;

/// A subdirectory whose walk waits until its parent has been read. Taken
/// from the parent's TempAlloc chain: nameLen + 33 bytes, the name directly
/// behind the node.
struct SubdirNode {
    SubdirNode* next;  ///< next subdirectory in reading order; null at the tail
    uint32_t nameLen;  ///< length of the name without its terminator
    char* name;        ///< the name, zero-terminated, behind the node
    AheadJob* job;     ///< its listing's job when the walk will enter it; else null
};
static_assert(sizeof(SubdirNode) == 32);
static_assert(offsetof(SubdirNode, next) == 0);
static_assert(offsetof(SubdirNode, nameLen) == 8);
static_assert(offsetof(SubdirNode, name) == 16);
static_assert(offsetof(SubdirNode, job) == 24);

/// Logs the root's heading and template summary, walks the root, then has
/// the writer finish the detail file and logs the totals. Returns 0.
int ProcessRoot(AuditRoot* root);

/// Walks the directory at logicalPath and, through ProcessSubdir, everything
/// below it, taking its listing from job (scan/readahead.h), which opens it
/// relative to its parent's descriptor without following a link (the root:
/// its path). level is its depth (the root is 1). A directory that cannot be
/// opened, or lies deeper than MAX_DIR_LEVEL (it then has no job), is
/// counted and reported and gets no records. Returns 0.
int ProcessDirectory(const char* logicalPath, AuditRoot* root, AheadJob* job, int level);

/// Joins the parent's logical path and the node's name and walks the
/// subdirectory when the root's directory templates select it; parentLevel
/// is the parent's depth.
void ProcessSubdir(AuditRoot* root, const char* parentLogicalPath, const SubdirNode* node, int parentLevel);
