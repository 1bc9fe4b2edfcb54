#include "scan/readahead.h"

#include <dirent.h>
#include <fcntl.h>
#include <malloc.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "config/roots.h"
#include "config/templates.h"
#include "detail/record.h"
#include "scan/walk.h"
#include "support/memory.h"
#include "support/threads.h"

void (*aheadTestSeam)(AheadEvent event, const char* dirName, bool onHelper) = nullptr;

// One directory the walk will enter, from the moment its entry has been
// examined in its parent's listing until the walk leaves it. One block holds
// the job, its key, its name and (with directory templates) its logical path.
struct AheadJob {
    AheadJob* parent;         // opened relative to its descriptor; null for the root
    AheadJob* nextChild;      // in the parent's list of children not yet handed out
    AheadJob* children;       // children made so far and not yet handed to the helpers
    const char* name;         // relative to the parent; the root's path for the root
    const char* logicalPath;  // only when the root has directory templates
    const uint32_t* key;      // listing positions from the root down: sorts in the walk's order
    uint32_t keyLength;       // the level less one
    uint32_t level;           // the root is 1
    size_t accessLength;      // strlen of the directory's access path
    int fd;                   // -1 before the open and after the close
    int openError;            // errno of a failed open
    int readError;            // errno that cut the listing short
    uint32_t listed;          // entries read so far: the next entry's position
    uint32_t unexamined;      // pieces made and not yet wholly examined
    uint32_t unopened;        // children made that are not yet opened: they need fd
    uint32_t deferred;        // entries left for the walk to examine: it needs fd
    AheadPiece* head;         // pieces made and not yet taken by the walk, in order
    AheadPiece* tail;
    // The open's outcome is known (fd, or openError): stored last, under the
    // lock, so that the walk may read it, and all written before it,
    // without the lock.
    std::atomic<bool> opened;
    bool opening;             // a thread is opening it
    bool reading;             // a thread holds the listing: it reads and may examine privately
    bool listedAll;           // no more pieces will come (end, error, limit or failed open)
    bool overLimit;           // the listing ended at an entry over the limits: the run ends there
    bool entriesDone;         // the walk has taken every piece
    bool queuedOpen;          // in toOpen
    bool queuedRead;          // in toRead
    uint32_t slot;            // its place in toOpen or toRead (never in both)
    uint32_t bytes;           // the block's size: counted ahead until the walk has its parent's piece
};

namespace {

bool KeyLess(const AheadJob* a, const AheadJob* b) {
    uint32_t n = std::min(a->keyLength, b->keyLength);
    for (uint32_t i = 0; i < n; i++)
        if (a->key[i] != b->key[i]) return a->key[i] < b->key[i];
    // A directory comes before everything below it.
    return a->keyLength < b->keyLength;
}

bool PieceLess(const AheadPiece* a, const AheadPiece* b) {
    return a->job == b->job ? a->first < b->first : KeyLess(a->job, b->job);
}

// A queue of the helpers' work, least first: a binary heap whose elements
// know their place in it, so that one can leave from anywhere (the walk
// takes what it needs now). It allocates only when it grows.
template <typename T, bool (*Less)(const T*, const T*)>
struct WorkQueue {
    std::vector<T*> items;

    bool empty() const { return items.empty(); }
    T* top() const { return items.front(); }
    void clear() { items.clear(); }
    void insert(T* item) {
        items.push_back(item);
        Up(static_cast<uint32_t>(items.size() - 1));
    }
    void erase(T* item) {
        uint32_t at = item->slot;
        T* last = items.back();
        items.pop_back();
        if (last == item) return;
        Place(last, at);
        Up(at);
        Down(last->slot);
    }

