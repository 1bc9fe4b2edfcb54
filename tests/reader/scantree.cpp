#include "tests/reader/scantree.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <functional>
#include <set>

static std::string RealPath(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? resolved : path;
}

ScanSpace::ScanSpace() {
    mkdir((dir / "root").c_str(), 0755);
    mkdir((dir / "work").c_str(), 0755);
    root = RealPath(dir / "root");
    work = RealPath(dir / "work");
}

std::string ScanSpace::Scan(const std::string& name, const std::vector<std::string>& extra) const {
    std::vector<std::string> args = {root, "-dtl", name, "-f"};
    args.insert(args.end(), extra.begin(), extra.end());
    RunResult run = RunFerrovan(args, {.cwd = work});
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    return work + "/" + name;
}

std::vector<SeenEntry> WalkTree(const std::string& root) {
    std::vector<SeenEntry> seen;
    std::set<uint32_t> inodes;  // hard-linked inodes met so far
    std::function<void(const std::string&)> walk = [&](const std::string& logical) {
        std::string real = logical == "/" ? root : root + logical;
        DIR* d = opendir(real.c_str());
        if (!d) return ADD_FAILURE() << "cannot list " << real;
        std::vector<std::string> subdirs;
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name == "." || name == "..") continue;
            SeenEntry s;
            s.dir = logical;
            s.name = name;
            s.path = (logical == "/" ? "/" : logical + "/") + name;
            if (lstat((real + "/" + name).c_str(), &s.st) != 0) ADD_FAILURE() << "cannot examine " << s.path;
            s.counted = s.st.st_nlink < 2 || inodes.insert(static_cast<uint32_t>(s.st.st_ino)).second;
            if (S_ISDIR(s.st.st_mode)) subdirs.push_back(s.path);
            seen.push_back(s);
        }
        closedir(d);
        for (const std::string& sub : subdirs) walk(sub);
    };
    // Listing a directory may move its access time once; the second walk
    // sees times that neither it nor the scan will move again.
    walk("/");
    seen.clear();
    inodes.clear();
    walk("/");
    return seen;
}

std::map<std::string, Figures> DirectoryFigures(const std::vector<SeenEntry>& seen) {
    std::map<std::string, Figures> dirs = {{"/", {}}};
    for (const SeenEntry& e : seen)
        if (S_ISDIR(e.st.st_mode)) dirs[e.path];
    // Every directory whose path is a prefix of the entry's holds it.
    for (auto& [dir, f] : dirs) {
        std::string prefix = dir == "/" ? "/" : dir + "/";
        for (const SeenEntry& e : seen) {
            if (e.path.compare(0, prefix.size(), prefix) != 0) continue;
            f.entries++;
            f.files += !S_ISDIR(e.st.st_mode);
            f.bytes += e.counted ? static_cast<uint64_t>(e.st.st_size) : 0;
        }
    }
    return dirs;
}

void SetTimes(const std::string& path, int64_t atime, int64_t mtime) {
    struct timespec times[2] = {{atime, 0}, {mtime, 0}};
    if (utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0)
        ADD_FAILURE() << "cannot set times of " << path;
}
