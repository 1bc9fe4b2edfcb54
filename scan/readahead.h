// Listings read ahead of the walk: the directories the walk will enter next
// are opened, listed and their entries examined (fstatat, and readlinkat for
// a symbolic link) on helper threads, and handed to the walk in pieces of
// listing order, every entry examined, with what failed kept for the walk to
// report when it comes to it.
//
// The walk alone records: it takes the pieces of one directory after the
// other in its own depth-first order and does everything that has an order
// (records, messages, counts, the owner and hard-link tables). When a piece
// it needs is not ready and no helper is at it, the walk produces it itself
// through the same code, so with one thread (no helpers) this module is the
// walk's own reader.
//
// What is read ahead never shows in what is recorded, on a tree that does
// not change while it is scanned:
// - a directory is opened only once its own entry has been examined, and
//   only when the walk will enter it (selected by the directory templates,
//   not deeper than MAX_DIR_LEVEL, and no limit found earlier in its
//   parent's listing), so its recorded access time is the one before it was
//   listed, and no directory is listed that the one-thread walk leaves alone;
// - a symbolic link's target is read only after its entry was examined, and
//   only when the file templates select it, as the one-thread walk does. A
//   link with several names is left to the walk: reading it through one name
//   changes the access time seen through the others, so those reads must
//   come in the walk's order;
// - every directory is opened relative to its parent's open descriptor
//   without following a link, so a listed directory swapped for a link is
//   reported, never followed.
//
// Held ahead: pieces, with the jobs of the subdirectories they found, up to
// AHEAD_BUDGET_BYTES, and directory descriptors within the descriptor limit
// (whose soft value is raised to the hard one). Helpers then wait; the walk
// never does, it reads what it needs itself. While the file system answers
// at memory speed, only twice as many helpers as processors work at once.
#pragma once

#include <cstddef>
#include <cstdint>

struct AuditRoot;
struct AheadJob;

/// Bytes of listings (and the jobs they found) held ahead of the walk, at
/// the most, before helpers wait for the walk to take them.
constexpr size_t AHEAD_BUDGET_BYTES = 4u << 20;
/// Bytes asked of one getdents64: a piece of listing holds what one call returns.
constexpr size_t AHEAD_READ_SIZE = 32u << 10;
/// Bytes of pieces a helper reads and examines on its own before it hands
/// them over to the walk and the other helpers.
constexpr size_t AHEAD_ROUND_BYTES = 64u << 10;
/// Entries of a piece examined by one thread in one go; the pieces of a large
/// directory are shared among the helpers this many entries at a time.
constexpr uint32_t AHEAD_SLICE = 32;
/// Threads a walk may use, the walk's own included.
constexpr uint32_t AHEAD_MAX_THREADS = 1024;

/// The fields of an entry's fstatat answer that the detail file keeps.
struct AheadStat {
    uint64_t ino;
    int64_t size;
    int64_t atime;  ///< seconds
    int64_t mtime;  ///< seconds
    int64_t ctime;  ///< seconds
    uint32_t mode;
    uint32_t nlink;
    uint32_t uid;
    uint32_t gid;
};

// AheadEntry::status besides 0 (examined) and a positive errno (fstatat failed).
constexpr int32_t AHEAD_EXAMINED = 0;
constexpr int32_t AHEAD_UNEXAMINED = -1;  ///< left for the walk: AheadExamine does it in the walk's order
constexpr int32_t AHEAD_OVER_LIMIT = -2;  ///< its path or name is over the walk's limits; the piece ends with it

/// One entry of a listing, in listing order.
struct AheadEntry {
    AheadStat st;         ///< when status is AHEAD_EXAMINED
    const char* name;     ///< zero-terminated, in the piece's own memory
    char* target;         ///< a selected symbolic link's target, cut at st.size; else null
    AheadJob* child;      ///< a subdirectory the walk will enter: its own listing's job
    uint32_t nameLength;  ///< strlen(name)
    int32_t status;       ///< AHEAD_EXAMINED, an errno, AHEAD_UNEXAMINED or AHEAD_OVER_LIMIT
};

/// A piece of one directory's listing: what one getdents64 call returned.
struct AheadPiece {
    AheadPiece* next;      ///< the directory's next piece, once made
    AheadJob* job;         ///< the directory listed
    uint32_t first;        ///< listing position of the first entry (0 for the directory's first piece)
    uint32_t count;        ///< entries
    uint32_t slices;       ///< count divided into AHEAD_SLICE entries, rounded up
    uint32_t claimed;      ///< slices a thread has taken
    uint32_t done;         ///< slices examined
    size_t bytes;          ///< memory held, counted against the budget
    uint32_t slot;         ///< its place in the helpers' queue while slices are left
    AheadEntry* entries;   ///< count entries
};

/// Points where a thread of the walk is about to ask the file system
/// something; the test seam below is told of each.
enum AheadEvent { AHEAD_OPEN, AHEAD_READ, AHEAD_EXAMINE };

/// Test seam: when set, called on whichever thread is about to open,
/// list or examine, with the directory's name (relative to its parent; the
/// root's path for the root) and whether that thread is a helper. Tests slow
/// threads down at random through it, or change the tree at that moment.
/// The program never sets it.
extern void (*aheadTestSeam)(AheadEvent event, const char* dirName, bool onHelper);

/// Prepares the walk of root on threads threads in all (1: no helpers, the
/// walk reads everything itself) and starts the helpers, which begin with
/// the root directory. The root is opened as root->path, following a link.
void AheadStart(AuditRoot* root, uint32_t threads);
/// Stops and joins the helpers and releases what is left; the walk is over.
void AheadStop();
/// The root directory's job.
AheadJob* AheadRootJob();

/// Opens job's directory unless a helper has (waiting for one that is at
/// it). Returns 0, or the errno of the failed open, which then is final.
int AheadOpen(AheadJob* job);
/// Gives back done, the piece the walk has recorded (null at first), and
/// returns the next piece of job's opened directory in listing order, every
/// entry examined but those left AHEAD_UNEXAMINED, or null when the listing
/// is over: the walk has then taken every piece, and the directory's
/// descriptor goes as soon as the subdirectories that need it are opened.
AheadPiece* AheadNext(AheadJob* job, AheadPiece* done);
/// Examines an entry that was left AHEAD_UNEXAMINED, now, in the walk's
/// order: its status, stat, target and child are set as a helper sets them.
void AheadExamine(AheadPiece* piece, uint32_t index);
/// The errno that cut job's listing short, or 0 when it was read to its end.
int AheadReadError(const AheadJob* job);
/// The walk has left job's directory (or could not open it): the job goes.
void AheadLeave(AheadJob* job);

/// Reads the symbolic link name relative to dirFd into out (lstatSize + 1
/// bytes) as the detail file keeps it: cut at lstatSize, the size lstat gave,
/// and zero-filled from where a shorter answer ends; all zeros when it
/// cannot be read. lstatSize must not exceed LINK_TARGET_MAX.
void ReadLinkTarget(int dirFd, const char* name, size_t lstatSize, char* out);