  private:
    void Place(T* item, uint32_t at) {
        items[at] = item;
        item->slot = at;
    }
    void Up(uint32_t at) {
        T* item = items[at];
        while (at > 0) {
            uint32_t parent = (at - 1) / 2;
            if (!Less(item, items[parent])) break;
            Place(items[parent], at);
            at = parent;
        }
        Place(item, at);
    }
    void Down(uint32_t at) {
        T* item = items[at];
        const uint32_t n = static_cast<uint32_t>(items.size());
        for (;;) {
            uint32_t child = 2 * at + 1;
            if (child >= n) break;
            if (child + 1 < n && Less(items[child + 1], items[child])) child++;
            if (!Less(items[child], item)) break;
            Place(items[child], at);
            at = child;
        }
        Place(item, at);
    }
};

// Everything the threads share, under lock. Allocated for one root's walk
// and never destroyed while helpers run: a fatal exit of the main thread
// ends the process with helpers still at work, and must find nothing
// destroyed under them.
struct AheadState {
    pthread_mutex_t lock;
    pthread_cond_t work;          // idle helpers wait here
    pthread_cond_t walk;          // the walk waits here for walkWaitsFor
    AuditRoot* root;
    bool dirTemplates;            // children's logical paths are needed to select them
    AheadJob* rootJob;
    // The job the walk waits for: set under the lock; a helper may peek at
    // it without, to hand over early what the walk waits for.
    std::atomic<AheadJob*> walkWaitsFor;
    WorkQueue<AheadJob, KeyLess> toOpen;          // handed out, not yet opened
    WorkQueue<AheadJob, KeyLess> toRead;          // opened, listing not over, nobody reading
    WorkQueue<AheadPiece, PieceLess> toExamine;   // pieces with slices nobody has taken
    size_t bytesAhead;            // pieces made and not yet released by the walk
    size_t openDirs;              // directory descriptors open
    size_t dirBudget;             // open directory descriptors helpers may reach
    uint32_t helpers;             // helper threads started
    uint32_t idle;                // helpers waiting on work
    uint32_t working;             // helpers at work
    uint32_t allowed;             // helpers that may work at once (see PaceHelpers)
    uint32_t fastAllowed;         // that number while the file system answers at memory speed
    uint32_t timed;               // calls timed in the current window
    uint32_t slowCalls;           // of those, the ones that had to wait
    bool stopping;
    char* walkBuffer;             // the walk's own getdents64 buffer
    pthread_t threads[AHEAD_MAX_THREADS];
};

AheadState* ahead = nullptr;

// Descriptors kept for the walk's own opens (one per level at most) and the
// run's files, beyond what helpers may hold.
constexpr size_t FD_RESERVE = MAX_DIR_LEVEL + 64;
// Helpers' stacks: no recursion and no large local buffer on them.
constexpr size_t HELPER_STACK = 256u << 10;

// Memory for a helper: it waits for memory rather than end the run from a
// thread that owns no output; the walk's own requests end it as GetMem does.
void* AheadAlloc(size_t size, bool onHelper) {
    if (!onHelper) return GetMem(size, "read-ahead");
    for (;;) {
        if (void* p = malloc(size)) return p;
        usleep(1000);
    }
}

void Seam(AheadEvent event, const AheadJob* job, bool onHelper) {
    if (aheadTestSeam) aheadTestSeam(event, job->name, onHelper);
}

void Wake(uint32_t n) {
    uint32_t room = ahead->allowed > ahead->working ? ahead->allowed - ahead->working : 0;
    for (uint32_t i = 0; i < n && i < ahead->idle && i < room; i++) pthread_cond_signal(&ahead->work);
}

// How many helpers work at once. A file system that answers from memory
// keeps a thread busy on a processor for every call: many more helpers than
// processors then only take turns, and take time from the walk. One that
// makes threads wait for every answer (a cold disk, a server across a
// network) is as fast as the number of questions asked at once. Helpers
// time every open and listing batch and one examination in four (a clock
// read in the vDSO, no system call). On a cold disk most examinations find
// their inode read already, but most listings wait; from memory, a call
// that takes 100 µs is one that lost its processor meanwhile, a few in a
// thousand. So a window with a few slow calls lets all helpers work, one
// without brings them back to twice the processors' number.
constexpr int64_t SLOW_CALL_NS = 100000;
constexpr uint32_t PACE_WINDOW = 256;
constexpr uint32_t PACE_SLOW_CALLS = 4;
thread_local uint32_t callsSeen, callsTimed, callsSlow;

int64_t Now() {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<int64_t>(t.tv_sec) * 1000000000 + t.tv_nsec;
}

// Whether this helper times its next call.
bool TimeCall(bool onHelper) { return onHelper && (++callsSeen & 3) == 0; }

void NoteCall(int64_t since) {
    callsTimed++;
    if (Now() - since > SLOW_CALL_NS) callsSlow++;
}

// Under the lock: a helper's timings join the window, which sets the pace
// once full.
void PaceHelpers() {
    ahead->timed += callsTimed;
    ahead->slowCalls += callsSlow;
    callsTimed = callsSlow = 0;
    if (ahead->timed < PACE_WINDOW) return;
    bool slow = ahead->slowCalls >= PACE_SLOW_CALLS;
    uint32_t allowed = slow ? ahead->helpers : ahead->fastAllowed;
    ahead->timed = ahead->slowCalls = 0;
    if (allowed == ahead->allowed) return;
    ahead->allowed = allowed;
    Wake(ahead->idle);
}

void TellWalk(const AheadJob* job) {
    if (ahead->walkWaitsFor == job) pthread_cond_signal(&ahead->walk);
}

void WaitFor(AheadJob* job) {
    ahead->walkWaitsFor = job;
    pthread_cond_wait(&ahead->walk, &ahead->lock);
    ahead->walkWaitsFor = nullptr;
}

// Descriptors released under the lock, closed by the same thread once it
// lets the lock go: a close may take a while (ext4 frees a directory's
// listing cache then), and no other thread should wait for it.
constexpr int CLOSE_LATER_MAX = 4;
thread_local int closeLater[CLOSE_LATER_MAX];
thread_local int closeLaterCount = 0;

void Unlock() {
    int n = closeLaterCount;
    closeLaterCount = 0;
    pthread_mutex_unlock(&ahead->lock);
    for (int i = 0; i < n; i++) close(closeLater[i]);
}

// Lets job's descriptor go once nothing can need it any more: the listing
// is read and examined, every child has been opened relative to it, and no
// entry is left for the walk to examine relative to it (or the walk is done
// with the listing).
void ReleaseIfDone(AheadJob* job) {
    if (job->fd < 0 || !job->listedAll || job->reading || job->unexamined != 0 || job->unopened != 0 ||
        (job->deferred != 0 && !job->entriesDone))
        return;
    ahead->openDirs--;
    if (closeLaterCount < CLOSE_LATER_MAX) {
        closeLater[closeLaterCount++] = job->fd;
    } else {
        close(job->fd);
    }
    job->fd = -1;
}

bool MayGrow() { return ahead->bytesAhead < AHEAD_BUDGET_BYTES && !ahead->stopping; }

void QueueRead(AheadJob* job) {
    if (ahead->helpers == 0) return;
    ahead->toRead.insert(job);
    job->queuedRead = true;
    Wake(1);
}

// The listing is over and wholly examined: its children may be opened
// ahead, unless it ended at an entry over the limits, where the run ends
// before the walk would enter any of them.
void HandOutChildren(AheadJob* job) {
    if (!job->listedAll || job->unexamined != 0 || job->overLimit) return;
    uint32_t n = 0;
    for (AheadJob* child = job->children; child; child = child->nextChild) {
        if (ahead->helpers == 0) continue;
        ahead->toOpen.insert(child);
        child->queuedOpen = true;
        n++;
    }
    job->children = nullptr;
    Wake(n);
}

// A new job for the subdirectory at position ordinal of job's listing, or
// null when the walk will not enter it (too deep, or left out by the
// directory templates).
AheadJob* NewChild(AheadJob* job, const char* name, uint32_t nameLength, uint32_t ordinal, bool onHelper) {
    if (job->level + 1 > static_cast<uint32_t>(MAX_DIR_LEVEL)) return nullptr;
    size_t pathLength = 0;
    char path[ACCESS_PATH_SIZE];
    if (ahead->dirTemplates) {
        // As the walk joins them: "%s%s" under the root "/", else "%s/%s".
        // Both fit: the entry's access path, longer still, passed the limit.
        size_t parentLength = strlen(job->logicalPath);
        size_t join = job->logicalPath[1] == '\0' ? parentLength : parentLength + 1;
        memcpy(path, job->logicalPath, parentLength);
        path[join - 1] = '/';
        memcpy(path + join, name, nameLength + 1);
        pathLength = join + nameLength;
        if (!IsDirectorySelected(path, ahead->root)) return nullptr;
    }
    size_t keyBytes = (job->keyLength + 1) * sizeof(uint32_t);
    size_t size = sizeof(AheadJob) + keyBytes + nameLength + 1 + (ahead->dirTemplates ? pathLength + 1 : 0);
    auto* child = new (AheadAlloc(size, onHelper)) AheadJob();
    auto* key = reinterpret_cast<uint32_t*>(child + 1);
    if (job->keyLength != 0) memcpy(key, job->key, job->keyLength * sizeof(uint32_t));
    key[job->keyLength] = ordinal;
    char* text = reinterpret_cast<char*>(key) + keyBytes;
    memcpy(text, name, nameLength + 1);
    if (ahead->dirTemplates) {
        memcpy(text + nameLength + 1, path, pathLength + 1);
        child->logicalPath = text + nameLength + 1;
    }
    child->parent = job;
    child->name = text;
    child->key = key;
    child->keyLength = job->keyLength + 1;
    child->level = job->level + 1;
    child->accessLength = job->accessLength + 1 + nameLength;
    child->fd = -1;
    child->bytes = static_cast<uint32_t>(size);
    return child;
}

// Examines one entry relative to its open directory. inWalkOrder is set only
// when the walk itself examines it as it records it: a symbolic link with
// several names is read then, and left alone otherwise.
AheadJob* Examine(AheadJob* job, AheadEntry* entry, uint32_t ordinal, bool onHelper, bool inWalkOrder) {
    struct stat st;
    bool timing = TimeCall(onHelper);
    int64_t since = timing ? Now() : 0;
    int failed = fstatat(job->fd, entry->name, &st, AT_SYMLINK_NOFOLLOW);
    int error = errno;
    if (timing) NoteCall(since);
    if (failed != 0) {
        entry->status = error;
        return nullptr;
    }
    entry->st = AheadStat{static_cast<uint64_t>(st.st_ino), st.st_size, st.st_atim.tv_sec, st.st_mtim.tv_sec,
                          st.st_ctim.tv_sec, st.st_mode, static_cast<uint32_t>(st.st_nlink), st.st_uid, st.st_gid};
    entry->status = AHEAD_EXAMINED;
    if (S_ISDIR(st.st_mode)) return NewChild(job, entry->name, entry->nameLength, ordinal, onHelper);
    if (S_ISLNK(st.st_mode) && IsFileSelected(entry->name, ahead->root)) {
        if (st.st_nlink >= 2 && !inWalkOrder) {
            entry->status = AHEAD_UNEXAMINED;
            return nullptr;
        }
        size_t size = st.st_size > 0 ? static_cast<size_t>(st.st_size) : 0;
        if (size > LINK_TARGET_MAX) size = LINK_TARGET_MAX;
        entry->target = static_cast<char*>(AheadAlloc(size + 1, onHelper));
        ReadLinkTarget(job->fd, entry->name, size, entry->target);
    }
    return nullptr;
}

// What examining a slice made: the children in listing order (linked
// through nextChild) and the entries left for the walk.
struct SliceResult {
    AheadJob* children;
    AheadJob* last;
    uint32_t made;
    uint32_t deferred;
    size_t bytes;  // the children's blocks
};

// Examines one slice of a piece, without the lock.
SliceResult ExamineSlice(AheadPiece* piece, uint32_t slice, bool onHelper) {
    AheadJob* job = piece->job;
    Seam(AHEAD_EXAMINE, job, onHelper);
    SliceResult result{};
    AheadJob** tail = &result.children;
    uint32_t end = std::min(piece->count, (slice + 1) * AHEAD_SLICE);
    for (uint32_t i = slice * AHEAD_SLICE; i < end; i++) {
        AheadEntry* entry = &piece->entries[i];
        if (entry->status == AHEAD_OVER_LIMIT) break;
        if (AheadJob* child = Examine(job, entry, piece->first + i, onHelper, false)) {
            entry->child = child;
            *tail = child;
            tail = &child->nextChild;
            result.last = child;
            result.made++;
            result.bytes += child->bytes;
        }
        if (entry->status == AHEAD_UNEXAMINED) result.deferred++;
    }
    return result;
}

// Under the lock: the children and left entries an examination found
// become the job's (its list of children is in no particular order).
void Adopt(AheadJob* job, const SliceResult& found) {
    if (found.children) {
        found.last->nextChild = job->children;
        job->children = found.children;
    }
    job->unopened += found.made;
    job->deferred += found.deferred;
}

// Under the lock: a slice is examined. The last one completes the piece.
void SliceDone(AheadPiece* piece, const SliceResult& result) {
    AheadJob* job = piece->job;
    Adopt(job, result);
    // The children count with the piece that found them: ahead of the walk
    // until it takes the piece, its own (as its list of subdirectories) after.
    piece->bytes += result.bytes;
    ahead->bytesAhead += result.bytes;
    if (++piece->done < piece->slices) return;
    job->unexamined--;
    HandOutChildren(job);
    ReleaseIfDone(job);
    TellWalk(job);
}

// Takes the next slice of piece, under the lock.
uint32_t ClaimSlice(AheadPiece* piece) {
    uint32_t slice = piece->claimed++;
    if (piece->claimed == piece->slices && ahead->helpers != 0) ahead->toExamine.erase(piece);
    return slice;
}

void ExamineClaimed(AheadPiece* piece, uint32_t slice, bool onHelper) {
    Unlock();
    SliceResult result = ExamineSlice(piece, slice, onHelper);
    pthread_mutex_lock(&ahead->lock);
    SliceDone(piece, result);
}

bool IsDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// What one getdents64 call gave.
struct ReadResult {
    AheadPiece* piece;  // null when the call gave no entry but "." and ".."
    int error;          // errno of a failed call
    bool end;           // the listing is over (end, error or an entry over the limits)
    bool overLimit;
};

// Reads one batch of job's listing into a new piece, without the lock. The
// reader's claim (job->reading) keeps job->listed and the descriptor's
// position its own. An entry whose access path or name is over the walk's
// limits ends the piece and the listing: the walk ends the run there.
ReadResult ReadPiece(AheadJob* job, char* buffer, bool onHelper) {
    Seam(AHEAD_READ, job, onHelper);
    ReadResult result{};
    int64_t since = onHelper ? Now() : 0;
    ssize_t got = getdents64(job->fd, buffer, AHEAD_READ_SIZE);
    int error = errno;
    if (onHelper) NoteCall(since);
    if (got <= 0) {
        result.error = got < 0 ? error : 0;
        result.end = true;
        return result;
    }
    // Where each name is and how long, found once: a record takes 24 bytes at least.
    struct Found {
        uint32_t at;
        uint32_t length;
    } found[AHEAD_READ_SIZE / 24];
    uint32_t count = 0;
    size_t nameBytes = 0;
    for (ssize_t at = 0; at < got;) {
        const auto* d = reinterpret_cast<const struct dirent64*>(buffer + at);
        at += d->d_reclen;
        if (IsDotOrDotDot(d->d_name)) continue;
        size_t length = strlen(d->d_name);
        found[count++] = {static_cast<uint32_t>(d->d_name - buffer), static_cast<uint32_t>(length)};
        nameBytes += length + 1;
        if (job->accessLength + 1 + length + 1 > ACCESS_PATH_SIZE || length >= ENTRY_NAME_SIZE) {
            result.overLimit = result.end = true;
            break;
        }
    }
    if (count == 0) return result;
    size_t size = sizeof(AheadPiece) + count * sizeof(AheadEntry) + nameBytes;
    auto* piece = static_cast<AheadPiece*>(AheadAlloc(size, onHelper));
    memset(piece, 0, sizeof *piece);
    piece->job = job;
    piece->first = job->listed;
    piece->count = count;
    piece->slices = (count + AHEAD_SLICE - 1) / AHEAD_SLICE;
    piece->bytes = size;
    piece->entries = reinterpret_cast<AheadEntry*>(piece + 1);
    char* names = reinterpret_cast<char*>(piece->entries + count);
    for (uint32_t i = 0; i < count; i++) {
        AheadEntry* entry = &piece->entries[i];
        memset(entry, 0, sizeof *entry);
        memcpy(names, buffer + found[i].at, found[i].length + 1);
        entry->name = names;
        entry->nameLength = found[i].length;
        names += found[i].length + 1;
    }
    if (result.overLimit) piece->entries[count - 1].status = AHEAD_OVER_LIMIT;
    result.piece = piece;
    return result;
}

// What a thread has read and examined of a listing it holds, since it last
// handed its work over: pieces in order (those examined already marked so),
// the children found in listing order, the entries left for the walk, and
// how the listing stands.
struct Round {
    AheadPiece* head;
    AheadPiece* tail;
    size_t bytes;
    SliceResult found;
    bool opening;   // the round began with the open, whose outcome it hands over
    int openError;
    bool end;       // the listing is over
    bool overLimit;
    int readError;
};

void Append(Round* round, AheadPiece* piece) {
    if (round->tail) {
        round->tail->next = piece;
    } else {
        round->head = piece;
    }
    round->tail = piece;
    round->bytes += piece->bytes;
}

void AddFound(SliceResult* into, const SliceResult& more) {
    if (more.children) {
        if (into->last) {
            into->last->nextChild = more.children;
        } else {
            into->children = more.children;
        }
        into->last = more.last;
    }
    into->made += more.made;
    into->deferred += more.deferred;
    into->bytes += more.bytes;
}

// Reads one batch into the round, without the lock; the reader's claim
// keeps job->listed its own. Returns the new piece (or null).
AheadPiece* ReadInto(Round* round, AheadJob* job, char* buffer, bool onHelper) {
    ReadResult result = ReadPiece(job, buffer, onHelper);
    if (result.end) {
        round->end = true;
        round->overLimit = result.overLimit;
        round->readError = result.error;
    }
    if (result.piece) {
        job->listed += result.piece->count;
        Append(round, result.piece);
    }
    return result.piece;
}

// Under the lock: everything of the round is handed over. The open's
// outcome is published last, so that the walk, which reads it without the
// lock, finds everything else in place.
void HandOver(AheadJob* job, Round* round) {
    if (round->opening) {
        job->opening = false;
        job->openError = round->openError;
        if (job->fd < 0) ahead->openDirs--;
        if (job->parent) {
            job->parent->unopened--;
            ReleaseIfDone(job->parent);
        }
    }
    uint32_t toShare = 0;
    for (AheadPiece* piece = round->head; piece; piece = piece->next) {
        if (piece->done == piece->slices) continue;
        job->unexamined++;
        if (ahead->helpers == 0) continue;
        ahead->toExamine.insert(piece);
        toShare += piece->slices - piece->claimed;
    }
    if (round->head) {
        if (job->tail) {
            job->tail->next = round->head;
        } else {
            job->head = round->head;
        }
        job->tail = round->tail;
        ahead->bytesAhead += round->bytes;
    }
    Adopt(job, round->found);
    if (round->end) {
        job->reading = false;
        job->listedAll = true;
        job->readError = round->readError;
        job->overLimit = round->overLimit;
    }
    HandOutChildren(job);
    ReleaseIfDone(job);
    Wake(toShare);
    TellWalk(job);
    if (round->opening) job->opened.store(true, std::memory_order_release);
    *round = Round{};
}

// A helper's visit to a listing it has claimed (to open it, or to read on),
// under the lock on entry and on return. Outside the lock it opens, reads
// batch after batch and examines a batch of one slice itself, so that a
// small directory goes from open to examined in one visit and one handover.
// A larger batch is handed over at once for all to examine; the visit then
// lets the listing go, and the helpers' order decides what comes next.
void Visit(AheadJob* job, char* buffer, bool opening) {
    Round round{};
    round.opening = opening;
    Unlock();
    if (opening) {
        Seam(AHEAD_OPEN, job, true);
        // Below the root a directory replaced by a link fails to open
        // instead of leading the walk elsewhere.
        int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (job->parent ? O_NOFOLLOW : 0);
        int64_t since = Now();
        job->fd = openat(job->parent ? job->parent->fd : AT_FDCWD, job->name, flags);
        int error = errno;
        NoteCall(since);
        if (job->fd < 0) {
            round.openError = error;
            round.end = true;
            if (round.openError == EMFILE || round.openError == ENFILE) {
                // No descriptor left: the job goes back, the helpers stop
                // opening, and the walk opens it (and reports) itself.
                pthread_mutex_lock(&ahead->lock);
                job->opening = job->reading = false;
                ahead->openDirs--;
                ahead->dirBudget = std::min(ahead->dirBudget, ahead->openDirs);
                TellWalk(job);
                return;
            }
        }
    }
    for (;;) {
        bool share = false;
        while (!round.end && !share && round.bytes < AHEAD_ROUND_BYTES) {
            AheadPiece* piece = ReadInto(&round, job, buffer, true);
            if (piece && piece->slices == 1) {
                SliceResult found = ExamineSlice(piece, 0, true);
                piece->bytes += found.bytes;
                round.bytes += found.bytes;
                AddFound(&round.found, found);
                piece->claimed = piece->done = 1;
            } else if (piece) {
                share = true;
            }
            if (ahead->walkWaitsFor.load(std::memory_order_relaxed) == job) break;
        }
        pthread_mutex_lock(&ahead->lock);
        bool over = round.end;
        HandOver(job, &round);
        if (over) return;
        if (share || !MayGrow()) {
            job->reading = false;
            QueueRead(job);
            TellWalk(job);
            return;
        }
        Unlock();
    }
}

// The walk reads one batch of a listing it waits for and hands it over for
// all to examine; helpers may read on.
void ReadOnWalk(AheadJob* job) {
    if (job->queuedRead) ahead->toRead.erase(job);
    job->queuedRead = false;
    job->reading = true;
    Unlock();
    Round round{};
    ReadInto(&round, job, ahead->walkBuffer, false);
    pthread_mutex_lock(&ahead->lock);
    bool over = round.end;
    HandOver(job, &round);
    if (!over) {
        job->reading = false;
        QueueRead(job);
    }
}

// The walk opens a directory it needs now, and reads it itself after.
void OpenOnWalk(AheadJob* job) {
    if (job->queuedOpen) ahead->toOpen.erase(job);
    job->queuedOpen = false;
    job->opening = true;
    ahead->openDirs++;
    Unlock();
    Seam(AHEAD_OPEN, job, false);
    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (job->parent ? O_NOFOLLOW : 0);
    job->fd = openat(job->parent ? job->parent->fd : AT_FDCWD, job->name, flags);
    Round round{};
    round.opening = true;
    round.openError = job->fd < 0 ? errno : 0;
    round.end = job->fd < 0;
    pthread_mutex_lock(&ahead->lock);
    HandOver(job, &round);
}

enum class Work { NONE, EXAMINE, READ, OPEN };

// The helpers' choice, under the lock: of the three kinds of work, the one
// the walk will need first. Examining what has been read needs no more
// memory; reading and opening wait while the budget is spent.
Work PickWork(AheadPiece** piece, AheadJob** job) {
    Work best = Work::NONE;
    const AheadJob* bestJob = nullptr;
    if (!ahead->toExamine.empty()) {
        *piece = ahead->toExamine.top();
        best = Work::EXAMINE;
        bestJob = (*piece)->job;
    }
    if (!MayGrow()) return best;
    // For the same directory its read pieces come before its next batch.
    if (!ahead->toRead.empty()) {
        AheadJob* next = ahead->toRead.top();
        if (!bestJob || KeyLess(next, bestJob)) {
            *job = next;
            best = Work::READ;
            bestJob = next;
        }
    }
    if (!ahead->toOpen.empty() && ahead->openDirs < ahead->dirBudget) {
        AheadJob* next = ahead->toOpen.top();
        if (!bestJob || KeyLess(next, bestJob)) {
            *job = next;
            best = Work::OPEN;
        }
    }
    return best;
}

void* HelperMain(void*) {
    char* buffer = static_cast<char*>(AheadAlloc(AHEAD_READ_SIZE, true));
    pthread_mutex_lock(&ahead->lock);
    while (!ahead->stopping) {
        AheadPiece* piece = nullptr;
        AheadJob* job = nullptr;
        PaceHelpers();
        Work work = ahead->working < ahead->allowed ? PickWork(&piece, &job) : Work::NONE;
        if (work != Work::NONE) ahead->working++;
        switch (work) {
            case Work::EXAMINE: ExamineClaimed(piece, ClaimSlice(piece), true); break;
            case Work::READ:
                ahead->toRead.erase(job);
                job->queuedRead = false;
                job->reading = true;
                Visit(job, buffer, false);
                break;
            case Work::OPEN:
                ahead->toOpen.erase(job);
                job->queuedOpen = false;
                job->opening = job->reading = true;
                ahead->openDirs++;
                Visit(job, buffer, true);
                break;
            case Work::NONE:
                ahead->idle++;
                pthread_cond_wait(&ahead->work, &ahead->lock);
                ahead->idle--;
                continue;
        }
        ahead->working--;
    }
    Unlock();
    free(buffer);
    return nullptr;
}

// Open directories helpers may hold: the soft descriptor limit, raised to
// the hard one where allowed, less what the walk and the run keep for
// themselves.
size_t DirectoryBudget() {
    struct rlimit limit;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return 0;
    if (limit.rlim_cur < limit.rlim_max) {
        rlimit raised = limit;
        raised.rlim_cur = std::min<rlim_t>(limit.rlim_max, 1u << 20);
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    }
    if (limit.rlim_cur <= FD_RESERVE) return 0;
    return std::min<size_t>(limit.rlim_cur - FD_RESERVE, 1u << 16);
}

}  // namespace

