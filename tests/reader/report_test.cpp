// The report figures on real trees: each tree is built, scanned by the real
// program, and every report's figures are checked against what the test
// computes from its own walk of the tree.
#include "reader/report.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <map>

#include "tests/reader/scantree.h"
#include "tests/support/treebuilder.h"

namespace {

using T = TreeItem;
constexpr int64_t DAY = 86400;
constexpr int64_t YEAR = 31557600;  // 365.25 days

struct Tree {
    const char* name;
    std::vector<TreeItem> nodes;
    std::function<void(const std::string& root)> finish = nullptr;  // owners and times
};

void Chown(const std::string& path, uid_t uid, gid_t gid) {
    if (lchown(path.c_str(), uid, gid) != 0) ADD_FAILURE() << "cannot chown " << path;
}

void SetTimes(const std::string& path, int64_t atime, int64_t mtime) {
    struct timespec times[2] = {{atime, 0}, {mtime, 0}};
    if (utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        ADD_FAILURE() << "cannot set times of " << path;
}

const Tree TREES[] = {
    {"kinds, sizes and hard links",
     {{T::FILE, "small", "0123456789"},
      {T::DIR, "a"},
      {T::FILE, "a/big.TXT", std::string(5000, 'x')},
      {T::SPARSE, "a/sparse.img", "", 1ull << 30},
      {T::DIR, "a/b"},
      {T::DIR, "a/b/c"},
      {T::FILE, "a/b/c/deep.txt", std::string(300, 'd')},
      {T::FILE, "a/b/notes.md", std::string(70, 'n')},
      {T::FILE, ".hidden", "12345"},
      {T::SYMLINK, "a/link", "b/c"},
      {T::FIFO, "pipe"},
      {T::DIR, "empty"},
      {T::DIR, "z"},
      {T::HARDLINK, "z/deep-again.txt", "a/b/c/deep.txt"},  // the walk meets it in /a/b/c or in /z first
      {T::HARDLINK, "a/big-again.txt", "a/big.TXT"},        // twice in one directory
      {T::FILE, "z/archive.tar.gz", std::string(900, 'g')}}},
    {"owners",
     {{T::DIR, "u1"},
      {T::FILE, "u1/f", std::string(100, 'f')},
      {T::DIR, "u2"},
      {T::FILE, "u2/g", std::string(200, 'g')},
      {T::FILE, "u2/h", std::string(300, 'h')},
      {T::DIR, "u3"},
      {T::FILE, "u3/x", std::string(400, 'x')},
      {T::SYMLINK, "u3/l", "x"}},
     [](const std::string& root) {
         Chown(root + "/u1", 1001, 1001);
         Chown(root + "/u1/f", 1001, 2002);
         Chown(root + "/u2/g", 65534, 65534);
         Chown(root + "/u2/h", 65534, 1001);
         Chown(root + "/u3", 4242, 4343);  // ids no database here names
         Chown(root + "/u3/x", 4242, 4343);
         Chown(root + "/u3/l", 1001, 4343);
     }},
    {"ages",
     {{T::DIR, "old"},
      {T::FILE, "old/ancient", std::string(1000, 'a')},
      {T::FILE, "old/stale", std::string(2000, 's')},
      {T::FILE, "old/read-lately", std::string(4000, 'r')},
      {T::DIR, "old/inner"},
      {T::FILE, "old/inner/cold", std::string(8000, 'c')},
      {T::DIR, "new"},
      {T::FILE, "new/week", std::string(16, 'w')},
      {T::FILE, "new/fresh", std::string(32, 'f')}},
     [](const std::string& root) {
         int64_t now = time(nullptr);
         SetTimes(root + "/old/ancient", now - 2000 * DAY, now - 2000 * DAY);
         SetTimes(root + "/old/stale", now - 400 * DAY, now - 500 * DAY);
         SetTimes(root + "/old/read-lately", now - 3 * DAY, now - 800 * DAY);
         SetTimes(root + "/old/inner/cold", now - 366 * DAY, now - 700 * DAY);
         SetTimes(root + "/new/week", now - 10 * DAY, now - 20 * DAY);
         // The root's own entries are older than what lies below them.
         SetTimes(root + "/old", now - 3000 * DAY, now - 3000 * DAY);
         SetTimes(root + "/new", now - 3000 * DAY, now - 3000 * DAY);
     }},
};

std::string Name(uint32_t id, bool user) {
    if (user) {
        passwd* pw = getpwuid(id);
        return pw ? pw->pw_name : "";
    }
    group* gr = getgrgid(id);
    return gr ? gr->gr_name : "";
}

TEST(Report, EveryReportAgreesWithTheTreeItsScanCameFrom) {
    if (geteuid() != 0) GTEST_SKIP() << "the owners tree needs chown, which needs root";
    for (const Tree& tree : TREES) {
        SCOPED_TRACE(tree.name);
        RunDirs space;
        MakeTree(space.root, tree.nodes);
        if (tree.finish) tree.finish(space.root);
        const std::vector<SeenEntry> seen = WalkTree(space.root);
        std::string file = ScanTree(space, "scan.dtl");

        ReportOptions options{.dirs = true, .owners = true, .ages = true, .types = true};
        std::string error;
        ASSERT_TRUE(ParseAgeList("7d,30d,1y", &options.ageBounds, &options.ageNames, &error)) << error;
        ReportScan scan;
        ASSERT_TRUE(ReadReport(file.c_str(), options, &scan)) << scan.fault.message;
        EXPECT_TRUE(scan.complete);
        const int64_t start = scan.log.runTime;
        const int64_t bounds[] = {7 * DAY, 30 * DAY, YEAR};
        auto row = [&](int64_t time) {
            int64_t age = std::max<int64_t>(start - time, 0);
            return std::upper_bound(std::begin(bounds), std::end(bounds), age) - std::begin(bounds);
        };

        // Every directory with what lies below it: everything, the cold
        // files, the latest modification, and its own latest; the row of
        // ages the latest falls in.
        std::map<std::string, Tally> dirs = DirectoryFigures(seen);
        ASSERT_EQ(scan.dirs.size(), dirs.size());
        for (size_t i = 0; i < scan.dirs.size(); i++) {
            const DirRow& d = scan.dirs[i];
            const std::string path = DirPath(scan.dirs, i), prefix = path == "/" ? "/" : path + "/";
            SCOPED_TRACE(path);
            EXPECT_EQ(d.total, dirs[path]);
            EXPECT_EQ(d.depth, static_cast<uint32_t>(std::count(path.begin() + 1, path.end(), '/') + (path != "/")));
            Tally cold;
            uint32_t newest = 0, own = 0;
            for (const SeenEntry& e : seen) {
                if (e.path.compare(0, prefix.size(), prefix) != 0) continue;
                newest = std::max(newest, static_cast<uint32_t>(e.st.st_mtime));
                if (e.dir == path) own = std::max(own, static_cast<uint32_t>(e.st.st_mtime));
                if (!S_ISDIR(e.st.st_mode) && start - std::max(e.st.st_mtime, e.st.st_atime) >= YEAR) Count(&cold, e);
            }
            EXPECT_EQ(d.coldFiles, cold.files);
            EXPECT_EQ(d.coldBytes, cold.bytes);
            EXPECT_EQ(d.newest, newest);
            EXPECT_EQ(d.ownNewest, own);
            if (newest) {
                EXPECT_EQ(AgeRowOf(scan.ages, start, d.newest), static_cast<size_t>(row(newest)));
            }
        }
        EXPECT_EQ(dirs.size(), scan.dirs.size()) << "a row's name and parents give a path the tree lacks";
        EXPECT_EQ(scan.dirs[0].total.bytes, scan.root.totalFileSize);

        // Owners, kinds (KindOf as the types report's test pins it),
        // extensions (ExtensionOf as its own test pins it) and ages.
        std::map<uint32_t, Tally> users, groups;
        std::map<int, Tally> kinds;
        std::map<std::string, Tally> extensions;
        std::vector<Tally> modified(4), accessed(4);
        for (const SeenEntry& e : seen) {
            Count(&users[e.st.st_uid], e);
            Count(&groups[e.st.st_gid], e);
            Count(&kinds[KindOf(e.st.st_mode)], e);
            char buffer[16];
            if (S_ISREG(e.st.st_mode)) Count(&extensions[std::string(ExtensionOf(e.name, buffer))], e);
            if (S_ISDIR(e.st.st_mode)) continue;
            Count(&modified[row(e.st.st_mtime)], e);
            Count(&accessed[row(e.st.st_atime)], e);
        }
        ASSERT_EQ(scan.users.size(), users.size());
        for (size_t i = 0; i < scan.users.size(); i++) {
            const OwnerRow& u = scan.users[i];
            EXPECT_EQ(u.tally, users[u.id]) << "uid " << u.id;
            EXPECT_EQ(u.name, Name(u.id, true));
            if (i) {
                EXPECT_GE(scan.users[i - 1].tally.bytes, u.tally.bytes);
            }
        }
        ASSERT_EQ(scan.groups.size(), groups.size());
        for (const OwnerRow& g : scan.groups) {
            EXPECT_EQ(g.tally, groups[g.id]) << "gid " << g.id;
            EXPECT_EQ(g.name, Name(g.id, false));
        }
        for (int k = 0; k < KIND_COUNT; k++) EXPECT_EQ(scan.kinds[k], kinds[k]) << "kind " << k;
        ASSERT_EQ(scan.extensions.size(), extensions.size());
        for (const ExtensionRow& x : scan.extensions) EXPECT_EQ(x.tally, extensions[x.extension]) << x.extension;
        ASSERT_EQ(scan.ages.size(), 4u);
        const char* labels[] = {"< 7d", "7d - 30d", "30d - 1y", ">= 1y"};
        for (size_t i = 0; i < 4; i++) {
            EXPECT_EQ(scan.ages[i].label, labels[i]);
            EXPECT_EQ(scan.ages[i].modified, modified[i]) << labels[i];
            EXPECT_EQ(scan.ages[i].accessed, accessed[i]) << labels[i];
        }
    }
}

// Two scans of one tree, changed between them: files added, removed and
// grown, a directory moved; the comparison must say what the test's own
// walks of the two states say.
TEST(Report, DiffFindsWhatChangedBetweenTwoScans) {
    RunDirs space;
    MakeTree(space.root, {{T::DIR, "keep"},
                          {T::FILE, "keep/same", "same"},
                          {T::DIR, "grow"},
                          {T::FILE, "grow/log", "1234"},
                          {T::DIR, "gone"},
                          {T::DIR, "gone/inner"},
                          {T::FILE, "gone/inner/f", std::string(70, 'f')},
                          {T::DIR, "src"},
                          {T::DIR, "src/moving"},
                          {T::FILE, "src/moving/m", std::string(50, 'm')},
                          {T::FILE, "src/removed", std::string(30, 'r')}});
    std::vector<SeenEntry> before = WalkTree(space.root);
    std::string oldFile = ScanTree(space, "old.dtl");
    ASSERT_EQ(system(("cd " + space.root +
                      " && echo more >> grow/log && rm -r gone && rm src/removed && "
                      "mv src/moving moved && mkdir -p fresh/sub && echo new > fresh/sub/n && echo x > grow/added")
                         .c_str()),
              0);
    std::vector<SeenEntry> after = WalkTree(space.root);
    std::string newFile = ScanTree(space, "new.dtl");

    ReportScan a, b;
    ASSERT_TRUE(ReadReport(oldFile.c_str(), {.dirs = true}, &a)) << a.fault.message;
    ASSERT_TRUE(ReadReport(newFile.c_str(), {.dirs = true}, &b)) << b.fault.message;
    ScanDiff diff = DiffScans(a, b);

    std::map<std::string, Tally> was = DirectoryFigures(before), is = DirectoryFigures(after);
    std::map<std::string, std::pair<Tally, Tally>> changed;
    std::map<std::string, Tally> appeared, vanished;
    for (const auto& [path, f] : is) {
        std::string parent = path.substr(0, std::max<size_t>(path.rfind('/'), 1));
        if (!was.count(path) && (path == "/" || was.count(parent))) appeared[path] = f;
        if (was.count(path) && (was[path].bytes != f.bytes || was[path].entries != f.entries))
            changed[path] = {was[path], f};
    }
    for (const auto& [path, f] : was) {
        std::string parent = path.substr(0, std::max<size_t>(path.rfind('/'), 1));
        if (!is.count(path) && is.count(parent)) vanished[path] = f;
    }
    // The test's picture must itself show each kind of change.
    ASSERT_EQ(appeared.size(), 2u);  // /fresh (with /fresh/sub inside) and /moved
    ASSERT_EQ(vanished.size(), 2u);  // /gone (with /gone/inner) and /src/moving
    ASSERT_TRUE(changed.count("/grow") && changed.count("/src") && !changed.count("/keep"));

    std::map<std::string, std::pair<Tally, Tally>> gotChanged;
    for (const DiffRow& r : diff.changed) gotChanged[r.path] = {r.before, r.after};
    EXPECT_EQ(gotChanged, changed);
    std::map<std::string, Tally> gotAppeared, gotVanished;
    for (const DiffRow& r : diff.appeared) gotAppeared[r.path] = r.after;
    for (const DiffRow& r : diff.vanished) gotVanished[r.path] = r.before;
    EXPECT_EQ(gotAppeared, appeared);
    EXPECT_EQ(gotVanished, vanished);
    EXPECT_EQ(diff.appearedDirs, 3u);
    EXPECT_EQ(diff.vanishedDirs, 3u);
    EXPECT_EQ(diff.unchanged, 1u);  // /keep
    for (const DiffRow& r : diff.appeared) EXPECT_EQ(r.dirsInside, r.path == "/fresh" ? 1u : 0u) << r.path;
    for (const DiffRow& r : diff.vanished) EXPECT_EQ(r.dirsInside, r.path == "/gone" ? 1u : 0u) << r.path;
}

}  // namespace
