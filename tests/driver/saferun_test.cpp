// Runs of the real program that end early: a run that fails before its root
// is valid destroys nothing, and a run ended by SIGINT, SIGTERM or SIGHUP
// says so, leaves its log complete up to the signal and removes what is
// temporary.
//
// The interrupted runs are caught mid-walk without racing a clock: the error
// output is a pipe shrunk to one page that the test does not read, and the
// tree gives more error messages than the pipe holds, so the walk must stop
// in the middle and wait for the test.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"
#include "tests/support/treebuilder.h"

namespace {

std::string RealPath(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? resolved : path;
}

std::string Expand(std::string text, const std::string& dir) {
    for (size_t at; (at = text.find("{dir}")) != std::string::npos;) text.replace(at, 5, dir);
    return text;
}

struct timespec ModTime(const std::string& path) {
    struct stat st {};
    lstat(path.c_str(), &st);
    return st.st_mtim;
}

// A pipe whose ends are closed on exec and when it goes out of scope.
struct Pipe {
    int read = -1, write = -1;
    Pipe() {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) == 0) read = fds[0], write = fds[1];
    }
    ~Pipe() {
        CloseWrite();
        if (read >= 0) close(read);
    }
    void CloseWrite() {
        if (write >= 0) close(write);
        write = -1;
    }
    /// Everything up to the end of the stream.
    std::string Drain() const {
        std::string all;
        char buf[65536];
        for (ssize_t n; (n = ::read(read, buf, sizeof buf)) != 0;) {
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) break;
            all.append(buf, static_cast<size_t>(n));
        }
        return all;
    }
    size_t Held() const {
        int n = 0;
        return ioctl(read, FIONREAD, &n) == 0 ? static_cast<size_t>(n) : 0;
    }
};

int OpenFile(const std::string& path, int flags) { return open(path.c_str(), flags | O_CLOEXEC, 0644); }

// True while the started program has not ended (it is not reaped).
bool Running(pid_t pid) {
    siginfo_t info{};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == 0;
}

