#include "reader/dtlread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "detail/compress.h"
#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"

namespace {

TEST(DtlReadTest, AcceptsSoundFiles) {
    FakeScan unopenableRoot;  // counted, but no record at all
    unopenableRoot.extraDirs = 1;
    const std::pair<FakeScan, std::vector<std::string>> cases[] = {
        {SampleScan(),
         {"dir / 3/3/161", "entry /f1", "entry /a", "entry /l -> /etc/passwd", "entry /h1", "entry /b", "entry /x",
          "dir /a 2/1/57", "entry /a/h2", "entry /a/c", "entry /a/caf\xe9", "dir /a/c 0/0/0", "dir /b 1/0/0",
          "entry /b/n\nl", "end"}},
        {unopenableRoot, {"end"}},
    };
    ScopedTempDir dir;
    for (const auto& [scan, records] : cases) {
        WriteFile(dir / "f.dtl", BuildDetail(scan).bytes);
        ReadBack got = ReadDetail(dir / "f.dtl");
        EXPECT_TRUE(got.sound) << got.fault.offset << ": " << got.fault.message;
        EXPECT_EQ(got.records, records);
        EXPECT_EQ(got.strings.includeDirs, scan.includeDirs);
    }
}

// One damage per kind of check; the fault is named where the damage is.
TEST(DtlReadTest, NamesTheFirstFault) {
    const FakeFile f = BuildDetail(SampleScan());
    FakeScan reordered = SampleScan();
    std::rotate(reordered.dirs.begin() + 1, reordered.dirs.begin() + 3, reordered.dirs.end());  // "/b" before "/a"
    const FakeFile r = BuildDetail(reordered);
    auto rec = [&](const char* key) { return f.recordPos.at(key); };
    const uint64_t noDamage = ~0ull;
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
    ScopedTempDir dir;
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        std::string path = dir / (std::to_string(n++) + ".dtl");  // a new file each: rewriting one is slow
        std::string bytes = c.at == noDamage ? r.bytes : f.bytes;
        if (c.at != noDamage && c.width == 0) bytes.resize(c.at);
        if (c.at != noDamage && c.width != 0) PutLe(bytes, c.at, c.value, c.width);
        WriteFile(path, bytes);
        DtlFault fault;
        ASSERT_FALSE(DtlCheckFile(path.c_str(), &fault));
        EXPECT_NE(fault.message.find(c.message), std::string::npos) << fault.message;
        EXPECT_EQ(fault.offset, c.faultAt == noDamage ? c.at : c.faultAt) << fault.message;
    }
}

TEST(DtlReadTest, ReportsACleanErrorForAFileCutAtAnyLength) {
    ScopedTempDir dir;
    std::string path = dir / "f.dtl";
    std::string bytes = BuildDetail(SampleScan()).bytes;
    WriteFile(path, bytes);
    DtlFault fault;
    EXPECT_TRUE(DtlCheckFile(path.c_str(), &fault)) << fault.message;
    // Cutting from the end down keeps each step a cheap truncate.
    for (size_t length = bytes.size(); length-- > 0;) {
        ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(length)), 0);
        ASSERT_FALSE(DtlCheckFile(path.c_str(), &fault)) << length;
        EXPECT_FALSE(fault.message.empty()) << length;
        EXPECT_LE(fault.offset, length) << length << ": " << fault.message;
    }
}

// Reads a whole file; each entry record as "path counted|-", and the names
// DtlNameAt gives for each hard-link table entry as "link dir name".
std::vector<std::string> Walk(const std::string& path, const DtlOpenOptions& options, DtlReader* r) {
    std::vector<std::string> seen;
    DtlStep step = DTL_STEP_FAULT;
    if (DtlOpen(r, path.c_str(), options)) {
        while ((step = DtlNext(r)) == DTL_STEP_RECORD || step == DTL_STEP_LINK) {
            if (step == DTL_STEP_LINK) {
                std::string dir = "?", name = "?";
                DtlNameAt(r, r->link.entry.parentDirPos, &dir);
                DtlNameAt(r, r->link.entry.recordPos, &name);
                seen.push_back("link " + dir + " " + name);
            } else if (r->rec.kind == DTL_REC_ENTRY) {
                seen.push_back(DtlJoinPath(r->rec.dirPath, r->rec.name) + (r->rec.counted ? " counted" : " -"));
            }
        }
    }
    seen.push_back(step == DTL_STEP_DONE ? "done" : "fault: " + r->fault.message);
    return seen;
}

