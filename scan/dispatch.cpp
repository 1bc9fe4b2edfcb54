#include "scan/dispatch.h"

#include <cstring>

#include "detail/writer.h"
#include "scan/idtable.h"

FileRecord* logBlk = nullptr;

// Runs once per entry: no allocation and no system call.
uint32_t ProcessFile(FileRecord* record) {
    const struct stat& st = record->statData;
    uint32_t type = st.st_mode & S_IFMT;
    if (st.st_nlink >= 2) record->entryFlags |= FLAG_MULTI_LINK;
    CheckIdTree(st.st_uid, ID_USER);
    CheckIdTree(st.st_gid, ID_GROUP);
    if (type == S_IFLNK) record->entryFlags |= FLAG_SYMLINK;
    return type;
}

FileRecord* DispatchRecord() {
    if (!logBlk) {
        logBlk = static_cast<FileRecord*>(GetMem(sizeof(FileRecord), "file record"));
        logBlk->dirPath = NewStringObject("init", 1024);
        logBlk->linkTarget = NewStringObject("init", 1024);
    }
    return logBlk;
}

// Runs once per entry and twice per directory: what the walk filled in place
// is never copied again.
int DispatchFile(uint32_t kind, const char* logicalPath, const StatBlock* statBlock, AuditRoot* root) {
    FileRecord* record = DispatchRecord();
    record->recordKind = kind;
    record->entryFlags = 0;
    record->root = root;
    if (logicalPath != record->dirPath->text) StringObjectSet(record->dirPath, logicalPath);
    if (statBlock == RecordStatBlock(record)) {
        // Filled in place by the walk.
    } else if (statBlock) {
        if (kind != RECORD_ENTRY) memset(record->name, 0, sizeof record->name);
        record->statData = statBlock->statData;
        // Only the name's own bytes: the rest of the field is never read.
        size_t length = strnlen(statBlock->name, ENTRY_NAME_SIZE - 1);
        memcpy(record->name, statBlock->name, length);
        record->name[length] = '\0';
    } else {
        memset(record->name, 0, sizeof record->name);
        memset(&record->statData, 0, sizeof record->statData);
    }
    if (kind == RECORD_ENTRY) ProcessFile(record);
    return LogDetailData(record);
}
