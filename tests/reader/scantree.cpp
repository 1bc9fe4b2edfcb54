#include "tests/reader/scantree.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <set>
#include <sstream>

std::string Python(const std::string& program, const std::string& input) {
    RunResult run = RunProgram("python3", {"-c", program}, {.input = input, .env = {"PYTHONIOENCODING=utf-8"}});
    EXPECT_EQ(run.status, 0) << run.err;
    return run.out;
}

std::string Rows(const std::string& text) {
    std::string rows = "\n";
    std::istringstream in(text);
    for (std::string line; std::getline(in, line); rows += "\n") {
        std::istringstream words(line);
        for (std::string word; words >> word;) rows += (rows.back() == '\n' ? "" : " ") + word;
    }
    return rows;
}

std::string ScanTree(const RunDirs& dirs, const std::string& name) {
    RunResult run = dirs.Scan();
    EXPECT_EQ(run.status, 0) << run.out << run.err;
    std::string path = dirs.work + "/" + name;
    EXPECT_EQ(rename((dirs.work + "/out.dtl").c_str(), path.c_str()), 0);
    return path;
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

void Count(Tally* t, const SeenEntry& e) {
    t->entries++;
    t->files += !S_ISDIR(e.st.st_mode);
    t->bytes += e.counted ? static_cast<uint64_t>(e.st.st_size) : 0;
}

std::map<std::string, Tally> DirectoryFigures(const std::vector<SeenEntry>& seen) {
    std::map<std::string, Tally> dirs = {{"/", {}}};
    for (const SeenEntry& e : seen)
        if (S_ISDIR(e.st.st_mode)) dirs[e.path];
    // Every directory whose path is a prefix of the entry's holds it.
    for (auto& [dir, t] : dirs) {
        std::string prefix = dir == "/" ? "/" : dir + "/";
        for (const SeenEntry& e : seen)
            if (e.path.compare(0, prefix.size(), prefix) == 0) Count(&t, e);
    }
    return dirs;
}
