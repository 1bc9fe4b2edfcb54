// The walk on several threads against the walk alone: the same detail file,
// log and error text, byte for byte, whatever the helpers do meanwhile. The
// runs use the program built with the read-ahead test seam (seam_main.cpp),
// which slows threads down at random so that helpers finish in every order,
// and changes the tree at the moment a directory is about to be opened.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"
#include "tests/support/treebuilder.h"

namespace {

using T = TreeItem;

// What a run leaves that must not depend on the threads: the detail file
// with the run time and the free space masked, the log with its times
// masked, the error output, the status.
struct Outcome {
    int status;
    std::string dtl, log, err;
};

Outcome Masked(const RunDirs& ws, const RunResult& run) {
    std::string dtl = ReadFile(ws.work + "/out.dtl");
    for (size_t i : {8, 9, 10, 11, 192, 193, 194, 195, 196, 197, 198, 199})
        if (i < dtl.size()) dtl[i] = 0;
    return {run.status, dtl, MaskedLog(run.out), run.err};
}

// Scans ws.root with the seam build on threads threads, the seam's changes
// and jitter given as NAME=value settings.
Outcome ScanOn(const RunDirs& ws, int threads, std::vector<std::string> env, const std::vector<std::string>& extra = {},
               bool unprivileged = false) {
    env.push_back("FERROVAN_THREADS=" + std::to_string(threads));
    env.push_back("TMPDIR=" + ws.tmp);
    return Masked(ws, ws.Scan(extra, {.unprivileged = unprivileged, .env = env, .program = FERROVAN_SEAM_BIN}));
}

// The rows of the run's CSV export, every field but the two of the change
// time (setting the access times moves them), and the access time only as
// "2001" (as the test set it) or "read" (by this run).
std::vector<std::vector<std::string>> ExportedAccessTimes(const RunDirs& ws) {
    std::vector<std::vector<std::string>> rows;
    std::istringstream lines(RunDtldump({"export", ws.work + "/out.dtl"}).out);
    for (std::string line; std::getline(lines, line);) {
        std::vector<std::string> f;
        std::istringstream fields(line);
        for (std::string x; std::getline(fields, x, ',');) f.push_back(x);
        if (f.size() < 16) continue;
        f.erase(f.begin() + 14, f.begin() + 16);
        f[12] = f[13] = f[13] == "978307200" ? "2001" : "read";
        rows.push_back(f);
    }
    return rows;
}

std::string Jitter(int seed, int microseconds) {
    return "FERROVAN_TEST_JITTER=" + std::to_string(seed) + ":" + std::to_string(microseconds);
}

void ExpectSame(const Outcome& alone, const Outcome& many) {
    EXPECT_EQ(many.status, alone.status);
    EXPECT_EQ(many.err, alone.err);
    EXPECT_EQ(many.log, alone.log);
    EXPECT_TRUE(many.dtl == alone.dtl) << FirstDifference(alone.dtl, many.dtl);
}

// A directory of n empty files, made quickly.
void ManyFiles(const std::string& dir, int n) {
    mkdir(dir.c_str(), 0755);
    for (int i = 0; i < n; i++) close(open((dir + "/f" + std::to_string(i)).c_str(), O_CREAT | O_WRONLY, 0644));
}

// Every kind of entry and every way an entry or a directory fails, walked
// alone and on 2, 8 and 64 threads with helpers slowed at random: nothing
// the helpers do early shows.
TEST(ReadAhead, EveryThreadCountRecordsTheSameBytes) {
    RunDirs ws;
    MakeTree(ws.root, {{T::DIR, "a"}, {T::DIR, "a/b"}, {T::DIR, "a/b/c"}, {T::DIR, "empty"}, {T::FILE, "f", "hello"},
                       {T::HARDLINK, "a/f2", "f"}, {T::HARDLINK, "a/b/f3", "f"}, {T::FIFO, "a/pipe"},
                       {T::SYMLINK, "to-file", "f"}, {T::SYMLINK, "to-dir", "a"}, {T::SYMLINK, "dangling", "no/such"},
                       {T::HARDLINK, "a/b/to-file-again", "to-file"}, {T::FILE, "with blank", "x"},
                       {T::FILE, "new\nline", "yy"}, {T::FILE, "raw\xff\xfe", "zzz"}, {T::DIR, "raw\xff" "dir"},
                       {T::FILE, "raw\xff" "dir/caf\xc3\xa9.c", "c"}, {T::FILE, std::string(255, 'L'), "long"},
                       {T::DIR, "locked"}, {T::FILE, "locked/secret", "s"}, {T::DIR, "noexec"},
                       {T::FILE, "noexec/x", "x"}, {T::DIR, "skip"}, {T::DIR, "skip/inner"}, {T::FILE, "a/x.o", "o"},
                       {T::DIR, "wide"}});
    for (int i = 0; i < 200; i++) {
        std::string d = ws.root + "/wide/d" + std::to_string(i);
        mkdir(d.c_str(), 0755);
        for (int j = 0; j < i % 7; j++) WriteFile(d + "/e" + std::to_string(j), std::string(j, 'e'));
    }
    ManyFiles(ws.root + "/big", 100000);
    WriteFile(MakeChain(ws.root + "/a", "deep", 105) + "/lost", "");
    chmod((ws.root + "/locked").c_str(), 0);
    chmod((ws.root + "/noexec").c_str(), 0444);
    WriteFile(ws.work + "/scan.cfg", "[ScanRoot]\nexcludedirs = /skip\nexcludefiles = *.o\n");
    const std::vector<std::string> extra = {"-cfg", "scan.cfg", "-p"};
    // Listing a directory sets its access time once; a first run settles them.
    ScanOn(ws, 1, {}, extra, true);
    Outcome alone = ScanOn(ws, 1, {}, extra, true);
    ASSERT_EQ(alone.status, 0);
    ASSERT_NE(alone.err.find("Could not stat() '" + ws.root + "/noexec/x'"), std::string::npos) << alone.err;
    ASSERT_NE(alone.err.find("Unable to open directory '" + ws.root + "/locked'"), std::string::npos);
    ASSERT_NE(alone.err.find("nested deeper than 100 levels"), std::string::npos);
    for (int threads : {2, 8, 64}) {
        SCOPED_TRACE(std::to_string(threads) + " threads");
        ExpectSame(alone, ScanOn(ws, threads, {Jitter(threads, 300)}, extra, true));
    }
}

// The access times recorded for directories and symbolic links are those
// from before the walk read them, as the walk alone leaves them: listing a
// directory and reading a link move their access times (they are set far in
// the past here), so a helper that read either too early would show. A link
// with two names is read through the first name in the walk's order, which
// the second name's record shows. What the walk leaves alone (a directory
// the templates leave out or nested too deep, a link the templates leave
// out) no helper touches either.
TEST(ReadAhead, AccessTimesAreThoseTheWalkAloneRecords) {
    RunDirs ws;
    MakeTree(ws.root, {{T::DIR, "first"}, {T::DIR, "first/sub"}, {T::DIR, "second"}, {T::FILE, "second/f", "f"},
                       {T::SYMLINK, "second/link", "f"}, {T::HARDLINK, "second/link-too", "second/link"},
                       {T::DIR, "skip"}, {T::FILE, "skip/s"}, {T::SYMLINK, "second/left.o", "f"}, {T::DIR, "deep"}});
    // A link with a name in each directory, the first of them slowed down
    // so that helpers examine the second meanwhile.
    MakeTree(ws.root, {{T::SYMLINK, "first/link-a", "../second/f"}, {T::HARDLINK, "second/link-b", "first/link-a"}});
    const std::string slow = "FERROVAN_TEST_SLOW=first:100000";
    const std::string tooDeep = MakeChain(ws.root + "/deep", "d", 99).substr(ws.root.size());
    WriteFile(ws.root + tooDeep + "/f", "");
    WriteFile(ws.work + "/scan.cfg", "[ScanRoot]\nexcludedirs = /skip\nexcludefiles = *.o\n");
    // Every directory and link of the tree, read in 2001 (found first:
    // finding them lists the directories).
    std::vector<std::string> aged = {ws.root};
    for (const auto& e : std::filesystem::recursive_directory_iterator(ws.root))
        if (e.is_directory() || e.is_symlink()) aged.push_back(e.path());
    auto age = [&] {
        struct timespec times[2] = {{978307200, 0}, {UTIME_OMIT, 0}};
        for (const std::string& p : aged) utimensat(AT_FDCWD, p.c_str(), times, AT_SYMLINK_NOFOLLOW);
    };
    auto untouched = [&] {
        for (const std::string& p : {std::string("/skip"), std::string("/second/left.o"), tooDeep}) {
            struct stat st;
            EXPECT_EQ(lstat((ws.root + p).c_str(), &st), 0);
            EXPECT_EQ(st.st_atim.tv_sec, 978307200) << p;
        }
    };
    const std::vector<std::string> cfg = {"-cfg", "scan.cfg"};
    age();
    Outcome alone = ScanOn(ws, 1, {}, cfg);
    untouched();
    ASSERT_EQ(alone.status, 0) << alone.err;
    // The alone run's own record: every directory and link as it was before
    // the walk, but the link read through its other name first.
    std::vector<std::vector<std::string>> rows = ExportedAccessTimes(ws);
    std::map<std::string, std::string> atime;
    std::vector<std::string> order;  // the rows follow the walk
    for (const auto& f : rows) {
        order.push_back(f[0].substr(std::min(ws.root.size(), f[0].size())));
        atime[order.back()] = f[13];
    }
    for (const char* p : {"/first", "/first/sub", "/second"}) EXPECT_EQ(atime[p], "2001") << p;
    for (auto [link, other] : {std::pair(std::string("/second/link"), std::string("/second/link-too")),
                               std::pair(std::string("/first/link-a"), std::string("/second/link-b"))}) {
        auto at = [&](const std::string& p) { return std::find(order.begin(), order.end(), p) - order.begin(); };
        std::string earlier = at(link) < at(other) ? link : other, later = earlier == link ? other : link;
        EXPECT_EQ(atime[earlier], "2001") << earlier;
        EXPECT_EQ(atime[later], "read") << later;
    }
    for (int threads : {2, 8, 64}) {
        SCOPED_TRACE(std::to_string(threads) + " threads");
        age();
        Outcome many = ScanOn(ws, threads, {Jitter(threads, 200), slow}, cfg);
        EXPECT_EQ(many.err, alone.err);
        EXPECT_EQ(many.log, alone.log);
        std::vector<std::vector<std::string>> now = ExportedAccessTimes(ws);
        ASSERT_EQ(now.size(), rows.size());
        for (size_t i = 0; i < rows.size(); i++) ASSERT_EQ(now[i], rows[i]) << "row " << i;
        untouched();
    }
}

// A directory that changes between its parent's listing and its own opening
// gives the message the walk alone gives, whoever opens it; swapped for a
// link, it is never followed out of the root.
TEST(ReadAhead, ADirectoryChangedBeforeItIsOpenedIsReportedNeverFollowed) {
    struct Case {
        const char* setting;
        const char* reason;
    } cases[] = {
        {"FERROVAN_TEST_SWAP", "  (p20) Not a directory\n"},
        {"FERROVAN_TEST_REMOVE", "  (p2) No such file or directory\n"},
        {"FERROVAN_TEST_LOCK", "  (p13) Permission denied\n"},
    };
    for (const Case& c : cases) {
        for (int threads : {1, 8}) {
            SCOPED_TRACE(std::string(c.setting) + " on " + std::to_string(threads) + " threads");
            RunDirs ws;
            MakeTree(ws.root, {{T::DIR, "before"}, {T::FILE, "before/b"}, {T::DIR, "victim"}, {T::FILE, "victim/v"},
                               {T::DIR, "after"}, {T::FILE, "after/a"}});
            MakeTree(ws.dir.path, {{T::DIR, "outside"}, {T::FILE, "outside/secret"}});
            // The seam changes the tree from inside the unprivileged run.
            for (const char* p : {"", "/victim", "/victim/v"}) chown((ws.root + p).c_str(), 65534, 65534);
            std::string change = std::string(c.setting) + "=" + ws.root + "/victim";
            if (std::string(c.setting) == "FERROVAN_TEST_SWAP") change += ":" + ws.dir.path + "/outside";
            Outcome run = ScanOn(ws, threads, {change, Jitter(5, 100)}, {}, true);
            EXPECT_EQ(run.status, 0);
            EXPECT_EQ(run.err, "Unable to open directory '" + ws.root + "/victim'\n" + c.reason);
            ReadBack d = ReadDetail(ws.work + "/out.dtl");
            ASSERT_TRUE(d.sound) << d.fault.message;
            EXPECT_EQ(std::multiset<std::string>(d.records.begin(), d.records.end()),
                      (std::multiset<std::string>{"dir / 0/3/0", "entry /before", "entry /victim", "entry /after",
                                                 "dir /before 1/0/0", "entry /before/b", "dir /after 1/0/0",
                                                 "entry /after/a", "end"}));
        }
    }
}

// An access path over the limit found ahead ends the run only where the walk
// meets it: the same records, messages and status as alone, while helpers
// are still reading the rest of the tree.
TEST(ReadAhead, ALimitFoundAheadEndsTheRunWhereTheWalkMeetsIt) {
    RunDirs ws;
    mkdir((ws.root + "/a").c_str(), 0755);
    MakeChain(ws.root + "/a", std::string(200, 'n'), 21);
    for (int i = 0; i < 300; i++) ManyFiles(ws.root + "/z" + std::to_string(i), 20);
    Outcome alone = ScanOn(ws, 1, {});
    ASSERT_EQ(alone.status, 1);
    ASSERT_EQ(alone.err.substr(0, 29), "Access path longer than 4095 ");
    EXPECT_EQ(alone.dtl.substr(0, 4), "IDTL");
    for (int threads : {8, 64}) {
        SCOPED_TRACE(std::to_string(threads) + " threads");
        ExpectSame(alone, ScanOn(ws, threads, {Jitter(threads, 300)}));
        EXPECT_EQ(Entries(ws.tmp), std::set<std::string>{});
    }
}

// A signal while helpers are at work ends the run as it always has: one line,
// status 128 + the signal, the file unfinished, nothing left in TMPDIR.
TEST(ReadAhead, ASignalWithHelpersAtWorkEndsTheRunAsAlone) {
    RunDirs ws;
    for (int i = 0; i < 400; i++) ManyFiles(ws.root + "/d" + std::to_string(i), 10);
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(strsignal(sig));
        pid_t pid = ws.Start({}, -1, -1, {.env = {"FERROVAN_THREADS=32", Jitter(sig, 20000)}, .program = FERROVAN_SEAM_BIN});
        usleep(300000);
        kill(pid, sig);
        int status = WaitProgram(pid);
        EXPECT_EQ(status, 128 + sig);
        EXPECT_EQ(ReadFile(ws.work + "/stderr"),
                  "Scan interrupted by signal " + std::to_string(sig) + " (" +
                      (sig == SIGINT ? "Interrupt" : sig == SIGTERM ? "Terminated" : "Hangup") + ")\n");
        EXPECT_EQ(ReadFile(ws.work + "/out.dtl").substr(0, 4), "IDTL");
        EXPECT_EQ(Entries(ws.tmp), std::set<std::string>{});
        ws.ClearWork();
    }
}

}  // namespace
