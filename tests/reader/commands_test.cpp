// dtldump's report commands as people and scripts run them: the command
// line (the dump's and the HTML report's too), the tables and JSON, CSV and
// NDJSON read back by real parsers, and damaged or unfinished files.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <set>
#include <sstream>

#include "detail/compress.h"
#include "reader/dtlread.h"
#include "reader/textout.h"
#include "tests/reader/scantree.h"
#include "tests/support/dtlbuilder.h"
#include "tests/support/treebuilder.h"

namespace {

using T = TreeItem;

const char* const JSON_FIELDS = R"(import json, sys
doc = json.loads(sys.stdin.buffer.read())
def walk(v, key=''):
    if isinstance(v, dict):
        for k, x in v.items(): walk(x, key + '.' + k if key else k)
    elif isinstance(v, list):
        for i, x in enumerate(v): walk(x, key + '[' + str(i) + ']')
    else:
        print(key + '=' + json.dumps(v, ensure_ascii=False))
walk(doc))";

// A scan with a directory whose name needs escaping in every format.
FakeScan OddScan() {
    FakeScan s = SampleScan();
    const std::string odd = "o,d\"d\nname\xff";
    s.dirs[0].entries.push_back({.name = odd, .mode = S_IFDIR | 0755, .size = 4096, .links = 2, .inode = 30});
    s.dirs.push_back(
        {"/" + odd, {{.name = "big.Bin", .size = 70000, .inode = 31, .atime = 1500000000, .mtime = 1500000000}}});
    return s;
}

TEST(DtldumpCommands, ReadTheCommandLineAsDocumented) {
    ScopedTempDir dir;
    const FakeFile sample = BuildDetail(SampleScan());
    const std::string sound = dir / "s.dtl", cut = dir / "cut.dtl", page = dir / "page.html";
    WriteFile(sound, sample.bytes);
    WriteFile(dir / "top", sample.bytes);  // a file named like a command
    FakeScan elsewhere = SampleScan();
    elsewhere.rootPath = "/elsewhere";
    WriteFile(dir / "other.dtl", BuildDetail(elsewhere).bytes);
    WriteFile(cut, sample.bytes.substr(0, sample.recordPos.at("dir:/b") + 30));
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out, err;  // each must be found in its stream
        bool written = false;  // page.html exists afterwards
    } cases[] = {
        {{"--help"}, 0, "  top      the largest directories", ""},
        {{"top", "--help"}, 0, "write ./top for a file named top", ""},
        {{"./top"}, 0, "Structure: sound", ""},
        {{"--", "top"}, 0, "Structure: sound", ""},
        {{"top", "-n1", "--depth=0", "s.dtl"}, 0, "/data\n", ""},
        {{"top"}, 1, "", "dtldump: top takes one or more detail files\nusage:"},
        {{"trend"}, 1, "", "dtldump: trend takes one or more detail files\nusage:"},
        {{"export", "s.dtl", "s.dtl"}, 1, "", "dtldump: export takes one detail file\nusage:"},
        {{"top", "--scan-columns", "s.dtl"}, 1, "", "option '--scan-columns' does not apply to top"},
        {{"html", "s.dtl", "--history"}, 1, "", "option '--history' needs the files of earlier scans"},
        {{"trend", "s.dtl", "other.dtl"}, 1, "",
         "dtldump: trend follows one tree (one root on one node) from scan to scan: s.dtl is of \"/data\" on "},
        {{"html", "s.dtl", "--history", "other.dtl"}, 1, "", "other.dtl is of \"/elsewhere\" on "},
        {{"diff", "s.dtl"}, 1, "", "diff takes two detail files: OLD NEW"},
        {{"top", "--by", "bogus", "s.dtl"}, 1, "", "--by takes size or entries, not 'bogus'"},
        {{"owners", "--depth", "2", "s.dtl"}, 1, "", "option '--depth' does not apply to owners"},
        {{"export", "--format=xml", "s.dtl"}, 1, "", "--format takes csv or ndjson, not 'xml'"},
        {{"age", "--buckets", "1y,1m", "s.dtl"}, 1, "", "ages must grow from left to right: '1m' follows '1y'"},
        {{"age", "--cold", "soon", "s.dtl"}, 1, "", "'soon' is not an age such as 30d, 6m or 2y"},
        {{"top", "-n", "x", "s.dtl"}, 1, "", "'x' is not a count"},
        {{"top", "--bogus", "s.dtl"}, 1, "", "unknown option '--bogus'"},
        {{"top", "--partial=yes", "s.dtl"}, 1, "", "option '--partial' takes no value"},
        {{"types", "missing.dtl"}, 1, "", "dtldump: missing.dtl: cannot open: No such file or directory\n"},
        {{"html", "s.dtl", "--output", page}, 0, "", "", true},
        {{"html", "--json", "s.dtl"}, 1, "", "option '--json' does not apply to html"},
        {{"html", "--colour", "red", "s.dtl"}, 1, "", "--colour takes top or age, not 'red'"},
        {{"html", "--min-share", "101", "s.dtl"}, 1, "", "--min-share takes a percentage from 0 to 100, not '101'"},
        {{"html", "--min-share", "1%", "s.dtl"}, 1, "", "not '1%'"},
        {{"html", "-o", page, "cut.dtl"}, 1, "", "dtldump: cut.dtl: offset "},
        {{"html", "-o", "missing/page.html", "s.dtl"}, 1, "", "dtldump: cannot write missing/page.html"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.args));
        unlink(page.c_str());
        RunResult run = RunDtldump(c.args, {.cwd = dir.path});
        EXPECT_EQ(run.status, c.status) << run.err;
        EXPECT_NE(run.out.find(c.out), std::string::npos) << run.out.substr(0, 200);
        EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
        EXPECT_EQ(PathExists(page), c.written);
        if (c.status || c.written) {
            EXPECT_EQ(run.out, "");
        }
    }
    // A page that cannot be written whole is removed.
    RunResult cutShort = RunDtldump({"html", "-o", page, sound}, {.fileSizeLimit = 4096});
    EXPECT_EQ(cutShort.status, 1);
    EXPECT_EQ(cutShort.err, "dtldump: cannot write " + page + ": File too large\n");
    EXPECT_FALSE(PathExists(page));
    // What the page's options change on it.
    RunResult options = RunDtldump({"html", "--colour", "age", "--min-share", "2.5", sound});
    EXPECT_NE(options.out.find("\"minShare\": 0.025, \"colour\": \"age\""), std::string::npos);
    EXPECT_NE(options.out.find("of at least 2.5 % of the root"), std::string::npos);
}