// A run that fails before the root is valid leaves an existing detail file
// byte for byte as it was (not even touched), and removes a file that it
// created itself, so that the next run is not asked about it.
TEST(FailedRun, LeavesAnExistingDetailFileAsItWasAndRemovesOneItCreated) {
    struct Case {
        const char* config;  // written to c.cfg unless null
        std::vector<std::string> args;
        std::string err;  // the start of the message
        bool unprivileged = false;
    } cases[] = {
        {nullptr, {"{dir}/tre"}, "Root '{dir}/tre' is an invalid path\n"},  // a typo in the root
        {nullptr, {}, "No scan root specified\n"},
        {nullptr, {"{dir}/file"}, "Root '{dir}/file' is not a directory\n"},
        {nullptr, {"{dir}/tree", "{dir}"}, "Only one scan root may be specified\n"},
        {"[ScanRoot]\npath {dir}/tree\n", {"-cfg", "c.cfg"}, "Missing '='\n"},
        {nullptr, {"-cfg", "{dir}/none.cfg"}, "Cannot open configuration file '{dir}/none.cfg'"},
        {nullptr, {"{dir}/tree", "-log", "{dir}/no/run.log"}, "Unable to create log file '{dir}/no/run.log'\n"},
        {nullptr, {"{dir}/tree", "-err", "{dir}/no/run.err"}, "Unable to create error file '{dir}/no/run.err'\n"},
        // The detail file cannot be opened for writing: the same message as
        // ever, before the root is looked at.
        {nullptr, {"{dir}/tre"}, "Unable to create audit detail file 'out.dtl'\n  (p13) Permission denied\n", true},
    };
    enum Before { NONE, FINISHED, UNFINISHED, FINISHED_ASKED };
    for (const Case& c : cases) {
        for (Before before : {NONE, FINISHED, UNFINISHED, FINISHED_ASKED}) {
            if (c.unprivileged && before == NONE) continue;  // nothing to protect
            ScopedTempDir tmp;
            chmod(tmp.path.c_str(), 0755);
            const std::string dir = RealPath(tmp.path);
            mkdir((dir + "/tree").c_str(), 0755);
            WriteFile(dir + "/tree/f", "data");
            WriteFile(dir + "/file", "x");
            if (c.config) WriteFile(dir + "/c.cfg", Expand(c.config, dir));
            const std::string dtl = dir + "/out.dtl";
            if (before != NONE) {
                RunResult good = RunFerrovan({dir + "/tree", "-dtl", "out.dtl", "-f"}, {.cwd = dir});
                ASSERT_EQ(good.status, 0) << good.err;
                // An unfinished file is overwritten without a question; cut one from a finished file.
                if (before == UNFINISHED) WriteFile(dtl, "IDTL" + ReadFile(dtl).substr(4, 200));
                if (c.unprivileged) chmod(dtl.c_str(), 0444);
            }
            const std::string bytes = ReadFile(dtl);
            const struct timespec modified = ModTime(dtl);
            std::vector<std::string> args = {"-dtl", "out.dtl"};
            if (before != UNFINISHED && before != FINISHED_ASKED) args.push_back("-f");
            for (const std::string& a : c.args) args.push_back(Expand(a, dir));
            RunResult r = RunFerrovan(args, {.cwd = dir, .input = "y\n", .unprivileged = c.unprivileged});
            const std::string what = testing::PrintToString(args) + " before: " + std::to_string(before);
            EXPECT_EQ(r.status, 1) << what;
            EXPECT_EQ(r.err.rfind(Expand(c.err, dir), 0), 0u) << what << "\n" << r.err;
            if (before == NONE) {
                EXPECT_FALSE(PathExists(dtl)) << what;
            } else {
                EXPECT_TRUE(ReadFile(dtl) == bytes) << what;
                struct timespec now = ModTime(dtl);
                EXPECT_TRUE(now.tv_sec == modified.tv_sec && now.tv_nsec == modified.tv_nsec) << what;
            }
            EXPECT_EQ(Entries(dir).count("out.dtl"), before == NONE ? 0u : 1u) << what;
        }
    }
}

// Once the root is valid the existing file is replaced whole: nothing of a
// longer former content stays behind the new one.
TEST(FailedRun, AGoodRunStillReplacesALongerFileWhole) {
    ScopedTempDir tmp;
    const std::string dir = RealPath(tmp.path);
    mkdir((dir + "/tree").c_str(), 0755);
    WriteFile(dir + "/tree/f", "data");
    ASSERT_EQ(RunFerrovan({dir + "/tree", "-dtl", "fresh.dtl"}, {.cwd = dir}).status, 0);
    WriteFile(dir + "/old.dtl", std::string(1 << 20, 'x'));
    RunResult r = RunFerrovan({dir + "/tree", "-dtl", "old.dtl"}, {.cwd = dir, .input = "y\n"});
    ASSERT_EQ(r.status, 0) << r.err;
    std::string fresh = ReadFile(dir + "/fresh.dtl"), replaced = ReadFile(dir + "/old.dtl");
    ASSERT_EQ(replaced.size(), fresh.size());
    EXPECT_EQ(replaced.substr(0, 4), "FDTL");
    EXPECT_TRUE(ReadDetail(dir + "/old.dtl").sound);
}

// The tree of an interrupted walk: a chain of directories down to level 100
// and, in its last one, more directories one level too deep than the error
// pipe can hold messages about.
struct DeepTree {
    ScopedTempDir dir;
    std::string root, work, tmp, chain;  // chain: the logical path of the level-100 directory
    DeepTree() {
        mkdir((dir / "root").c_str(), 0755);
        mkdir((dir / "work").c_str(), 0755);
        mkdir((dir / "tmp").c_str(), 0755);
        root = RealPath(dir / "root");
        work = RealPath(dir / "work");
        tmp = RealPath(dir / "tmp");
        std::string deepest = MakeChain(root, "d", 99);
        chain = deepest.substr(root.size());
        for (int i = 0; i < 60; i++) mkdir((deepest + "/n" + std::to_string(100 + i)).c_str(), 0755);
    }
    std::string Message(const std::string& name) const {
        return "Directory '" + root + chain + "/" + name + "' is nested deeper than 100 levels and was not entered\n";
    }
};

