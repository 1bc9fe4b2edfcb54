// File dispatch: the one file record of the run, filled for every record the
// walk produces, completed for directory entries (link flags, owners, link
// target) and handed to the detail writer.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

#include "support/memory.h"

struct AuditRoot;

// Record kinds.
constexpr uint32_t RECORD_ENTRY = 1;      ///< an entry of a directory
constexpr uint32_t RECORD_DIR_START = 2;  ///< a directory is entered
constexpr uint32_t RECORD_DIR_END = 3;    ///< a directory is left

// Entry flags set by ProcessFile.
constexpr uint32_t FLAG_SYMLINK = 0x00010000;     ///< a symbolic link
constexpr uint32_t FLAG_MULTI_LINK = 0x00020000;  ///< two or more links

constexpr size_t ENTRY_NAME_SIZE = 1032;  ///< bytes of a name field, terminator included

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

// A directory-end record carries the directory's counts in three stat fields.
inline int64_t& DirEndFileCount(struct stat& st) { return reinterpret_cast<int64_t&>(st.st_atim.tv_sec); }
inline int64_t& DirEndSubdirCount(struct stat& st) { return reinterpret_cast<int64_t&>(st.st_mtim.tv_sec); }

/// Longest symbolic-link target kept; the detail file stores the target and
/// its zero byte under a 16-bit length.
constexpr size_t LINK_TARGET_MAX = 65534;

extern FileRecord* logBlk;  ///< the run's file record; created by the first DispatchFile
extern int dispatchDirFd;   ///< the open directory whose entries are dispatched; names are relative to it

/// The run's file record (logBlk), created on first use: zero-filled, with
/// its two string objects holding "init".
FileRecord* DispatchRecord();
/// The record's own stat data and name, laid out as a StatBlock. A walk that
/// fills record->statData and record->name in place passes this to
/// DispatchFile, which then copies nothing; it is compared, never read.
inline const StatBlock* RecordStatBlock(const FileRecord* record) {
    return reinterpret_cast<const StatBlock*>(&record->statData);
}

/// Fills logBlk for one walker event and hands it to LogDetailData; returns
/// what that returns. statBlock may be null (kinds 2 and 3 without counts)
/// or the record's own (RecordStatBlock), and logicalPath may be the
/// record's own dirPath text: what is already in place is not copied again.
int DispatchFile(uint32_t kind, const char* logicalPath, const StatBlock* statBlock, AuditRoot* root);
/// Completes an entry record: the multiple-links and symbolic-link flags, the
/// owner and group in the id table, the link target (read relative to
/// dispatchDirFd, cut at the lstat size; empty when it cannot be read).
/// Returns the type bits of st_mode (0xA000 for a symbolic link).
uint32_t ProcessFile(FileRecord* record);