// The tables and JSON of each report on a built file whose figures are
// known: rows as they read with their blanks collapsed, JSON members. The
// dump and every report of the file compressed are those of the plain one
// but for the file's name and its compressed mark; the file stays as it was.
TEST(DtldumpCommands, PrintTablesAndJsonOfTheFiguresPlainOrCompressed) {
    ScopedTempDir dir;
    std::string plain = dir / "plain.dtl", packed = dir / "packed.dtl";
    WriteFile(plain, BuildDetail(OddScan()).bytes);
    ASSERT_EQ(compressFile(plain.c_str(), packed.c_str()), 0);
    const std::string packedBytes = ReadFile(packed);
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> rows;  // in the text, blanks collapsed
        std::vector<std::string> json;  // members of the --json output, flattened
    } cases[] = {
        {{}, {}, {}},  // the dump
        {{"top"},
         {"SIZE BYTES ENTRIES FILES DIRS PATH", "88.5 KiB 90648 12 7 5 /data",
          "68.4 KiB 70000 1 1 0 /data/o,d\"d\\nname\\xff", "4.01 KiB 4103 3 2 1 /data/a",
          "Largest directories by size"},
         {"totalFileSize=90648", "directories[0].bytes=90648",
          "directories[1].path=\"/data/o,d\\\"d\\nname\xEF\xBF\xBD\"",
          "directories[1].logicalPath=\"/o,d\\\"d\\nname\xEF\xBF\xBD\"", "directories[2].entries=3",
          "directories[2].dirs=1", "partial=null", "complete=true"}},
        {{"top", "--by", "entries", "--depth", "0"}, {"88.5 KiB 90648 12 7 5 /data"}, {"by=\"entries\"", "depth=0"}},
        {{"owners"},
         {"UID USER ENTRIES FILES DIRS SIZE BYTES", "GID GROUP ENTRIES FILES DIRS SIZE BYTES"},
         {"users[0].id=1000", "users[0].files=7", "groups[0].id=100", "usersOthers=null"}},
        {{"owners", "-n", "0"}, {"(1 more) 12 7 5 88.5 KiB 90648"}, {"usersOthers.count=1", "usersOthers.bytes=90648"}},
        {{"types"},
         {"file 5 68.5 KiB 70157", "directory 5 20.0 KiB 20480", "symbolic link 1 11 B 11", "other 1 0 B 0",
          "(none) 4 157 B 157 0.2%", ".bin 1 68.4 KiB 70000 99.8%"},
         {"kinds[0].kind=\"file\"", "kinds[0].entries=5", "extensions[0].extension=\"bin\"", "extensions[1].files=4"}},
        {{"age", "--buckets", "1d,10y"},
         {"AGE MODIFIED SIZE BYTES ACCESSED SIZE BYTES", "< 1d 6 168 B 168 6 168 B 168",
          "1d - 10y 1 68.4 KiB 70000 1 68.4 KiB 70000", ">= 10y 0 0 B 0 0 0 B 0", "68.4 KiB 70000 1 77.2% /data",
          "68.4 KiB 70000 1 100.0% /data/o,d\"d\\nname\\xff"},
         {"modified[1].fromSec=86400", "modified[1].toSec=315576000", "modified[2].toSec=null", "accessed[0].files=6",
          "coldDirectories[0].coldBytes=70000", "coldDirectories[1].coldFiles=1", "cold=\"1y\""}},
        {{"export"}, {}, {}},
        {{"diff"}, {}, {}},
    };
    for (const Case& c : cases) {
        for (bool json : {false, true}) {
            SCOPED_TRACE(testing::PrintToString(c.args) + (json ? " --json" : ""));
            auto args = [&](const std::string& path) {
                std::vector<std::string> a = c.args;
                if (json) a.insert(a.begin() + !a.empty(), "--json");
                a.push_back(path);
                if (a[0] == "diff") a.push_back(path);
                return a;
            };
            RunResult run = RunDtldump(args(plain)), b = RunDtldump(args(packed));
            ASSERT_EQ(run.status, 0) << run.err;
            ASSERT_EQ(b.status, 0) << b.err;
            std::string got = Rows(json && !c.json.empty() ? Python(JSON_FIELDS, run.out) : run.out);
            for (const std::string& want : json ? c.json : c.rows)
                EXPECT_NE(got.find("\n" + want + "\n"), std::string::npos) << want << "\nin\n" << run.out;
            std::string expected = run.out;
            for (size_t at; (at = expected.find("plain.dtl")) != std::string::npos;) {
                expected.replace(at, 9, "packed.dtl");
                expected.insert(expected.find_first_of(",\n", at), json ? "" : " (compressed)");
            }
            for (size_t at = 0; (at = expected.find("\"compressed\": false", at)) != std::string::npos;)
                expected.replace(at, 19, "\"compressed\": true");
            EXPECT_EQ(b.out, expected);
        }
    }
    EXPECT_EQ(ReadFile(packed), packedBytes);
}

