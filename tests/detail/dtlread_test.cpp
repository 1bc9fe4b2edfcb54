#include "detail/dtlread.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <string>

#include "tests/detail/dtlbuilder.h"
#include "tests/support/testutil.h"

namespace {

// Reads a whole file and returns the steps' records and links as a log of
// lines, so that a test sees what the reader handed out.
struct ReadResult {
    bool sound = false;
    DtlFault fault;
    DtlStrings strings;
    DtlTotals totals;
    std::vector<std::string> records;  // "dir /a", "entry /a/f", "end"
    std::vector<DtlLink> links;
};

ReadResult ReadAll(const std::string& path) {
    ReadResult result;
    DtlReader r;
    DtlStep step = DTL_STEP_FAULT;
    if (DtlOpen(&r, path.c_str())) {
        result.strings = r.strings;
        while ((step = DtlNext(&r)) == DTL_STEP_RECORD || step == DTL_STEP_LINK) {
            if (step == DTL_STEP_LINK) {
                result.links.push_back(r.link);
            } else if (r.rec.kind == DTL_REC_END_MARKER) {
                result.records.push_back("end");
            } else if (r.rec.kind == DTL_REC_DIR_HEADER) {
                result.records.push_back("dir " + std::string(r.rec.name));
            } else {
                result.records.push_back("entry " + DtlJoinPath(r.rec.dirPath, r.rec.name));
            }
        }
    }
    result.sound = step == DTL_STEP_DONE;
    result.fault = r.fault;
    result.totals = r.totals;
    DtlClose(&r);
    return result;
}

TEST(DtlReadTest, AcceptsSoundFiles) {
    FakeScan sample = SampleScan();
    FakeScan emptyRoot;
    emptyRoot.dirs = {{"/", {}}};
    FakeScan unopenableRoot;  // counted, but no record at all
    unopenableRoot.extraDirs = 1;
    FakeScan mounted;
    mounted.mountSource = "server:/export";
    mounted.includeDirs = {"", "/a"};  // an empty template inside the list
    mounted.dirs = {{"/", {{.name = "a", .mode = S_IFDIR | 0755}}}, {"/a", {}}};
    struct Case {
        const char* name;
        FakeScan scan;
        std::vector<std::string> records;
        size_t links;
    } cases[] = {
        {"sample",
         sample,
         {"dir /", "entry /f1", "entry /a", "entry /l", "entry /h1", "entry /b", "entry /x", "dir /a", "entry /a/h2",
          "entry /a/c", "entry /a/caf\xe9", "dir /a/c", "dir /b", "entry /b/n\nl", "end"},
         6},
        {"empty root", emptyRoot, {"dir /", "end"}, 0},
        {"unopenable root", unopenableRoot, {"end"}, 0},
        {"mount source", mounted, {"dir /", "entry /a", "dir /a", "end"}, 0},
    };
    ScopedTempDir dir;
    for (const Case& c : cases) {
        std::string path = dir / (std::string(c.name) + ".dtl");
        WriteFile(path, BuildDetail(c.scan).bytes);
        ReadResult got = ReadAll(path);
        EXPECT_TRUE(got.sound) << c.name << ": offset " << got.fault.offset << ": " << got.fault.message;
        EXPECT_EQ(got.records, c.records) << c.name;
        EXPECT_EQ(got.links.size(), c.links) << c.name;
        EXPECT_EQ(got.strings.includeDirs, c.scan.includeDirs) << c.name;
        EXPECT_EQ(got.strings.mountSource, c.scan.mountSource) << c.name;
    }
}

TEST(DtlReadTest, AddsUpTheRecordsAndFollowsTheHardLinkChains) {
    ScopedTempDir dir;
    FakeFile f = BuildDetail(SampleScan());
    WriteFile(dir / "f.dtl", f.bytes);
    ReadResult got = ReadAll(dir / "f.dtl");
    ASSERT_TRUE(got.sound) << got.fault.message;
    EXPECT_EQ(got.strings.nodeName, "node1");
    EXPECT_EQ(got.strings.tag, "abc" + std::string(28, ' '));
    EXPECT_EQ(got.strings.rootPath, "/data");
    EXPECT_EQ(got.totals.dirHeaders, 4u);
    EXPECT_EQ(got.totals.emptyDirHeaders, 1u);
    EXPECT_EQ(got.totals.entries, 10u);
    EXPECT_EQ(got.totals.files, 6u);
    EXPECT_EQ(got.totals.subdirEntries, 4u);
    EXPECT_EQ(got.totals.symlinks, 1u);
    EXPECT_EQ(got.totals.hardLinks, 6u);
    EXPECT_EQ(got.totals.linkedInodes, 5u);
    // Inode 77 (h1, h2) counts once; directories count their sizes too.
    EXPECT_EQ(got.totals.totalFileSize, 100u + 4096 + 11 + 50 + 4096 + 4096 + 4096 + 7 + 0);
    // Table order is record order: a, h1, b, x, h2, c; h2 chains back to h1.
    ASSERT_EQ(got.links.size(), 6u);
    EXPECT_EQ(got.links[1].entry.recordPos, f.recordPos.at("/h1"));
    EXPECT_TRUE(got.links[1].first);
    EXPECT_EQ(got.links[4].entry.recordPos, f.recordPos.at("/a/h2"));
    EXPECT_EQ(got.links[4].entry.parentDirPos, f.recordPos.at("dir:/a"));
    EXPECT_EQ(got.links[4].entry.prevEntry, 24u);
    EXPECT_EQ(got.links[4].inode, 77u);
    EXPECT_FALSE(got.links[4].first);
}

using ScanEdit = std::function<void(FakeScan&)>;
using ByteEdit = std::function<void(std::string&, const FakeFile&)>;
using Where = std::function<uint64_t(const FakeFile&)>;

Where At(uint64_t offset) {
    return [offset](const FakeFile&) { return offset; };
}

Where Rec(const std::string& key, uint64_t plus = 0) {
    return [key, plus](const FakeFile& f) { return f.recordPos.at(key) + plus; };
}

TEST(DtlReadTest, NamesTheFirstFault) {
    struct Case {
        const char* name;
        ScanEdit scanEdit;
        ByteEdit byteEdit;
        const char* message;
        Where where;
    } cases[] = {
        {"other magic", nullptr, [](std::string& b, const FakeFile&) { b[0] = 'X'; }, "not a detail file", At(0)},
        {"unfinished", nullptr, [](std::string& b, const FakeFile&) { b[0] = 'I'; }, "unfinished detail file",
         At(0)},
        {"compressed", nullptr, [](std::string& b, const FakeFile&) { b.replace(0, 2, "\x78\x01"); },
         "compressed detail file cannot be decompressed: Bad message", At(0)},
        {"format version", nullptr, [](std::string& b, const FakeFile&) { Put32At(b, 4, 521); }, "formatVersion",
         At(4)},
        {"reserved log byte", nullptr, [](std::string& b, const FakeFile&) { b[30] = 1; }, "reserved bytes 20-39",
         At(20)},
        {"untagged completion", nullptr, [](std::string& b, const FakeFile&) { Put32At(b, 64, 1); },
         "completionFlags is 1, expected 9", At(64)},
        {"version text", nullptr, [](std::string& b, const FakeFile&) { b[208 + 11] = 'x'; }, "version text",
         At(219)},
        {"node name offset", nullptr, [](std::string& b, const FakeFile&) { Put32At(b, 16, 286); }, "nodeNameOffset",
         At(16)},
        {"unit not a byte", nullptr,
         [](std::string& b, const FakeFile& f) { Put16At(b, f.stringPos[0] + 2, 0x0141); },
         "node-name header string: unit 0x0141", [](const FakeFile& f) { return f.stringPos[0] + 2; }},
        {"string without zero unit", nullptr,
         [](std::string& b, const FakeFile& f) { Put16At(b, f.stringPos[0] + 12, 'x'); },
         "does not end in a zero unit", [](const FakeFile& f) { return f.stringPos[0] + 12; }},
        {"odd byteLength", nullptr, [](std::string& b, const FakeFile& f) { Put16At(b, f.stringPos[1], 63); },
         "byteLength 63", [](const FakeFile& f) { return f.stringPos[1]; }},
        {"list copies differ", nullptr,
         [](std::string& b, const FakeFile& f) { Put16At(b, f.stringPos[3 + 2 * 3 + 1] + 4, 'z'); },
         "include-directory list copy 3 differs", [](const FakeFile& f) { return f.stringPos[3 + 2 * 3 + 1]; }},
        {"include offset", nullptr,
         [](std::string& b, const FakeFile& f) { Put32At(b, 88 + 32, static_cast<uint32_t>(f.stringPos[9] + 2)); },
         "includeDirsOffset", At(88 + 32)},
        {"start position", nullptr,
         [](std::string& b, const FakeFile& f) { Put64At(b, 88 + 16, f.recordsPos + 48); }, "dtlStartPos",
         At(88 + 16)},
        {"unknown record flags", nullptr,
         [](std::string& b, const FakeFile& f) { Put32At(b, f.recordsPos, 0x20000000); }, "unknown entryFlags",
         Rec("dir:/")},
        {"entry before the root", nullptr,
         [](std::string& b, const FakeFile& f) { Put32At(b, f.recordsPos, 0x80000000); },
         "entry record before the root", Rec("dir:/")},
        {"root not first", nullptr, [](std::string& b, const FakeFile& f) { b[f.recordsPos + 48] = 'r'; },
         "first directory header record names \"r\"", Rec("dir:/")},
        {"header with an owner", nullptr,
         [](std::string& b, const FakeFile& f) { Put32At(b, f.recordPos.at("dir:/b") + 4, 5); },
         "non-zero fields", Rec("dir:/b")},
        {"file count", nullptr,
         [](std::string& b, const FakeFile& f) { Put32At(b, f.recordPos.at("dir:/a") + 24, 3); },
         "counts 3 files, but 2 file records", Rec("dir:/a", 24)},
        {"subdirectory count", nullptr,
         [](std::string& b, const FakeFile& f) { Put32At(b, f.recordPos.at("dir:/") + 28, 2); },
         "counts 2 subdirectories, but 3", Rec("dir:/", 28)},
        {"byte total", nullptr,
         [](std::string& b, const FakeFile& f) { Put64At(b, f.recordPos.at("dir:/a/c") + 32, 1); },
         "counts 1 bytes of files, but its file records add up to 0", Rec("dir:/a/c", 32)},
        {"slash in a name", nullptr, [](std::string& b, const FakeFile& f) { b[f.recordPos.at("/f1") + 48] = '/'; },
         "not a directory entry name", Rec("/f1", 48)},
        {"unterminated name", nullptr,
         [](std::string& b, const FakeFile& f) { b[f.recordPos.at("/h1") + 50] = 'x'; },
         "record name does not end in a zero byte", Rec("/h1", 48)},
        {"zero inside a target", nullptr,
         [](std::string& b, const FakeFile& f) { b[f.recordPos.at("/l") + 48 + 2 + 3] = 0; },
         "link target holds a zero byte", Rec("/l", 50)},
        {"symbolic-link flag", nullptr,
         [](std::string& b, const FakeFile& f) { Put32At(b, f.recordPos.at("/l"), 0x80000000); },
         "symbolic-link flag does not match", Rec("/l")},
        {"hard-link flag", nullptr,
         [](std::string& b, const FakeFile& f) { Put32At(b, f.recordPos.at("/h1"), 0x80000000); },
         "link count 2 without the hard-link flag", Rec("/h1")},
        {"target on a file", nullptr,
         [](std::string& b, const FakeFile& f) { Put16At(b, f.recordPos.at("/f1") + 46, 1); },
         "has a link target but is not a symbolic link", Rec("/f1", 46)},
        {"subdirectory out of order",
         [](FakeScan& s) {
             std::swap(s.dirs[1], s.dirs[3]);
             std::swap(s.dirs[2], s.dirs[3]);
         },
         nullptr, "directory header record \"/a\" is out of walk order", Rec("dir:/a")},
        {"subdirectory walked twice", [](FakeScan& s) { s.dirs.push_back({"/a", {}}); }, nullptr,
         "out of walk order",
         [](const FakeFile& f) { return f.endMarkerPos - 48 - 3; }},
        {"directory not listed", [](FakeScan& s) { s.dirs.push_back({"/z", {}}); }, nullptr,
         "\"/z\" is out of walk order: not a subdirectory entry of \"/\"", Rec("dir:/z")},
        {"parent not open", [](FakeScan& s) { s.dirs.push_back({"/q/r", {}}); }, nullptr,
         "its parent is not a directory the walk is in", Rec("dir:/q/r")},
        {"file count total", nullptr, [](std::string& b, const FakeFile&) { Put32At(b, 88 + 56, 5); },
         "fileCount is 5, but there are 6", At(88 + 56)},
        {"symlink total", nullptr, [](std::string& b, const FakeFile&) { Put32At(b, 88 + 64, 0); },
         "symlinkCount is 0", At(88 + 64)},
        {"hard-link total", nullptr, [](std::string& b, const FakeFile&) { Put32At(b, 88 + 60, 5); },
         "hardLinkCount is 5", At(88 + 60)},
        {"size total counts inode 77 twice", nullptr,
         [](std::string& b, const FakeFile&) { Put64At(b, 88, 16556 + 50); }, "totalFileSize is 16606", At(88)},
        {"directory total", nullptr, [](std::string& b, const FakeFile&) { Put32At(b, 88 + 48, 3); },
         "dirCount is 3, fewer than the 4", At(88 + 48)},
        {"empty directory total", nullptr, [](std::string& b, const FakeFile&) { Put32At(b, 88 + 52, 2); },
         "emptyDirCount is 2", At(88 + 52)},
        {"table offset", nullptr, [](std::string& b, const FakeFile& f) { Put64At(b, 40, f.tablePos + 24); },
         "hardLinkTableOffset", At(40)},
        {"end marker", nullptr, [](std::string& b, const FakeFile& f) { b[f.endMarkerPos + 10] = 0; },
         "end marker is not 48 bytes of 0xFF", [](const FakeFile& f) { return f.endMarkerPos + 10; }},
        {"no end marker", nullptr, [](std::string& b, const FakeFile& f) { b.resize(f.endMarkerPos); },
         "file ends without an end marker", [](const FakeFile& f) { return f.endMarkerPos; }},
        {"second end marker", nullptr, [](std::string& b, const FakeFile&) { b.append(48, '\xFF'); },
         "unexpected bytes after the hard-link table", [](const FakeFile& f) { return f.bytes.size(); }},
        {"link record", nullptr,
         [](std::string& b, const FakeFile& f) { Put64At(b, f.tablePos + 24 * 2 + 16, f.recordPos.at("/x")); },
         "hard-link entry 2: recordPos", [](const FakeFile& f) { return f.tablePos + 24 * 2 + 16; }},
        {"link directory", nullptr,
         [](std::string& b, const FakeFile& f) { Put64At(b, f.tablePos + 24 * 4 + 8, f.recordPos.at("dir:/")); },
         "hard-link entry 4: parentDirPos", [](const FakeFile& f) { return f.tablePos + 24 * 4 + 8; }},
        {"link chain", nullptr, [](std::string& b, const FakeFile& f) { Put64At(b, f.tablePos + 24 * 4, 0); },
         "prevEntry is 0, expected 24", [](const FakeFile& f) { return f.tablePos + 24 * 4; }},
    };
    ScopedTempDir dir;
    int n = 0;
    for (const Case& c : cases) {
        std::string path = dir / (std::to_string(n++) + ".dtl");  // a new file each: rewriting one is slow
        FakeScan scan = SampleScan();
        if (c.scanEdit) c.scanEdit(scan);
        FakeFile f = BuildDetail(scan);
        std::string bytes = f.bytes;
        if (c.byteEdit) c.byteEdit(bytes, f);
        WriteFile(path, bytes);
        DtlFault fault;
        ASSERT_FALSE(DtlCheckFile(path.c_str(), &fault)) << c.name;
        EXPECT_NE(fault.message.find(c.message), std::string::npos) << c.name << ": " << fault.message;
        EXPECT_EQ(fault.offset, c.where(f)) << c.name << ": " << fault.message;
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

TEST(DtlReadTest, ReportsAFileThatCannotBeOpened) {
    ScopedTempDir dir;
    DtlFault fault;
    EXPECT_FALSE(DtlCheckFile((dir / "missing.dtl").c_str(), &fault));
    EXPECT_EQ(fault.message, "cannot open: No such file or directory");
}

}  // namespace
