#include "reader/dtlread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "detail/compress.h"
#include "reader/textout.h"
#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"

namespace {

// SampleScan's file, plain and compressed: dir/plain.dtl and dir/packed.dtl.
void WriteSample(const ScopedTempDir& dir) {
    WriteFile(dir / "plain.dtl", BuildDetail(SampleScan()).bytes);
    ASSERT_EQ(compressFile((dir / "plain.dtl").c_str(), (dir / "packed.dtl").c_str()), 0);
}

// Reads a whole file: each record as "dir <path> <files>/<subdirs>/<bytes>",
// "<path>[ -> <target>] counted|-" or "end", the names DtlNameAt gives for
// each hard-link table entry as "link <dir> <name>", and how it ended.
std::vector<std::string> Walk(const std::string& path, const DtlOpenOptions& options, DtlReader* r) {
    std::vector<std::string> seen;
    DtlStep step = DTL_STEP_FAULT;
    if (DtlOpen(r, path.c_str(), options)) {
        while ((step = DtlNext(r)) == DTL_STEP_RECORD || step == DTL_STEP_LINK) {
            const DtlRecord& rec = r->rec;
            const DtlRecordFixed& f = rec.fixed;
            if (step == DTL_STEP_LINK) {
                std::string dir = "?", name = "?";
                DtlNameAt(r, r->link.entry.parentDirPos, &dir);
                DtlNameAt(r, r->link.entry.recordPos, &name);
                seen.push_back("link " + dir + " " + name);
            } else if (rec.kind == DTL_REC_DIR_HEADER) {
                seen.push_back(Cat("dir ", rec.name, " ", std::to_string(f.atime), "/", std::to_string(f.mtime), "/",
                                   std::to_string(f.size)));
            } else if (rec.kind == DTL_REC_ENTRY) {
                seen.push_back(Cat(DtlJoinPath(rec.dirPath, rec.name), rec.target.empty() ? "" : " -> ", rec.target,
                                   rec.counted ? " counted" : " -"));
            } else {
                seen.push_back("end");
            }
        }
    }
    seen.push_back(step == DTL_STEP_DONE ? "done" : "fault: " + r->fault.message);
    return seen;
}

TEST(DtlReadTest, ReadsASoundFilePlainOrCompressed) {
    ScopedTempDir dir;
    WriteSample(dir);
    const std::vector<std::string> expected = {
        "dir / 3/3/161", "/f1 counted", "/a counted", "/l -> /etc/passwd counted", "/h1 counted", "/b counted",
        "/x counted", "dir /a 2/1/57",
        "/a/h2 -",  // the second name of inode 77: its size counts once
        "/a/c counted", "/a/caf\xe9 counted", "dir /a/c 0/0/0", "dir /b 1/0/0", "/b/n\nl counted", "end",
        "link / a", "link / h1", "link / b", "link / x", "link /a h2", "link /a c", "done"};
    for (const char* name : {"plain.dtl", "packed.dtl"}) {
        DtlReader r;
        EXPECT_EQ(Walk(dir / name, {}, &r), expected) << name;
        EXPECT_EQ(r.wasCompressed, name[1] == 'a');
        EXPECT_EQ(r.strings.includeDirs, SampleScan().includeDirs);
        DtlClose(&r);
    }
    DtlReader unnamed, root;  // without kept names a compressed file cannot name its links
    EXPECT_EQ(Walk(dir / "packed.dtl", {.nameLinks = false}, &unnamed)[15], "link ? ?");
    DtlClose(&unnamed);
    FakeScan unopenableRoot;  // counted, but no record at all
    unopenableRoot.extraDirs = 1;
    WriteFile(dir / "root.dtl", BuildDetail(unopenableRoot).bytes);
    EXPECT_EQ(Walk(dir / "root.dtl", {}, &root), (std::vector<std::string>{"end", "done"}));
    DtlClose(&root);
}

// One damage per kind of check; the fault is named where the damage is
// (a compressed stream's own faults name the bytes inflated so far).
TEST(DtlReadTest, NamesTheFirstFault) {
    ScopedTempDir dir;
    WriteSample(dir);
    const FakeFile f = BuildDetail(SampleScan());
    FakeScan reordered = SampleScan();
    std::rotate(reordered.dirs.begin() + 1, reordered.dirs.begin() + 3, reordered.dirs.end());  // "/b" before "/a"
    const FakeFile r = BuildDetail(reordered);
    auto rec = [&](const char* key) { return f.recordPos.at(key); };
    const uint64_t noDamage = ~0ull;
    int n = 0;
    auto check = [&](const std::string& bytes, const std::string& message, uint64_t faultAt) {
        SCOPED_TRACE(message);
        std::string path = dir / (std::to_string(n++) + ".dtl");  // a new file each: rewriting one is slow
        WriteFile(path, bytes);
        DtlFault fault;
        ASSERT_FALSE(DtlCheckFile(path.c_str(), &fault));
        EXPECT_NE(fault.message.find(message), std::string::npos) << fault.message;
        EXPECT_EQ(fault.offset, faultAt == noDamage ? fault.offset : faultAt) << fault.message;
    };
    struct Case {
        const char* message;
        uint64_t at;
        int width;  // bytes of value put at 'at'; 0 cuts the file there
        uint64_t value;
        uint64_t faultAt = noDamage;  // when not 'at'
    } cases[] = {
        {"not a detail file", 0, 1, 'X'},
        {"reserved bytes 20-39", 30, 1, 1, 20},
        {"completionFlags is 1, expected 9", 64, 4, 1},  // the tag's first character asks for 9
        {"nodeNameOffset", 16, 4, 286},
        {"node-name header string: unit 0x0141", f.stringPos[0] + 2, 2, 0x0141},
        {"include-directory list copy 3 differs", f.stringPos[10] + 4, 2, 'z', f.stringPos[10]},
        {"unknown entryFlags", f.recordsPos, 4, 0x20000000},
        {"counts 1 bytes of files, but its file records add up to 0", rec("dir:/a/c") + 32, 8, 1},
        {"not a directory entry name", rec("/f1") + 48, 1, '/'},
        {"has a link target but is not a symbolic link", rec("/f1") + 46, 2, 1},
        {"link count 2 without the hard-link flag", rec("/h1"), 4, 0x80000000},
        {"totalFileSize is 16606", 88, 8, 16556 + 50},  // inode 77 counted twice
        {"hardLinkTableOffset", 40, 8, f.tablePos + 24},
        {"file ends without an end marker", f.endMarkerPos, 0, 0},
        {"prevEntry is 0, expected 24", f.tablePos + 24 * 4, 8, 0},
        {"\"/a\" is out of walk order", noDamage, 0, 0, r.recordPos.at("dir:/a")},
    };
    for (const Case& c : cases) {
        std::string bytes = c.at == noDamage ? r.bytes : f.bytes;
        if (c.at != noDamage && c.width == 0) bytes.resize(c.at);
        if (c.at != noDamage && c.width != 0) PutLe(bytes, c.at, c.value, c.width);
        check(bytes, c.message, c.faultAt == noDamage ? c.at : c.faultAt);
    }
    const std::string good = ReadFile(dir / "packed.dtl");
    const std::pair<const char*, std::string> packed[] = {
        {"its Adler-32 trailer", good.substr(0, good.size() - 1) + static_cast<char>(good.back() ^ 1)},
        {"bytes follow the end of its compressed stream", good + "x"},
        {"the file ends inside its Adler-32 trailer", good.substr(0, good.size() - 2)},
        {"the file ends inside its compressed stream", good.substr(0, good.size() / 2)},
        {"the deflate data is invalid at byte 3 of the compressed file (invalid block type)",
         good.substr(0, 2) + "\xff" + good.substr(3)},
    };
    for (const auto& [message, bytes] : packed)
        check(bytes, std::string("compressed detail file cannot be decompressed: ") + message, noDamage);
}

// Cut at any length, plain or compressed, a file gives a clean fault, never
// a crash; a plain file's fault lies in the bytes there are.
TEST(DtlReadTest, ReportsACleanErrorForAFileCutAtAnyLength) {
    ScopedTempDir dir;
    WriteSample(dir);
    for (const std::string& path : {dir / "plain.dtl", dir / "packed.dtl"}) {
        const bool plain = path == dir / "plain.dtl";
        // Cutting from the end down keeps each step a cheap truncate.
        for (size_t length = ReadFile(path).size(); length-- > 0;) {
            ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(length)), 0);
            DtlFault fault;
            ASSERT_FALSE(DtlCheckFile(path.c_str(), &fault)) << length;
            EXPECT_FALSE(fault.message.empty()) << length;
            EXPECT_LE(fault.offset, plain ? length : SIZE_MAX) << length << ": " << fault.message;
        }
    }
}