void ReadLinkTarget(int dirFd, const char* name, size_t lstatSize, char* out) {
    ssize_t got = readlinkat(dirFd, name, out, lstatSize);
    // The target ends where lstat said it does; bytes a shorter answer left
    // unfilled are zeros, never an earlier link's target.
    if (got < 0) got = 0;
    memset(out + got, 0, lstatSize + 1 - static_cast<size_t>(got));
}

void AheadStart(AuditRoot* root, uint32_t threads) {
    ahead = new AheadState();
    // Held for a few instructions at a time by many threads: spinning a
    // little beats sleeping in the kernel.
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ADAPTIVE_NP);
    pthread_mutex_init(&ahead->lock, &attr);
    pthread_mutexattr_destroy(&attr);
    pthread_cond_init(&ahead->work, nullptr);
    pthread_cond_init(&ahead->walk, nullptr);
    ahead->root = root;
    ahead->dirTemplates = root->includeDirs || root->excludeDirs;
    ahead->walkBuffer = static_cast<char*>(GetMem(AHEAD_READ_SIZE, "directory buffer"));
    auto* job = new (GetMem(sizeof(AheadJob), "read-ahead")) AheadJob();
    job->name = root->path;
    job->logicalPath = "/";
    job->level = 1;
    job->accessLength = strlen(root->path);
    job->fd = -1;
    ahead->rootJob = job;
    if (threads <= 1) return;
    ahead->dirBudget = DirectoryBudget();
    // A helper's pieces are freed by the walk: with an arena of the
    // allocator's own per thread, each would keep the memory its pieces
    // once took. Two serve the walk and its helpers.
    mallopt(M_ARENA_MAX, 2);
    uint32_t wanted = std::min(threads, AHEAD_MAX_THREADS) - 1;
    // Two a processor: while one waits for the lock or for the walk,
    // another has work in hand (one a processor left the walk waiting).
    ahead->fastAllowed = 2 * static_cast<uint32_t>(ProcessorCount());
    ahead->allowed = ahead->fastAllowed;
    pthread_mutex_lock(&ahead->lock);
    ahead->toOpen.insert(job);
    job->queuedOpen = true;
    while (ahead->helpers < wanted &&
           StartBlockedThread(&ahead->threads[ahead->helpers], HelperMain, nullptr, HELPER_STACK))
        ahead->helpers++;
    if (ahead->helpers == 0) {
        ahead->toOpen.clear();
        job->queuedOpen = false;
    }
    pthread_mutex_unlock(&ahead->lock);
}

