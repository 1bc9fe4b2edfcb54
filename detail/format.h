// The detail file's byte layout: its headers, header strings, records, end
// marker and hard-link table, with the small encoders the writer uses.
//
// The structures below have no padding and are exactly the file's layout.
// The encoders fill them in file byte order (little-endian, through
// logShort/logInt/logInt64, so WhichEnd must have run), ready to be written
// as they are. The reader fills the same structures in host order.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

#include "support/byteorder.h"

// Magic values of the log header's first word.
constexpr uint32_t DTL_MAGIC_UNFINISHED = 0x4c544449;  ///< "IDTL": the scan has not completed
constexpr uint32_t DTL_MAGIC_COMPLETE = 0x4c544446;    ///< "FDTL": the file is complete
constexpr uint32_t DTL_FORMAT_VERSION = 520;

// completionFlags of a complete file.
constexpr uint32_t DTL_COMPLETE = 1;         ///< the run completed
constexpr uint32_t DTL_COMPLETE_TAGGED = 9;  ///< completed, and a tag was given

// Record flags (entryFlags).
constexpr uint32_t DTL_ENTRY = 0x80000000;         ///< entry record; ORed with the two flags below
constexpr uint32_t DTL_DIR_HEADER = 0x40000000;    ///< the whole entryFlags of a directory header record
constexpr uint32_t DTL_SYMLINK = 0x10000;          ///< entry is a symbolic link; a link target follows the name
constexpr uint32_t DTL_HARDLINK = 0x20000;         ///< entry had a link count of 2 or more
constexpr uint32_t DTL_END_MARKER = 0xFFFFFFFF;    ///< entryFlags of the end marker (all 48 bytes 0xFF)

// Fixed positions of the file.
constexpr uint32_t DTL_LOG_HEADER_POS = 0;
constexpr uint32_t DTL_ROOT_HEADER_POS = 88;
constexpr uint32_t DTL_VERSION_HEADER_POS = 208;
constexpr uint32_t DTL_STRINGS_POS = 284;  ///< first header string (the node name)

/// Header strings longer than this cannot be stored: their unit count is a
/// signed 16-bit number.
constexpr size_t DTL_HEADER_STRING_MAX = 32766;
/// Characters of the tag string, always stored in full.
constexpr size_t DTL_TAG_LENGTH = 31;

/// Log header, at offset 0.
struct DtlLogHeader {
    uint32_t magic;                ///< DTL_MAGIC_UNFINISHED while the scan runs, then DTL_MAGIC_COMPLETE
    uint32_t formatVersion;        ///< DTL_FORMAT_VERSION
    uint32_t runTime;              ///< start of the run, seconds since 1970, low 32 bits
    uint32_t tagOffset;            ///< offset of the tag header string
    uint32_t nodeNameOffset;       ///< offset of the node-name header string (always 284)
    uint8_t reserved1[20];
    uint64_t hardLinkTableOffset;  ///< offset of the hard-link table; 0 without one
    uint8_t reserved2[16];
    uint32_t completionFlags;      ///< 0 while the scan runs; DTL_COMPLETE or DTL_COMPLETE_TAGGED
    uint8_t reserved3[20];
};
static_assert(sizeof(DtlLogHeader) == 88);
static_assert(offsetof(DtlLogHeader, magic) == 0);
static_assert(offsetof(DtlLogHeader, formatVersion) == 4);
static_assert(offsetof(DtlLogHeader, runTime) == 8);
static_assert(offsetof(DtlLogHeader, tagOffset) == 12);
static_assert(offsetof(DtlLogHeader, nodeNameOffset) == 16);
static_assert(offsetof(DtlLogHeader, reserved1) == 20);
static_assert(offsetof(DtlLogHeader, hardLinkTableOffset) == 40);
static_assert(offsetof(DtlLogHeader, reserved2) == 48);
static_assert(offsetof(DtlLogHeader, completionFlags) == 64);
static_assert(offsetof(DtlLogHeader, reserved3) == 68);