// What the export must say of one entry, from the test's walk: the exact
// path and target bytes in hexadecimal, then every other column.
std::string ExpectedRow(const std::string& root, const SeenEntry& e) {
    std::string full = root + e.path, target(PATH_MAX, '\0'), fullHex, targetHex;
    target.resize(S_ISLNK(e.st.st_mode) ? std::max<ssize_t>(readlink(full.c_str(), target.data(), PATH_MAX), 0) : 0);
    AppendHex(&fullHex, full);
    AppendHex(&targetHex, target);
    auto iso = [](time_t t) {
        char text[32];
        struct tm tm;
        strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", gmtime_r(&t, &tm));
        return Cat(text, " ", std::to_string(t));
    };
    char mode[8];
    snprintf(mode, sizeof mode, "%04o", e.st.st_mode & 07777);
    return Cat(fullHex, " ", KindName(e.st.st_mode), " ", std::to_string(e.st.st_uid), " ", std::to_string(e.st.st_gid),
               " ", mode, " ", std::to_string(e.st.st_size), " ", std::to_string(e.st.st_nlink), " ",
               std::to_string(static_cast<uint32_t>(e.st.st_ino)), " ", e.counted ? "True" : "False", " ",
               iso(e.st.st_mtime), " ", iso(e.st.st_atime), " ", iso(e.st.st_ctime), " ", targetHex);
}

