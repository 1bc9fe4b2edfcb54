// top --files on a real scan: the largest files of the tree, each
// hard-linked inode once, checked against the test's own walk.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>

#include "reader/reportprint.h"
#include "reader/textout.h"
#include "tests/reader/scantree.h"
#include "tests/support/treebuilder.h"

namespace {

using T = TreeItem;

TEST(TopFiles, ListsTheLargestFilesOfTheTreeItCameFrom) {
    RunDirs dirs;
    MakeTree(dirs.root, {{T::DIR, "a"},
                         {T::FILE, "a/big", std::string(9000, 'x')},
                         {T::DIR, "b"},
                         {T::FILE, "b/mid", std::string(5000, 'x')},
                         {T::FILE, "b/same", std::string(5000, 'x')},  // equal sizes: walk order
                         {T::DIR, "c"},
                         {T::HARDLINK, "c/again", "a/big"},  // counted once, at the name met first
                         {T::FILE, "small", "tiny"},
                         {T::SYMLINK, "link", "a/big"},
                         {T::FIFO, "pipe"},
                         {T::SPARSE, "c/sparse", "", 700}});
    const std::string dtl = ScanTree(dirs, "scan.dtl");
    // The files as the walk met them, largest first, walk order among equals.
    std::vector<SeenEntry> files;
    for (const SeenEntry& e : WalkTree(dirs.root))
        if (!S_ISDIR(e.st.st_mode) && e.counted) files.push_back(e);
    std::stable_sort(files.begin(), files.end(),
                     [](const SeenEntry& x, const SeenEntry& y) { return x.st.st_size > y.st.st_size; });
    ASSERT_EQ(files.size(), 7u);
    for (size_t n : {1, 2, 100}) {
        SCOPED_TRACE(n);
        RunResult run = RunDtldump({"top", "--files", "-n", std::to_string(n), dtl});
        ASSERT_EQ(run.status, 0) << run.err;
        std::string want = "\n";
        for (size_t i = 0; i < std::min(n, files.size()); i++) {
            const struct stat& st = files[i].st;
            const struct passwd* owner = getpwuid(st.st_uid);
            want += Cat(HumanSize(st.st_size), " ", std::to_string(st.st_size), " ",
                        owner ? owner->pw_name : std::to_string(st.st_uid), " ",
                        HeadingTime(st.st_mtime).substr(0, 16), " ", dirs.root, files[i].path, "\n");
        }
        EXPECT_EQ(Rows(run.out.substr(run.out.find("PATH\n") + 5)), want) << run.out;
    }
    RunResult json = RunDtldump({"top", "--files", "--json", "-n", "2", dtl});
    EXPECT_EQ(Python("import json, sys\nfor f in json.load(sys.stdin)['files']: print(f['logicalPath'], f['bytes'])",
                     json.out),
              Cat(files[0].path, " 9000\n", files[1].path, " 5000\n"));
    EXPECT_NE(RunDtldump({"top", "--files", "--depth", "1", dtl}).status, 0);
}

}  // namespace