void AheadStop() {
    pthread_mutex_lock(&ahead->lock);
    ahead->stopping = true;
    pthread_cond_broadcast(&ahead->work);
    pthread_mutex_unlock(&ahead->lock);
    for (uint32_t i = 0; i < ahead->helpers; i++) pthread_join(ahead->threads[i], nullptr);
    pthread_cond_destroy(&ahead->walk);
    pthread_cond_destroy(&ahead->work);
    pthread_mutex_destroy(&ahead->lock);
    free(ahead->walkBuffer);
    delete ahead;
    ahead = nullptr;
}

AheadJob* AheadRootJob() { return ahead->rootJob; }

int AheadOpen(AheadJob* job) {
    // Most directories were opened ahead: their outcome is read without the lock.
    if (!job->opened.load(std::memory_order_acquire)) {
        pthread_mutex_lock(&ahead->lock);
        while (!job->opened.load(std::memory_order_relaxed)) {
            if (job->opening) {
                WaitFor(job);
            } else {
                OpenOnWalk(job);
            }
        }
        Unlock();
    }
    return job->openError;
}

AheadPiece* AheadNext(AheadJob* job, AheadPiece* done) {
    pthread_mutex_lock(&ahead->lock);
    if (done) {
        // Helpers that stopped for the budget go on once a quarter of it is free.
        constexpr size_t resume = AHEAD_BUDGET_BYTES / 4 * 3;
        bool wasFull = ahead->bytesAhead >= resume;
        ahead->bytesAhead -= done->bytes;
        if (wasFull && ahead->bytesAhead < resume) Wake(ahead->idle);
    }
    AheadPiece* taken = nullptr;
    for (;;) {
        AheadPiece* piece = job->head;
        if (piece && piece->done == piece->slices) {
            job->head = piece->next;
            if (!job->head) job->tail = nullptr;
            taken = piece;
            break;
        }
        if (piece && piece->claimed < piece->slices) {
            ExamineClaimed(piece, ClaimSlice(piece), false);
        } else if (!piece && job->listedAll) {
            // The walk has taken every piece: the descriptor may go once the
            // children that need it are open.
            job->entriesDone = true;
            ReleaseIfDone(job);
            break;
        } else if (!piece && !job->reading) {
            ReadOnWalk(job);
        } else {
            WaitFor(job);
        }
    }
    Unlock();
    if (done) {
        for (uint32_t i = 0; i < done->count; i++) free(done->entries[i].target);
        free(done);
    }
    return taken;
}

