// Runs of the real program ended by SIGINT, SIGTERM or SIGHUP: each says so,
// leaves its log complete up to the signal and removes what is temporary.
//
// The interrupted runs are caught mid-walk without racing a clock: the error
// output is a pipe shrunk to one page that the test does not read, and the
// tree gives more error messages than the pipe holds, so the walk must stop
// in the middle and wait for the test.
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "tests/support/dtlbuilder.h"
#include "tests/support/testutil.h"
#include "tests/support/treebuilder.h"

namespace {

// The tree of an interrupted walk: a chain of directories down to level 100
// and, in its last one, more directories one level too deep than the error
// pipe can hold messages about.
struct DeepTree : RunDirs {
    std::string chain;  // the logical path of the level-100 directory
    DeepTree() {
        std::string deepest = MakeChain(root, "d", 99);
        chain = deepest.substr(root.size());
        for (int i = 0; i < 60; i++) mkdir((deepest + "/n" + std::to_string(100 + i)).c_str(), 0755);
    }
    /// Starts Ferrovan with extra, its error output on err shrunk to one
    /// page, and returns once the walk is held up there.
    pid_t StartHeld(const std::vector<std::string>& extra, Pipe& err) const {
        if (!err.Shrink()) return -1;
        pid_t pid = Start(extra, -1, err.write);
        err.CloseWrite();
        // Well into the messages about the deep directories (bytes in the pipe,
        // unread); the walk cannot end before the test reads them.
        for (int held = 0; ioctl(err.read, FIONREAD, &held) != 0 || held < 3000; usleep(1000)) {
            siginfo_t info{};  // the program must not have ended (it is not reaped)
            if (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) != 0 || info.si_pid) return -1;
        }
        return pid;
    }
};

// The log of an interrupted -p run is a beginning of the log of the same run
// left alone, in whole lines, and holds at least the line of every directory
// whose message reached the error output. (Errors go to the log as well when
// it is a named file.)
TEST(InterruptedRun, SaysSoKeepsTheLogAndRemovesTemporaryFiles) {
    struct Case {
        int sig;
        const char* text;
        bool namedLog;  // -log file; else the log is standard output, redirected to a file
    } cases[] = {
        {SIGINT, "Scan interrupted by signal 2 (Interrupt)\n", false},
        {SIGTERM, "Scan interrupted by signal 15 (Terminated)\n", true},
        {SIGHUP, "Scan interrupted by signal 1 (Hangup)\n", false},
    };
    DeepTree tree;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        std::vector<std::string> args = {"-p"};
        if (c.namedLog) args.insert(args.end(), {"-log", "run.log"});
        const std::string logPath = tree.work + (c.namedLog ? "/run.log" : "/stdout");
        tree.ClearWork();
        ASSERT_EQ(WaitProgram(tree.Start(args)), 0);
        const std::string whole = MaskedLog(ReadFile(logPath));
        tree.ClearWork();
        Pipe err;
        pid_t pid = tree.StartHeld(args, err);
        ASSERT_GT(pid, 0);
        kill(pid, c.sig);
        std::string errors = ReadToEnd(err.read);
        EXPECT_EQ(WaitProgram(pid), 128 + c.sig);

        // The error output: whole messages about the deep directories, then the signal's line.
        ASSERT_TRUE(errors.ends_with(c.text)) << errors;
        size_t messages = 0;
        std::string name;  // of the last directory named
        for (size_t at = 0, end; (end = errors.find('\n', at)) + 1 < errors.size(); at = end + 1, messages++) {
            name = errors.substr(errors.rfind('/', end) + 1, 4);
            ASSERT_EQ(errors.substr(at, end + 1 - at), "Directory '" + tree.root + tree.chain + "/" + name +
                                                           "' is nested deeper than 100 levels and was not entered\n");
        }
        ASSERT_GE(messages, 8u);
        std::string log = MaskedLog(ReadFile(logPath));
        EXPECT_TRUE(whole.starts_with(log) && log.ends_with("\n")) << log;
        EXPECT_GT(log.size(), whole.find(tree.chain + "/" + name + "\n")) << log;
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
    pid_t pid = tree.StartHeld({}, err);
    ASSERT_GT(pid, 0);
    kill(pid, SIGINT);
    kill(pid, SIGTERM);
    std::string errors = ReadToEnd(err.read);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    EXPECT_EQ(errors.find("Scan interrupted"), std::string::npos);
}

