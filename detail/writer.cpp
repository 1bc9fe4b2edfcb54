#include "detail/writer.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "config/roots.h"
#include "config/templates.h"
#include "detail/format.h"
#include "detail/hardlinks.h"
#include "detail/record.h"
#include "log/log.h"
#include "support/byteorder.h"
#include "support/helpers.h"
#include "support/memory.h"
#include "support/utf8.h"
#include "support/version.h"

FILE* dtlFile = nullptr;
const char* dtlFileName = "ferro.dtl";
char* tagStr = nullptr;
time_t timeStamp = 0;
char* compiledArchitecture = nullptr;
int32_t headerStrOffset = DTL_STRINGS_POS;
unsigned char* logHdr = nullptr;
FILE* hlinkFile = nullptr;
uint64_t hlinkFilePos = 0;
uint64_t dirPathStack[DTL_MAX_OPEN_DIRS];
int32_t dirPathStackPtr = -1;

// Records go through one large buffer holding the bytes from outBase on;
// headers and directory completions are positioned writes. Every write is
// checked: a detail file that cannot be written ends the run, and since the
// "FDTL" header is written last, the file on disk then keeps "IDTL".
constexpr size_t OUT_BUFFER_SIZE = 4 << 20;
static unsigned char* outBuf = nullptr;
static size_t outLen = 0;
static int64_t outBase = 0;

void DtlWriterOpen(FILE* stream, const char* name, time_t runTime, const char* tag, const char* architecture) {
    dtlFile = stream;
    dtlFileName = name;
    timeStamp = runTime;
    compiledArchitecture = const_cast<char*>(architecture);
    tagStr = static_cast<char*>(GetMem(DTL_TAG_LENGTH + 1, "tag string"));
    memset(tagStr, ' ', DTL_TAG_LENGTH);
    for (size_t i = 0; tag && i < DTL_TAG_LENGTH && tag[i]; i++) tagStr[i] = tag[i];
}

void HardLinkTableOpen() {
    HardLinksOpen();
    hlinkFile = AnonymousTempFile();
    if (!hlinkFile) PosixErrExit(0, "Unable to create hard link temp file\n");
}

void HardLinkTableFree() { HardLinksFree(); }

[[noreturn]] static void WriteFailed() { PosixErrExit(0, "Unable to write audit detail file '%s'\n", dtlFileName); }

static int DtlFd() { return fileno(dtlFile); }

// Writes n bytes at offset, all of them or the run ends.
static void PutAt(int64_t offset, const void* bytes, size_t n) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    while (n > 0) {
        ssize_t put = pwrite(DtlFd(), p, n, offset);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) {
            if (put == 0) errno = EIO;
            WriteFailed();
        }
        p += put;
        n -= static_cast<size_t>(put);
        offset += put;
    }
}

// Reads n bytes at offset that this run wrote before.
static void GetAt(int64_t offset, void* bytes, size_t n) {
    auto* p = static_cast<unsigned char*>(bytes);
    while (n > 0) {
        ssize_t got = pread(DtlFd(), p, n, offset);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            if (got == 0) errno = EIO;
            PosixErrExit(0, "Unable to read back audit detail file '%s'\n", dtlFileName);
        }
        p += got;
        n -= static_cast<size_t>(got);
        offset += got;
    }
}

static void FlushRecords() {
    PutAt(outBase, outBuf, outLen);
    outBase += static_cast<int64_t>(outLen);
    outLen = 0;
}

// Room for n more bytes at the end of the buffer.
static unsigned char* Reserve(size_t n) {
    if (outLen + n > OUT_BUFFER_SIZE) FlushRecords();
    unsigned char* p = outBuf + outLen;
    outLen += n;
    return p;
}

// Overwrites bytes already written, in the buffer where they still are and
// on disk where they have been flushed.
static void PatchAt(int64_t offset, const void* bytes, size_t n) {
    const auto* p = static_cast<const unsigned char*>(bytes);
    if (offset < outBase) {
        size_t onDisk = static_cast<size_t>(outBase - offset) < n ? static_cast<size_t>(outBase - offset) : n;
        PutAt(offset, p, onDisk);
        p += onDisk;
        n -= onDisk;
        offset += static_cast<int64_t>(onDisk);
    }
    if (n > 0) memcpy(outBuf + (offset - outBase), p, n);
}

int64_t DtlPosition() { return outBase + static_cast<int64_t>(outLen); }

uint32_t WriteHeaderString(const char* str) {
    size_t length = strlen(str);
    if (length > DTL_HEADER_STRING_MAX)
        ErrExit("Text too long for the detail file (more than %zu bytes): '%s'\n", DTL_HEADER_STRING_MAX, str);
    uint8_t encoded[HeaderStringSize(DTL_HEADER_STRING_MAX)];
    size_t size = EncodeHeaderString(encoded, str);
    PutAt(headerStrOffset, encoded, size);
    uint32_t at = static_cast<uint32_t>(headerStrOffset);
    headerStrOffset += static_cast<int32_t>(size);
    return at;
}

