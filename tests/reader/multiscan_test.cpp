// Reports over several scans on real trees: the sum of the scans of
// different trees, and the successive scans of one tree followed over time,
// each checked against what the test computes from its own walks.
#include "reader/multiscan.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>

#include "reader/textout.h"
#include "tests/reader/scantree.h"
#include "tests/support/treebuilder.h"

namespace {

using T = TreeItem;
constexpr int64_t DAY = 86400;

std::string NodeName() {
    utsname u;
    uname(&u);
    return u.nodename;
}

// Sets the start time a finished plain detail file records (the log
// header's runTime, at offset 8): the scans of a test are made within
// seconds, and the trend needs them days apart.
void SetRunTime(const std::string& path, uint32_t time) {
    int fd = open(path.c_str(), O_WRONLY);
    uint8_t bytes[4] = {uint8_t(time), uint8_t(time >> 8), uint8_t(time >> 16), uint8_t(time >> 24)};
    EXPECT_EQ(pwrite(fd, bytes, 4, 8), 4) << path;
    close(fd);
}

TEST(MultiScan, SumsTheScansOfSeveralTreesAsTheirTreesAddUp) {
    if (geteuid() != 0) GTEST_SKIP() << "the owners need chown, which needs root";
    RunDirs a, b;
    MakeTree(a.root, {{T::DIR, "big"},
                      {T::FILE, "big/data", std::string(90000, 'd')},
                      {T::HARDLINK, "big/data-again", "big/data"},
                      {T::DIR, "big/inner"},
                      {T::FILE, "big/inner/log", std::string(7000, 'l')},
                      {T::FILE, "small.txt", "12345"},
                      {T::SYMLINK, "link", "big"},
                      {T::DIR, "empty"}});
    MakeTree(b.root, {{T::DIR, "o,d\"d\nname\xff"},
                      {T::FILE, "o,d\"d\nname\xff/f.TXT", std::string(50000, 'f')},
                      {T::DIR, "plain"},
                      {T::FILE, "plain/g.txt", std::string(3000, 'g')},
                      {T::FIFO, "pipe"}});
    ASSERT_EQ(lchown((a.root + "/big/inner/log").c_str(), 1001, 2002), 0);
    ASSERT_EQ(lchown((b.root + "/plain/g.txt").c_str(), 1001, 4343), 0);
    ASSERT_EQ(lchown((b.root + "/pipe").c_str(), 4242, 0), 0);
    const std::vector<std::vector<SeenEntry>> seen = {WalkTree(a.root), WalkTree(b.root)};
    const std::string fileA = ScanTree(a, "a.dtl"), fileB = ScanTree(b, "b.dtl");
    const std::map<std::string, Tally> dirs[] = {DirectoryFigures(seen[0]), DirectoryFigures(seen[1])};

    // The sum adds the two trees up.
    ReportOptions options{.dirs = true, .owners = true, .ages = true, .types = true};
    PrintOptions print;
    print.rows = 1000;
    ReportScan sum;
    std::string error;
    ASSERT_TRUE(ReadScans({fileA.c_str(), fileB.c_str()}, options, print, &sum, &error)) << error;
    ASSERT_EQ(sum.parts.size(), 2u);
    EXPECT_EQ(sum.totals.totalFileSize, dirs[0].at("/").bytes + dirs[1].at("/").bytes);
    EXPECT_EQ(sum.totals.entries, seen[0].size() + seen[1].size());
    std::map<uint32_t, Tally> owners[2];   // by uid, by gid
    Tally files, aged, kinds[KIND_COUNT];  // every file falls in one row of ages
    for (const auto& tree : seen)
        for (const SeenEntry& e : tree) {
            Count(&owners[0][e.st.st_uid], e);
            Count(&owners[1][e.st.st_gid], e);
            Count(&kinds[KindOf(e.st.st_mode)], e);
            if (!S_ISDIR(e.st.st_mode)) Count(&files, e);
        }
    for (const std::vector<OwnerRow>* got : {&sum.users, &sum.groups}) {
        std::map<uint32_t, Tally>& expected = owners[got == &sum.groups];
        ASSERT_EQ(got->size(), expected.size());
        for (size_t i = 0; i < got->size(); i++) {
            EXPECT_EQ((*got)[i].tally, expected[(*got)[i].id]) << (*got)[i].id;
            if (i) {
                EXPECT_GE((*got)[i - 1].tally.bytes, (*got)[i].tally.bytes);
            }
        }
    }
    for (int k = 0; k < KIND_COUNT; k++) EXPECT_EQ(sum.kinds[k], kinds[k]) << "kind " << k;
    for (const AgeRow& row : sum.ages) aged += row.modified;
    EXPECT_EQ(aged, files);

    // The command shows every directory with bytes below it, or the largest
    // of all, each named by node and path with its scan's figures: rows kept
    // from each scan must not lose one that ranks in the sum.
    std::vector<std::pair<Tally, std::string>> all;
    const std::string roots[] = {a.root, b.root}, node = NodeName();
    for (size_t part = 0; part < 2; part++)
        for (const auto& [path, t] : dirs[part]) {
            std::string cell = node + ":";
            AppendEscaped(&cell, FullPath(roots[part], path), false);
            if (t.bytes) all.emplace_back(t, cell);
        }
    std::sort(all.begin(), all.end(), [](const auto& x, const auto& y) { return x.first.bytes > y.first.bytes; });
    for (size_t n : {size_t{4}, all.size() + 1}) {
        RunResult top = RunDtldump({"top", "-n", std::to_string(n), fileA, fileB});
        std::string expected = "\n";
        for (size_t i = 0; i < std::min(n, all.size()); i++) {
            const auto& [t, path] = all[i];
            expected += Cat(HumanSize(t.bytes), " ", Number(t.bytes), " ", Number(t.entries), " ", Number(t.files), " ",
                            Number(t.entries - t.files), " ", path, "\n");
        }
        EXPECT_EQ(Rows(top.out.substr(top.out.rfind("PATH\n") + 5)), expected) << top.out;
    }

    // Scans of one tree are not summed: the same entries would count twice.
    std::filesystem::copy_file(fileA, a.work + "/again.dtl");
    RunResult twice = RunDtldump({"owners", fileB, fileA, a.work + "/again.dtl"});
    EXPECT_EQ(twice.status, 1);
    EXPECT_EQ(twice.err, "dtldump: " + fileA + " and " + a.work + "/again.dtl are successive scans of one tree, \"" +
                             a.root + "\" on \"" + node +
                             "\": their figures are not summed; dtldump trend follows one tree from scan to scan\n");
    EXPECT_EQ(twice.out, "");

    // Exported with the scan's columns, every row names its scan.
    for (const std::string* file : {&fileA, &fileB}) {
        RunResult csv = RunDtldump({"export", "--scan-columns", *file});
        ASSERT_EQ(csv.status, 0) << csv.err;
        ReportScan head;
        ASSERT_TRUE(ReadReport(file->c_str(), {}, &head));
        char started[24];
        *PutIsoTime(started, head.log.runTime) = '\0';
        EXPECT_EQ(Python("import csv, sys\n"
                         "rows = list(csv.DictReader(sys.stdin))\n"
                         "print(len(rows), len({(r['scanNode'], r['scanRoot'], r['scanStart'], r['scanStartSec'])"
                         " for r in rows}), rows[0]['scanNode'], rows[0]['scanRoot'], rows[0]['scanStart'],"
                         " rows[0]['scanStartSec'])",
                         csv.out),
                  Cat(Number(head.totals.entries), " 1 ", node, " ", head.strings.rootPath, " ", started, " ",
                      Number(head.log.runTime), "\n"));
    }
}

// One tree scanned four times, changed between the scans (files added,
// grown and removed, a directory moved), the scans' start times set days
// apart and the files given out of order.
TEST(MultiScan, TrendFollowsOneTreeThroughItsChanges) {
    RunDirs space;
    const std::string& root = space.root;
    MakeTree(root, {{T::DIR, "d1"},
                    {T::FILE, "d1/a", std::string(1000, 'a')},
                    {T::FILE, "d1/b", std::string(2000, 'b')},
                    {T::DIR, "d2"},
                    {T::FILE, "d2/c", std::string(3000, 'c')},
                    {T::DIR, "keep"},
                    {T::FILE, "keep/x", std::string(500, 'x')},
                    {T::DIR, "mv"},
                    {T::FILE, "mv/m", std::string(4000, 'm')}});
    const std::function<void()> changes[] = {
        [&] {
            WriteFile(root + "/d1/new", std::string(7000, 'n'));
            WriteFile(root + "/d2/c", std::string(9000, 'c'));
        },
        [&] {
            unlink((root + "/d1/a").c_str());
            rename((root + "/mv").c_str(), (root + "/keep/mv").c_str());
        },
        [&] {
            WriteFile(root + "/keep/x", std::string(2500, 'x'));
            MakeTree(root, {{T::DIR, "d3"}, {T::FILE, "d3/y", std::string(100, 'y')}});
        },
    };
    const uint32_t start = 1700000000;
    const uint32_t times[] = {start, start + 2 * DAY, start + 5 * DAY + 3600, start + 10 * DAY};
    std::vector<std::string> files;
    std::vector<std::map<std::string, Tally>> figures;
    std::vector<size_t> entries;
    for (size_t i = 0; i < 4; i++) {
        if (i) changes[i - 1]();
        std::vector<SeenEntry> seen = WalkTree(root);
        entries.push_back(seen.size());
        figures.push_back(DirectoryFigures(seen));
        files.push_back(ScanTree(space, Cat("s", Number(i), ".dtl")));
        SetRunTime(files.back(), times[i]);
    }

    Trend trend;
    std::string error;
    ASSERT_TRUE(
        ReadTrend({files[2].c_str(), files[0].c_str(), files[3].c_str(), files[1].c_str()}, false, &trend, &error))
        << error;
    ASSERT_EQ(trend.scans.size(), 4u);
    for (size_t i = 0; i < 4; i++) {
        EXPECT_EQ(trend.scans[i].path, files[i]);
        EXPECT_EQ(trend.scans[i].log.runTime, times[i]);
        EXPECT_EQ(trend.scans[i].totals.entries, entries[i]);
        EXPECT_EQ(trend.scans[i].totals.totalFileSize, figures[i].at("/").bytes);
    }
    const double days = (times[3] - times[0]) / double(DAY);
    EXPECT_DOUBLE_EQ(trend.days, days);

    // What changed from the first scan to the last: directories in both,
    // and the topmost of those that came or went, with the change per day.
    const std::map<std::string, Tally>&first = figures.front(), &last = figures.back();
    auto parent = [](const std::string& p) { return p.substr(0, std::max<size_t>(p.rfind('/'), 1)); };
    std::map<std::string, int64_t> expected;
    for (const auto* side : {&first, &last})
        for (const auto& [path, t] : *side) {
            bool inFirst = first.count(path), inLast = last.count(path);
            if (!inFirst && !first.count(parent(path))) continue;  // below a directory that came
            if (!inLast && !last.count(parent(path))) continue;    // below one that went
            int64_t change = int64_t(inLast ? last.at(path).bytes : 0) - int64_t(inFirst ? first.at(path).bytes : 0);
            if (change) expected[path] = change;
        }
    ASSERT_TRUE(expected.count("/keep/mv") && expected.count("/mv") && expected.count("/d3")) << "a changed tree";
    PrintOptions print;
    print.rows = 100;
    print.json = true;
    std::string json;
    PrintTrend(&json, trend, print);
    std::string listed = Python(
        "import json, sys\n"
        "doc = json.loads(sys.stdin.read())\n"
        "print(doc['days'], [s['runTime'] for s in doc['scans']])\n"
        "for key in ('grew', 'shrank'):\n"
        "    for r in doc[key]: print(key, r['logicalPath'], r['bytesChange'], r['bytesPerDay'])\n",
        json);
    char daysText[32];
    snprintf(daysText, sizeof daysText, "%.1f", days);
    std::string want = Cat(daysText, " [", Number(times[0]), ", ", Number(times[1]), ", ", Number(times[2]), ", ",
                           Number(times[3]), "]\n");
    // Those that grew, then those that shrank, each largest change first, then by path.
    std::vector<std::tuple<bool, int64_t, std::string>> rows;
    for (const auto& [path, change] : expected) rows.emplace_back(change < 0, -std::abs(change), path);
    std::sort(rows.begin(), rows.end());
    for (const auto& [shrank, size, path] : rows) {
        int64_t change = shrank ? size : -size;
        want += Cat(shrank ? "shrank " : "grew ", path, " ", std::to_string(change), " ",
                    std::to_string(std::llround(change / days)), "\n");
    }
    EXPECT_EQ(listed, want);

    // The HTML report draws the root's size in each scan, in time order.
    RunResult page = RunDtldump({"html", files[3], "--history", files[1], files[0], files[2]});
    ASSERT_EQ(page.status, 0) << page.err;
    size_t at = page.out.find("<div id=\"history\">");
    ASSERT_NE(at, std::string::npos);
    for (size_t i = 0; i < 4; i++) {
        uint64_t bytes = figures[i].at("/").bytes;
        std::string point =
            Cat("<title>", HeadingTime(times[i]), ": ", HumanSize(bytes), " (", Number(bytes), " bytes)");
        size_t found = page.out.find(point, at);
        EXPECT_NE(found, std::string::npos) << point;
        at = found;
    }
}

}  // namespace
