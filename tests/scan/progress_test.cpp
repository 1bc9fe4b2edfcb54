// The walk's live progress line: its text, and the real program under a
// pseudo-terminal, where it is drawn, refreshed and erased before anything
// else is written; and its absence when the error output is a file or a pipe.
#include "scan/progress.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/support/testutil.h"
#include "tests/support/treebuilder.h"

namespace {

TEST(ProgressLine, ShowsTheFiguresAndTheEndOfThePathWithinTheColumns) {
    const std::string head = "1,234,567 entries  98,765 dirs  12.35gb  14,785/s  00:01:23  ";
    const ProgressFigures big{1234567, 98765, 12345678901, 83.5};
    struct Case {
        ProgressFigures figures;
        const char* path;
        size_t columns;
        std::string line;
    } cases[] = {
        {big, "/usr/share", 200, head + "/usr/share"},
        {big, "/usr/share", head.size() + 10, head + "/usr/share"},      // just fits
        {big, "/usr/share/doc", head.size() + 10, head + "...are/doc"},  // the end of the path is kept
        {big, "/a\nb\x7f\xff", 200, head + "/a?b??"},                    // control and stray bytes
        {big, "/d/\xc3\xa9\xc3\xa9\xc3\xa9", head.size() + 7, head + "...\xc3\xa9\xc3\xa9"},  // two columns each
        {big, "/d/\xc3\xa9\xc3\xa9\xc3\xa9", head.size() + 6, head + "...\xc3\xa9"},          // never half of one
        {big, "/usr", 20, head.substr(0, 20)},  // too narrow even for the figures
        {{0, 0, 0, 0}, "/r", 80, "0 entries  0 dirs  0 bytes  0/s  00:00:00  /r"},
        {{500, 2, 999, 0.5}, "/r", 80, "500 entries  2 dirs  999 bytes  1,000/s  00:00:00  /r"},
        {{1, 1, 999999, 10805},
         "/r",
         80,
         "1 entries  1 dirs  1.00mb  0/s  03:00:05  /r"},  // 999.999kb rounds up a unit
        {{1, 1, 1000, 1}, "/r", 80, "1 entries  1 dirs  1.00kb  1/s  00:00:01  /r"},
    };
    for (const Case& c : cases) {
        char out[2048];
        size_t length = FormatProgressLine(c.figures, c.path, c.columns, out);
        EXPECT_EQ(std::string(out, length), c.line) << c.path << " in " << c.columns;
    }
}

// A pseudo-terminal of the given width; the program gets the slave side.
struct Terminal {
    int master = -1, slave = -1;
    explicit Terminal(unsigned short columns) {
        struct winsize size = {24, columns, 0, 0};
        if (openpty(&master, &slave, nullptr, nullptr, &size) != 0) throw std::runtime_error("openpty");
        fcntl(master, F_SETFD, FD_CLOEXEC);
        fcntl(slave, F_SETFD, FD_CLOEXEC);
    }
    ~Terminal() {
        CloseSlave();
        close(master);
    }
    void CloseSlave() {
        if (slave >= 0) close(slave);
        slave = -1;
    }
};

// What a terminal shows after bytes: the lines ended by a newline, trailing
// blanks dropped, and the line the cursor is left on.
struct Screen {
    std::vector<std::string> lines;
    std::string last;
};

std::string Trimmed(std::string line) { return line.erase(line.find_last_not_of(' ') + 1); }

Screen Render(const std::string& bytes) {
    Screen screen;
    std::string line;
    size_t column = 0;
    for (char ch : bytes) {
        if (ch == '\r') {
            column = 0;
        } else if (ch == '\n') {
            screen.lines.push_back(Trimmed(line));
            line.clear();
            column = 0;
        } else {
            if (column < line.size()) {
                line[column] = ch;
            } else {
                line.push_back(ch);
            }
            column++;
        }
    }
    screen.last = Trimmed(line);
    return screen;
}

// The progress lines drawn: what follows each carriage return, when it is one.
std::vector<std::string> Drawings(const std::string& bytes) {
    std::vector<std::string> found;
    for (size_t at = 0; (at = bytes.find('\r', at)) != std::string::npos; at++) {
        std::string rest = bytes.substr(at + 1, bytes.find_first_of("\r\n", at + 1) - at - 1);
        if (rest.find(" entries  ") != std::string::npos) found.push_back(Trimmed(rest));
    }
    return found;
}

std::string ReadAll(int fd) {
    std::string all;
    char buf[65536];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) != 0;) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) break;  // EIO: the terminal's last slave is closed
        all.append(buf, static_cast<size_t>(n));
    }
    return all;
}