// Lets a program started with RunOptions::traced run one system call at a
// time up to the return of the at-th (counted from 1), and returns true with
// the program stopped there; false once it has ended (status: how) or the
// tracing failed.
bool StopAtReturn(pid_t pid, int at, int* status) {
    if (waitpid(pid, status, 0) != pid || !WIFSTOPPED(*status)) return false;  // stopped by its exec
    ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
    for (int pass = 0, stops = 0;;) {
        if (ptrace(PTRACE_SYSCALL, pid, nullptr, pass) != 0 || waitpid(pid, status, 0) != pid) return false;
        if (WIFEXITED(*status) || WIFSIGNALED(*status)) return false;
        // A signal of the program's own is delivered as it came. Entries and
        // returns alternate; only a return is a moment between two calls.
        pass = WSTOPSIG(*status) == (SIGTRAP | 0x80) ? 0 : WSTOPSIG(*status);
        if (!pass && ++stops == 2 * at) return true;
    }
}

// A signal at the return of every system call of a -zip -p run, one run each,
// over an existing finished detail file and without one: whenever it comes,
// the run ends with status 128 + 15, the log is a beginning of the whole
// log, nothing temporary is left, and the detail file is the old one, an
// unfinished one, a finished one or a compressed one. A signal while -zip
// compresses keeps the finished plain file and removes the temporary one.
TEST(InterruptedRun, AtAnyMomentLeavesNothingHalfDone) {
    RunDirs tree;
    MakeTree(tree.root, {{TreeItem::DIR, "a"},
                         {TreeItem::DIR, "a/b"},
                         {TreeItem::FILE, "f", "data"},
                         {TreeItem::HARDLINK, "a/h", "f"},
                         {TreeItem::SYMLINK, "s", "f"}});
    const std::vector<std::string> args = {"-p", "-zip"};
    ASSERT_EQ(WaitProgram(tree.Start(args)), 0);
    const std::string whole = MaskedLog(ReadFile(tree.work + "/stdout"));
    ASSERT_EQ(RunFerrovan({tree.root, "-dtl", "old.dtl"}, {.cwd = tree.work}).status, 0);
    const std::string old = ReadFile(tree.work + "/old.dtl");
    int calls = 0, whileZipping = 0;
    for (int at = 1;; at++) {
        SCOPED_TRACE("signal at the return of call " + std::to_string(at));
        tree.ClearWork();
        bool existing = at % 2 == 0, zipping = false;
        if (existing) WriteFile(tree.work + "/out.dtl", old);
        pid_t pid = tree.Start(args, -1, -1, {.traced = true});
        int status = -1;
        if (!StopAtReturn(pid, at, &status)) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
            break;
        }
        for (const std::string& name : Entries(tree.work)) zipping |= name.ends_with(".tmp");
        kill(pid, SIGTERM);
        ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
        calls = at;
        EXPECT_EQ(WaitProgram(pid), 128 + SIGTERM);
        std::string err = ReadFile(tree.work + "/stderr");
        EXPECT_TRUE(err.empty() || err == "Scan interrupted by signal 15 (Terminated)\n") << err;
        std::string log = MaskedLog(ReadFile(tree.work + "/stdout"));
        EXPECT_TRUE(whole.starts_with(log)) << log;

        EXPECT_EQ(Entries(tree.tmp), std::set<std::string>{});  // the page files' names
        std::set<std::string> left = Entries(tree.work);
        left.erase("stdout");
        left.erase("stderr");
        if (left.empty()) {
            EXPECT_FALSE(existing) << "the existing detail file was removed";
            // Once the root's heading is logged the headers are written and the file stays.
            EXPECT_EQ(log.find("Root path: "), std::string::npos);
            continue;
        }
        EXPECT_EQ(left, std::set<std::string>{"out.dtl"});
        std::string dtl = ReadFile(tree.work + "/out.dtl"), magic = dtl.substr(0, 4);
        whileZipping += zipping;
        EXPECT_TRUE(!zipping || magic == "FDTL") << magic;
        if (magic == "FDTL") {
            EXPECT_TRUE(ReadDetail(tree.work + "/out.dtl").sound);
        } else if (dtl != old && magic != "IDTL") {
            EXPECT_EQ(dtl.substr(0, 2), "\x78\x01") << "neither the old file nor a detail file: " << dtl.size();
        }
    }
    // The walk and the compression are well inside the calls tried.
    EXPECT_GE(calls, 100);
    EXPECT_GT(whileZipping, 0);
}

}  // namespace
