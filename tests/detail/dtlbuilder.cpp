#include "tests/detail/dtlbuilder.h"

#include <map>

void Put16At(std::string& b, size_t o, uint16_t v) {
    b[o] = static_cast<char>(v & 0xFF);
    b[o + 1] = static_cast<char>(v >> 8);
}

void Put32At(std::string& b, size_t o, uint32_t v) {
    Put16At(b, o, static_cast<uint16_t>(v));
    Put16At(b, o + 2, static_cast<uint16_t>(v >> 16));
}

void Put64At(std::string& b, size_t o, uint64_t v) {
    Put32At(b, o, static_cast<uint32_t>(v));
    Put32At(b, o + 4, static_cast<uint32_t>(v >> 32));
}

static void Put16(std::string& b, uint16_t v) {
    b.append(2, '\0');
    Put16At(b, b.size() - 2, v);
}
static void Put32(std::string& b, uint32_t v) {
    b.append(4, '\0');
    Put32At(b, b.size() - 4, v);
}
static void Put64(std::string& b, uint64_t v) {
    b.append(8, '\0');
    Put64At(b, b.size() - 8, v);
}

static void PutHeaderString(FakeFile& f, const std::string& text) {
    f.stringPos.push_back(f.bytes.size());
    Put16(f.bytes, static_cast<uint16_t>(2 * text.size() + 2));
    for (char c : text) Put16(f.bytes, static_cast<uint16_t>(static_cast<int16_t>(static_cast<signed char>(c))));
    Put16(f.bytes, 0);
}

static void PutText(std::string& b, const std::string& text, size_t field) {
    std::string padded = text.substr(0, field - 1);
    padded.resize(field, '\0');
    b += padded;
}

