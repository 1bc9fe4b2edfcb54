// Log, error and debug output, time-stamped file names and the fatal-exit
// routines through which every fatal condition ends the process; the files a
// run removes when it ends early, the handler that ends it on SIGINT, SIGTERM
// and SIGHUP, and the live status line on a terminal error output.
//
// Messages are printf formats over bytes: a path is written exactly as the
// file system spells it, whatever the locale, and every stream stays narrow so
// that later output on standard output is never dropped. The log and the
// error output receive each message when it is logged (the stream is flushed
// after it), so a run that is killed or interrupted leaves them complete up
// to its last message.
#pragma once

#include <pthread.h>
#include <cstddef>
#include <cstdio>

#define FV_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))

extern FILE* logFile;                 ///< execution log; standard output unless -log names a file
extern FILE* errFile;                 ///< error output; standard error unless -err names a file
extern int errLogCombined;            ///< 1 when log and errors go to the console: error lines then go to errFile only
extern int useLogThrdLock;            ///< 1 when the log routines serialise through logLock
extern pthread_mutex_t* logLock;      ///< lock of the log and error outputs (mode 1 only)
extern FILE* debugLogFile;            ///< debug log; null until OpenDebugLogFile
extern int useDebugLogThrdLock;       ///< 1 when DebugLogEntry serialises through debugLogLock
extern pthread_mutex_t* debugLogLock; ///< lock of the debug log (mode 1 only)
extern int debugLevel;                ///< highest debug level written; 0 writes nothing
extern wchar_t uniMsg[1024];          ///< PosixErrMsg's widened system-error text

/// Size of the buffer in which MakeFilename builds a file name.
constexpr int MAX_PATH = 512;

/// Writes a message to the execution log.
void LogEntry(const char* format, ...) FV_PRINTF(1, 2);
/// Writes text and a newline to the log, as LogEntry("%s\n", text) does, but
/// on a log that is not a terminal the line may wait in a buffer of its own
/// for up to LOG_TRACE_WAIT_NS: -p logs a line per directory, and a write of
/// each would cost more than all the rest of the run's logging. Any other
/// message, an interrupting signal, a fatal exit and the program's end write
/// out what waits first.
void LogTraceLine(const char* text);
/// Writes out the waiting trace lines: all of them when force is set, else
/// only when the oldest has waited LOG_TRACE_WAIT_NS. The walk calls it now
/// and then, so that lines do not wait behind a long directory.
void LogTraceFlush(bool force);
/// Longest time a trace line waits before it is written out.
constexpr long LOG_TRACE_WAIT_NS = 10000000;
/// Writes a message to the error file, and to the log too unless errLogCombined.
void LogErr(const char* format, ...) FV_PRINTF(1, 2);
/// As LogErr, each copy followed by the line "  (p<errno>) <system text>".
/// errnum 0 means the current errno. With the lock in use it ends by
/// destroying the lock instead of releasing it: a caller that enables the
/// lock gets one such message per lock. The program never enables it.
void LogPosixErr(int errnum, const char* format, ...) FV_PRINTF(2, 3);
/// Writes a time-stamped message to the debug log when level is within debugLevel.
void DebugLogEntry(int level, const char* format, ...) FV_PRINTF(2, 3);

/// Prints to the error file (and to standard error when that is another
/// stream), removes the files registered with RemoveOnFatalExit and exits
/// with status 1.
[[noreturn]] void ErrExit(const char* format, ...) FV_PRINTF(1, 2);
/// As ErrExit with the given exit status.
[[noreturn]] void ErrExitWithRetCode(int status, const char* format, ...) FV_PRINTF(2, 3);
/// As ErrExit, each copy followed by the system-error line (errnum 0: errno).
[[noreturn]] void PosixErrExit(int errnum, const char* format, ...) FV_PRINTF(2, 3);

/// Widens strerror(errnum) byte by byte (sign-extended) into uniMsg and returns it.
const wchar_t* PosixErrMsg(int errnum);

/// Writes all n bytes to fd with write(2), again after an interruption;
/// gives up on an error and returns false with errno set (ENOSPC for a write
/// that took nothing). Async-signal-safe.
bool WriteFully(int fd, const char* bytes, size_t n);

/// Opens the log and error outputs (null name: the console stream); mode 1
/// enables the log lock. A named file that cannot be created is fatal.
void OpenLogErrFiles(int mode, const char* logName, const char* errName);
/// Closes the named log and error files (never the console streams).
void CloseLogErrFiles();
/// Opens the debug log for appending (null name: standard output).
void OpenDebugLogFile(int mode, const char* name);
/// Flushes and closes the debug log when it is open.
void CloseDebugLogFile();

/// Copies name into out (MAX_PATH bytes), replacing each '%' before 'd' or 'D'
/// with the local time as YYMMDD.hhmmss; the letter itself is kept. A name
/// that would not fit is fatal.
char* MakeFilename(const char* name, char* out);
/// Reports "Unable to create <kind> file '<path>'" with the system reason and exits 1.
[[noreturn]] void OpenLogErrFailed(const char* kind, const char* path);

// ---- Ending early: registered files and interrupting signals (log/ending.cpp)

/// Names that can be registered with RemoveOnFatalExit at one time.
constexpr int FATAL_EXIT_SLOTS = 4;

/// Registers a file that this run created and that must not outlive a fatal
/// exit or an interrupting signal; the name is copied. Returns the slot to
/// hand to KeepOnFatalExit, or -1 when the name is too long or no slot is free.
int RemoveOnFatalExit(const char* path);
/// Forgets a registered name (slot -1: nothing): the file is kept however the run ends.
void KeepOnFatalExit(int slot);
/// Removes every registered file and forgets the names. Async-signal-safe.
void RemoveRegisteredFiles();
/// Writes the trace lines waiting for the log with write(2). Async-signal-safe.
void WriteWaitingTrace();

/// Makes SIGINT, SIGTERM and SIGHUP end the run as a fatal error does: the
/// status line is erased, the registered files are removed, the line
/// "Scan interrupted by signal <n> (<name>)" goes to the error output (and to
/// standard error when that is another stream), and the exit status is 128
/// plus the signal number. A second signal while ending kills at once. A
/// signal that was ignored when the program started stays ignored. Call after
/// OpenLogErrFiles.
void InstallInterruptHandlers();
/// Holds the three signals back until ReleaseInterrupts, around a step that
/// must not be cut in two (a file created and registered, a name made and removed).
void HoldInterrupts();
/// Restores the signal mask HoldInterrupts found, which delivers what it held
/// back. Holds do not nest.
void ReleaseInterrupts();

// ---- The status line

/// Decides whether a live status line can be shown: only when the error
/// output is standard error (no -err) and a terminal. Call after OpenLogErrFiles.
bool StatusLineOpen();
/// Columns the status line may use: the terminal's width less one, at least 1.
size_t StatusLineColumns();
/// Replaces the status line by text: length bytes (at most four per column)
/// that take columns terminal columns, no control characters. Nothing
/// happens when the line is not open.
void StatusLineDraw(const char* text, size_t length, size_t columns);
/// Clears the status line when one is shown. The log and error routines call
/// it before they write; async-signal-safe.
void StatusLineErase();