// The file of a scan that died: "IDTL", no flags, no totals, no start
// position, and the root's counts not yet filled in.
std::string Unfinished(const FakeFile& f) {
    std::string b = f.bytes;
    PutLe(b, 0, 0x4c544449, 4);
    PutLe(b, 64, 0, 4);
    PutLe(b, 40, 0, 8);
    PutLe(b, 88, 0, 8);
    PutLe(b, 88 + 16, 0, 8);
    for (int field = 48; field < 68; field += 4) PutLe(b, 88 + field, 0, 4);
    PutLe(b, f.recordPos.at("dir:/") + 24, 0, 8);  // file and subdirectory counts
    PutLe(b, f.recordPos.at("dir:/") + 32, 0, 8);  // bytes
    return b;
}

TEST(DtlReadTest, ReadsAnUnfinishedFileOnlyWhenAskedAndAsFarAsItGoes) {
    const FakeFile f = BuildDetail(SampleScan());
    const std::string idtl = Unfinished(f);
    std::string wrongCounts = idtl;  // counts that were filled in must still be right
    PutLe(wrongCounts, f.recordPos.at("dir:/a") + 24, 5, 4);
    struct Case {
        std::string bytes;
        bool accept;
        std::vector<std::string> last;  // the last two things read
    } cases[] = {
        {idtl, false, {"fault: unfinished detail file: magic \"IDTL\" (the scan that wrote it did not complete)"}},
        {idtl, true, {"end", "done"}},  // the marker ends it; the table is not read
        {idtl.substr(0, f.recordPos.at("/a/caf\xe9") + 20), true,
         {"/a/c counted", "fault: file ends inside a record (20 of 48 bytes)"}},
        {idtl.substr(0, f.recordPos.at("dir:/b")), true, {"dir /a/c 0/0/0", "fault: file ends without an end marker"}},
        {wrongCounts, true, {"/a/caf\xe9 counted", "fault: directory \"/a\": its header record counts 5 files, but 2 file records follow it"}},
        {f.bytes.substr(0, f.endMarkerPos), true, {"/b/n\nl counted", "fault: file ends without an end marker"}},
    };
    ScopedTempDir dir;
    int n = 0;
    for (const Case& c : cases) {
        std::string path = dir / (std::to_string(n++) + ".dtl");
        WriteFile(path, c.bytes);
        DtlReader r;
        std::vector<std::string> seen = Walk(path, {.acceptUnfinished = c.accept}, &r);
        DtlClose(&r);
        std::vector<std::string> tail(seen.end() - std::min(seen.size(), c.last.size()), seen.end());
        EXPECT_EQ(tail, c.last) << n - 1;
        EXPECT_EQ(r.unfinished, c.accept && c.bytes.substr(0, 4) == "IDTL") << n - 1;
    }
}

}  // namespace
