// dtldump browse: the screen and the keys, drawn with ncurses (its
// wide-character build, for names in UTF-8). Everything shown comes from
// the model of browsetree.cpp; this file only lays it out and answers keys.
#include <curses.h>
#include <grp.h>
#include <langinfo.h>
#include <locale.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>
#include <wchar.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "reader/browse.h"
#include "reader/dtldump.h"
#include "reader/report.h"
#include "reader/reportprint.h"
#include "reader/textout.h"
#include "support/termwidth.h"

namespace {

// The smallest screen the browser draws on; below it a message says so.
constexpr int MIN_COLUMNS = 40;
constexpr int MIN_LINES = 10;
// How long the key loop waits before it looks at the signal flag again.
constexpr int KEY_WAIT_MS = 200;

// ---- Leaving the screen, however the program ends

// The interrupting signal that arrived, 0 while none has: the handler only
// sets it, and the key loop leaves the screen through endwin, which no
// handler may call.
volatile sig_atomic_t interrupted = 0;
// What a crash writes to put the terminal back, taken from the terminal
// database while the screen starts (a handler cannot ask for it then).
char resetText[256];
size_t resetLength = 0;
struct termios savedTerminal;
bool screenOn = false;

void OnInterrupt(int signal) { interrupted = signal; }

// A crash cannot run endwin: it writes the reset sequences and the saved
// terminal modes back (both async-signal-safe) and dies of its signal.
void OnCrash(int signal) {
    ssize_t written = write(STDOUT_FILENO, resetText, resetLength);
    (void)written;  // nothing more can be done about a failed write here
    tcsetattr(STDIN_FILENO, TCSANOW, &savedTerminal);
    ::signal(signal, SIG_DFL);
    raise(signal);
}

// A fatal exit (exit() from deep inside, as an exhausted memory ends the
// program) still leaves the screen first.
void LeaveAtExit() {
    if (screenOn) endwin();
    screenOn = false;
}

void AddReset(const char* capability) {
    const char* text = tigetstr(capability);
    if (text == nullptr || text == reinterpret_cast<const char*>(-1)) return;
    size_t length = strlen(text);
    if (resetLength + length > sizeof resetText) return;
    memcpy(resetText + resetLength, text, length);
    resetLength += length;
}

void Catch(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    // No SA_RESTART: a key wait ends at once when a signal comes.
    sigaction(signal, &action, nullptr);
}

// Starts the screen. False when the terminal cannot be used.
bool StartScreen() {
    tcgetattr(STDIN_FILENO, &savedTerminal);
    // Installed before the screen starts, so that ncurses keeps them.
    for (int s : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction old {};
        sigaction(s, nullptr, &old);
        if (old.sa_handler != SIG_IGN) Catch(s, OnInterrupt);  // nohup's SIGHUP stays ignored
    }
    if (newterm(nullptr, stdout, stdin) == nullptr) return false;
    screenOn = true;
    atexit(LeaveAtExit);
    for (const char* c : {"rmcup", "sgr0", "cnorm"}) AddReset(c);
    if (resetLength + 2 <= sizeof resetText) {
        memcpy(resetText + resetLength, "\r\n", 2);
        resetLength += 2;
    }
    for (int s : {SIGSEGV, SIGBUS, SIGFPE, SIGABRT, SIGILL}) Catch(s, OnCrash);
    cbreak();
    noecho();
    keypad(stdscr, TRUE);
    curs_set(0);
    timeout(KEY_WAIT_MS);
    set_escdelay(25);
    return true;
}

void StopScreen() {
    if (screenOn) endwin();
    screenOn = false;
}

// ---- Text in columns

bool utf8Terminal = false;  // the locale's characters are UTF-8: other text is shown as escapes

// The name as the screen shows it, in at most width columns: printable
// characters as they are, anything else as escapes (textout's forms), a cut
// name ending in "...". Sets *columns to the columns it takes.
std::string Shown(std::string_view text, size_t width, size_t* columns = nullptr) {
    std::string out;
    size_t used = 0, total = TermColumns(text);
    size_t room = total <= width ? width : width >= 3 ? width - 3 : 0;
    for (size_t at = 0; at < text.size();) {
        size_t start = at;
        TermPiece piece = NextTermPiece(text, &at);
        // A character the terminal would measure otherwise than we do, or
        // any non-ASCII one on a terminal that is not UTF-8, goes as escapes.
        if (!piece.escaped && piece.length > 1 &&
            (!utf8Terminal || wcwidth(static_cast<wchar_t>(piece.codepoint)) != piece.columns)) {
            for (size_t i = start; i < at; i++) {
                char escape[8];
                snprintf(escape, sizeof escape, "\\x%02x", static_cast<unsigned char>(text[i]));
                if (used + 4 > room) break;
                out += escape;
                used += 4;
            }
            if (used + 4 > room) break;
            continue;
        }
        if (used + piece.columns > room) break;
        out.append(piece.text, piece.length);
        used += piece.columns;
    }
    if (total > width && width >= 3) {
        out += "...";
        used += 3;
    }
    if (columns) *columns = used;
    return out;
}

// Puts text at row, column, cut to width columns.
void Put(int row, int column, std::string_view text, int width) {
    if (width <= 0) return;
    std::string shown = Shown(text, static_cast<size_t>(width));
    mvaddnstr(row, column, shown.c_str(), static_cast<int>(shown.size()));
}

// A line of reverse video across the screen with text on it.
void Bar(int row, const std::string& text) {
    attron(A_REVERSE);
    mvhline(row, 0, ' ', COLS);
    Put(row, 0, text, COLS);
    attroff(A_REVERSE);
}

// ---- The browser's state

struct Browser {
    BrowseTree* tree = nullptr;
    uint32_t dir = 0;
    std::vector<BrowseEntry> entries;
    size_t cursor = 0, top = 0;
    BrowseSort sort = SORT_SIZE;
    bool reverse = false;
    bool apparent = false;  // every name of a hard-linked inode counted
    bool info = false, help = false;
    std::string search;   // the last text searched for
    std::string message;  // shown in the footer until the next key
};

uint64_t Size(const Browser& b, const BrowseEntry& e) { return b.apparent ? e.apparent : e.bytes; }
uint64_t DirSize(const Browser& b) {
    const BrowseDir& d = b.tree->dirs[b.dir];
    return b.apparent ? d.apparent : d.bytes;
}

// Opens directory row dir with the cursor on the entry named select (the
// first when none is).
void Open(Browser* b, uint32_t dir, const std::string& select = "") {
    std::string error;
    if (!BrowseList(b->tree, dir, &b->entries, &error)) {
        b->message = "cannot read the directory: " + error;
        BrowseList(b->tree, b->dir, &b->entries, &error);
        dir = b->dir;
    }
    b->dir = dir;
    SortEntries(&b->entries, b->sort, b->reverse, b->apparent);
    b->cursor = b->top = 0;
    for (size_t i = 0; i < b->entries.size(); i++)
        if (b->entries[i].name == select) b->cursor = i;
}

void Resort(Browser* b) {
    std::string name = b->entries.empty() ? "" : b->entries[b->cursor].name;
    SortEntries(&b->entries, b->sort, b->reverse, b->apparent);
    for (size_t i = 0; i < b->entries.size(); i++)
        if (b->entries[i].name == name) b->cursor = i;
}

std::string FullPath(const BrowseTree& t, const std::string& logical) {
    std::string path = t.strings.rootPath;
    if (logical == "/") return path.empty() ? "/" : path;
    if (!path.empty() && path.back() == '/') path.pop_back();
    return path + logical;
}

std::string EntryPath(const Browser& b, const BrowseEntry& e) {
    std::string dir = BrowsePath(*b.tree, b.dir);
    return FullPath(*b.tree, dir == "/" ? "/" + e.name : dir + "/" + e.name);
}

std::string SortText(const Browser& b) {
    switch (b.sort) {
        case SORT_SIZE: return b.reverse ? "size, smallest first" : "size, largest first";
        case SORT_NAME: return b.reverse ? "name, Z to A" : "name, A to Z";
        case SORT_COUNT: return b.reverse ? "entries, fewest first" : "entries, most first";
        case SORT_MTIME: return b.reverse ? "modified, oldest first" : "modified, newest first";
    }
    return "";
}

// ---- Drawing

int ListRows() { return LINES - 3; }

void DrawEntry(const Browser& b, int row, const BrowseEntry& e, bool selected) {
    uint64_t total = DirSize(b), size = Size(b, e);
    double share = total ? static_cast<double>(size) / static_cast<double>(total) : 0;
    int barWidth = COLS >= 80 ? 20 : COLS >= 60 ? 10 : 5;
    std::string bar(static_cast<size_t>(barWidth), ' ');
    size_t filled = static_cast<size_t>(share * barWidth + 0.5);
    std::fill(bar.begin(), bar.begin() + std::min<size_t>(filled, bar.size()), '#');
    char mark = e.dir < 0 && S_ISDIR(e.fixed.mode) ? '!' : !e.counted ? 'H' : S_ISLNK(e.fixed.mode) ? '@' : ' ';
    std::string count = S_ISDIR(e.fixed.mode) && e.dir >= 0 ? Number(e.entries) : "";
    char head[160];
    snprintf(head, sizeof head, "%10s %5.1f%% [%s] %9s %c ", HumanSize(size).c_str(), 100 * share, bar.c_str(),
             count.c_str(), mark);
    if (selected) attron(A_REVERSE);
    mvhline(row, 0, ' ', COLS);
    mvaddnstr(row, 0, head, std::min<int>(COLS, static_cast<int>(strlen(head))));
    int at = static_cast<int>(strlen(head));
    std::string name = e.name + (S_ISDIR(e.fixed.mode) ? "/" : "");
    Put(row, at, name, COLS - at);
    if (selected) attroff(A_REVERSE);
}

// Clears a box of height lines of text, width columns wide (less when the
// screen is smaller), centred between the path line and the footer, and
// draws its border. Returns the row of its first line of text; *shownWidth
// is the box's width.
int Panel(int height, int width, int* shownWidth) {
    width = std::min(width, COLS - 2);
    height = std::min(height + 2, LINES - 3);
    int top = 2 + (LINES - 3 - height) / 2, left = (COLS - width) / 2;
    for (int r = top; r < top + height; r++) mvhline(r, left, ' ', width);
    mvhline(top, left + 1, ACS_HLINE, width - 2);
    mvhline(top + height - 1, left + 1, ACS_HLINE, width - 2);
    mvvline(top + 1, left, ACS_VLINE, height - 2);
    mvvline(top + 1, left + width - 1, ACS_VLINE, height - 2);
    mvaddch(top, left, ACS_ULCORNER);
    mvaddch(top, left + width - 1, ACS_URCORNER);
    mvaddch(top + height - 1, left, ACS_LLCORNER);
    mvaddch(top + height - 1, left + width - 1, ACS_LRCORNER);
    *shownWidth = width;
    return top + 1;
}

void DrawInfo(const Browser& b) {
    if (b.entries.empty()) return;
    const BrowseEntry& e = b.entries[b.cursor];
    const DtlRecordFixed& fx = e.fixed;
    std::vector<std::pair<std::string, std::string>> lines;
    lines.push_back({"Path", EntryPath(b, e)});
    lines.push_back({"Kind", KindName(fx.mode)});
    char text[96];
    snprintf(text, sizeof text, "%s (%04o)", ModeText(fx.mode).c_str(), fx.mode & 07777);
    lines.push_back({"Mode", text});
    char buffer[16384];
    struct passwd pw, *user = nullptr;
    struct group gr, *group = nullptr;
    getpwuid_r(fx.uid, &pw, buffer, sizeof buffer, &user);
    lines.push_back({"Owner", (user ? std::string(user->pw_name) + " " : "") + "(" + std::to_string(fx.uid) + ")"});
    getgrgid_r(fx.gid, &gr, buffer, sizeof buffer, &group);
    lines.push_back({"Group", (group ? std::string(group->gr_name) + " " : "") + "(" + std::to_string(fx.gid) + ")"});
    lines.push_back({"Size", HumanSize(fx.size) + " (" + Number(fx.size) + " bytes)"});
    if (e.dir >= 0)
        lines.push_back({"Below it", HumanSize(Size(b, e)) + " (" + Number(Size(b, e)) + " bytes) in " +
                                         Number(e.entries) + " entries"});
    else if (S_ISDIR(fx.mode))
        lines.push_back({"Below it", "not read by the scan"});
    lines.push_back(
        {"Links", std::to_string(fx.linkCount) + (e.counted ? "" : ", its size counted at an earlier name")});
    lines.push_back({"Inode", std::to_string(fx.inode)});
    lines.push_back({"Modified", HeadingTime(fx.mtime)});
    lines.push_back({"Accessed", HeadingTime(fx.atime)});
    lines.push_back({"Changed", HeadingTime(fx.ctime)});
    if (S_ISLNK(fx.mode)) lines.push_back({"Target", e.target});
    // The path may take several lines; the rest are cut to the box.
    std::vector<std::pair<std::string, std::string>> shown;
    int width = std::min(COLS - 2, 100), room = width - 14;
    for (const auto& [label, value] : lines) {
        if (label != "Path") {
            shown.push_back({label, value});
            continue;
        }
        // Wrapped by pieces, so that no character is split.
        std::string part;
        size_t columns = 0;
        for (size_t at = 0; at < value.size();) {
            size_t start = at;
            TermPiece piece = NextTermPiece(value, &at);
            if (columns + piece.columns > static_cast<size_t>(room)) {
                shown.push_back({shown.empty() ? label : "", part});
                part.clear();
                columns = 0;
            }
            part.append(value, start, at - start);
            columns += piece.columns;
        }
        shown.push_back({shown.empty() ? label : "", part});
    }
    int row = Panel(static_cast<int>(shown.size()), width, &width);
    for (const auto& [label, value] : shown) {
        if (row >= LINES - 2) break;
        mvaddnstr(row, (COLS - width) / 2 + 2, label.c_str(), 10);
        Put(row++, (COLS - width) / 2 + 12, value, room);
    }
}

void DrawHelp() {
    static const char* const lines[] = {
        "Keys",
        "",
        "up, k / down, j      move",
        "PgUp / PgDn          a screen up or down",
        "Home / End           first / last entry",
        "Enter, right, l      open the directory",
        "Backspace, left, h   go up",
        "s n C M              sort by size, name, entry count, modification",
        "                     (the same key again reverses the order)",
        "i                    details of the entry",
        "a                    hard links: each inode once / each name",
        "/                    find the next name containing a text",
        "?                    this help",
        "q                    quit",
        "",
        "Marks: H hard link counted at an earlier name, ! directory not read",
        "by the scan, @ symbolic link.   Any key closes this help.",
    };
    int height = static_cast<int>(sizeof lines / sizeof lines[0]), width = 0;
    int row = Panel(height, std::min(COLS - 2, 74), &width);
    for (int i = 0; i < height && row < LINES - 2; i++) Put(row++, (COLS - width) / 2 + 2, lines[i], width - 4);
}

void Draw(Browser* b) {
    erase();
    if (COLS < MIN_COLUMNS || LINES < MIN_LINES) {
        char text[96];
        snprintf(text, sizeof text, "Terminal too small (%dx%d): dtldump browse needs %dx%d. q quits.", COLS, LINES,
                 MIN_COLUMNS, MIN_LINES);
        for (int row = 0, at = 0, length = static_cast<int>(strlen(text)); at < length && row < LINES; row++) {
            mvaddnstr(row, 0, text + at, COLS);
            at += COLS;
        }
        refresh();
        return;
    }
    const BrowseTree& t = *b->tree;
    // A partial file says so first, where no width cuts it off.
    std::string head = "dtldump browse  ";
    if (!t.complete) head += t.unfinished ? "PARTIAL: unfinished scan  " : "PARTIAL: damaged file, as far as it goes  ";
    head += t.strings.rootPath + " on " + t.strings.nodeName + ", started " + HeadingTime(t.log.runTime);
    Bar(0, head);
    std::string where = FullPath(t, BrowsePath(t, b->dir));
    char position[48];
    snprintf(position, sizeof position, " %zu/%zu", b->entries.empty() ? 0 : b->cursor + 1, b->entries.size());
    int positionWidth = static_cast<int>(strlen(position));
    Put(1, 0, "--- " + where + " ", COLS - positionWidth);
    mvaddstr(1, COLS - positionWidth, position);
    int rows = ListRows();
    if (b->cursor < b->top) b->top = b->cursor;
    if (b->cursor >= b->top + static_cast<size_t>(rows)) b->top = b->cursor - rows + 1;
    for (int i = 0; i < rows && b->top + i < b->entries.size(); i++)
        DrawEntry(*b, 2 + i, b->entries[b->top + i], b->top + i == b->cursor);
    if (b->entries.empty()) mvaddstr(2, 0, "(empty directory)");
    std::string foot;
    if (!b->message.empty()) {
        foot = b->message;
    } else {
        const BrowseDir& d = t.dirs[b->dir];
        foot = "Total " + HumanSize(DirSize(*b)) + " (" + Number(DirSize(*b)) + " bytes) in " + Number(d.entries) +
               " entries | sort: " + SortText(*b) + " | hard links: " + (b->apparent ? "each name" : "once") +
               " | ? help";
    }
    Bar(LINES - 1, foot);
    if (b->info) DrawInfo(*b);
    if (b->help) DrawHelp();
    refresh();
}

// Reads a text on the footer line; false when Escape ends it.
bool Prompt(const char* label, std::string* text) {
    text->clear();
    curs_set(1);
    for (;;) {
        Bar(LINES - 1, std::string(label) + *text);
        move(LINES - 1, std::min(COLS - 1, static_cast<int>(strlen(label) + TermColumns(*text))));
        refresh();
        wint_t key;
        int kind = get_wch(&key);
        if (interrupted) break;
        if (kind == ERR) continue;
        if (kind == KEY_CODE_YES && key == KEY_RESIZE) continue;
        if (key == 27) break;
        if (key == '\n' || key == '\r' || (kind == KEY_CODE_YES && key == KEY_ENTER)) {
            curs_set(0);
            return true;
        }
        if ((kind == KEY_CODE_YES && key == KEY_BACKSPACE) || key == 127 || key == 8) {
            // Drop the last character, all its bytes.
            while (!text->empty() && (text->back() & 0xC0) == 0x80) text->pop_back();
            if (!text->empty()) text->pop_back();
        } else if (kind == OK && key >= 0x20) {
            char bytes[MB_LEN_MAX];
            mbstate_t state{};
            size_t length = wcrtomb(bytes, static_cast<wchar_t>(key), &state);
            if (length != static_cast<size_t>(-1)) text->append(bytes, length);
        }
    }
    curs_set(0);
    return false;
}

void Find(Browser* b) {
    std::string text;
    if (!Prompt("Find: ", &text)) return;
    if (text.empty()) text = b->search;
    b->search = text;
    if (text.empty()) return;
    size_t n = b->entries.size();
    for (size_t step = 1; step <= n; step++) {
        size_t i = (b->cursor + step) % n;
        if (b->entries[i].name.find(text) != std::string::npos) {
            b->cursor = i;
            return;
        }
    }
    b->message = "No name here contains " + text;
}

void SortBy(Browser* b, BrowseSort key) {
    b->reverse = b->sort == key ? !b->reverse : false;
    b->sort = key;
    Resort(b);
}

// Answers one key; false when it quits.
bool Key(Browser* b, int kind, wint_t key) {
    b->message.clear();
    bool special = kind == KEY_CODE_YES;
    size_t n = b->entries.size(), page = static_cast<size_t>(std::max(1, ListRows()));
    if (b->help) {  // any key closes the help
        b->help = false;
        return true;
    }
    if (!special && key == 'q') return false;
    if (special) {
        switch (key) {
            case KEY_UP: key = 'k'; break;
            case KEY_DOWN: key = 'j'; break;
            case KEY_RIGHT:
            case KEY_ENTER: key = 'l'; break;
            case KEY_LEFT:
            case KEY_BACKSPACE: key = 'h'; break;
            case KEY_PPAGE: b->cursor = b->cursor > page ? b->cursor - page : 0; return true;
            case KEY_NPAGE: b->cursor = n ? std::min(n - 1, b->cursor + page) : 0; return true;
            case KEY_HOME: b->cursor = 0; return true;
            case KEY_END: b->cursor = n ? n - 1 : 0; return true;
            default: return true;
        }
    } else if (key == '\n' || key == '\r') {
        key = 'l';
    } else if (key == 127 || key == 8) {
        key = 'h';
    }
    switch (key) {
        case 'k':
            if (b->cursor > 0) b->cursor--;
            break;
        case 'j':
            if (b->cursor + 1 < n) b->cursor++;
            break;
        case 'l':
            if (n && b->entries[b->cursor].dir >= 0)
                Open(b, static_cast<uint32_t>(b->entries[b->cursor].dir));
            else if (n && S_ISDIR(b->entries[b->cursor].fixed.mode))
                b->message = "The scan did not read this directory (left out, unreadable or too deep)";
            break;
        case 'h':
            if (b->dir != 0) Open(b, b->tree->dirs[b->dir].parent, b->tree->dirs[b->dir].name);
            break;
        case 's': SortBy(b, SORT_SIZE); break;
        case 'n': SortBy(b, SORT_NAME); break;
        case 'C': SortBy(b, SORT_COUNT); break;
        case 'M': SortBy(b, SORT_MTIME); break;
        case 'a':
            b->apparent = !b->apparent;
            Resort(b);
            break;
        case 'i': b->info = !b->info; break;
        case 27: b->info = false; break;
        case '?': b->help = true; break;
        case '/': Find(b); break;
    }
    return true;
}

}  // namespace

