// The walk's live progress line: its text, and the real program under a
// pseudo-terminal, where it is drawn, refreshed and erased before anything
// else is written; and its absence when the error output is a file or a pipe.
#include "scan/progress.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wchar.h>

#include <clocale>

#include <algorithm>
#include <chrono>
#include <string>
#include <utility>
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
        {big, "/usr/share", head.size() + 10, head + "/usr/share"},      // just fits
        {big, "/usr/share/doc", head.size() + 10, head + "...are/doc"},  // the end of the path is kept
        {big, "/a\nb\x7f\xff\\", 200, head + "/a\\nb\\x7f\\xff\\\\"},  // control and stray bytes, escaped
        {big, "/d/\xc3\xa9\xc3\xa9\xc3\xa9", head.size() + 5, head + "...\xc3\xa9\xc3\xa9"},  // one column each
        {big, "/d/\xe4\xb8\xad\xe4\xb8\xad", head.size() + 7, head + "/d/\xe4\xb8\xad\xe4\xb8\xad"},  // wide: two each
        {big, "/d/\xe4\xb8\xad\xe4\xb8\xad", head.size() + 6, head + "...\xe4\xb8\xad"},  // never half of one
        {big, "/xyde\xcc\x81\xcc\x81" "f", head.size() + 5, head + "...e\xcc\x81\xcc\x81" "f"},  // marks take none
        {big, "/usr", 20, head.substr(0, 20)},  // too narrow even for the figures
        {{500, 2, 999, 0.5}, "/r", 80, "500 entries  2 dirs  999 bytes  1,000/s  00:00:00  /r"},
        {{1, 1, 999999, 10805}, "/r", 80, "1 entries  1 dirs  1.00mb  0/s  03:00:05  /r"},  // 999.999kb rounds up a unit
        {{1, 1, 1000, 1}, "/r", 80, "1 entries  1 dirs  1.00kb  1/s  00:00:01  /r"},
    };
    for (const Case& c : cases) {
        char out[4 * 2048];
        size_t columns = 0;
        size_t length = FormatProgressLine(c.figures, c.path, c.columns, out, &columns);
        EXPECT_EQ(std::string(out, length), c.line) << c.path << " in " << c.columns;
        EXPECT_LE(columns, c.columns) << c.path;
    }
}

std::string Trimmed(std::string line) { return line.erase(line.find_last_not_of(' ') + 1); }