std::string RealPath(const std::string& path) {
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) ? resolved : path;
}

// The log with the lines that change from run to run blanked.
std::string Masked(std::string log) {
    for (const char* changing : {"Timestamp: ", "End time: ", "Elapsed: ", "Available space: "}) {
        for (size_t at = log.find(changing); at != std::string::npos; at = log.find(changing, at + 1)) {
            size_t from = at + strlen(changing);
            log.erase(from, log.find('\n', from) - from);
        }
    }
    return log;
}

struct Scene {
    ScopedTempDir dir;
    std::string root, work;
    Scene() {
        chmod(dir.path.c_str(), 0755);
        mkdir((dir / "root").c_str(), 0755);
        mkdir((dir / "work").c_str(), 0777);
        chmod((dir / "work").c_str(), 0777);
        root = RealPath(dir / "root");
        work = RealPath(dir / "work");
    }
    /// Runs Ferrovan on the root with standard output and error on out and
    /// err; returns what the terminal received.
    std::string Run(const std::vector<std::string>& extra, Terminal& terminal, int out, int err,
                    bool unprivileged = false) const {
        std::vector<std::string> args = {root, "-dtl", "out.dtl", "-f"};
        args.insert(args.end(), extra.begin(), extra.end());
        int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
        pid_t pid = StartProgram(FerrovanPath(), args, {in, out, err}, {.cwd = work, .unprivileged = unprivileged});
        close(in);
        terminal.CloseSlave();
        std::string shown = ReadAll(terminal.master);
        EXPECT_EQ(WaitProgram(pid), 0);
        return shown;
    }
    int Create(const std::string& name) const {
        return open((work + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }
};

// On a terminal error output the line is drawn from the start of the walk and
// erased before an error message, and at the end; the log is untouched.
TEST(ProgressLine, IsErasedBeforeAnErrorAndAtTheEnd) {
    Scene scene;
    MakeTree(scene.root, {{TreeItem::DIR, "a"}, {TreeItem::FILE, "a/f", "data"}, {TreeItem::DIR, "x"}});
    chmod((scene.root + "/x").c_str(), 0);  // cannot be opened by the unprivileged run
    Terminal terminal(300);
    int log = scene.Create("log");
    std::string shown = scene.Run({}, terminal, log, terminal.slave, true);
    close(log);
    std::vector<std::string> drawn = Drawings(shown);
    ASSERT_FALSE(drawn.empty()) << shown;
    EXPECT_EQ(drawn[0], "0 entries  0 dirs  0 bytes  0/s  00:00:00  " + scene.root);
    // The error lines alone, as if no progress line had been there.
    Screen screen = Render(shown);
    EXPECT_EQ(screen.lines, (std::vector<std::string>{"Unable to open directory '" + scene.root + "/x'",
                                                      "  (p13) Permission denied"}));
    EXPECT_EQ(screen.last, "");
    // The log is what it is without a terminal.
    int log2 = scene.Create("log2"), err2 = scene.Create("err2");
    Terminal unused(80);
    scene.Run({}, unused, log2, err2, true);
    close(log2);
    close(err2);
    EXPECT_EQ(Masked(ReadFile(scene.work + "/log")), Masked(ReadFile(scene.work + "/log2")));
    EXPECT_EQ(ReadFile(scene.work + "/log").find('\r'), std::string::npos);
}

// With the log on the same terminal, every log line, -p's included, appears
// whole: the line is erased before each.
TEST(ProgressLine, LeavesTheLogWholeOnTheSameTerminal) {
    Scene scene;
    MakeTree(scene.root, {{TreeItem::DIR, "a"}, {TreeItem::DIR, "a/b"}, {TreeItem::FILE, "a/b/f", "data"}});
    Terminal terminal(300);
    std::string shown = scene.Run({"-p"}, terminal, terminal.slave, terminal.slave);
    ASSERT_FALSE(Drawings(shown).empty()) << shown;
    Screen screen = Render(shown);
    int log = scene.Create("log"), err = scene.Create("err");
    Terminal unused(80);
    scene.Run({"-p"}, unused, log, err);
    close(log);
    close(err);
    std::string expected;
    for (const std::string& line : screen.lines) expected += line + "\n";
    EXPECT_EQ(Masked(expected), Masked(ReadFile(scene.work + "/log")));
    EXPECT_EQ(screen.last, "");
}

// A walk held up long enough is redrawn with its counts, at most ten times a
// second, each drawing within the terminal's width. The walk is held by its
// -p log, a pipe of one page that the test reads only after a quarter second;
// the lines (more than the log's trace buffer holds) are written mid-walk.
TEST(ProgressLine, IsRedrawnWithTheCountsAtMostTenTimesASecond) {
    Scene scene;
    for (int i = 0; i < 600; i++) mkdir((scene.root + "/" + std::to_string(i) + std::string(150, 'd')).c_str(), 0755);
    Terminal terminal(100);
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
    ASSERT_GE(fcntl(fds[1], F_SETPIPE_SZ, 4096), 4096);
    int in = open("/dev/null", O_RDONLY | O_CLOEXEC);
    auto begin = std::chrono::steady_clock::now();
    pid_t pid = StartProgram(FerrovanPath(), {scene.root, "-dtl", "out.dtl", "-f", "-p"}, {in, fds[1], terminal.slave},
                             {.cwd = scene.work});
    close(in);
    close(fds[1]);
    terminal.CloseSlave();
    std::string shown, log;
    char buf[65536];
    bool draining = false, logOpen = true, terminalOpen = true;
    while (logOpen || terminalOpen) {
        int held = 0;
        if (!draining && ioctl(fds[0], FIONREAD, &held) == 0 && held > 0 &&
            std::chrono::steady_clock::now() - begin >= std::chrono::milliseconds(250))
            draining = true;
        pollfd watch[2] = {{terminal.master, static_cast<short>(terminalOpen ? POLLIN : 0), 0},
                           {fds[0], static_cast<short>(draining && logOpen ? POLLIN : 0), 0}};
        poll(watch, 2, 20);
        if (watch[0].revents) {
            ssize_t n = read(terminal.master, buf, sizeof buf);
            if (n > 0) shown.append(buf, static_cast<size_t>(n));
            if (n <= 0) terminalOpen = false;
        }
        if (watch[1].revents) {
            ssize_t n = read(fds[0], buf, sizeof buf);
            if (n > 0) log.append(buf, static_cast<size_t>(n));
            if (n <= 0) logOpen = false;
        }
    }
    close(fds[0]);
    EXPECT_EQ(WaitProgram(pid), 0);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    std::vector<std::string> drawn = Drawings(shown);
    ASSERT_GE(drawn.size(), 2u) << shown;
    EXPECT_LE(drawn.size(), 2 + static_cast<size_t>(seconds * 10)) << seconds;
    // Drawn after the wait: it counts the directories come to, and names one cut to fit.
    EXPECT_NE(drawn.back().rfind("0 entries", 0), 0u) << drawn.back();
    EXPECT_NE(drawn.back().find("  ..."), std::string::npos) << drawn.back();
    for (const std::string& line : drawn) EXPECT_LE(line.size(), 99u) << line;
    EXPECT_EQ(Render(shown).last, "");
    EXPECT_EQ(log.find('\r'), std::string::npos);
}

// Nothing of it reaches a file or a pipe, nor a terminal when -err names a file.
TEST(ProgressLine, NeverReachesAFileOrAPipe) {
    Scene scene;
    MakeTree(scene.root, {{TreeItem::DIR, "a"}, {TreeItem::FILE, "a/f", "data"}});
    {
        Terminal terminal(80);
        int log = scene.Create("log");
        EXPECT_EQ(scene.Run({"-err", "errors"}, terminal, log, terminal.slave), "");
        close(log);
        EXPECT_EQ(ReadFile(scene.work + "/errors"), "");
    }
    {
        Terminal unused(80);
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_CLOEXEC), 0);
        int log = scene.Create("log");
        scene.Run({"-p"}, unused, log, fds[1]);
        close(fds[1]);
        close(log);
        EXPECT_EQ(ReadAll(fds[0]), "");
        close(fds[0]);
    }
}

}  // namespace
