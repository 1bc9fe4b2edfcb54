#include "scan/walk.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/roots.h"
#include "config/templates.h"
#include "detail/hardlinks.h"
#include "detail/writer.h"
#include "log/log.h"
#include "scan/accesspath.h"
#include "scan/dispatch.h"
#include "scan/progress.h"
#include "scan/readahead.h"
#include "scan/totals.h"
#include "support/memory.h"

uint32_t showProgress = 0;
uint32_t walkThreads = 1;

// The access path of the directory being read, rebuilt for each directory
// (its parent no longer needs its own once it has been read).
static void* dirPathsMem = nullptr;
static size_t dirPathsSize = 0;

// What one directory's listing adds up to.
struct DirTally {
    uint32_t entries;  ///< names other than "." and ".."
    uint32_t files;    ///< non-directory entries the file templates selected
    uint32_t subdirs;  ///< subdirectory entries examined
    int64_t bytes;     ///< sizes of the selected files
};

// The directory's access path: the root path joined with the logical path,
// as the messages name it.
static const char* DirAccessPath(const char* rootPath, const char* logicalPath) {
    // Reserved in whole 16-byte units, as BuildAccessPaths expects.
    size_t need = (static_cast<size_t>(AccessStructLength(nullptr, rootPath, logicalPath, nullptr)) + 15) & ~size_t{15};
    if (need > dirPathsSize) {
        free(dirPathsMem);
        dirPathsMem = GetMem(need, "access path");
        dirPathsSize = need;
    }
    return BuildAccessPaths(nullptr, rootPath, logicalPath, nullptr, dirPathsMem)->accessPath;
}

// The fields of the entry's examination that the record carries; the rest
// of statData is not read.
static void FillStat(struct stat& st, const AheadStat& seen) {
    st.st_ino = seen.ino;
    st.st_size = seen.size;
    st.st_atim.tv_sec = seen.atime;
    st.st_mtim.tv_sec = seen.mtime;
    st.st_ctim.tv_sec = seen.ctime;
    st.st_mode = seen.mode;
    st.st_nlink = seen.nlink;
    st.st_uid = seen.uid;
    st.st_gid = seen.gid;
}

// Records every entry of job's listing in listing order, as it was examined
// (ahead, or now); subdirectories are appended to *subdirs from chain, to be
// walked later. Its loop runs once per entry: no allocation but a
// subdirectory's node, no system call, no path built.
static DirTally RecordListing(AheadJob* job, const char* accessPath, const char* logicalPath, AuditRoot* root,
                              TempBlock** chain, SubdirNode** subdirs) {
    DirTally tally{};
    size_t accessLength = strlen(accessPath);
    SubdirNode** tail = subdirs;
    // Entries are copied straight into the file record, and its directory
    // path is set once for the whole listing: DispatchFile copies neither.
    FileRecord* record = DispatchRecord();
    StringObjectSet(record->dirPath, logicalPath);
    const char* dirPath = record->dirPath->text;
    struct stat& st = record->statData;
    for (AheadPiece* piece = nullptr; (piece = AheadNext(job, piece));) {
        for (uint32_t i = 0; i < piece->count; i++) {
            AheadEntry* entry = &piece->entries[i];
            const char* name = entry->name;
            tally.entries++;
            ProgressTick(accessPath);
            size_t nameLength = entry->nameLength;
            // "%s/%s" of the two and its terminator must fit an access-path buffer.
            if (accessLength + 1 + nameLength + 1 > ACCESS_PATH_SIZE || entry->status == AHEAD_OVER_LIMIT)
                ErrExit("Access path longer than %zu bytes: '%s/%s'\n", ACCESS_PATH_SIZE - 1, accessPath, name);
            if (nameLength >= ENTRY_NAME_SIZE)
                ErrExit("Name longer than %zu bytes: '%s/%s'\n", ENTRY_NAME_SIZE - 1, accessPath, name);
            memcpy(record->name, name, nameLength + 1);
            if (entry->status == AHEAD_UNEXAMINED) AheadExamine(piece, i);
            if (entry->status != AHEAD_EXAMINED) {
                errno = entry->status;
                LogPosixErr(0, "Could not stat() '%s/%s'\n", accessPath, name);
                continue;
            }
            FillStat(st, entry->st);
            if (st.st_nlink >= 2) HardLinkPrefetch(static_cast<uint32_t>(st.st_ino));
            if (S_ISDIR(st.st_mode)) {
                // Directories are recorded whether or not the templates will select them.
                auto* node = static_cast<SubdirNode*>(TempAlloc(nameLength + 33, chain));
                node->next = nullptr;
                node->nameLen = static_cast<uint32_t>(nameLength);
                node->name = reinterpret_cast<char*>(node + 1);
                node->job = entry->child;
                memcpy(node->name, name, nameLength + 1);
                *tail = node;
                tail = &node->next;
                tally.subdirs++;
            } else {
                if (!IsFileSelected(name, root)) continue;
                root->fileCount++;
                tally.files++;
                tally.bytes += st.st_size;
                if (S_ISLNK(st.st_mode)) StringObjectSet(record->linkTarget, entry->target);
            }
            DispatchFile(RECORD_ENTRY, dirPath, RecordStatBlock(record), root);
        }
    }
    if (int error = AheadReadError(job)) {
        errno = error;
        LogPosixErr(0, "Unable to read directory '%s'\n", accessPath);
    }
    return tally;
}

