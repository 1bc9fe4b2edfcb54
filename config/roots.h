// Scan roots: the root record that carries a root's templates, volume
// figures and totals, the list of roots, and their validation before a scan.
#pragma once

#include <cstddef>
#include <cstdint>

struct TemplateRec;


/// One scan root (136 bytes, zero-filled from GetMem, never freed).
struct AuditRoot {
    uint64_t totalFileSize;     ///< bytes of the files counted under the root, hard links once
    int64_t dtlStartPos;        ///< detail-file offset of the root's first record
    uint64_t reserved1;         ///< unused; stays zero
    uint64_t availableSpace;    ///< free blocks times block size of the root's volume
    uint64_t volumeCapacity;    ///< total blocks times block size of the root's volume
    char* path;                 ///< the root directory; canonical and absolute once validated
    char* mountSource;          ///< "server:name" on a network mount, else null
    AuditRoot* next;            ///< next root of rootList
    uint32_t rootIndex;         ///< 0-based position among the validated roots
    TemplateRec* includeDirs;   ///< directory include templates, newest first
    TemplateRec* excludeDirs;   ///< directory exclude templates
    TemplateRec* includeFiles;  ///< file include templates
    TemplateRec* excludeFiles;  ///< file exclude templates
    uint64_t reserved2;         ///< unused; stays zero
    uint32_t dirCount;          ///< directories entered, unopenable ones included
    uint32_t emptyDirCount;     ///< opened directories without entries
    uint32_t fileCount;         ///< non-directory entries the file templates selected
    uint32_t otherCount;        ///< stored with the others; nothing adds to it
    uint32_t symlinkCount;      ///< symbolic links recorded
    int32_t hardLinkCount;      ///< entries with two or more links recorded
};
static_assert(sizeof(AuditRoot) == 136);
static_assert(offsetof(AuditRoot, totalFileSize) == 0);
static_assert(offsetof(AuditRoot, dtlStartPos) == 8);
static_assert(offsetof(AuditRoot, reserved1) == 16);
static_assert(offsetof(AuditRoot, availableSpace) == 24);
static_assert(offsetof(AuditRoot, volumeCapacity) == 32);
static_assert(offsetof(AuditRoot, path) == 40);
static_assert(offsetof(AuditRoot, mountSource) == 48);
static_assert(offsetof(AuditRoot, next) == 56);
static_assert(offsetof(AuditRoot, rootIndex) == 64);
static_assert(offsetof(AuditRoot, includeDirs) == 72);
static_assert(offsetof(AuditRoot, excludeDirs) == 80);
static_assert(offsetof(AuditRoot, includeFiles) == 88);
static_assert(offsetof(AuditRoot, excludeFiles) == 96);
static_assert(offsetof(AuditRoot, reserved2) == 104);
static_assert(offsetof(AuditRoot, dirCount) == 112);
static_assert(offsetof(AuditRoot, emptyDirCount) == 116);
static_assert(offsetof(AuditRoot, fileCount) == 120);
static_assert(offsetof(AuditRoot, otherCount) == 124);
static_assert(offsetof(AuditRoot, symlinkCount) == 128);
static_assert(offsetof(AuditRoot, hardLinkCount) == 132);

extern char srvrName[64];    ///< this machine's node name; filled by the driver at start
extern AuditRoot* rootList;  ///< first scan root; null until one is declared
extern AuditRoot* rootLast;  ///< last scan root
extern int rootCount;        ///< number of validated roots
extern char* trgtSrvr;       ///< server of the current root's mount; this node's name when local
extern char* trgtName;       ///< exported name of the current root's mount; null when local
extern char* tvxRoot;        ///< the root's location as reported: the exported name, else the path

/// A fresh zero-filled root record.
AuditRoot* NewRoot();

/// Validates every root of rootList in order and numbers them. Exits 1 with
/// "No scan root specified" when there is no root or one has no path, and
/// with "Duplicate root path" when two resolve to the same path (ignoring case).
void ValidateRootList();
/// Replaces root's path by its canonical absolute form, checks that it is a
/// directory, and fills the volume figures and the mount text. Every failure
/// exits 1 naming the path.
void ValidateRoot(AuditRoot* root);
/// Finds the network mount holding path. Returns 0; both outputs null mean a
/// local file system, which is the only answer on this platform.
int MatchPathToMountPoint(const char* path, char** serverOut, char** nameOut);
