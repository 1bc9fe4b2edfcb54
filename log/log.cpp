#include "log/log.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>

FILE* logFile = nullptr;
FILE* errFile = nullptr;
int errLogCombined = 0;
int useLogThrdLock = 0;
pthread_mutex_t* logLock = nullptr;
FILE* debugLogFile = nullptr;
int useDebugLogThrdLock = 0;
pthread_mutex_t* debugLogLock = nullptr;
int debugLevel = 0;
wchar_t uniMsg[1024];

// Before OpenLogErrFiles runs the streams are the console ones.
static FILE* LogStream() { return logFile ? logFile : stdout; }
static FILE* ErrStream() { return errFile ? errFile : stderr; }

static void Lock() {
    if (useLogThrdLock) pthread_mutex_lock(logLock);
}

static void Unlock() {
    if (useLogThrdLock) pthread_mutex_unlock(logLock);
}

// The live status line is drawn on standard error with write(2), beside the
// stdio stream (standard error is unbuffered, so nothing of the stream's
// waits behind it). statusShown is the number of columns on screen; the
// signal handler reads it to erase the line before its message.
constexpr size_t STATUS_MAX_COLUMNS = 1024;
constexpr size_t STATUS_MAX_BYTES = 4 * STATUS_MAX_COLUMNS;
static bool statusOpen = false;
static bool logOnTerminal = false;  // the log shares the terminal: erase before log lines too
static volatile sig_atomic_t statusShown = 0;

bool WriteFully(int fd, const char* p, size_t n) {
    while (n > 0) {
        ssize_t put = write(fd, p, n);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) {
            if (put == 0) errno = ENOSPC;
            return false;
        }
        p += put;
        n -= static_cast<size_t>(put);
    }
    return true;
}

bool StatusLineOpen() {
    statusOpen = ErrStream() == stderr && isatty(STDERR_FILENO);
    logOnTerminal = statusOpen && isatty(fileno(LogStream()));
    return statusOpen;
}

size_t StatusLineColumns() {
    struct winsize size;
    size_t columns = ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
    // The last column is left free: some terminals wrap as soon as it is written.
    return std::clamp<size_t>(columns - 1, 1, STATUS_MAX_COLUMNS);
}

void StatusLineDraw(const char* text, size_t length, size_t columns) {
    if (!statusOpen) return;
    length = std::min(length, STATUS_MAX_BYTES);
    columns = std::min(columns, STATUS_MAX_COLUMNS);
    // One write: a carriage return, the text, and blanks over the rest of the
    // previous line. Blanks are counted in columns, not bytes: a line of wide
    // or multi-byte characters blanked by its bytes would wrap.
    char line[1 + STATUS_MAX_BYTES + STATUS_MAX_COLUMNS];
    line[0] = '\r';
    memcpy(line + 1, text, length);
    size_t shown = static_cast<size_t>(statusShown);
    size_t blanks = shown > columns ? shown - columns : 0;
    memset(line + 1 + length, ' ', blanks);
    WriteFully(STDERR_FILENO, line, 1 + length + blanks);
    // Past the text there are only blanks now.
    statusShown = static_cast<sig_atomic_t>(columns);
}

void StatusLineErase() {
    size_t shown = static_cast<size_t>(statusShown);
    if (shown == 0) return;
    statusShown = 0;
    char line[2 + STATUS_MAX_COLUMNS];
    line[0] = '\r';
    memset(line + 1, ' ', shown);
    line[1 + shown] = '\r';
    WriteFully(STDERR_FILENO, line, 2 + shown);
}

// Trace lines waiting for the log, whole lines only: traceLength grows only
// after a line is complete, so the signal handler writes out what it finds.
constexpr size_t TRACE_BUFFER_SIZE = 64 * 1024;
static char traceBuffer[TRACE_BUFFER_SIZE];
static volatile sig_atomic_t traceLength = 0;
static timespec traceSince;  // when the oldest waiting line came
static int traceDirect = -1;  // 1 when the log is a terminal: lines are not held back; -1 not yet known
static int traceFd = -1;      // the log's descriptor, for the signal handler

static long NanosSince(const timespec& then) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - then.tv_sec) * 1000000000L + (now.tv_nsec - then.tv_nsec);
}