int BrowseMain(const char* file, bool partial) {
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) {
        fprintf(stderr,
                "dtldump: browse draws on a terminal, and standard %s is not one; the reports "
                "(dtldump top, owners, ...) write to pipes and files\n",
                isatty(STDIN_FILENO) ? "output" : "input");
        return 2;
    }
    BrowseTree tree;
    if (!BrowseOpen(file, partial, &tree)) {
        BrowseClose(&tree);
        return RefuseFile(tree.path, tree.opened, tree.fault);
    }
    setlocale(LC_ALL, "");
    utf8Terminal = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    if (!StartScreen()) {
        BrowseClose(&tree);
        const char* term = getenv("TERM");
        fprintf(stderr, "dtldump: cannot draw on this terminal (TERM=%s)\n", term ? term : "");
        return 2;
    }
    Browser b;
    b.tree = &tree;
    Open(&b, 0);
    for (;;) {
        Draw(&b);
        wint_t key;
        int kind = get_wch(&key);
        if (interrupted) break;
        if (kind == ERR || (kind == KEY_CODE_YES && key == KEY_RESIZE)) continue;
        if (COLS < MIN_COLUMNS || LINES < MIN_LINES) {
            if (kind == OK && key == 'q') break;
            continue;
        }
        if (!Key(&b, kind, key)) break;
    }
    StopScreen();
    BrowseClose(&tree);
    return interrupted ? 128 + interrupted : 0;
}