// Reads CSV or NDJSON with the real parser of each and prints each row the
// way ExpectedRow does.
const char* const READ_EXPORT = R"(import csv, io, json, sys
text = sys.stdin.buffer.read().decode('utf-8')  # strict: the export is always UTF-8
ndjson = text.startswith('{')
rows = [json.loads(line) for line in text.splitlines()] if ndjson else csv.DictReader(io.StringIO(text, newline=''))
def raw(r, key):
    return bytes.fromhex(r[key + 'Hex']) if r.get(key + 'Hex') else r.get(key, '').encode()
for r in rows:
    print(raw(r, 'path').hex(), r['kind'], r['uid'], r['gid'], r['mode'], r['size'], r['links'], r['inode'],
          r['counted'] is True if ndjson else r['counted'] == 'true', r['mtime'], r['mtimeSec'], r['atime'],
          r['atimeSec'], r['ctime'], r['ctimeSec'], raw(r, 'target').hex()))";

TEST(DtldumpCommands, ExportIsReadBackByRealParsersWhateverTheNames) {
    RunDirs space;
    MakeTree(space.root, {{T::FILE, "comma,name", "1"},
                          {T::FILE, "quote\"name", "22"},
                          {T::FILE, "new\nline", "333"},
                          {T::FILE, "cr\rname", ""},
                          {T::FILE, "tab\tname", ""},
                          {T::FILE, "bad\377byte", "4444"},
                          {T::FILE, "caf\xc3\xa9", ""},
                          {T::FILE, "=1+2", ""},
                          {T::FILE, "back\\slash", ""},
                          {T::DIR, "dir,odd\xfe"},
                          {T::FILE, "dir,odd\xfe/inner\"file", "55555"},
                          {T::HARDLINK, "dir,odd\xfe/again", "comma,name"},
                          {T::SYMLINK, "link\xfe", "tar,get\n\xff"},
                          {T::SYMLINK, "plain-link", "comma,name"},
                          {T::FIFO, "pipe"}});
    const std::vector<SeenEntry> seen = WalkTree(space.root);
    std::string file = ScanTree(space, "scan.dtl");
    std::multiset<std::string> expected;
    for (const SeenEntry& e : seen) expected.insert(ExpectedRow(space.root, e));
    for (std::vector<std::string> args :
         {std::vector<std::string>{"export"}, {"export", "--format", "ndjson"}, {"export", "--json"}}) {
        SCOPED_TRACE(testing::PrintToString(args));
        args.push_back(file);
        RunResult run = RunDtldump(args);
        ASSERT_EQ(run.status, 0) << run.err;
        EXPECT_EQ(run.err, "");
        std::istringstream got(Python(READ_EXPORT, run.out));
        std::multiset<std::string> rows;
        for (std::string line; std::getline(got, line);) rows.insert(line);
        EXPECT_EQ(rows, expected);
    }
}

