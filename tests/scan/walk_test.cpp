// The walk end to end: real trees in fresh directories, scanned by the real
// program, checked through the detail-file reader, against detail files built
// byte by byte from an independent walk, and on the exact log lines.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "support/numfmt.h"
#include "tests/reader/scantree.h"
#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"
#include "tests/support/treebuilder.h"

namespace {

using T = TreeItem;

// What an unfiltered scan of root must record, found independently of the
// program: the tests' own walk (in the scan's order, lstat only) and readlink.
FakeScan ExpectedScan(const std::string& root, const std::string& tag) {
    utsname node;
    uname(&node);
    FakeScan scan;
    scan.nodeName = node.nodename;
    scan.tag = tag;
    scan.rootPath = root;
    std::map<std::string, std::vector<FakeEntry>> listed;  // by directory, in listing order
    for (SeenEntry e : WalkTree(root)) {
        char target[PATH_MAX];
        ssize_t n = 0;
        if (S_ISLNK(e.st.st_mode)) {
            // Reading a link may move its access time once, as listing a
            // directory does (which WalkTree's second walk sees).
            n = readlink((root + e.path).c_str(), target, sizeof target);
            lstat((root + e.path).c_str(), &e.st);
        }
        listed[e.dir].push_back({.name = e.name, .mode = e.st.st_mode, .size = static_cast<uint64_t>(e.st.st_size),
                                 .links = static_cast<uint32_t>(e.st.st_nlink),
                                 .inode = static_cast<uint32_t>(e.st.st_ino),
                                 .target = std::string(target, n > 0 ? static_cast<size_t>(n) : 0),
                                 .uid = e.st.st_uid, .gid = e.st.st_gid,
                                 .ctime = static_cast<uint32_t>(e.st.st_ctim.tv_sec),
                                 .atime = static_cast<uint32_t>(e.st.st_atim.tv_sec),
                                 .mtime = static_cast<uint32_t>(e.st.st_mtim.tv_sec)});
    }
    // A directory's header record, then its subdirectories' in listing order.
    std::function<void(const std::string&)> add = [&](const std::string& dir) {
        scan.dirs.push_back({dir, listed[dir]});
        for (const FakeEntry& e : listed[dir])
            if (S_ISDIR(e.mode)) add((dir == "/" ? "/" : dir + "/") + e.name);
    };
    add("/");
    return scan;
}

TEST(Walk, RecordsEveryKindOfEntryAsTheFileSystemGivesIt) {
    RunDirs ws;
    MakeTree(ws.root, {{T::DIR, "a"}, {T::DIR, "a/b"}, {T::DIR, "a/b/c"}, {T::DIR, "empty"},
                       {T::FILE, "f", "hello"}, {T::HARDLINK, "a/f2", "f"}, {T::HARDLINK, "a/b/f3", "f"},
                       {T::FIFO, "a/pipe"}, {T::SYMLINK, "to-file", "f"}, {T::SYMLINK, "to-dir", "a"},
                       {T::SYMLINK, "dangling", "no/such/target"}, {T::FILE, "with blank", "x"},
                       {T::FILE, "new\nline", "yy"}, {T::FILE, "raw\xff\xfe", "zzz"},
                       {T::FILE, "a/b/c/caf\xc3\xa9", ""}, {T::SPARSE, "a/big", "", 5000000000}});
    FakeScan expected = ExpectedScan(ws.root, "abc");
    RunResult run = ws.Scan({"-tag", "abc"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");
    // Every byte as the independent walk and builder lay it down: the link to
    // a directory not followed, the 64-bit size, the three names of f chained
    // in the hard-link table, the tag and its completion flag. The run time
    // and the volume figures are taken from the file.
    const std::string dtl = ReadFile(ws.work + "/out.dtl");
    ASSERT_GE(dtl.size(), 284u);
    std::string built = BuildDetail(expected).bytes;
    built.replace(8, 4, dtl, 8, 4);
    built.replace(88 + 104, 16, dtl, 88 + 104, 16);
    EXPECT_TRUE(dtl == built) << FirstDifference(dtl, built);
}

TEST(Walk, TemplatesSelectDirectoriesByLogicalPathAndFilesByName) {
    RunDirs ws;
    MakeTree(ws.root, {{T::FILE, "top.c", "1"}, {T::FILE, "notes.txt", "22"}, {T::FILE, "main.c", "333"},
                       {T::DIR, "src"}, {T::FILE, "src/a.c", "4444"}, {T::FILE, "src/b.o", "55555"},
                       {T::DIR, "src/tmp"}, {T::FILE, "src/tmp/t.c"}, {T::DIR, "src/sub"},
                       {T::FILE, "src/sub/s.c", "666666"}, {T::DIR, "build"}, {T::FILE, "build/x.c"}});
    WriteFile(ws.work + "/scan.cfg",
              "[ScanRoot]\nincludedirs = /s~\nexcludedirs = /src/tmp\nincludefiles = *.c\nincludefiles = *.h\n"
              "excludefiles = top*\n");
    RunResult run = ws.Scan({"-cfg", "scan.cfg", "-p"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.err, "");

    ReadBack d = ReadDetail(ws.work + "/out.dtl");
    ASSERT_TRUE(d.sound) << d.fault.message;
    // Rejected directories keep their entry records and count as their
    // parent's subdirectories, but are not entered; rejected files vanish.
    EXPECT_EQ(std::multiset<std::string>(d.records.begin(), d.records.end()),
              (std::multiset<std::string>{"dir / 1/2/3", "entry /main.c", "entry /src", "entry /build",
                                         "dir /src 1/2/4", "entry /src/a.c", "entry /src/tmp", "entry /src/sub",
                                         "dir /src/sub 1/0/6", "entry /src/sub/s.c", "end"}));
    // The root's part of the log: heading, templates, the directories as
    // they were entered (-p), and the totals, which count the selected files
    // and every directory entry's size; the volume figures are the file's.
    uint64_t total = 3 + 4 + 6;
    for (const char* dir : {"/src", "/build", "/src/tmp", "/src/sub"}) {
        struct stat st;
        ASSERT_EQ(lstat((ws.root + dir).c_str(), &st), 0);
        total += static_cast<uint64_t>(st.st_size);
    }
    auto metric = [](uint64_t value) {
        char buf[NUM_BUF_SIZE];
        return std::string(EditValueMetric(value, buf));
    };
    const std::string log = run.out.substr(std::min(run.out.find("Root path: "), run.out.size()));
    EXPECT_EQ(log.substr(0, log.find("\nEnd time: ")),
              "Root path: " + ws.root + " (local filesystem)\n\n Include dirs: /s~\n Exclude dirs: /src/tmp\n"
              "Include files: *.h, *.c\nExclude files: top*\n\n\n/\n/src\n/src/sub\n---- Totals ----\n\n"
              "\tDirectories: 3\n\tFiles: 3\n\tVolume capacity: " + metric(d.root.volumeCapacity) +
              "\n\tTotal file size: " + metric(total) + "\n\tAvailable space: " + metric(d.root.availableSpace) +
              "\n\tHard links: 4\n");
}

// Directories that the walk does not enter, because they cannot be opened or
// lie deeper than 100 levels, are recorded and counted in their parent and
// reported, and the walk goes on; one whose entries cannot be examined is
// entered, and is not empty.
TEST(Walk, DirectoriesNotEnteredAreReportedAndTheWalkGoesOn) {
    RunDirs ws;
    MakeTree(ws.root, {{T::DIR, "locked"}, {T::FILE, "locked/secret", "s"}, {T::DIR, "noexec"},
                       {T::FILE, "noexec/x", "x"}, {T::DIR, "open"}, {T::FILE, "open/f", "data"}});
    chmod((ws.root + "/locked").c_str(), 0);     // cannot be opened
    chmod((ws.root + "/noexec").c_str(), 0444);  // listed, but its entries cannot be examined
    // Levels 2 to 101 below the root (level 1); the last one holds a file.
    const std::string deepest = MakeChain(ws.root, "d", 100);
    WriteFile(deepest + "/lost", "");
    RunResult run = ws.Scan({}, {.unprivileged = true});
    ASSERT_EQ(run.status, 0) << run.err;
    std::string errors = run.err;
    for (const std::string& error : {"Unable to open directory '" + ws.root + "/locked'\n  (p13) Permission denied\n",
                                     "Could not stat() '" + ws.root + "/noexec/x'\n  (p13) Permission denied\n",
                                     "Directory '" + deepest + "' is nested deeper than 100 levels and was not entered\n"}) {
        size_t at = errors.find(error);
        ASSERT_NE(at, std::string::npos) << error;
        errors.erase(at, error.size());
    }
    EXPECT_EQ(errors, "");

    ReadBack d = ReadDetail(ws.work + "/out.dtl");
    ASSERT_TRUE(d.sound) << d.fault.message;
    // locked and level 101 recorded in their parents but not entered; noexec
    // entered, without its entry; the walk went on to open.
    std::multiset<std::string> expected = {"dir / 0/4/0", "entry /locked", "entry /noexec", "entry /open",
                                           "entry /d", "dir /noexec 0/0/0", "dir /open 1/0/4", "entry /open/f", "end"};
    for (std::string dir = "/d"; dir.size() < deepest.size() - ws.root.size(); dir += "/d")
        expected.insert({"dir " + dir + " 0/1/0", "entry " + dir + "/d"});
    EXPECT_EQ(std::multiset<std::string>(d.records.begin(), d.records.end()), expected);
    EXPECT_EQ(d.root.dirCount, 104u);       // the root, locked, noexec, open, the chain: counted like any other
    EXPECT_EQ(d.root.emptyDirCount, 0u);
}

TEST(Walk, AnAccessPathLongerThan4095BytesEndsTheRun) {
    RunDirs ws;
    std::string name(200, 'n');
    // The twentieth directory's access path still fits; the entry of the
    // twenty-first in it would not.
    std::string deepest = MakeChain(ws.root, name, 21);
    RunResult run = ws.Scan();
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "Access path longer than 4095 bytes: '" + deepest + "'\n");
    EXPECT_EQ(ReadFile(ws.work + "/out.dtl").substr(0, 4), "IDTL");
}

TEST(Walk, AFailedWriteOfTheDetailFileEndsTheRunAndLeavesItUnfinished) {
    RunDirs ws;
    for (int i = 0; i < 300; i++) WriteFile(ws.root + "/" + std::to_string(i) + std::string(150, 'x'), "");
    RunResult run = ws.Scan({}, {.fileSizeLimit = 20000});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err, "Unable to write audit detail file 'out.dtl'\n  (p27) File too large\n");
    std::string dtl = ReadFile(ws.work + "/out.dtl");
    EXPECT_EQ(dtl.size(), 20000u);
    EXPECT_EQ(dtl.substr(0, 4), "IDTL");
    EXPECT_EQ(run.out.find("---- Totals"), std::string::npos);
}

}  // namespace
