#include "reader/dtlread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

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

}  // namespace
