#include "scan/progress.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "config/roots.h"
#include "log/log.h"
#include "scan/walk.h"
#include "support/numfmt.h"
#include "support/termwidth.h"

uint32_t progressCountdown = 0;

static const AuditRoot* progressRoot = nullptr;
static bool lineShown = false;
static timespec walkStart;
static timespec lastDrawn;

// The line never grows past what the status line can hold.
constexpr size_t PROGRESS_LINE_MAX = 1024;

static int64_t NanosBetween(const timespec& from, const timespec& to) {
    return (static_cast<int64_t>(to.tv_sec) - from.tv_sec) * 1000000000 + (to.tv_nsec - from.tv_nsec);
}

// A byte count in the log's metric units with two decimals: "512 bytes", "117.90mb".
static void FormatBytes(uint64_t bytes, char (&out)[32]) {
    static const char* const units[] = {"kb", "mb", "gb", "tb", "pb"};
    if (bytes < 1000) {
        snprintf(out, sizeof out, "%llu bytes", static_cast<unsigned long long>(bytes));
        return;
    }
    double value = static_cast<double>(bytes) / 1000;
    size_t unit = 0;
    // Two decimals: what would print as 1000.00 goes to the next unit.
    while (value >= 999.995 && unit + 1 < sizeof units / sizeof units[0]) {
        value /= 1000;
        unit++;
    }
    snprintf(out, sizeof out, "%.2f%s", value, units[unit]);
}

size_t FormatProgressLine(const ProgressFigures& figures, const char* dirPath, size_t columns, char* out,
                          size_t* shownColumns) {
    if (columns > PROGRESS_LINE_MAX) columns = PROGRESS_LINE_MAX;
    char entries[NUM_BUF_SIZE], dirs[NUM_BUF_SIZE], rate[NUM_BUF_SIZE], bytes[32];
    ValueStr(static_cast<int64_t>(figures.entries), entries, ',');
    ValueStr(static_cast<int64_t>(figures.dirs), dirs, ',');
    double perSecond = figures.seconds > 0 ? static_cast<double>(figures.entries) / figures.seconds : 0;
    ValueStr(static_cast<int64_t>(perSecond), rate, ',');
    FormatBytes(figures.bytes, bytes);
    long elapsed = static_cast<long>(figures.seconds);
    char head[PROGRESS_LINE_MAX];
    int headLength = snprintf(head, sizeof head, "%s entries  %s dirs  %s  %s/s  %02ld:%02ld:%02ld  ", entries, dirs,
                              bytes, rate, elapsed / 3600, elapsed / 60 % 60, elapsed % 60);
    size_t used = headLength > 0 ? static_cast<size_t>(headLength) : 0;
    if (used >= columns) {
        memcpy(out, head, columns);
        *shownColumns = columns;
        return columns;
    }
    memcpy(out, head, used);

    // The path cut into the pieces a terminal shows (wide characters take
    // two columns, combining marks none, stray bytes and control characters
    // their escapes), and the end of it that fits kept: the end tells where
    // the walk is, its start is the root. The figures are ASCII, so bytes
    // and columns are the same up to here.
    static TermPiece pieces[ACCESS_PATH_SIZE];
    size_t count = 0, width = 0;
    std::string_view path(dirPath);
    for (size_t at = 0; at < path.size() && count < ACCESS_PATH_SIZE;) {
        pieces[count] = NextTermPiece(path, &at);
        width += pieces[count++].columns;
    }
    size_t room = columns - used;
    size_t first = 0;
    if (width > room) {
        const char dots[] = "...";
        size_t dotsWidth = sizeof dots - 1 < room ? sizeof dots - 1 : room;
        memcpy(out + used, dots, dotsWidth);
        used += dotsWidth;
        room -= dotsWidth;
        width = 0;
        first = count;
        while (first > 0 && width + pieces[first - 1].columns <= room) width += pieces[--first].columns;
        // A combining mark never starts the line: it would join the dots.
        while (first < count && pieces[first].columns == 0) first++;
    }
    // At most four bytes per column in all: a run of marks that take no
    // column stops there.
    size_t length = used, limit = 4 * columns;
    for (size_t i = first; i < count && length + pieces[i].length <= limit; i++) {
        memcpy(out + length, pieces[i].text, pieces[i].length);
        length += pieces[i].length;
        used += pieces[i].columns;
    }
    *shownColumns = used;
    return length;
}

static void Draw(const char* dirPath, const timespec& now) {
    ProgressFigures figures{progressRoot->fileCount + uint64_t{progressRoot->dirCount}, progressRoot->dirCount,
                            progressRoot->totalFileSize, static_cast<double>(NanosBetween(walkStart, now)) / 1e9};
    char line[4 * PROGRESS_LINE_MAX];
    size_t columns = 0;
    size_t length = FormatProgressLine(figures, dirPath, StatusLineColumns(), line, &columns);
    StatusLineDraw(line, length, columns);
    lastDrawn = now;
}

void ProgressStart(const AuditRoot* root) {
    progressCountdown = 0;
    lineShown = StatusLineOpen();
    // The ticks also write out -p's lines that wait behind a long directory.
    if (!lineShown && !showProgress) return;
    progressRoot = root;
    clock_gettime(CLOCK_MONOTONIC, &walkStart);
    if (lineShown) Draw(root->path, walkStart);
    progressCountdown = PROGRESS_CHECK_EVERY;
}

void ProgressRefresh(const char* dirPath) {
    progressCountdown = PROGRESS_CHECK_EVERY;
    LogTraceFlush(false);
    if (!lineShown) return;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (NanosBetween(lastDrawn, now) >= PROGRESS_REDRAW_NS) Draw(dirPath, now);
}

void ProgressEnd() {
    progressCountdown = 0;
    StatusLineErase();
}
