#include "scan/progress.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "config/roots.h"
#include "log/log.h"
#include "scan/walk.h"
#include "support/numfmt.h"

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

// Length of the UTF-8 sequence at p (2 to 4 bytes), or 0 when it is not one.
static size_t Utf8Sequence(const unsigned char* p) {
    size_t length = 0;
    if (p[0] >= 0xC2 && p[0] <= 0xDF) length = 2;
    if (p[0] >= 0xE0 && p[0] <= 0xEF) length = 3;
    if (p[0] >= 0xF0 && p[0] <= 0xF4) length = 4;
    // A terminator or any other byte ends the check before it reads past it.
    for (size_t i = 1; i < length; i++) {
        if ((p[i] & 0xC0) != 0x80) return 0;
    }
    return length;
}

size_t FormatProgressLine(const ProgressFigures& figures, const char* dirPath, size_t columns, char* out) {
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
        return columns;
    }
    memcpy(out, head, used);

    // The path as it will show: each character's bytes and its columns.
    static char shown[4 * ACCESS_PATH_SIZE];
    static uint16_t starts[ACCESS_PATH_SIZE + 1];
    static uint8_t widths[ACCESS_PATH_SIZE];
    size_t count = 0, length = 0, width = 0;
    const auto* p = reinterpret_cast<const unsigned char*>(dirPath);
    while (*p && count < ACCESS_PATH_SIZE) {
        starts[count] = static_cast<uint16_t>(length);
        size_t sequence = *p >= 0x80 ? Utf8Sequence(p) : 0;
        if (sequence) {
            memcpy(shown + length, p, sequence);
            length += sequence;
            p += sequence;
            widths[count] = 2;
        } else {
            shown[length++] = *p < 0x20 || *p >= 0x7F ? '?' : static_cast<char>(*p);
            p++;
            widths[count] = 1;
        }
        width += widths[count++];
    }
    starts[count] = static_cast<uint16_t>(length);

    size_t room = columns - used;
    size_t first = 0;
    if (width > room) {
        // The end of the path tells where the walk is; its start is the root.
        const char dots[] = "...";
        size_t dotsWidth = sizeof dots - 1 < room ? sizeof dots - 1 : room;
        memcpy(out + used, dots, dotsWidth);
        used += dotsWidth;
        room -= dotsWidth;
        first = count;
        for (size_t tail = 0; first > 0 && tail + widths[first - 1] <= room; first--) tail += widths[first - 1];
    }
    memcpy(out + used, shown + starts[first], length - starts[first]);
    return used + length - starts[first];
}

static void Draw(const char* dirPath, const timespec& now) {
    ProgressFigures figures{progressRoot->fileCount + uint64_t{progressRoot->dirCount}, progressRoot->dirCount,
                            progressRoot->totalFileSize, static_cast<double>(NanosBetween(walkStart, now)) / 1e9};
    char line[PROGRESS_LINE_MAX];
    size_t length = FormatProgressLine(figures, dirPath, StatusLineColumns(), line);
    StatusLineDraw(line, length);
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