/// Root header, at offset 88: the root's strings, counters and volume figures.
struct DtlRootHeader {
    uint64_t totalFileSize;      ///< sizes of the entries, hard-linked inodes counted once
    uint64_t reserved0;
    uint64_t dtlStartPos;        ///< offset of the first record
    uint32_t pathOffset;         ///< offset of the root-path header string
    uint32_t mountSourceOffset;  ///< offset of the mount-source header string; 0 on a local file system
    uint32_t includeDirsOffset;  ///< offset of the last of the four include-directory list copies; 0 without templates
    uint8_t reserved1[12];
    uint32_t dirCount;           ///< directories entered
    uint32_t emptyDirCount;      ///< opened directories without entries
    uint32_t fileCount;          ///< non-directory entries recorded
    uint32_t hardLinkCount;      ///< entries with the hard-link flag (= hard-link table entries)
    uint32_t symlinkCount;       ///< symbolic links
    uint32_t reserved2;
    uint32_t otherCount;         ///< a counter nothing increments; 0
    uint8_t reserved3[28];
    uint64_t availableSpace;     ///< free bytes of the volume
    uint64_t volumeCapacity;     ///< size of the volume in bytes
};
static_assert(sizeof(DtlRootHeader) == 120);
static_assert(offsetof(DtlRootHeader, totalFileSize) == 0);
static_assert(offsetof(DtlRootHeader, reserved0) == 8);
static_assert(offsetof(DtlRootHeader, dtlStartPos) == 16);
static_assert(offsetof(DtlRootHeader, pathOffset) == 24);
static_assert(offsetof(DtlRootHeader, mountSourceOffset) == 28);
static_assert(offsetof(DtlRootHeader, includeDirsOffset) == 32);
static_assert(offsetof(DtlRootHeader, reserved1) == 36);
static_assert(offsetof(DtlRootHeader, dirCount) == 48);
static_assert(offsetof(DtlRootHeader, emptyDirCount) == 52);
static_assert(offsetof(DtlRootHeader, fileCount) == 56);
static_assert(offsetof(DtlRootHeader, hardLinkCount) == 60);
static_assert(offsetof(DtlRootHeader, symlinkCount) == 64);
static_assert(offsetof(DtlRootHeader, reserved2) == 68);
static_assert(offsetof(DtlRootHeader, otherCount) == 72);
static_assert(offsetof(DtlRootHeader, reserved3) == 76);
static_assert(offsetof(DtlRootHeader, availableSpace) == 104);
static_assert(offsetof(DtlRootHeader, volumeCapacity) == 112);

/// Version header, at offset 208: three zero-padded texts, each field's last
/// byte always zero.
struct DtlVersionHeader {
    char version[12];       ///< "2.2.0"
    char platform[32];      ///< "Mac"
    char architecture[32];  ///< "IA32"
};
static_assert(sizeof(DtlVersionHeader) == 76);
static_assert(offsetof(DtlVersionHeader, version) == 0);
static_assert(offsetof(DtlVersionHeader, platform) == 12);
static_assert(offsetof(DtlVersionHeader, architecture) == 44);
static_assert(DTL_ROOT_HEADER_POS == sizeof(DtlLogHeader));
static_assert(DTL_VERSION_HEADER_POS == DTL_ROOT_HEADER_POS + sizeof(DtlRootHeader));
static_assert(DTL_STRINGS_POS == DTL_VERSION_HEADER_POS + sizeof(DtlVersionHeader));

/// Fixed part of every record, followed by nameLength bytes of name and
/// linkTargetLength bytes of link target (each with its zero byte).
struct DtlRecordFixed {
    uint32_t entryFlags;        ///< DTL_ENTRY | flags, DTL_DIR_HEADER or DTL_END_MARKER
    uint32_t uid;
    uint32_t gid;
    uint32_t inode;             ///< low 32 bits of the inode number
    uint32_t mode;              ///< st_mode, 16 bits
    uint32_t ctime;             ///< seconds, low 32 bits
    uint32_t atime;             ///< seconds; a directory header's direct file count
    uint32_t mtime;             ///< seconds; a directory header's direct subdirectory count
    uint64_t size;              ///< st_size; a directory header's byte total of its direct files
    uint32_t linkCount;         ///< st_nlink, 16 bits
    uint16_t nameLength;        ///< bytes of name, zero byte included
    uint16_t linkTargetLength;  ///< bytes of link target, zero byte included; 0 unless a symbolic link
};
static_assert(sizeof(DtlRecordFixed) == 48);
static_assert(offsetof(DtlRecordFixed, entryFlags) == 0);
static_assert(offsetof(DtlRecordFixed, uid) == 4);
static_assert(offsetof(DtlRecordFixed, gid) == 8);
static_assert(offsetof(DtlRecordFixed, inode) == 12);
static_assert(offsetof(DtlRecordFixed, mode) == 16);
static_assert(offsetof(DtlRecordFixed, ctime) == 20);
static_assert(offsetof(DtlRecordFixed, atime) == 24);
static_assert(offsetof(DtlRecordFixed, mtime) == 28);
static_assert(offsetof(DtlRecordFixed, size) == 32);
static_assert(offsetof(DtlRecordFixed, linkCount) == 40);
static_assert(offsetof(DtlRecordFixed, nameLength) == 44);
static_assert(offsetof(DtlRecordFixed, linkTargetLength) == 46);