// The log of an interrupted -p run is its head and, level by level, a
// directory's line, then (when errors go to the log too) its message: all
// that was logged up to the signal. messages are the complete ones that the
// error output received; the signal may have come before the last of them
// reached the log, and after the next directory's line.
::testing::AssertionResult LogUpToTheSignal(const std::string& log, const DeepTree& tree,
                                            const std::vector<std::string>& names, bool errorsInLog) {
    utsname node;
    uname(&node);
    std::string head = "Zentrix Filesystem Audit Utility\n\nRun on: " + std::string(node.nodename) + ", Timestamp: ";
    if (log.rfind(head, 0) != 0) return ::testing::AssertionFailure() << "no banner and run line:\n" << log;
    size_t at = log.find("\n\n", head.size());
    std::string expected = log.substr(0, at + 2) + "Root path: " + tree.root + " (local filesystem)\n\n" +
                           " Include dirs: all\n Exclude dirs: none\nInclude files: all\nExclude files: none\n\n\n";
    for (std::string path = "/";; path += path.size() == 1 ? "d" : "/d") {
        expected += path + "\n";
        if (path == tree.chain) break;
    }
    // Each candidate, and whether the next directory's line (logged before
    // its message was held up) may follow it.
    std::vector<std::pair<std::string, bool>> candidates;
    for (size_t i = 0; i < names.size(); i++) {
        expected += tree.chain + "/" + names[i] + "\n";
        if (errorsInLog && i + 1 == names.size()) candidates.push_back({expected, false});  // before the log had it
        if (errorsInLog) expected += tree.Message(names[i]);
    }
    candidates.push_back({expected, true});
    for (const auto& [c, nextMayFollow] : candidates) {
        if (log == c) return ::testing::AssertionSuccess();
        std::string next = log.substr(std::min(c.size(), log.size()));
        if (nextMayFollow && log.rfind(c, 0) == 0 && next.rfind(tree.chain + "/n", 0) == 0 &&
            next.find('\n') == next.size() - 1)
            return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "log:\n" << log << "\nexpected:\n" << expected;
}

// Starts Ferrovan with args in the tree's working directory, its error output
// on err shrunk to one page, and returns once the walk is held up there.
pid_t StartHeld(const DeepTree& tree, const std::vector<std::string>& args, Pipe& err) {
    if (fcntl(err.write, F_SETPIPE_SZ, 4096) < 4096) return -1;
    int in = OpenFile("/dev/null", O_RDONLY);
    int out = OpenFile(tree.work + "/stdout", O_WRONLY | O_CREAT | O_TRUNC);
    pid_t pid =
        StartProgram(FerrovanPath(), args, {in, out, err.write}, {.cwd = tree.work, .env = {"TMPDIR=" + tree.tmp}});
    close(in);
    close(out);
    err.CloseWrite();
    // Well into the messages about the deep directories; the walk cannot end
    // before the test reads them.
    while (err.Held() < 3000) {
        if (!Running(pid)) return -1;
        usleep(1000);
    }
    return pid;
}

TEST(InterruptedRun, SaysSoKeepsTheLogAndRemovesTemporaryFiles) {
    struct Case {
        int sig;
        const char* text;
        bool namedLog;  // -log file; else the log is standard output, redirected to a file
    } cases[] = {
        {SIGINT, "Scan interrupted by signal 2 (Interrupt)\n", false},
        {SIGTERM, "Scan interrupted by signal 15 (Terminated)\n", true},
        {SIGHUP, "Scan interrupted by signal 1 (Hangup)\n", false},
        {SIGINT, "Scan interrupted by signal 2 (Interrupt)\n", true},
    };
    DeepTree tree;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        for (const std::string& name : Entries(tree.work)) unlink((tree.work + "/" + name).c_str());
        std::vector<std::string> args = {tree.root, "-dtl", "out.dtl", "-f", "-p"};
        if (c.namedLog) args.insert(args.end(), {"-log", "run.log"});
        const std::string logPath = tree.work + (c.namedLog ? "/run.log" : "/stdout");
        Pipe err;
        pid_t pid = StartHeld(tree, args, err);
        ASSERT_GT(pid, 0);
        kill(pid, c.sig);
        std::string errors = err.Drain();
        EXPECT_EQ(WaitProgram(pid), 128 + c.sig);

        // The error output: whole messages, then the signal's line.
        ASSERT_GE(errors.size(), strlen(c.text));
        EXPECT_EQ(errors.substr(errors.size() - strlen(c.text)), c.text);
        std::vector<std::string> names;
        size_t at = 0;
        for (size_t end; (end = errors.find('\n', at)) != std::string::npos && end + 1 < errors.size(); at = end + 1) {
            std::string message = errors.substr(at, end + 1 - at);
            std::string name = message.substr(message.rfind('/') + 1, 4);
            ASSERT_EQ(message, tree.Message(name));
            names.push_back(name);
        }
        EXPECT_GE(names.size(), 8u);
        EXPECT_TRUE(LogUpToTheSignal(ReadFile(logPath), tree, names, c.namedLog));
        EXPECT_EQ(ReadFile(tree.work + "/out.dtl").substr(0, 4), "IDTL");
        EXPECT_EQ(Entries(tree.tmp), std::set<std::string>{});
        EXPECT_EQ(Entries(tree.work), (std::set<std::string>{"out.dtl", "stdout", c.namedLog ? "run.log" : "stdout"}));
    }
}