FakeFile BuildDetail(const FakeScan& scan) {
    FakeFile f;
    std::string& b = f.bytes;
    b.assign(284, '\0');
    PutHeaderString(f, scan.nodeName);
    std::string tag = scan.tag.substr(0, 31);
    tag.resize(31, ' ');
    PutHeaderString(f, tag);
    PutHeaderString(f, scan.rootPath);
    if (!scan.mountSource.empty()) PutHeaderString(f, scan.mountSource);
    uint64_t includeDirsOffset = 0;
    if (!scan.includeDirs.empty()) {
        for (int copy = 0; copy < 4; copy++) {
            includeDirsOffset = b.size();
            for (const std::string& t : scan.includeDirs) PutHeaderString(f, t);
            PutHeaderString(f, "");
        }
    }
    f.recordsPos = b.size();

    uint32_t files = 0, symlinks = 0, hardLinks = 0, empty = 0;
    uint64_t total = 0;
    std::map<uint32_t, uint64_t> lastLink;  // inode -> table-relative position
    std::string table;
    for (const FakeDir& d : scan.dirs) {
        uint64_t dirPos = b.size();
        f.recordPos["dir:" + d.path] = dirPos;
        uint32_t dFiles = 0, dSubdirs = 0;
        uint64_t dBytes = 0;
        for (const FakeEntry& e : d.entries) {
            if (S_ISDIR(e.mode)) {
                dSubdirs++;
            } else {
                dFiles++;
                dBytes += e.size;
            }
        }
        Put32(b, 0x40000000);
        b.append(20, '\0');
        Put32(b, dFiles);
        Put32(b, dSubdirs);
        Put64(b, dBytes);
        Put32(b, 0);
        Put16(b, static_cast<uint16_t>(d.path.size() + 1));
        Put16(b, 0);
        b += d.path;
        b += '\0';
        if (d.entries.empty()) empty++;
        for (const FakeEntry& e : d.entries) {
            uint64_t pos = b.size();
            f.recordPos[(d.path == "/" ? "/" : d.path + "/") + e.name] = pos;
            bool symlink = S_ISLNK(e.mode);
            bool hard = e.links >= 2;
            uint32_t flags = 0x80000000 | (symlink ? 0x10000 : 0) | (hard ? 0x20000 : 0);
            if (!S_ISDIR(e.mode)) files++;
            if (symlink) symlinks++;
            if (hard) {
                uint64_t rel = table.size();
                auto it = lastLink.find(e.inode);
                uint64_t prev = it == lastLink.end() ? 0 : it->second;
                if (it == lastLink.end()) total += e.size;
                lastLink[e.inode] = rel;
                Put64(table, prev);
                Put64(table, dirPos);
                Put64(table, pos);
                hardLinks++;
            } else {
                total += e.size;
            }
            Put32(b, flags);
            Put32(b, e.uid);
            Put32(b, e.gid);
            Put32(b, e.inode);
            Put32(b, e.mode);
            Put32(b, e.ctime);
            Put32(b, e.atime);
            Put32(b, e.mtime);
            Put64(b, e.size);
            Put32(b, e.links);
            Put16(b, static_cast<uint16_t>(e.name.size() + 1));
            Put16(b, static_cast<uint16_t>(symlink ? e.target.size() + 1 : 0));
            b += e.name;
            b += '\0';
            if (symlink) {
                b += e.target;
                b += '\0';
            }
        }
    }
    f.endMarkerPos = b.size();
    b.append(48, '\xFF');
    if (hardLinks) {
        f.tablePos = b.size();
        b += table;
    }

    // Log header.
    Put32At(b, 0, 0x4c544446);
    Put32At(b, 4, 520);
    Put32At(b, 8, scan.runTime);
    Put32At(b, 12, static_cast<uint32_t>(f.stringPos[1]));
    Put32At(b, 16, static_cast<uint32_t>(f.stringPos[0]));
    Put64At(b, 40, f.tablePos);
    Put32At(b, 64, tag[0] != ' ' ? 9 : 1);
    // Root header.
    Put64At(b, 88, total);
    Put64At(b, 88 + 16, f.recordsPos);
    Put32At(b, 88 + 24, static_cast<uint32_t>(f.stringPos[2]));
    Put32At(b, 88 + 28, scan.mountSource.empty() ? 0 : static_cast<uint32_t>(f.stringPos[3]));
    Put32At(b, 88 + 32, static_cast<uint32_t>(includeDirsOffset));
    Put32At(b, 88 + 48, static_cast<uint32_t>(scan.dirs.size()) + scan.extraDirs);
    Put32At(b, 88 + 52, empty);
    Put32At(b, 88 + 56, files);
    Put32At(b, 88 + 60, hardLinks);
    Put32At(b, 88 + 64, symlinks);
    Put64At(b, 88 + 104, scan.availableSpace);
    Put64At(b, 88 + 112, scan.volumeCapacity);
    // Version header.
    std::string version;
    PutText(version, "2.2.0", 12);
    PutText(version, "Mac", 32);
    PutText(version, "IA32", 32);
    b.replace(208, 76, version);
    return f;
}

FakeScan SampleScan() {
    FakeScan s;
    s.tag = "abc";
    s.includeDirs = {"/a~", "/b~"};
    FakeEntry dirA{.name = "a", .mode = S_IFDIR | 0755, .size = 4096, .links = 3, .inode = 10};
    FakeEntry dirB{.name = "b", .mode = S_IFDIR | 0755, .size = 4096, .links = 2, .inode = 11};
    FakeEntry dirX{.name = "x", .mode = S_IFDIR | 0700, .size = 4096, .links = 2, .inode = 12};
    FakeEntry dirC{.name = "c", .mode = S_IFDIR | 0755, .size = 4096, .links = 2, .inode = 13};
    s.dirs = {
        {"/",
         {
             {.name = "f1", .size = 100, .inode = 20},
             dirA,
             {.name = "l", .mode = S_IFLNK | 0777, .size = 11, .inode = 21, .target = "/etc/passwd"},
             {.name = "h1", .size = 50, .links = 2, .inode = 77},
             dirB,
             dirX,
         }},
        {"/a",
         {
             {.name = "h2", .size = 50, .links = 2, .inode = 77},
             dirC,
             {.name = "caf\xe9", .size = 7, .inode = 22},
         }},
        {"/a/c", {}},
        {"/b", {{.name = "n\nl", .mode = S_IFIFO | 0600, .inode = 23}}},
    };
    s.extraDirs = 1;  // "/x" is not selected by the templates
    return s;
}
