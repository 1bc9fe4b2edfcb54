#include "tests/support/dtlbuilder.h"

#include <algorithm>
#include <map>

void PutLe(std::string& b, size_t o, uint64_t v, int width) {
    for (int i = 0; i < width; i++) b[o + i] = static_cast<char>(v >> 8 * i);
}

static void Put(std::string& b, uint64_t v, int width) {
    b.append(static_cast<size_t>(width), '\0');
    PutLe(b, b.size() - static_cast<size_t>(width), v, width);
}

static void PutHeaderString(FakeFile& f, const std::string& text) {
    f.stringPos.push_back(f.bytes.size());
    Put(f.bytes, 2 * text.size() + 2, 2);
    for (char c : text) Put(f.bytes, static_cast<uint16_t>(static_cast<signed char>(c)), 2);  // sign-extended
    Put(f.bytes, 0, 2);
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
            (S_ISDIR(e.mode) ? dSubdirs : dFiles)++;
            if (!S_ISDIR(e.mode)) dBytes += e.size;
        }
        for (uint32_t v : {0x40000000u, 0u, 0u, 0u, 0u, 0u, dFiles, dSubdirs}) Put(b, v, 4);
        Put(b, dBytes, 8);
        Put(b, 0, 4);
        Put(b, d.path.size() + 1, 2);
        Put(b, 0, 2);
        b += d.path + '\0';
        if (d.entries.empty()) empty++;
        for (const FakeEntry& e : d.entries) {
            uint64_t pos = b.size();
            f.recordPos[(d.path == "/" ? "/" : d.path + "/") + e.name] = pos;
            bool symlink = S_ISLNK(e.mode);
            bool hard = e.links >= 2;
            uint32_t flags = 0x80000000 | (symlink ? 0x10000 : 0) | (hard ? 0x20000 : 0);
            if (!S_ISDIR(e.mode)) files++;
            if (symlink) symlinks++;
            // A hard-linked inode's size counts once; its entries chain back.
            auto last = lastLink.find(e.inode);
            if (!hard || last == lastLink.end()) total += e.size;
            if (hard) {
                for (uint64_t v : {last == lastLink.end() ? 0 : last->second, dirPos, pos}) Put(table, v, 8);
                lastLink[e.inode] = table.size() - 24;
                hardLinks++;
            }
            for (uint32_t v : {flags, e.uid, e.gid, e.inode, e.mode, e.ctime, e.atime, e.mtime}) Put(b, v, 4);
            Put(b, e.size, 8);
            Put(b, e.links, 4);
            Put(b, e.name.size() + 1, 2);
            Put(b, symlink ? e.target.size() + 1 : 0, 2);
            b += e.name + '\0';
            if (symlink) b += e.target + '\0';
        }
    }
    f.endMarkerPos = b.size();
    b.append(48, '\xFF');
    if (hardLinks) {
        f.tablePos = b.size();
        b += table;
    }

    // Log header.
    PutLe(b, 0, 0x4c544446, 4);
    PutLe(b, 4, 520, 4);
    PutLe(b, 8, scan.runTime, 4);
    PutLe(b, 12, static_cast<uint32_t>(f.stringPos[1]), 4);
    PutLe(b, 16, static_cast<uint32_t>(f.stringPos[0]), 4);
    PutLe(b, 40, f.tablePos, 8);
    PutLe(b, 64, tag[0] != ' ' ? 9 : 1, 4);
    // Root header.
    PutLe(b, 88, total, 8);
    PutLe(b, 88 + 16, f.recordsPos, 8);
    PutLe(b, 88 + 24, static_cast<uint32_t>(f.stringPos[2]), 4);
    PutLe(b, 88 + 28, scan.mountSource.empty() ? 0 : static_cast<uint32_t>(f.stringPos[3]), 4);
    PutLe(b, 88 + 32, static_cast<uint32_t>(includeDirsOffset), 4);
    PutLe(b, 88 + 48, static_cast<uint32_t>(scan.dirs.size()) + scan.extraDirs, 4);
    PutLe(b, 88 + 52, empty, 4);
    PutLe(b, 88 + 56, files, 4);
    PutLe(b, 88 + 60, hardLinks, 4);
    PutLe(b, 88 + 64, symlinks, 4);
    PutLe(b, 88 + 104, scan.availableSpace, 8);
    PutLe(b, 88 + 112, scan.volumeCapacity, 8);
    // Version header: three zero-padded texts.
    b.replace(208, 5, "2.2.0");
    b.replace(220, 3, "Mac");
    b.replace(252, 4, "IA32");
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
        {"/", {{.name = "f1", .size = 100, .inode = 20}, dirA,
               {.name = "l", .mode = S_IFLNK | 0777, .size = 11, .inode = 21, .target = "/etc/passwd"},
               {.name = "h1", .size = 50, .links = 2, .inode = 77}, dirB, dirX}},
        {"/a", {{.name = "h2", .size = 50, .links = 2, .inode = 77}, dirC,
                {.name = "caf\xe9", .size = 7, .inode = 22}}},
        {"/a/c", {}},
        {"/b", {{.name = "n\nl", .mode = S_IFIFO | 0600, .inode = 23}}},
    };
    s.extraDirs = 1;  // "/x" is not selected by the templates
    return s;
}

ReadBack ReadDetail(const std::string& path, const DtlOpenOptions& options) {
    ReadBack d;
    DtlReader r;
    DtlStep step = DTL_STEP_FAULT;
    if (DtlOpen(&r, path.c_str(), options)) {
        d.root = r.root;
        d.strings = r.strings;
        while ((step = DtlNext(&r)) == DTL_STEP_RECORD || step == DTL_STEP_LINK) {
            const DtlRecord& rec = r.rec;
            if (step == DTL_STEP_LINK) {
                std::string dir = "?", name = "?";
                DtlNameAt(&r, r.link.entry.parentDirPos, &dir);
                DtlNameAt(&r, r.link.entry.recordPos, &name);
                d.links.push_back(dir + " " + name);
            } else if (rec.kind == DTL_REC_END_MARKER) {
                d.records.push_back("end");
            } else if (rec.kind == DTL_REC_DIR_HEADER) {
                d.records.push_back("dir " + std::string(rec.name) + " " + std::to_string(rec.fixed.atime) + "/" +
                                    std::to_string(rec.fixed.mtime) + "/" + std::to_string(rec.fixed.size));
            } else {
                d.records.push_back("entry " + DtlJoinPath(rec.dirPath, rec.name) +
                                    (rec.target.empty() ? "" : " -> " + std::string(rec.target)) +
                                    (rec.counted ? "" : " uncounted"));
            }
        }
    }
    d.sound = step == DTL_STEP_DONE;
    d.compressed = r.wasCompressed;
    d.unfinished = r.unfinished;
    d.fault = r.fault;
    DtlClose(&r);
    return d;
}

std::string FirstDifference(const std::string& a, const std::string& b) {
    size_t i = std::mismatch(a.begin(), a.end(), b.begin(), b.end()).first - a.begin();
    return "sizes " + std::to_string(a.size()) + " and " + std::to_string(b.size()) + ", first difference at " +
           std::to_string(i);
}