// A second signal while the run is ending kills it at once. The first one's
// line cannot be written while the error pipe is full, so the run is still
// ending when the second comes.
TEST(InterruptedRun, ASecondSignalKillsAtOnce) {
    DeepTree tree;
    Pipe err;
    pid_t pid = StartHeld(tree, {tree.root, "-dtl", "out.dtl", "-f"}, err);
    ASSERT_GT(pid, 0);
    kill(pid, SIGINT);
    kill(pid, SIGTERM);
    std::string errors = err.Drain();
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_EQ(errors.find("Scan interrupted"), std::string::npos);
}

// Lets a program started with RunOptions::traced run, one system call at a
// time, until ready() holds at the return of one (calls are counted from 1),
// then sends sig there and lets the program go on untraced. Returns the
// program's exit status, or 128 + the signal that ended it; ran is set when
// the signal was sent before the program ended.
int SignalAtReturn(pid_t pid, int sig, const std::function<bool(int call)>& ready, bool* ran) {
    *ran = false;
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) return -1;  // stopped by its exec
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    int pass = 0, stops = 0;
    for (;;) {
        if (ptrace(PTRACE_SYSCALL, pid, nullptr, pass) != 0) return -1;
        pass = 0;
        if (waitpid(pid, &status, 0) != pid) return -1;
        if (WIFEXITED(status)) return WEXITSTATUS(status);
        if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
        if (WSTOPSIG(status) != (SIGTRAP | 0x80)) {
            pass = WSTOPSIG(status);  // a signal of the program's own: delivered as it came
            continue;
        }
        // Entries and returns alternate; only a return is a moment between two calls.
        if (++stops % 2 == 1 || !ready(stops / 2)) continue;
        kill(pid, sig);
        *ran = true;
        ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
        return WaitProgram(pid);
    }
}

