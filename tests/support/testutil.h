// Shared helpers of the test suite: a scoped temporary directory, file
// helpers, and running the real programs with captured output.
#pragma once

#include <cstdint>
#include <sys/types.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "log/log.h"

/// A fresh directory under the system's temporary directory, removed with
/// everything in it when the object goes out of scope.
struct ScopedTempDir {
    std::string path;
    ScopedTempDir();
    ~ScopedTempDir();
    ScopedTempDir(const ScopedTempDir&) = delete;
    ScopedTempDir& operator=(const ScopedTempDir&) = delete;
    /// path + "/" + name.
    std::string operator/(const std::string& name) const { return path + "/" + name; }
};

/// Sets an environment variable (null: removes it) until the object goes out
/// of scope, when the variable gets back the value it had.
struct ScopedEnv {
    std::string name, saved;
    bool wasSet;
    ScopedEnv(const char* name, const char* value);
    ~ScopedEnv();
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;
};

/// Writes bytes to a file, replacing it.
void WriteFile(const std::string& path, const std::string& bytes);
/// The whole content of a file ("" when it cannot be read).
std::string ReadFile(const std::string& path);
/// True when something exists at path (links are not followed).
bool PathExists(const std::string& path);
/// The names in a directory other than . and .. (none when it cannot be read).
std::set<std::string> Entries(const std::string& dir);

/// What a finished program left behind.
struct RunResult {
    int status = -1;  ///< exit status, or 128 + signal
    std::string out;  ///< standard output
    std::string err;  ///< standard error
};

/// How to run a program.
struct RunOptions {
    std::string cwd = "";       ///< working directory ("" = the current one)
    std::string input = "";     ///< bytes fed to standard input
    bool unprivileged = false;  ///< run as user and group 65534 with no supplementary groups
    uint64_t fileSizeLimit = 0; ///< when not 0: the largest file the program may write (RLIMIT_FSIZE),
                                ///< with SIGXFSZ ignored so that a write past it fails with EFBIG
    std::vector<std::string> env = {};  ///< NAME=value settings added to the environment
    bool traced = false;        ///< RunDirs::Start only: the program stops under ptrace as it starts (PTRACE_TRACEME)
    std::string program = "";   ///< RunDirs only: the scanner to run ("" = the Ferrovan under test)
};

/// Runs program with args (argv[0] is the program path) and captures its output.
RunResult RunProgram(const std::string& program, const std::vector<std::string>& args,
                     const RunOptions& options = {});
/// Waits for a started program; returns its exit status, or 128 + the signal that ended it.
int WaitProgram(pid_t pid);

/// Runs the Ferrovan binary under test with args.
RunResult RunFerrovan(const std::vector<std::string>& args, const RunOptions& options = {});
/// Runs the dtldump binary under test with args.
RunResult RunDtldump(const std::vector<std::string>& args, const RunOptions& options = {});

/// Runs op with stream (the program's logFile or errFile) pointed at memory,
/// and with errors written once, to errFile only; returns what op wrote there.
template <typename Op>
std::string WrittenTo(FILE*& stream, Op op) {
    char* text = nullptr;
    size_t size = 0;
    FILE* saved = stream;
    stream = open_memstream(&text, &size);
    const int combined = std::exchange(errLogCombined, 1);
    op();
    fclose(stream);
    stream = saved;
    errLogCombined = combined;
    std::string written(text, size);
    free(text);
    return written;
}

/// Everything read from fd up to the end of the stream (or an error, as a
/// terminal's master side gives once its last slave is closed).
std::string ReadToEnd(int fd);
/// The log with the values that change from run to run (time stamps, times,
/// free space) cut out, up to the end of their lines.
std::string MaskedLog(std::string log);

/// A pipe whose ends are close-on-exec and closed when it goes out of scope;
/// given a width, a pseudo-terminal of that many columns instead, its slave
/// side the write end (the program's) and its master side the read end.
struct Pipe {
    int read = -1, write = -1;
    Pipe();
    explicit Pipe(unsigned short columns);
    ~Pipe();
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void CloseWrite();
    /// Shrinks the pipe to one page, so that a writer soon waits for the reader.
    bool Shrink() const;
};

/// A scratch directory with the tree to scan (root), the working directory
/// of the runs (work) and their TMPDIR (tmp), named as realpath names them
/// and open to the unprivileged user of the permission tests.
struct RunDirs {
    ScopedTempDir dir;
    std::string root, work, tmp;
    RunDirs();
    /// Runs Ferrovan in work: root -dtl out.dtl -f, then extra.
    RunResult Scan(const std::vector<std::string>& extra = {}, RunOptions options = {}) const;
    /// Starts the same run with TMPDIR=tmp, standard input /dev/null, and
    /// standard output and error on out and err (-1: the files work/stdout
    /// and work/stderr); returns its process id.
    pid_t Start(const std::vector<std::string>& extra, int out = -1, int err = -1, RunOptions options = {}) const;
    /// work/name created empty for writing, close-on-exec.
    int Create(const std::string& name) const;
    /// Removes every file in work.
    void ClearWork() const;
};