void AheadExamine(AheadPiece* piece, uint32_t index) {
    AheadJob* job = piece->job;
    AheadEntry* entry = &piece->entries[index];
    free(entry->target);
    entry->target = nullptr;
    AheadJob* child = Examine(job, entry, piece->first + index, false, true);
    entry->child = child;
    if (!child) return;
    // The walk opens it itself, relative to the descriptor this keeps open.
    pthread_mutex_lock(&ahead->lock);
    job->unopened++;
    Unlock();
}

int AheadReadError(const AheadJob* job) { return job->readError; }

void AheadLeave(AheadJob* job) {
    // Every piece has been taken and every child opened, each under the lock
    // or seen through its published open: what helpers last wrote to the job
    // is visible here, and none of them holds it any more. Its descriptor is
    // closed already, but for one whose open failed.
    if (job->fd >= 0 || job->queuedOpen || job->queuedRead) {
        pthread_mutex_lock(&ahead->lock);
        if (job->queuedOpen) ahead->toOpen.erase(job);
        if (job->queuedRead) ahead->toRead.erase(job);
        int fd = job->fd;
        if (fd >= 0) ahead->openDirs--;
        Unlock();
        if (fd >= 0) close(fd);
    }
    if (job == ahead->rootJob) ahead->rootJob = nullptr;
    free(job);
}