// A small tree with a hard link and a symbolic link, and beside it the
// working directory and the TMPDIR of the runs.
struct SmallTree {
    ScopedTempDir dir;
    std::string root, work, tmp;
    SmallTree() {
        for (const char* d : {"root", "work", "tmp"}) mkdir((dir / d).c_str(), 0755);
        root = RealPath(dir / "root");
        work = RealPath(dir / "work");
        tmp = RealPath(dir / "tmp");
        MakeTree(root, {{TreeItem::DIR, "a"},
                        {TreeItem::DIR, "a/b"},
                        {TreeItem::FILE, "f", "data"},
                        {TreeItem::HARDLINK, "a/h", "f"},
                        {TreeItem::SYMLINK, "s", "f"}});
    }
    void Clear() const {
        for (const std::string& name : Entries(work)) unlink((work + "/" + name).c_str());
    }
    /// Starts Ferrovan on the tree with args, traced, output and errors into files in work.
    pid_t Start(const std::vector<std::string>& args) const {
        int in = OpenFile("/dev/null", O_RDONLY);
        int out = OpenFile(work + "/stdout", O_WRONLY | O_CREAT | O_TRUNC);
        int err = OpenFile(work + "/stderr", O_WRONLY | O_CREAT | O_TRUNC);
        std::vector<std::string> all = {root};
        all.insert(all.end(), args.begin(), args.end());
        // The leak checker of a sanitizer build refuses to run under a tracer.
        pid_t pid =
            StartProgram(FerrovanPath(), all, {in, out, err},
                         {.cwd = work, .env = {"TMPDIR=" + tmp, "ASAN_OPTIONS=detect_leaks=0"}, .traced = true});
        close(in);
        close(out);
        close(err);
        return pid;
    }
};

// A signal while -zip compresses: the finished plain file stays, the
// temporary file goes. The run is held at the return of the call that
// created the temporary file, and the signal is sent there.
TEST(InterruptedRun, DuringCompressionKeepsThePlainFileAndRemovesTheTemporaryOne) {
    SmallTree tree;
    std::string plain;
    auto compressing = [&](int) {
        for (const std::string& name : Entries(tree.work)) {
            if (!name.ends_with(".tmp")) continue;
            plain = ReadFile(tree.work + "/out.dtl");
            return true;
        }
        return false;
    };
    bool ran = false;
    int status = SignalAtReturn(tree.Start({"-dtl", "out.dtl", "-zip"}), SIGTERM, compressing, &ran);
    ASSERT_TRUE(ran) << "no temporary file was seen; status " << status;
    EXPECT_EQ(status, 128 + SIGTERM);
    EXPECT_EQ(ReadFile(tree.work + "/stderr"), "Scan interrupted by signal 15 (Terminated)\n");
    EXPECT_TRUE(ReadFile(tree.work + "/stdout").ends_with("Compressing DTL file\n"));
    EXPECT_EQ(plain.substr(0, 4), "FDTL");
    EXPECT_TRUE(ReadFile(tree.work + "/out.dtl") == plain);
    EXPECT_TRUE(ReadDetail(tree.work + "/out.dtl").sound);
    EXPECT_EQ(Entries(tree.work), (std::set<std::string>{"out.dtl", "stderr", "stdout"}));
}

// The log with the lines that change from run to run blanked.
std::vector<std::string> MaskedLines(const std::string& log) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < log.size();) {
        size_t end = std::min(log.find('\n', at), log.size());
        std::string line = log.substr(at, end - at);
        for (const char* changing : {"Run on: ", "End time: ", " Elapsed: ", "\tAvailable space: "})
            if (line.rfind(changing, 0) == 0) line = changing;
        lines.push_back(line);
        at = end + 1;
    }
    return lines;
}