TEST(DtlReadTest, InflatesACompressedFileAsItReadsAndStillNamesItsHardLinks) {
    ScopedTempDir dir;
    std::string plain = dir / "plain.dtl", packed = dir / "packed.dtl";
    WriteFile(plain, BuildDetail(SampleScan()).bytes);
    ASSERT_EQ(compressFile(plain.c_str(), packed.c_str()), 0);
    const std::vector<std::string> expected = {
        "/f1 counted", "/a counted", "/l counted", "/h1 counted", "/b counted", "/x counted",
        "/a/h2 -",  // the second name of inode 77: its size counts once
        "/a/c counted", "/a/caf\xe9 counted", "/b/n\nl counted",
        "link / a", "link / h1", "link / b", "link / x", "link /a h2", "link /a c", "done"};
    for (const std::string& path : {plain, packed}) {
        DtlReader r;
        EXPECT_EQ(Walk(path, {}, &r), expected) << path;
        EXPECT_EQ(r.wasCompressed, path == packed);
        DtlClose(&r);
    }
    DtlReader r;  // without kept names a compressed file cannot name its links
    std::vector<std::string> unnamed = Walk(packed, {.nameLinks = false}, &r);
    DtlClose(&r);
    EXPECT_EQ(unnamed[10], "link ? ?");
}

TEST(DtlReadTest, NamesTheFaultOfADamagedCompressedStream) {
    ScopedTempDir dir;
    std::string plain = dir / "plain.dtl", packed = dir / "packed.dtl";
    WriteFile(plain, BuildDetail(SampleScan()).bytes);
    ASSERT_EQ(compressFile(plain.c_str(), packed.c_str()), 0);
    const std::string good = ReadFile(packed);
    struct Case {
        const char* message;
        std::string bytes;
    } cases[] = {
        {"its Adler-32 trailer", good.substr(0, good.size() - 1) + static_cast<char>(good.back() ^ 1)},
        {"bytes follow the end of its compressed stream", good + "x"},
        {"the file ends inside its Adler-32 trailer", good.substr(0, good.size() - 2)},
        {"the file ends inside its compressed stream", good.substr(0, good.size() / 2)},
        {"the deflate data is invalid at byte 3 of the compressed file (invalid block type)", good.substr(0, 2) + "\xff" + good.substr(3)},
    };
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        std::string path = dir / (std::to_string(n++) + ".dtl");
        WriteFile(path, c.bytes);
        DtlFault fault;
        ASSERT_FALSE(DtlCheckFile(path.c_str(), &fault));
        EXPECT_NE(fault.message.find("compressed detail file cannot be decompressed: "), std::string::npos)
            << fault.message;
        EXPECT_NE(fault.message.find(c.message), std::string::npos) << fault.message;
    }
    // Cut anywhere, the stream or the structure behind it names a fault.
    std::string path = dir / "cut.dtl";
    WriteFile(path, good);
    for (size_t length = good.size(); length-- > 2;) {
        ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(length)), 0);
        DtlFault fault;
        ASSERT_FALSE(DtlCheckFile(path.c_str(), &fault)) << length;
        EXPECT_FALSE(fault.message.empty()) << length;
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
        {idtl, true, {"/b/n\nl counted", "done"}},  // the marker ends it; the table is not read
        {idtl.substr(0, f.recordPos.at("/a/caf\xe9") + 20), true,
         {"/a/c counted", "fault: file ends inside a record (20 of 48 bytes)"}},
        {idtl.substr(0, f.recordPos.at("dir:/b")), true, {"/a/caf\xe9 counted", "fault: file ends without an end marker"}},
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
