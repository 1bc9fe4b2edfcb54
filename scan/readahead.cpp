#include "scan/readahead.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <set>

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
    bool opening;             // a thread is opening it
    bool opened;              // the open is over (fd, or openError)
    bool reading;             // a thread is in getdents64 on fd
    bool listedAll;           // no more pieces will come (end, error, limit or failed open)
    bool overLimit;           // the listing ended at an entry over the limits: the run ends there
    bool entriesDone;         // the walk has taken every piece
    bool queuedOpen;          // in toOpen
    bool queuedRead;          // in toRead
};

namespace {

bool KeyLess(const AheadJob* a, const AheadJob* b) {
    uint32_t n = std::min(a->keyLength, b->keyLength);
    for (uint32_t i = 0; i < n; i++)
        if (a->key[i] != b->key[i]) return a->key[i] < b->key[i];
    // A directory comes before everything below it.
    return a->keyLength < b->keyLength;
}

struct JobOrder {
    bool operator()(const AheadJob* a, const AheadJob* b) const { return KeyLess(a, b); }
};
struct PieceOrder {
    bool operator()(const AheadPiece* a, const AheadPiece* b) const {
        return a->job == b->job ? a->first < b->first : KeyLess(a->job, b->job);
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
    AheadJob* walkWaitsFor;
    std::set<AheadJob*, JobOrder> toOpen;      // handed out, not yet opened
    std::set<AheadJob*, JobOrder> toRead;      // opened, listing not over, nobody reading
    std::set<AheadPiece*, PieceOrder> toExamine;  // pieces with slices nobody has taken
    size_t bytesAhead;            // pieces made and not yet released by the walk
    size_t openDirs;              // directory descriptors open
    size_t dirBudget;             // open directory descriptors helpers may reach
    uint32_t helpers;             // helper threads started
    uint32_t idle;                // helpers waiting on work
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
    for (uint32_t i = 0; i < n && i < ahead->idle; i++) pthread_cond_signal(&ahead->work);
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
    auto* child = static_cast<AheadJob*>(AheadAlloc(size, onHelper));
    memset(child, 0, sizeof *child);
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
    return child;
}

// Examines one entry relative to its open directory. inWalkOrder is set only
// when the walk itself examines it as it records it: a symbolic link with
// several names is read then, and left alone otherwise.
AheadJob* Examine(AheadJob* job, AheadEntry* entry, uint32_t ordinal, bool onHelper, bool inWalkOrder) {
    struct stat st;
    if (fstatat(job->fd, entry->name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        entry->status = errno;
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
        }
        if (entry->status == AHEAD_UNEXAMINED) result.deferred++;
    }
    return result;
}

// Under the lock: a slice is examined. The last one completes the piece.
void SliceDone(AheadPiece* piece, const SliceResult& result) {
    AheadJob* job = piece->job;
    if (result.children) {
        result.last->nextChild = job->children;
        job->children = result.children;
        job->unopened += result.made;
    }
    job->deferred += result.deferred;
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
    ssize_t got = getdents64(job->fd, buffer, AHEAD_READ_SIZE);
    if (got <= 0) {
        result.error = got < 0 ? errno : 0;
        result.end = true;
        return result;
    }
    uint32_t count = 0;
    size_t nameBytes = 0;
    ssize_t stop = got;
    for (ssize_t at = 0; at < got;) {
        const auto* d = reinterpret_cast<const struct dirent64*>(buffer + at);
        at += d->d_reclen;
        if (IsDotOrDotDot(d->d_name)) continue;
        size_t length = strlen(d->d_name);
        count++;
        nameBytes += length + 1;
        if (job->accessLength + 1 + length + 1 > ACCESS_PATH_SIZE || length >= ENTRY_NAME_SIZE) {
            result.overLimit = result.end = true;
            stop = at;
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
    uint32_t i = 0;
    for (ssize_t at = 0; at < stop;) {
        const auto* d = reinterpret_cast<const struct dirent64*>(buffer + at);
        at += d->d_reclen;
        if (IsDotOrDotDot(d->d_name)) continue;
        AheadEntry* entry = &piece->entries[i++];
        size_t length = strlen(d->d_name);
        memset(entry, 0, sizeof *entry);
        memcpy(names, d->d_name, length + 1);
        entry->name = names;
        entry->nameLength = static_cast<uint32_t>(length);
        names += length + 1;
    }
    if (result.overLimit) piece->entries[count - 1].status = AHEAD_OVER_LIMIT;
    result.piece = piece;
    return result;
}

// Under the lock: a batch has been read. A reader that goes on (a helper)
// keeps its claim and the piece's first slice; otherwise the claim ends and
// the rest of the listing is queued for whoever comes first.
AheadPiece* AddPiece(AheadJob* job, const ReadResult& result, bool goOn) {
    AheadPiece* own = nullptr;
    if (AheadPiece* piece = result.piece) {
        if (job->tail) {
            job->tail->next = piece;
        } else {
            job->head = piece;
        }
        job->tail = piece;
        job->listed += piece->count;
        job->unexamined++;
        ahead->bytesAhead += piece->bytes;
        if (goOn) {
            piece->claimed = 1;
            own = piece;
        }
        if (ahead->helpers != 0 && piece->claimed < piece->slices) {
            ahead->toExamine.insert(piece);
            Wake(piece->slices - piece->claimed);
        }
    }
    if (result.end) {
        job->reading = false;
        job->listedAll = true;
        job->readError = result.error;
        job->overLimit = result.overLimit;
        HandOutChildren(job);
        ReleaseIfDone(job);
    } else if (!goOn) {
        job->reading = false;
        QueueRead(job);
    }
    TellWalk(job);
    return own;
}

// The walk reads one batch of a listing it waits for.
void ReadClaimed(AheadJob* job, char* buffer) {
    if (job->queuedRead) ahead->toRead.erase(job);
    job->queuedRead = false;
    job->reading = true;
    Unlock();
    ReadResult result = ReadPiece(job, buffer, false);
    pthread_mutex_lock(&ahead->lock);
    AddPiece(job, result, false);
}

// A helper's turn at a listing: it reads batch after batch and examines each
// batch's first slice itself (a small directory is then listed and examined
// in one visit), leaving the other slices to whoever is free, until the
// listing is over or the budget is spent.
void ListOn(AheadJob* job, char* buffer) {
    if (job->queuedRead) ahead->toRead.erase(job);
    job->queuedRead = false;
    job->reading = true;
    for (;;) {
        Unlock();
        ReadResult result = ReadPiece(job, buffer, true);
        pthread_mutex_lock(&ahead->lock);
        if (AheadPiece* own = AddPiece(job, result, true)) ExamineClaimed(own, 0, true);
        if (job->listedAll) return;
        if (!MayGrow()) {
            job->reading = false;
            QueueRead(job);
            TellWalk(job);
            return;
        }
    }
}

// Opens a claimed job without the lock, then records the outcome under it.
// A helper that finds no descriptor left gives the job back and stops
// opening; the walk reports what it meets itself. Returns true when the
// directory is open and the caller, a helper, goes on to list it.
bool OpenClaimed(AheadJob* job, bool onHelper) {
    if (job->queuedOpen) ahead->toOpen.erase(job);
    job->queuedOpen = false;
    job->opening = true;
    ahead->openDirs++;
    Unlock();
    Seam(AHEAD_OPEN, job, onHelper);
    // Below the root a directory replaced by a link fails to open instead of
    // leading the walk elsewhere.
    int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (job->parent ? O_NOFOLLOW : 0);
    int fd = openat(job->parent ? job->parent->fd : AT_FDCWD, job->name, flags);
    int error = fd < 0 ? errno : 0;
    pthread_mutex_lock(&ahead->lock);
    job->opening = false;
    if (fd < 0) ahead->openDirs--;
    if (fd < 0 && onHelper && (error == EMFILE || error == ENFILE)) {
        ahead->dirBudget = std::min(ahead->dirBudget, ahead->openDirs);
        TellWalk(job);
        return false;
    }
    job->opened = true;
    job->fd = fd;
    job->openError = error;
    if (job->parent) {
        job->parent->unopened--;
        ReleaseIfDone(job->parent);
    }
    TellWalk(job);
    if (fd < 0) {
        job->listedAll = true;
        return false;
    }
    // The walk, which opened it because it needs it now, reads it itself.
    if (!onHelper) return false;
    if (MayGrow()) return true;
    QueueRead(job);
    return false;
}

enum class Work { NONE, EXAMINE, READ, OPEN };

// The helpers' choice, under the lock: of the three kinds of work, the one
// the walk will need first. Examining what has been read needs no more
// memory; reading and opening wait while the budget is spent.
Work PickWork(AheadPiece** piece, AheadJob** job) {
    Work best = Work::NONE;
    const AheadJob* bestJob = nullptr;
    if (!ahead->toExamine.empty()) {
        *piece = *ahead->toExamine.begin();
        best = Work::EXAMINE;
        bestJob = (*piece)->job;
    }
    if (!MayGrow()) return best;
    // For the same directory its read pieces come before its next batch.
    if (!ahead->toRead.empty()) {
        AheadJob* next = *ahead->toRead.begin();
        if (!bestJob || KeyLess(next, bestJob)) {
            *job = next;
            best = Work::READ;
            bestJob = next;
        }
    }
    if (!ahead->toOpen.empty() && ahead->openDirs < ahead->dirBudget) {
        AheadJob* next = *ahead->toOpen.begin();
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
        switch (PickWork(&piece, &job)) {
            case Work::EXAMINE: ExamineClaimed(piece, ClaimSlice(piece), true); break;
            case Work::READ: ListOn(job, buffer); break;
            case Work::OPEN:
                if (OpenClaimed(job, true)) ListOn(job, buffer);
                break;
            case Work::NONE:
                ahead->idle++;
                pthread_cond_wait(&ahead->work, &ahead->lock);
                ahead->idle--;
                break;
        }
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
    pthread_mutex_init(&ahead->lock, nullptr);
    pthread_cond_init(&ahead->work, nullptr);
    pthread_cond_init(&ahead->walk, nullptr);
    ahead->root = root;
    ahead->dirTemplates = root->includeDirs || root->excludeDirs;
    ahead->walkBuffer = static_cast<char*>(GetMem(AHEAD_READ_SIZE, "directory buffer"));
    auto* job = static_cast<AheadJob*>(GetMem(sizeof(AheadJob), "read-ahead"));
    job->name = root->path;
    job->logicalPath = "/";
    job->level = 1;
    job->accessLength = strlen(root->path);
    job->fd = -1;
    ahead->rootJob = job;
    if (threads <= 1) return;
    ahead->dirBudget = DirectoryBudget();
    uint32_t wanted = std::min(threads, AHEAD_MAX_THREADS) - 1;
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
    pthread_mutex_lock(&ahead->lock);
    while (!job->opened) {
        if (job->opening) {
            WaitFor(job);
        } else {
            OpenClaimed(job, false);
        }
    }
    int error = job->openError;
    Unlock();
    return error;
}

AheadPiece* AheadNext(AheadJob* job) {
    pthread_mutex_lock(&ahead->lock);
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
            break;
        } else if (!piece && !job->reading) {
            ReadClaimed(job, ahead->walkBuffer);
        } else {
            WaitFor(job);
        }
    }
    Unlock();
    return taken;
}

void AheadRelease(AheadPiece* piece) {
    for (uint32_t i = 0; i < piece->count; i++) free(piece->entries[i].target);
    pthread_mutex_lock(&ahead->lock);
    // Helpers that stopped for the budget go on once a quarter of it is free.
    constexpr size_t resume = AHEAD_BUDGET_BYTES / 4 * 3;
    bool wasFull = ahead->bytesAhead >= resume;
    ahead->bytesAhead -= piece->bytes;
    if (wasFull && ahead->bytesAhead < resume) Wake(ahead->idle);
    Unlock();
    free(piece);
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

void AheadEntriesDone(AheadJob* job) {
    pthread_mutex_lock(&ahead->lock);
    job->entriesDone = true;
    ReleaseIfDone(job);
    Unlock();
}

void AheadLeave(AheadJob* job) {
    // Every piece has been taken and every child opened: no other thread
    // holds the job, and it sits in no queue.
    pthread_mutex_lock(&ahead->lock);
    if (job->queuedOpen) ahead->toOpen.erase(job);
    if (job->queuedRead) ahead->toRead.erase(job);
    int fd = job->fd;
    if (fd >= 0) ahead->openDirs--;
    if (job == ahead->rootJob) ahead->rootJob = nullptr;
    Unlock();
    if (fd >= 0) close(fd);
    free(job);
}