// A signal at the return of every system call of a -zip -p run, one run each,
// over an existing finished detail file and without one: whenever it comes,
// the run ends with status 128 + 15, the log is a beginning of the whole
// log, nothing temporary is left, and the detail file is the old one, an
// unfinished one, a finished one or a compressed one.
TEST(InterruptedRun, AtAnyMomentLeavesNothingHalfDone) {
    SmallTree tree;
    const std::vector<std::string> args = {"-dtl", "out.dtl", "-f", "-p", "-zip"};
    bool ran = false;
    ASSERT_EQ(SignalAtReturn(
                  tree.Start(args), SIGTERM, [](int) { return false; }, &ran),
              0);
    const std::vector<std::string> whole = MaskedLines(ReadFile(tree.work + "/stdout"));
    ASSERT_GE(whole.size(), 20u);
    ASSERT_EQ(RunFerrovan({tree.root, "-dtl", "old.dtl"}, {.cwd = tree.work}).status, 0);
    const std::string old = ReadFile(tree.work + "/old.dtl");
    int calls = 0;
    for (int at = 1; ran || at == 1; at++) {
        SCOPED_TRACE("signal at the return of call " + std::to_string(at));
        tree.Clear();
        bool existing = at % 2 == 0;
        if (existing) WriteFile(tree.work + "/out.dtl", old);
        // The names of the temporary files the run has open when the signal comes.
        std::vector<std::string> openTemporary;
        pid_t pid = tree.Start(args);
        auto there = [&](int call) {
            if (call != at) return false;
            std::string fds = "/proc/" + std::to_string(pid) + "/fd";
            for (const std::string& fd : Entries(fds)) {
                char target[PATH_MAX];
                ssize_t n = readlink((fds + "/" + fd).c_str(), target, sizeof target);
                std::string path(target, n > 0 ? static_cast<size_t>(n) : 0);
                std::string in = path.substr(0, path.rfind('/'));
                if ((in == P_tmpdir || in == tree.tmp) && !path.ends_with(" (deleted)")) openTemporary.push_back(path);
            }
            return true;
        };
        int status = SignalAtReturn(pid, SIGTERM, there, &ran);
        if (!ran) {
            EXPECT_EQ(status, 0);
            break;
        }
        calls = at;
        EXPECT_EQ(status, 128 + SIGTERM);
        std::string err = ReadFile(tree.work + "/stderr");
        EXPECT_TRUE(err.empty() || err == "Scan interrupted by signal 15 (Terminated)\n") << err;
        std::vector<std::string> log = MaskedLines(ReadFile(tree.work + "/stdout"));
        ASSERT_LE(log.size(), whole.size());
        for (size_t i = 0; i + 1 < log.size(); i++) EXPECT_EQ(log[i], whole[i]);
        if (!log.empty()) {
            EXPECT_EQ(whole[log.size() - 1].rfind(log.back(), 0), 0u) << log.back();
        }

        EXPECT_EQ(Entries(tree.tmp), std::set<std::string>{});
        for (const std::string& path : openTemporary) EXPECT_FALSE(PathExists(path)) << path;
        std::set<std::string> left = Entries(tree.work);
        left.erase("stdout");
        left.erase("stderr");
        if (left.empty()) {
            EXPECT_FALSE(existing) << "the existing detail file was removed";
            // Once the root's heading is logged the headers are written and the file stays.
            EXPECT_EQ(std::count(log.begin(), log.end(), "Root path: " + tree.root + " (local filesystem)"), 0);
            continue;
        }
        EXPECT_EQ(left, std::set<std::string>{"out.dtl"});
        std::string dtl = ReadFile(tree.work + "/out.dtl");
        std::string magic = dtl.substr(0, 4);
        if (dtl == old) continue;
        if (magic == "IDTL") continue;
        if (magic == "FDTL") {
            EXPECT_TRUE(ReadDetail(tree.work + "/out.dtl").sound);
        } else {
            EXPECT_EQ(dtl.substr(0, 2), "\x78\x01") << "neither the old file nor a detail file: " << dtl.size();
        }
    }
    // The walk and the compression are well inside the calls tried.
    EXPECT_GE(calls, 100);
}

}  // namespace
