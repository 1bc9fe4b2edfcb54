// The record the walk hands the detail writer for every event: an entry of a
// directory, a directory entered, a directory left. Types only: the walk fills
// it (scan/dispatch), the writer turns it into detail records (detail/writer).
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

#include "detail/format.h"
#include "support/memory.h"

struct AuditRoot;

// Record kinds.
constexpr uint32_t RECORD_ENTRY = 1;      ///< an entry of a directory
constexpr uint32_t RECORD_DIR_START = 2;  ///< a directory is entered
constexpr uint32_t RECORD_DIR_END = 3;    ///< a directory is left

// Entry flags, the detail file's own values: the writer stores them as they are.
constexpr uint32_t FLAG_SYMLINK = DTL_SYMLINK;      ///< a symbolic link
constexpr uint32_t FLAG_MULTI_LINK = DTL_HARDLINK;  ///< two or more links

constexpr size_t ENTRY_NAME_SIZE = 1032;  ///< bytes of a name field, terminator included

/// Longest symbolic-link target kept; the detail file stores the target and
/// its zero byte under a 16-bit length.
constexpr size_t LINK_TARGET_MAX = 65534;

/// What the walk hands to DispatchFile: an entry's lstat data and its name,
/// laid out exactly as the same two fields of FileRecord.
struct StatBlock {
    struct stat statData;        ///< the entry's lstat result
    char name[ENTRY_NAME_SIZE];  ///< the entry's name, zero-terminated
};

/// The one record of the run, overwritten for every record.
struct FileRecord {
    uint32_t recordKind;         ///< RECORD_ENTRY, RECORD_DIR_START or RECORD_DIR_END
    uint32_t entryFlags;         ///< FLAG_SYMLINK and FLAG_MULTI_LINK; 0 on every dispatch
    AuditRoot* root;             ///< the scan root; null for RECORD_DIR_END
    StringObject* dirPath;       ///< logical path of the directory listed (kind 1) or entered/left
    StringObject* linkTarget;    ///< a symbolic link's target; only valid with FLAG_SYMLINK
    struct stat statData;        ///< lstat data; zero for kind 2; kind 3 carries the directory's counts
    char name[ENTRY_NAME_SIZE];  ///< the entry's name; zero for kinds 2 and 3
};
static_assert(offsetof(FileRecord, statData) + sizeof(StatBlock) == sizeof(FileRecord),
              "statData and name must end the record, laid out as a StatBlock");
static_assert(offsetof(FileRecord, name) - offsetof(FileRecord, statData) == offsetof(StatBlock, name));

// A directory-end record carries the directory's counts in three stat fields:
// st_size the bytes of its selected files, and these two.
inline int64_t& DirEndFileCount(struct stat& st) { return reinterpret_cast<int64_t&>(st.st_atim.tv_sec); }
inline int64_t& DirEndSubdirCount(struct stat& st) { return reinterpret_cast<int64_t&>(st.st_mtim.tv_sec); }

/// The record's own stat data and name, laid out as a StatBlock. A walk that
/// fills record->statData and record->name in place passes this to
/// DispatchFile, which then copies nothing; it is compared, never read.
inline const StatBlock* RecordStatBlock(const FileRecord* record) {
    return reinterpret_cast<const StatBlock*>(&record->statData);
}