TEST(DtldumpCommands, RefuseDamagedAndUnfinishedFilesUnlessPartial) {
    // A real unfinished file: the scan could not write past 20,000 bytes.
    RunDirs space;
    for (int i = 0; i < 300; i++) WriteFile(space.root + "/" + std::to_string(i) + std::string(150, 'x'), "");
    ASSERT_EQ(space.Scan({}, {.fileSizeLimit = 20000}).status, 1);
    const std::string unfinished = space.work + "/out.dtl";
    const ReadBack u = ReadDetail(unfinished, {.acceptUnfinished = true});  // how far it goes is the reader's test
    const size_t unfinishedEntries = std::count_if(u.records.begin(), u.records.end(),
                                                   [](const std::string& r) { return r.rfind("entry ", 0) == 0; });
    ASSERT_GT(unfinishedEntries, 50u);

    // A damaged one: which fault it has is the reader's test.
    const FakeFile sample = BuildDetail(SampleScan());
    ScopedTempDir dir;
    const std::string sound = dir / "sound.dtl", cut = dir / "cut.dtl", elsewhere = dir / "elsewhere.dtl";
    WriteFile(sound, sample.bytes);
    FakeScan other = SampleScan();
    other.rootPath = "/elsewhere";
    WriteFile(elsewhere, BuildDetail(other).bytes);
    WriteFile(cut, sample.bytes.substr(0, sample.recordPos.at("dir:/b") + 30));
    struct Input {
        std::string path;
        size_t entries;        // entry records before the fault
        std::string noteSays;  // besides the number of entries; "" for the fault's message
    } inputs[] = {{unfinished, unfinishedEntries, "the scan that wrote this file did not complete"}, {cut, 9, ""}};
    for (const Input& in : inputs) {
        DtlFault fault;
        ASSERT_FALSE(DtlCheckFile(in.path.c_str(), &fault));
        const std::string refusal =
            "dtldump: " + in.path + ": offset " + std::to_string(fault.offset) + ": " + fault.message + "\n";
        // Among several files the faulty one is named; trend takes it twice, as one tree's scans.
        for (const char* command : {"top", "owners", "age", "types", "export", "diff", "html", "trend", "several"}) {
            SCOPED_TRACE(std::string(command) + " " + in.path);
            std::vector<std::string> args = {command, in.path};
            if (args[0] == "diff") args.insert(args.begin() + 1, {"--force", sound});
            if (args[0] == "trend") args.push_back(in.path);
            if (args[0] == "several") args = {"types", elsewhere, in.path};
            RunResult refused = RunDtldump(args);
            EXPECT_EQ(refused.status, 1);
            EXPECT_EQ(refused.err, refusal);
            if (args[0] != "export") {
                EXPECT_EQ(refused.out, "");
            }

            args.insert(args.begin() + 1, "--partial");
            RunResult partial = RunDtldump(args);
            EXPECT_EQ(partial.status, 0) << partial.err;
            std::string note = args[0] == "export" ? partial.err : partial.out;
            EXPECT_NE(note.find("PARTIAL: "), std::string::npos) << note;
            EXPECT_NE(note.find(in.noteSays.empty() ? fault.message : in.noteSays), std::string::npos) << note;
            EXPECT_NE(note.find("cover only the " + std::to_string(in.entries) + " entry records"), std::string::npos)
                << note;
            if (args[0] == "export") {
                EXPECT_EQ(static_cast<size_t>(std::count(partial.out.begin(), partial.out.end(), '\n')),
                          1 + in.entries);
            }
        }
    }
}

TEST(DtldumpCommands, DiffComparesOnlyScansOfOneRootUnlessForced) {
    ScopedTempDir dir;
    FakeScan other = SampleScan();
    other.rootPath = "/elsewhere";
    other.dirs[1].entries.pop_back();  // "/a/caf\xe9", 7 bytes
    other.dirs[3].entries.push_back({.name = "added", .size = 1000, .inode = 40});
    WriteFile(dir / "a.dtl", BuildDetail(SampleScan()).bytes);
    WriteFile(dir / "b.dtl", BuildDetail(other).bytes);
    RunResult refused = RunDtldump({"diff", dir / "a.dtl", dir / "b.dtl"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(
        refused.err,
        "dtldump: the two scans are of different roots, \"/data\" and \"/elsewhere\"; --force compares them anyway\n");
    RunResult forced = RunDtldump({"diff", "--force", dir / "a.dtl", dir / "b.dtl"});
    ASSERT_EQ(forced.status, 0) << forced.err;
    // The totals, then each table whole, its rows in order.
    const std::string rows = Rows(forced.out);
    for (const char* row : {"total size 16.2 KiB 17.1 KiB +993 B +993 bytes", "entries 10 10 0",
                            "Directories: 1 unchanged, 3 changed, 0 appeared, 0 vanished"})
        EXPECT_NE(rows.find(std::string("\n") + row + "\n"), std::string::npos) << row << "\nin\n" << forced.out;
    const std::string header = "\nSIZE CHANGE BYTES ENTRIES SIZE BEFORE SIZE AFTER PATH\n";
    EXPECT_EQ(rows.substr(rows.find("Grew most")),
              "Grew most, by size\n" + header + "+1000 B +1000 +1 0 B 1000 B /elsewhere/b\n" +
                  "+993 B +993 0 16.2 KiB 17.1 KiB /elsewhere\n\nShrank most, by size\n" + header +
                  "-7 B -7 -1 4.01 KiB 4.00 KiB /elsewhere/a\n\nAppeared (the topmost of each new subtree; ENTRIES is "
                  "everything below it)\n\n(none)\n\nVanished (the topmost of each removed subtree)\n\n(none)\n");
}

}  // namespace