void LogTraceFlush(bool force) {
    size_t length = static_cast<size_t>(traceLength);
    if (length == 0 || (!force && NanosSince(traceSince) < LOG_TRACE_WAIT_NS)) return;
    // Whatever the stream holds was logged before these lines.
    fflush(LogStream());
    // A signal handler that came between the write and the reset would
    // write the same lines again: signals wait for both.
    sigset_t all, before;
    sigfillset(&all);
    sigprocmask(SIG_BLOCK, &all, &before);
    WriteFully(traceFd, traceBuffer, length);
    traceLength = 0;
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

static void FlushTraceAtExit() { LogTraceFlush(true); }

void WriteWaitingTrace() {
    size_t length = static_cast<size_t>(traceLength);
    if (length > 0) WriteFully(traceFd, traceBuffer, length);
    traceLength = 0;
}

void LogTraceLine(const char* text) {
    if (traceDirect < 0) {
        traceFd = fileno(LogStream());
        traceDirect = isatty(traceFd) ? 1 : 0;
        if (!traceDirect) atexit(FlushTraceAtExit);
    }
    size_t n = strlen(text);
    if (traceDirect || n + 1 > TRACE_BUFFER_SIZE) {
        LogEntry("%s\n", text);
        return;
    }
    size_t length = static_cast<size_t>(traceLength);
    if (length + n + 1 > TRACE_BUFFER_SIZE) {
        LogTraceFlush(true);
        length = 0;
    }
    if (length == 0) clock_gettime(CLOCK_MONOTONIC, &traceSince);
    memcpy(traceBuffer + length, text, n);
    traceBuffer[length + n] = '\n';
    traceLength = static_cast<sig_atomic_t>(length + n + 1);
    LogTraceFlush(false);
}

static void SystemErrorLine(FILE* out, int errnum) {
    fprintf(out, "  (p%d) %s\n", errnum, strerror(errnum));
}

void LogEntry(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    Lock();
    if (logOnTerminal) StatusLineErase();
    LogTraceFlush(true);
    vfprintf(LogStream(), format, ap);
    fflush(LogStream());
    Unlock();
    va_end(ap);
}

// Writes one error message to the error file and, unless both outputs are the
// console, to the log as well; withSystem adds the system-error line.
static void ErrorCopies(bool withSystem, int errnum, const char* format, va_list ap) {
    va_list again;
    va_copy(again, ap);
    StatusLineErase();
    LogTraceFlush(true);
    vfprintf(ErrStream(), format, ap);
    if (withSystem) SystemErrorLine(ErrStream(), errnum);
    fflush(ErrStream());
    if (!errLogCombined && LogStream() != ErrStream()) {
        vfprintf(LogStream(), format, again);
        if (withSystem) SystemErrorLine(LogStream(), errnum);
        fflush(LogStream());
    }
    va_end(again);
}

void LogErr(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    Lock();
    ErrorCopies(false, 0, format, ap);
    Unlock();
    va_end(ap);
}

void LogPosixErr(int errnum, const char* format, ...) {
    if (errnum == 0) errnum = errno;
    va_list ap;
    va_start(ap, format);
    Lock();
    ErrorCopies(true, errnum, format, ap);
    if (useLogThrdLock) pthread_mutex_destroy(logLock);
    va_end(ap);
}

void DebugLogEntry(int level, const char* format, ...) {
    if (level == 0 || debugLevel < level || !debugLogFile) return;
    if (useDebugLogThrdLock) pthread_mutex_lock(debugLogLock);
    char stamp[48];
    time_t now = time(nullptr);
    strftime(stamp, sizeof stamp, "%d-%m-%y %X", localtime(&now));
    fprintf(debugLogFile, "%s ", stamp);
    va_list ap;
    va_start(ap, format);
    vfprintf(debugLogFile, format, ap);
    va_end(ap);
    fflush(debugLogFile);
    if (useDebugLogThrdLock) pthread_mutex_unlock(debugLogLock);
}

// The fatal message goes to the error file, and to standard error as well
// when the error file is a named file, so that the user always sees it. The
// files the run created and registered go before the exit.
[[noreturn]] static void FatalExit(int status, bool withSystem, int errnum, const char* format, va_list ap) {
    va_list again;
    va_copy(again, ap);
    StatusLineErase();
    LogTraceFlush(true);
    FILE* err = ErrStream();
    vfprintf(err, format, ap);
    if (withSystem) SystemErrorLine(err, errnum);
    if (err != stderr) {
        vfprintf(stderr, format, again);
        if (withSystem) SystemErrorLine(stderr, errnum);
    }
    va_end(again);
    RemoveRegisteredFiles();
    exit(status);
}

void ErrExit(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    FatalExit(1, false, 0, format, ap);
}

void ErrExitWithRetCode(int status, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    FatalExit(status, false, 0, format, ap);
}

void PosixErrExit(int errnum, const char* format, ...) {
    if (errnum == 0) errnum = errno;
    va_list ap;
    va_start(ap, format);
    FatalExit(1, true, errnum, format, ap);
}

const wchar_t* PosixErrMsg(int errnum) {
    if (errnum == 0) errnum = errno;
    const char* text = strerror(errnum);
    size_t i = 0;
    for (; i + 1 < sizeof uniMsg / sizeof uniMsg[0] && text[i]; i++)
        uniMsg[i] = static_cast<wchar_t>(static_cast<signed char>(text[i]));
    uniMsg[i] = L'\0';
    return uniMsg;
}

void OpenLogErrFailed(const char* kind, const char* path) {
    PosixErrExit(0, "Unable to create %s file '%s'\n", kind, path);
}

static pthread_mutex_t* NewLock() {
    auto* lock = static_cast<pthread_mutex_t*>(malloc(sizeof(pthread_mutex_t)));
    if (!lock) ErrExit("Insufficient memory\n");
    pthread_mutex_init(lock, nullptr);
    return lock;
}

void OpenLogErrFiles(int mode, const char* logName, const char* errName) {
    useLogThrdLock = (mode == 1);
    if (useLogThrdLock) logLock = NewLock();
    char path[MAX_PATH];
    errFile = stderr;
    if (errName) {
        MakeFilename(errName, path);
        errFile = fopen(path, "w");
        if (!errFile) {
            errFile = stderr;
            OpenLogErrFailed("error", path);
        }
    }
    logFile = stdout;
    if (logName) {
        MakeFilename(logName, path);
        logFile = fopen(path, "w");
        if (!logFile) {
            logFile = stdout;
            OpenLogErrFailed("log", path);
        }
    }
    errLogCombined = (errFile == stderr && logFile == stdout);
}

void CloseLogErrFiles() {
    if (logFile && logFile != stdout) fclose(logFile);
    if (errLogCombined) return;
    if (errFile && errFile != stderr) fclose(errFile);
}

void OpenDebugLogFile(int mode, const char* name) {
    useDebugLogThrdLock = (mode == 1);
    if (useDebugLogThrdLock) debugLogLock = NewLock();
    if (!name) {
        debugLogFile = stdout;
        return;
    }
    char path[MAX_PATH];
    MakeFilename(name, path);
    debugLogFile = fopen(path, "a");
    if (!debugLogFile) OpenLogErrFailed("debug", path);
}

void CloseDebugLogFile() {
    if (!debugLogFile) return;
    if (debugLogFile != stdout) fflush(debugLogFile);
    fclose(debugLogFile);
    debugLogFile = nullptr;
}

char* MakeFilename(const char* name, char* out) {
    time_t now = time(nullptr);
    struct tm* tm = localtime(&now);
    char stamp[32];
    int year = tm->tm_year > 100 ? tm->tm_year - 100 : tm->tm_year;
    snprintf(stamp, sizeof stamp, "%02d%02d%02d.%02d%02d%02d", year, tm->tm_mon + 1, tm->tm_mday,
             tm->tm_hour, tm->tm_min, tm->tm_sec);
    size_t stampLen = strlen(stamp);
    size_t used = 0;
    for (const char* p = name; *p; p++) {
        // The time stamp replaces the '%'; the 'd' after it is copied as well.
        bool isStamp = p[0] == '%' && (p[1] == 'd' || p[1] == 'D');
        size_t need = isStamp ? stampLen : 1;
        if (used + need >= static_cast<size_t>(MAX_PATH))
            ErrExit("File name too long (more than %d bytes): '%s'\n", MAX_PATH - 1, name);
        if (isStamp) {
            memcpy(out + used, stamp, stampLen);
        } else {
            out[used] = *p;
        }
        used += need;
    }
    out[used] = '\0';
    return out;
}
