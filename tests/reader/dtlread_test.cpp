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

TEST(DtlReadTest, ReadsASoundFilePlainOrCompressed) {
    ScopedTempDir dir;
    WriteSample(dir);
    const std::vector<std::string> records = {
        "dir / 3/3/161", "entry /f1", "entry /a", "entry /l -> /etc/passwd", "entry /h1", "entry /b", "entry /x",
        "dir /a 2/1/57",
        "entry /a/h2 uncounted",  // the second name of inode 77: its size counts once
        "entry /a/c", "entry /a/caf\xe9", "dir /a/c 0/0/0", "dir /b 1/0/0", "entry /b/n\nl", "end"};
    const std::vector<std::string> links = {"/ a", "/ h1", "/ b", "/ x", "/a h2", "/a c"};
    for (const char* name : {"plain.dtl", "packed.dtl"}) {
        ReadBack d = ReadDetail(dir / name);
        EXPECT_TRUE(d.sound) << name << ": " << d.fault.message;
        EXPECT_EQ(d.records, records) << name;
        EXPECT_EQ(d.links, links) << name;
        EXPECT_EQ(d.compressed, name[1] == 'a');
        EXPECT_EQ(d.strings.includeDirs, SampleScan().includeDirs);
    }
    // Without kept names a compressed file cannot name its links.
    EXPECT_EQ(ReadDetail(dir / "packed.dtl", {.nameLinks = false}).links[0], "? ?");
    FakeScan unopenableRoot;  // counted, but no record at all
    unopenableRoot.extraDirs = 1;
    WriteFile(dir / "root.dtl", BuildDetail(unopenableRoot).bytes);
    ReadBack root = ReadDetail(dir / "root.dtl");
    EXPECT_TRUE(root.sound && root.records == std::vector<std::string>{"end"});
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

TEST(DtlReadTest, ReadsAnUnfinishedFileOnlyWhenAskedAndAsFarAsItGoes) {
    // The file of a scan that died: "IDTL", no flags, no table offset, no
    // totals, no start position, and the root's counts not yet filled in.
    const FakeFile f = BuildDetail(SampleScan());
    std::string idtl = f.bytes;
    PutLe(idtl, 0, 0x4c544449, 4);
    const size_t root = f.recordPos.at("dir:/");
    for (auto [at, width] : {std::pair<size_t, size_t>{64, 4}, {40, 8}, {88, 8}, {104, 8}, {136, 20}, {root + 24, 16}})
        idtl.replace(at, width, width, '\0');
    std::string wrongCounts = idtl;  // counts that were filled in must still be right
    PutLe(wrongCounts, f.recordPos.at("dir:/a") + 24, 5, 4);
    struct Case {
        std::string bytes;
        bool accept;
        std::string last, fault;  // the last record read and the fault that ended the reading, if any
    } cases[] = {
        {idtl, false, "", "unfinished detail file: magic \"IDTL\" (the scan that wrote it did not complete)"},
        {idtl, true, "end", ""},  // the marker ends it; the table is not read
        {idtl.substr(0, f.recordPos.at("/a/caf\xe9") + 20), true, "entry /a/c",
         "file ends inside a record (20 of 48 bytes)"},
        {idtl.substr(0, f.recordPos.at("dir:/b")), true, "dir /a/c 0/0/0", "file ends without an end marker"},
        {wrongCounts, true, "entry /a/caf\xe9",
         "directory \"/a\": its header record counts 5 files, but 2 file records follow it"},
        {f.bytes.substr(0, f.endMarkerPos), true, "entry /b/n\nl", "file ends without an end marker"},
    };
    ScopedTempDir dir;
    int n = 0;
    for (const Case& c : cases) {
        SCOPED_TRACE(n);
        std::string path = dir / (std::to_string(n++) + ".dtl");
        WriteFile(path, c.bytes);
        ReadBack d = ReadDetail(path, {.acceptUnfinished = c.accept});
        EXPECT_EQ(d.records.empty() ? "" : d.records.back(), c.last);
        EXPECT_EQ(d.fault.message, c.fault);
        EXPECT_TRUE(d.sound == c.fault.empty() && d.links.empty());
        EXPECT_EQ(d.unfinished, c.accept && c.bytes.substr(0, 4) == "IDTL");
    }
}

}  // namespace