// The directory-end record: the directory's direct counts in its stat fields.
static void DispatchDirEnd(const char* logicalPath, const DirTally& tally) {
    StatBlock block;
    memset(&block, 0, sizeof block);
    block.statData.st_size = tally.bytes;
    DirEndFileCount(block.statData) = tally.files;
    DirEndSubdirCount(block.statData) = tally.subdirs;
    DispatchFile(RECORD_DIR_END, logicalPath, &block, nullptr);
}

int ProcessDirectory(const char* logicalPath, AuditRoot* root, AheadJob* job, int level) {
    root->dirCount++;
    if (showProgress) LogTraceLine(logicalPath);
    const char* accessPath = DirAccessPath(root->path, logicalPath);
    ProgressTick(accessPath);
    if (level > MAX_DIR_LEVEL) {
        LogErr("Directory '%s' is nested deeper than %d levels and was not entered\n", accessPath, MAX_DIR_LEVEL);
        return 0;
    }
    if (int error = AheadOpen(job)) {
        errno = error;
        LogPosixErr(0, "Unable to open directory '%s'\n", accessPath);
        AheadLeave(job);
        return 0;
    }
    DispatchFile(RECORD_DIR_START, logicalPath, nullptr, root);
    TempBlock* chain = nullptr;
    SubdirNode* subdirs = nullptr;
    DirTally tally = RecordListing(job, accessPath, logicalPath, root, &chain, &subdirs);
    if (tally.entries == 0) root->emptyDirCount++;
    for (const SubdirNode* node = subdirs; node; node = node->next) ProcessSubdir(root, logicalPath, node, level);
    TempFree(&chain);
    AheadLeave(job);
    DispatchDirEnd(logicalPath, tally);
    return 0;
}

void ProcessSubdir(AuditRoot* root, const char* parentLogicalPath, const SubdirNode* node, int parentLevel) {
    // The entry's access path was checked against the same bound, and the
    // logical path is no longer than it.
    char subPath[ACCESS_PATH_SIZE];
    // "%s%s" under the root "/", else "%s/%s"; joined by hand, once per directory.
    size_t parentLength = strlen(parentLogicalPath);
    size_t join = parentLogicalPath[1] == '\0' ? parentLength : parentLength + 1;
    if (join + node->nameLen >= sizeof subPath)
        ErrExit("Directory path longer than %zu bytes: '%s/%s'\n", sizeof subPath - 1, parentLogicalPath, node->name);
    memcpy(subPath, parentLogicalPath, parentLength);
    subPath[join - 1] = '/';
    memcpy(subPath + join, node->name, size_t{node->nameLen} + 1);
    if (!IsDirectorySelected(subPath, root)) return;
    ProcessDirectory(subPath, root, node->job, parentLevel + 1);
}

int ProcessRoot(AuditRoot* root) {
    LogEntry("Root path: %s", root->path);
    if (root->path[0] != '\\') {
        if (root->mountSource) {
            LogEntry(" (%s)", root->mountSource);
        } else {
            LogEntry(" (local filesystem)");
        }
    }
    LogEntry("\n\n");
    DisplayTemplateSummary(root);
    LogEntry("\n");
    LogEntry("\n");
    root->dtlStartPos = DtlPosition();
    ProgressStart(root);
    AheadStart(root, walkThreads);
    ProcessDirectory("/", root, AheadRootJob(), 1);
    AheadStop();
    ProgressEnd();
    LogRootTotals(root);
    DisplayTotals(root);
    return 0;
}
