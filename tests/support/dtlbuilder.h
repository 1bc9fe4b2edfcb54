// Builds detail files byte by byte for the tests, from a description of a
// scan, without the format module's encoders: every field is laid down
// little-endian by hand, so the reader and the encoders are checked against
// an independent picture of the layout. Also reads files back through the
// reader, as text the tests can compare.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "reader/dtlread.h"

/// One entry record.
struct FakeEntry {
    std::string name;
    uint32_t mode = S_IFREG | 0644;
    uint64_t size = 0;
    uint32_t links = 1;     ///< 2 or more sets the hard-link flag
    uint32_t inode = 0;
    std::string target = "";  ///< link target of a symbolic link
    uint32_t uid = 1000, gid = 100;
    uint32_t ctime = 1700000001, atime = 1700000002, mtime = 1700000003;
};

/// One directory header record and the entry records that follow it.
struct FakeDir {
    std::string path;  ///< logical path
    std::vector<FakeEntry> entries;
};

/// A scan: headers, strings and the directories in walk order.
struct FakeScan {
    std::string nodeName = "node1";
    std::string tag;                       ///< padded with blanks to 31 characters
    std::string rootPath = "/data";
    std::string mountSource;               ///< empty: a local file system
    std::vector<std::string> includeDirs;  ///< stored four times when not empty
    std::vector<FakeDir> dirs;             ///< header records in walk order
    uint32_t extraDirs = 0;                ///< directories counted without a header record
    uint32_t runTime = 1700000000;
    uint64_t availableSpace = 5000000, volumeCapacity = 9000000;
};

/// A built file and where its parts are.
struct FakeFile {
    std::string bytes;
    uint64_t recordsPos = 0;
    uint64_t endMarkerPos = 0;
    uint64_t tablePos = 0;                       ///< 0 without hard links
    std::map<std::string, uint64_t> recordPos;   ///< entry records by logical path; header records as "dir:" + path
    std::vector<uint64_t> stringPos;             ///< every header string in order
};

/// Lays the scan down as a complete detail file, with every count and the
/// hard-link table as the writer would produce them.
FakeFile BuildDetail(const FakeScan& scan);

/// A scan with files, a symbolic link, hard links (a file with two names and
/// linked directories), an empty directory, an excluded directory, a name
/// that is not UTF-8, a name with a newline, a tag and include templates.
FakeScan SampleScan();

/// Puts the low width bytes of v into bytes at offset, little-endian.
void PutLe(std::string& bytes, size_t offset, uint64_t v, int width);

/// What the reader hands out for a whole file: records as text,
/// "dir <path> <files>/<subdirs>/<bytes>", "entry <path>[ -> <target>]"
/// (and " uncounted" when the totals do not count its size) or "end"; each
/// hard-link table entry as DtlNameAt names it, "<dir> <name>" ("?" for a
/// name it cannot give).
struct ReadBack {
    bool sound = false;
    bool compressed = false, unfinished = false;
    DtlFault fault;
    DtlRootHeader root{};
    DtlStrings strings;
    std::vector<std::string> records, links;
};

/// Where two files first differ, for failure messages.
std::string FirstDifference(const std::string& a, const std::string& b);

/// Reads the file at path through the detail-file reader to its end or its first fault.
ReadBack ReadDetail(const std::string& path, const DtlOpenOptions& options = {});
