// A streaming reader of detail files that checks their whole structure as it
// goes: headers, header strings, records in walk order, directory counts, the
// end marker, the hard-link table and the root totals.
//
// The file is read once from front to back through one buffer, never held
// whole in memory (a compressed file is inflated on the way in); the reader
// keeps only the open directories' subdirectory names and one 24-byte
// expectation per hard-linked entry, and for a compressed file the names of
// the hard-linked records, which DtlNameAt cannot read back out of turn. The
// first fault stops it with a message and the offset where it was found.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "detail/format.h"
#include "reader/dtlinput.h"

/// The first fault found in a file.
struct DtlFault {
    uint64_t offset = 0;  ///< where in the file
    std::string message;  ///< what is wrong, without the offset
};

/// The header strings, decoded back to their 8-bit bytes.
struct DtlStrings {
    std::string nodeName;
    std::string tag;
    std::string rootPath;
    std::string mountSource;                ///< empty when hasMountSource is false
    bool hasMountSource = false;
    std::vector<std::string> includeDirs;   ///< one copy of the include-directory list (all four are equal)
    uint64_t includeDirsCopyPos[4] = {};    ///< offsets of the four copies; all 0 without a list
};

/// What a reader step produced.
enum DtlStep {
    DTL_STEP_RECORD,  ///< reader.rec holds the next record (the end marker included)
    DTL_STEP_LINK,    ///< reader.link holds the next hard-link table entry
    DTL_STEP_DONE,    ///< the whole file was read and is sound
    DTL_STEP_FAULT,   ///< reader.fault names the first fault
};

/// Record kinds as the reader reports them.
enum DtlRecordKind { DTL_REC_DIR_HEADER, DTL_REC_ENTRY, DTL_REC_END_MARKER };

/// One record, valid until the next step.
struct DtlRecord {
    uint64_t pos = 0;          ///< offset of the record
    DtlRecordKind kind = DTL_REC_END_MARKER;
    DtlRecordFixed fixed{};    ///< the fixed part in host byte order
    std::string_view name;     ///< name bytes without the zero byte (a directory header: its logical path)
    std::string_view target;   ///< link target without the zero byte; empty unless a symbolic link
    std::string_view dirPath;  ///< logical path of the directory the record belongs to
    uint32_t depth = 0;        ///< nesting of the record's directory; the root is 1
    bool counted = false;      ///< an entry whose size the totals count: not hard-linked, or the
                               ///< first record of its inode (low 32 bits) in walk order
};

/// One hard-link table entry with what the records say about it.
struct DtlLink {
    uint32_t index = 0;      ///< number of the entry in the table
    uint64_t pos = 0;        ///< file offset of the entry
    DtlHardLinkEntry entry{};  ///< the entry in host byte order
    uint32_t inode = 0;      ///< inode (low 32 bits) of the record it points at
    bool first = false;      ///< the first entry of its inode (its prevEntry 0 ends the chain)
};

/// What the records add up to.
struct DtlTotals {
    uint64_t dirHeaders = 0;      ///< directory header records
    uint64_t emptyDirHeaders = 0; ///< directory header records with no entry record
    uint64_t entries = 0;         ///< entry records
    uint64_t files = 0;           ///< entry records that are not directories
    uint64_t subdirEntries = 0;   ///< entry records that are directories
    uint64_t symlinks = 0;        ///< entry records with the symbolic-link flag
    uint64_t hardLinks = 0;       ///< entry records with the hard-link flag
    uint64_t linkedInodes = 0;    ///< distinct inodes among those
    uint64_t totalFileSize = 0;   ///< sizes of all entries, hard-linked inodes counted once
};

struct DtlWalkState;

/// How DtlOpen reads a file.
struct DtlOpenOptions {
    /// Accept an unfinished file ("IDTL", completionFlags 0): its records are
    /// read as far as they go. Its root totals, dtlStartPos and table offset
    /// are not yet written and are not checked, nor are the counts of a
    /// directory header record that are all zero (the scan never left that
    /// directory); the end marker, when present, ends the reading.
    bool acceptUnfinished = false;
    /// Keep the names DtlNameAt needs when the file is compressed.
    bool nameLinks = true;
    /// When the file is compressed, gather into this the checkpoints that
    /// DtlSeekRead (reader/dtlinput.h) needs to read it again out of turn.
    DtlCheckpoints* checkpoints = nullptr;
};

/// A detail file being read. Plain data; DtlOpen fills it, DtlNext advances it.
struct DtlReader {
    std::string path;          ///< the file's path as given
    int fd = -1;
    DtlLogHeader log{};        ///< headers in host byte order
    DtlRootHeader root{};
    DtlVersionHeader version{};
    DtlStrings strings;
    uint64_t recordsPos = 0;   ///< offset of the first record (end of the header strings)
    uint64_t endMarkerPos = 0; ///< offset of the end marker once met
    DtlRecord rec;             ///< the record of the last DTL_STEP_RECORD
    DtlLink link;              ///< the entry of the last DTL_STEP_LINK
    DtlTotals totals;          ///< what the records read so far add up to
    DtlFault fault;            ///< the first fault
    bool failed = false;       ///< a fault was found; every later step returns DTL_STEP_FAULT
    bool wasCompressed = false;  ///< the file is compressed and is inflated as it is read
    bool unfinished = false;   ///< an "IDTL" file opened with acceptUnfinished
    DtlWalkState* state = nullptr;  ///< buffer, directory stack and hard-link expectations
};

/// Opens a detail file and reads and checks everything in front of the
/// records. False with reader->fault filled on any fault, among them a file
/// that cannot be opened, and an unfinished file ("IDTL") unless the options
/// accept it. DtlClose must follow in every case.
bool DtlOpen(DtlReader* reader, const char* path, const DtlOpenOptions& options = {});

/// Reads the next record or hard-link table entry and checks it.
DtlStep DtlNext(DtlReader* reader);

/// Reads the name of the record at pos out of turn (for naming hard-link
/// table entries) without disturbing the stream. A compressed file answers
/// from the names kept for the hard-linked records and their directories'
/// header records (see DtlOpenOptions::nameLinks). False when it cannot be
/// read.
bool DtlNameAt(DtlReader* reader, uint64_t pos, std::string* name);

/// Closes the file and frees what the reader holds.
void DtlClose(DtlReader* reader);

/// Reads and checks a whole file. True when it is sound; else fault is filled.
bool DtlCheckFile(const char* path, DtlFault* fault);

/// Decodes a record's 48-byte fixed part from the file's byte order.
void DtlDecodeFixed(const uint8_t* p, DtlRecordFixed* fx);

/// The logical path of an entry: dirPath joined with name ("/" + name in the root).
std::string DtlJoinPath(std::string_view dirPath, std::string_view name);