uint32_t WriteIncludeExcludeList(const TemplateRec* list) {
    uint32_t first = static_cast<uint32_t>(headerStrOffset);
    for (const TemplateRec* t = list; t; t = t->next) WriteHeaderString(t->origText);
    WriteHeaderString("");
    return first;
}

void WriteRootHeader(AuditRoot* root) {
    DtlRootHeader header{};
    header.pathOffset = logInt(WriteHeaderString(root->path));
    if (root->mountSource) header.mountSourceOffset = logInt(WriteHeaderString(root->mountSource));
    // Readers expect the include-directory list four times, the header naming the last copy.
    if (root->includeDirs) {
        for (int copy = 0; copy < 4; copy++) header.includeDirsOffset = logInt(WriteIncludeExcludeList(root->includeDirs));
    }
    PutAt(DTL_ROOT_HEADER_POS + static_cast<int64_t>(root->rootIndex) * static_cast<int64_t>(sizeof header), &header,
          sizeof header);
}

void WriteVersionHeader() {
    DtlVersionHeader header;
    EncodeVersionHeader(&header, FERROVAN_VERSION, "Mac", compiledArchitecture);
    PutAt(DTL_VERSION_HEADER_POS, &header, sizeof header);
}

void WriteLogHeaders() {
    headerStrOffset = DTL_STRINGS_POS;
    logHdr = static_cast<unsigned char*>(GetMem(sizeof(DtlLogHeader), "log header"));
    auto* header = reinterpret_cast<DtlLogHeader*>(logHdr);
    header->magic = logInt(DTL_MAGIC_UNFINISHED);
    header->formatVersion = logInt(DTL_FORMAT_VERSION);
    header->nodeNameOffset = logInt(WriteHeaderString(srvrName));
    header->runTime = logInt(static_cast<uint32_t>(timeStamp));
    header->tagOffset = logInt(WriteHeaderString(tagStr));
    PutAt(DTL_LOG_HEADER_POS, header, sizeof *header);
    for (AuditRoot* root = rootList; root; root = root->next) WriteRootHeader(root);
    WriteVersionHeader();
    if (!outBuf) outBuf = static_cast<unsigned char*>(GetMem(OUT_BUFFER_SIZE, "detail buffer"));
    outBase = headerStrOffset;
    outLen = 0;
}

// A directory is entered: its header record, remembered until it is left.
static void DirectoryStart(const FileRecord* record) {
    if (dirPathStackPtr + 1 >= DTL_MAX_OPEN_DIRS)
        ErrExit("Directory nesting deeper than %d levels: '%s'\n", DTL_MAX_OPEN_DIRS, record->dirPath->text);
    dirPathStack[++dirPathStackPtr] = static_cast<uint64_t>(DtlPosition());
    uint32_t nameLength = ChrUtfLen(record->dirPath->text);
    unsigned char* out = Reserve(sizeof(DtlRecordFixed) + static_cast<uint16_t>(nameLength));
    // Records sit at any byte offset: the fixed part is built aligned and copied.
    DtlRecordFixed fixed;
    EncodeDirHeaderFixed(&fixed, static_cast<uint16_t>(nameLength));
    memcpy(out, &fixed, sizeof fixed);
    memcpy(out + sizeof(DtlRecordFixed), record->dirPath->text, static_cast<uint16_t>(nameLength));
}

// A directory is left: its counts go into its header record, written long
// ago or still in the buffer.
static void DirectoryEnd(const FileRecord* record) {
    if (dirPathStackPtr < 0) ErrExit("Directory end without a directory start in '%s'\n", dtlFileName);
    int64_t at = static_cast<int64_t>(dirPathStack[dirPathStackPtr--]);
    struct stat st = record->statData;
    DtlRecordFixed fixed{};
    SetDirCounts(&fixed, static_cast<uint32_t>(DirEndFileCount(st)), static_cast<uint32_t>(DirEndSubdirCount(st)),
                 static_cast<uint64_t>(st.st_size));
    static_assert(DTL_DIR_BYTES_POS + sizeof(uint64_t) - DTL_DIR_FILES_POS == 16);
    PatchAt(at + DTL_DIR_FILES_POS, reinterpret_cast<const unsigned char*>(&fixed) + DTL_DIR_FILES_POS, 16);
}

// Chains an entry with two or more links to the earlier entries of its inode.
// Returns true when the inode is seen for the first time.
static bool RecordHardLink(const FileRecord* record, int64_t recordPos) {
    AuditRoot* root = record->root;
    root->hardLinkCount++;
    uint64_t parentDir = dirPathStackPtr >= 0 ? dirPathStack[dirPathStackPtr] : 0;
    bool first;
    uint64_t prev = HardLinkNote(static_cast<uint32_t>(record->statData.st_ino),
                                 static_cast<uint32_t>(record->statData.st_nlink), hlinkFilePos, &first);
    DtlHardLinkEntry entry;
    EncodeHardLinkEntry(&entry, prev, parentDir, static_cast<uint64_t>(recordPos));
    fwrite(&entry, sizeof entry, 1, hlinkFile);
    hlinkFilePos += sizeof entry;
    return first;
}