// A directory header record reuses three slots for its counts, filled when
// the walk leaves the directory.
constexpr size_t DTL_DIR_FILES_POS = offsetof(DtlRecordFixed, atime);    ///< direct files
constexpr size_t DTL_DIR_SUBDIRS_POS = offsetof(DtlRecordFixed, mtime);  ///< direct subdirectory entries
constexpr size_t DTL_DIR_BYTES_POS = offsetof(DtlRecordFixed, size);     ///< sizes of the direct files
static_assert(DTL_DIR_FILES_POS == 24 && DTL_DIR_SUBDIRS_POS == 28 && DTL_DIR_BYTES_POS == 32);

/// One entry of the hard-link table, per entry record with the hard-link flag.
struct DtlHardLinkEntry {
    uint64_t prevEntry;     ///< table-relative position of the previous entry of the inode; 0 for the first
    uint64_t parentDirPos;  ///< offset of the header record of the entry's directory
    uint64_t recordPos;     ///< offset of the entry record
};
static_assert(sizeof(DtlHardLinkEntry) == 24);
static_assert(offsetof(DtlHardLinkEntry, prevEntry) == 0);
static_assert(offsetof(DtlHardLinkEntry, parentDirPos) == 8);
static_assert(offsetof(DtlHardLinkEntry, recordPos) == 16);

/// Fills the fixed part of an entry record from the entry's lstat data.
/// walkerFlags holds DTL_SYMLINK and DTL_HARDLINK as they apply.
/// Runs once per entry: no allocation, no call.
inline void EncodeEntryFixed(DtlRecordFixed* out, uint32_t walkerFlags, const struct stat& st,
                             uint16_t nameLength, uint16_t linkTargetLength) {
    out->entryFlags = logInt(walkerFlags | DTL_ENTRY);
    out->uid = logInt(st.st_uid);
    out->gid = logInt(st.st_gid);
    out->inode = logInt(static_cast<uint32_t>(st.st_ino));
    out->mode = logInt(st.st_mode & 0xFFFF);
    out->ctime = logInt(static_cast<uint32_t>(st.st_ctim.tv_sec));
    out->atime = logInt(static_cast<uint32_t>(st.st_atim.tv_sec));
    out->mtime = logInt(static_cast<uint32_t>(st.st_mtim.tv_sec));
    out->size = logInt64(static_cast<uint64_t>(st.st_size));
    out->linkCount = logInt(static_cast<uint32_t>(st.st_nlink & 0xFFFF));
    out->nameLength = logShort(nameLength);
    out->linkTargetLength = logShort(linkTargetLength);
}

/// Fills the fixed part of a directory header record: all zero but the flags
/// and the length of the directory's logical path (zero byte included).
inline void EncodeDirHeaderFixed(DtlRecordFixed* out, uint16_t nameLength) {
    *out = DtlRecordFixed{};
    out->entryFlags = logInt(DTL_DIR_HEADER);
    out->nameLength = logShort(nameLength);
}

/// Puts a directory's counts into its header record's fixed part (read back
/// from the file) when the walk leaves the directory.
inline void SetDirCounts(DtlRecordFixed* rec, uint32_t files, uint32_t subdirs, uint64_t bytes) {
    rec->atime = logInt(files);
    rec->mtime = logInt(subdirs);
    rec->size = logInt64(bytes);
}

/// Fills the end marker: 48 bytes of 0xFF.
void EncodeEndMarker(DtlRecordFixed* out);

/// Fills a hard-link table entry.
/// Runs once per hard-linked entry: no allocation.
inline void EncodeHardLinkEntry(DtlHardLinkEntry* out, uint64_t prevEntry, uint64_t parentDirPos,
                                uint64_t recordPos) {
    out->prevEntry = logInt64(prevEntry);
    out->parentDirPos = logInt64(parentDirPos);
    out->recordPos = logInt64(recordPos);
}

/// Bytes that the header string of str occupies: 2 + 2 × (length + 1).
inline size_t HeaderStringSize(size_t length) { return 2 + 2 * (length + 1); }

/// Encodes str as a header string into out (HeaderStringSize(strlen(str))
/// bytes): the 16-bit byteLength 2n + 2, then each byte widened by sign
/// extension to a 16-bit unit, then a zero unit. Returns the bytes written,
/// or 0 when str is longer than DTL_HEADER_STRING_MAX and cannot be stored.
size_t EncodeHeaderString(uint8_t* out, const char* str);

/// Fills the version header with the three texts, each cut to its field
/// size minus one and zero-padded.
void EncodeVersionHeader(DtlVersionHeader* out, const char* version, const char* platform,
                         const char* architecture);

/// completionFlags of a finished file: DTL_COMPLETE_TAGGED when the tag's
/// first character is not a blank, else DTL_COMPLETE.
inline uint32_t CompletionFlagsFor(const char* tag) {
    return tag[0] != ' ' ? DTL_COMPLETE_TAGGED : DTL_COMPLETE;
}