// What a terminal shows after bytes: its lines, trailing blanks dropped, and
// the line the cursor is left on (nothing when the progress line is erased).
std::string Screen(const std::string& bytes) {
    std::string screen, line;
    size_t column = 0;
    for (char ch : bytes) {
        if (ch == '\n') screen += Trimmed(std::exchange(line, "")) + "\n";
        if (ch == '\r' || ch == '\n') {
            column = 0;
        } else {
            line.resize(std::max(line.size(), column + 1));
            line[column++] = ch;
        }
    }
    return screen + Trimmed(line);
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

// Runs Ferrovan on the tree with standard output and error on out and err;
// returns what the terminal (or pipe) received.
std::string Shown(const RunDirs& dirs, const std::vector<std::string>& extra, Pipe& terminal, int out, int err,
                  bool unprivileged = false) {
    pid_t pid = dirs.Start(extra, out, err, {.unprivileged = unprivileged});
    terminal.CloseWrite();
    std::string shown = ReadToEnd(terminal.read);
    EXPECT_EQ(WaitProgram(pid), 0);
    return shown;
}

// On a terminal the line is drawn from the start of the walk and erased
// before every message and at the end: the screen shows what the same run
// writes to a file, whether the message is an error (the unprivileged run
// cannot open x) or, with -p, a line of the log.
TEST(ProgressLine, IsErasedBeforeEveryMessageAndAtTheEnd) {
    RunDirs dirs;
    MakeTree(dirs.root, {{TreeItem::DIR, "a"}, {TreeItem::FILE, "a/f", "data"}, {TreeItem::DIR, "x"}});
    chmod((dirs.root + "/x").c_str(), 0);
    for (const std::vector<std::string>& extra : {std::vector<std::string>{}, {"-p"}}) {
        SCOPED_TRACE(extra.size());
        Pipe terminal(300);
        std::string shown = Shown(dirs, extra, terminal, terminal.write, terminal.write, true);
        std::vector<std::string> drawn = Drawings(shown);
        ASSERT_FALSE(drawn.empty()) << shown;
        EXPECT_EQ(drawn[0], "0 entries  0 dirs  0 bytes  0/s  00:00:00  " + dirs.root);
        const std::string onScreen = Screen(shown);
        EXPECT_NE(onScreen.find("Unable to open directory '" + dirs.root + "/x'\n  (p13) Permission denied\n"),
                  std::string::npos) << onScreen;
        int file = dirs.Create("log");
        ASSERT_EQ(WaitProgram(dirs.Start(extra, file, file, {.unprivileged = true})), 0);
        close(file);
        EXPECT_EQ(MaskedLog(onScreen), MaskedLog(ReadFile(dirs.work + "/log")));
    }
}

// A terminal of width columns that wraps as terminals do, measuring each
// character with the C library's widths: the rows it went down, the widest
// column the cursor reached, and what the cursor's row shows.
struct Terminal {
    size_t width, rows = 0, column = 0, widest = 0;
    std::wstring line = L"";
    void Feed(const std::string& bytes) {
        mbstate_t state{};
        for (size_t at = 0, length; at < bytes.size(); at += length) {
            wchar_t c;
            length = mbrtowc(&c, bytes.data() + at, bytes.size() - at, &state);
            ASSERT_TRUE(length > 0 && length <= 4) << "not UTF-8 at " << at;
            int columns = c == '\r' || c == '\n' ? 0 : wcwidth(c);
            ASSERT_GE(columns, 0) << "a control character reached the terminal: " << static_cast<int>(c);
            if (c == '\n' || column + columns > width) {
                rows++;
                line.clear();
            }
            if (c == '\r' || c == '\n' || column + columns > width) column = 0;
            line.resize(std::max(line.size(), column + columns), L' ');
            line.replace(column, columns, columns, c);
            column += columns;
            widest = std::max(widest, column);
        }
    }
};

// A walk held up long enough is redrawn with its counts, at most ten times a
// second. Whatever the names (wide characters: two columns, three bytes;
// combining marks: none; stray bytes and control characters: their escapes)
// each drawing takes the terminal's width less one at most, so that it never
// wraps and replaces the last on the same row, and it is erased at the end.
// The walk is held by its -p log, a pipe of one page that the test reads only
// after a quarter second; the lines (more than the log's trace buffer holds)
// are written mid-walk.
TEST(ProgressLine, IsRedrawnOnOneRowAtMostTenTimesASecond) {
    ASSERT_NE(setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    RunDirs dirs;
    const std::string odd[] = {"\xe4\xb8\xad\xe6\x96\x87", "e\xcc\x81\xcc\x81", "\xff\xfe", "\x1b[2J\n"};
    for (int i = 0; i < 600; i++) {
        std::string name = std::to_string(i);
        for (int j = 0; j < 40; j++) name += odd[(i + j) % 4];  // 190 bytes
        ASSERT_EQ(mkdir((dirs.root + "/" + name).c_str(), 0755), 0);
    }
    for (unsigned short width : {60, 111}) {
        SCOPED_TRACE(width);
        Pipe terminal(width), log;
        ASSERT_TRUE(log.Shrink());
        auto begin = std::chrono::steady_clock::now();
        pid_t pid = dirs.Start({"-p"}, log.write, terminal.write);
        log.CloseWrite();
        terminal.CloseWrite();
        usleep(250000);
        const std::string logged = ReadToEnd(log.read), shown = ReadToEnd(terminal.read);
        EXPECT_EQ(WaitProgram(pid), 0);
        double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        std::vector<std::string> drawn = Drawings(shown);
        ASSERT_GE(drawn.size(), 2u) << shown;
        EXPECT_LE(drawn.size(), 2 + static_cast<size_t>(seconds * 10)) << seconds;
        // Drawn after the wait: it counts the directories come to, and names one cut to fit.
        EXPECT_NE(drawn.back().rfind("0 entries", 0), 0u) << drawn.back();
        EXPECT_NE(drawn.back().find("  ..."), std::string::npos) << drawn.back();
        Terminal screen{width};
        screen.Feed(shown);
        EXPECT_EQ(screen.rows, 0u) << shown;
        EXPECT_LT(screen.widest, width) << shown;
        EXPECT_EQ(screen.line.find_first_not_of(L' '), std::wstring::npos) << "left on screen: " << shown;
        EXPECT_EQ(logged.find('\r'), std::string::npos);
    }
    setlocale(LC_CTYPE, "C");
}

// Nothing of it reaches a terminal when -err names a file, nor a pipe.
TEST(ProgressLine, NeverReachesAFileOrAPipe) {
    RunDirs dirs;
    MakeTree(dirs.root, {{TreeItem::DIR, "a"}, {TreeItem::FILE, "a/f", "data"}});
    Pipe terminal(80), pipe;
    int log = dirs.Create("log");
    EXPECT_EQ(Shown(dirs, {"-err", "errors"}, terminal, log, terminal.write), "");
    EXPECT_EQ(ReadFile(dirs.work + "/errors"), "");
    EXPECT_EQ(Shown(dirs, {"-p"}, pipe, log, pipe.write), "");
    close(log);
}

}  // namespace