// Runs once per entry: the record is built straight into the output buffer,
// with no allocation and no system call until the buffer is full.
static void WriteEntryRecord(const FileRecord* record) {
    int64_t at = DtlPosition();
    AuditRoot* root = record->root;
    const struct stat& st = record->statData;
    auto nameLength = static_cast<uint16_t>(ChrUtfLen(record->name));
    uint16_t targetLength = 0;
    if (record->entryFlags & FLAG_SYMLINK) {
        root->symlinkCount++;
        targetLength = static_cast<uint16_t>(ChrUtfLen(record->linkTarget->text));
    }
    unsigned char* out = Reserve(sizeof(DtlRecordFixed) + nameLength + targetLength);
    DtlRecordFixed fixed;
    EncodeEntryFixed(&fixed, record->entryFlags, st, nameLength, targetLength);
    memcpy(out, &fixed, sizeof fixed);
    out += sizeof(DtlRecordFixed);
    // Names are stored as the file system gives their bytes; a length cut to
    // 16 bits still ends the stored text with a zero byte.
    memcpy(out, record->name, nameLength);
    out[nameLength - 1] = '\0';
    if (targetLength) {
        memcpy(out + nameLength, record->linkTarget->text, targetLength);
        out[nameLength + targetLength - 1] = '\0';
    }
    // The hard-link table is consulted last, so that the slot the walk asked
    // for has had the record's formatting to arrive in cache.
    bool counted = true;
    if (record->entryFlags & FLAG_MULTI_LINK) counted = RecordHardLink(record, at);
    if (counted) root->totalFileSize += static_cast<uint64_t>(st.st_size);
}

int LogDetailData(FileRecord* record) {
    switch (record->recordKind) {
        case RECORD_DIR_START: DirectoryStart(record); break;
        case RECORD_DIR_END: DirectoryEnd(record); break;
        default: WriteEntryRecord(record); break;
    }
    return 0;
}

// Copies the hard-link entries gathered during the walk behind the records.
static void AppendHardLinkTable(uint64_t entries) {
    if (ferror(hlinkFile) || fflush(hlinkFile) != 0 || fseeko(hlinkFile, 0, SEEK_SET) != 0)
        PosixErrExit(0, "Unable to read the hard link temp file\n");
    uint64_t remaining = entries * sizeof(DtlHardLinkEntry);
    while (remaining > 0) {
        size_t chunk = remaining < OUT_BUFFER_SIZE ? static_cast<size_t>(remaining) : OUT_BUFFER_SIZE;
        unsigned char* out = Reserve(chunk);
        if (fread(out, 1, chunk, hlinkFile) != chunk) {
            if (!ferror(hlinkFile)) errno = EIO;
            PosixErrExit(0, "Unable to read the hard link temp file\n");
        }
        remaining -= chunk;
    }
}

void LogRootTotals(AuditRoot* root) {
    DtlRecordFixed marker;
    EncodeEndMarker(&marker);
    memcpy(Reserve(sizeof marker), &marker, sizeof marker);
    int64_t end = DtlPosition();
    FlushRecords();

    int64_t rootAt = DTL_ROOT_HEADER_POS + static_cast<int64_t>(root->rootIndex) * static_cast<int64_t>(sizeof(DtlRootHeader));
    DtlRootHeader header;
    GetAt(rootAt, &header, sizeof header);
    header.totalFileSize = logInt64(root->totalFileSize);
    header.dtlStartPos = logInt64(static_cast<uint64_t>(root->dtlStartPos));
    header.dirCount = logInt(root->dirCount);
    header.emptyDirCount = logInt(root->emptyDirCount);
    header.fileCount = logInt(root->fileCount);
    header.otherCount = logInt(root->otherCount);
    header.symlinkCount = logInt(root->symlinkCount);
    header.hardLinkCount = logInt(static_cast<uint32_t>(root->hardLinkCount));
    header.availableSpace = logInt64(root->availableSpace);
    header.volumeCapacity = logInt64(root->volumeCapacity);
    PutAt(rootAt, &header, sizeof header);

    auto* log = reinterpret_cast<DtlLogHeader*>(logHdr);
    if (root->hardLinkCount > 0) {
        log->hardLinkTableOffset = logInt64(static_cast<uint64_t>(end));
        AppendHardLinkTable(static_cast<uint64_t>(root->hardLinkCount));
        FlushRecords();
    }
    // Only a file whose every other byte is on disk is marked finished.
    log->magic = logInt(DTL_MAGIC_COMPLETE);
    log->completionFlags = logInt(CompletionFlagsFor(tagStr));
    PutAt(DTL_LOG_HEADER_POS, log, sizeof *log);
}
