// The live progress line of the walk: entries, directories, bytes, entries
// per second, elapsed time and the directory being read, redrawn in place on
// a terminal error output (never on a file or a pipe, never with -err).
//
// It is fed from the walk's own counters in the root record. The walk calls
// ProgressTick once per directory and per entry; that costs a decrement and
// a test, and only every PROGRESS_CHECK_EVERY calls is the clock read (no
// system call where the clock is in the vDSO). The line is redrawn at most
// ten times a second.
#pragma once

#include <cstddef>
#include <cstdint>

struct AuditRoot;

/// Calls of ProgressTick between two looks at the clock.
constexpr uint32_t PROGRESS_CHECK_EVERY = 32;
/// Nanoseconds between two drawings of the line, at the least.
constexpr int64_t PROGRESS_REDRAW_NS = 100000000;

extern uint32_t progressCountdown;  ///< ticks until the clock is read again; 0 when no line is shown

/// What the line shows.
struct ProgressFigures {
    uint64_t entries;  ///< entries recorded so far, directories included
    uint64_t dirs;     ///< directories come to
    uint64_t bytes;    ///< the total file size so far
    double seconds;    ///< since the walk began
};

/// Starts the line for root's walk when the error output can show one, and draws it.
void ProgressStart(const AuditRoot* root);
/// Draws the line afresh when a tenth of a second has passed since the last
/// drawing, and writes out -p's lines that have waited long enough.
void ProgressRefresh(const char* dirPath);
/// Erases the line and stops it; the walk is over.
void ProgressEnd();

/// Counts one step of the walk in the directory at dirPath. Runs once per
/// entry: no call, no system call, unless the countdown runs out.
inline void ProgressTick(const char* dirPath) {
    if (progressCountdown != 0 && --progressCountdown == 0) ProgressRefresh(dirPath);
}

/// Writes the line for figures and dirPath into out (at least 4 * columns
/// bytes), cut to columns terminal columns: the figures first, then as much
/// of the end of the path as fits, "..." in front of a cut one. The path is
/// measured in display columns (wide characters two, combining marks none);
/// control characters, backslashes and bytes that are not UTF-8 show as
/// escapes ("\n", "\\", "\xff"). Returns the length in bytes and sets
/// *shownColumns to the columns the line takes.
size_t FormatProgressLine(const ProgressFigures& figures, const char* dirPath, size_t columns, char* out,
                          size_t* shownColumns);
