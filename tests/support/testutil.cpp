#include "tests/support/testutil.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

ScopedTempDir::ScopedTempDir() {
    path = (fs::temp_directory_path() / "ferrovan-test-XXXXXX").string();
    if (!mkdtemp(path.data())) throw std::runtime_error("mkdtemp failed");
}

ScopedTempDir::~ScopedTempDir() {
    std::error_code ec;  // the suite runs as root: no permission left behind stops the removal
    fs::remove_all(path, ec);
}

ScopedEnv::ScopedEnv(const char* variable, const char* value) : name(variable), wasSet(getenv(variable)) {
    if (wasSet) saved = getenv(variable);
    value ? setenv(variable, value, 1) : unsetenv(variable);
}

ScopedEnv::~ScopedEnv() { wasSet ? setenv(name.c_str(), saved.c_str(), 1) : unsetenv(name.c_str()); }

void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << bytes;
}

std::string ReadFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::ostringstream s;
    s << f.rdbuf();
    return s.str();
}

bool PathExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::set<std::string> Entries(const std::string& dir) {
    std::set<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir, ec)) names.insert(e.path().filename().string());
    return names;
}

// Starts program with args and its standard input, output and error on the
// descriptors in stdio (each is duplicated; the caller keeps its own, opened
// close-on-exec), and returns at once with its process id.
static pid_t StartProgram(const std::string& program, const std::vector<std::string>& args, const int (&stdio)[3],
                          const RunOptions& options) {
    std::vector<std::string> argvStore = {program};
    if (options.unprivileged) argvStore = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", program};
    argvStore.insert(argvStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argvStore) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::vector<std::string> envStore = options.env;
    pid_t pid = fork();
    if (pid == 0) {
        // Descriptors 0 to 2 may be among the sources: move them all above first.
        int fds[3];
        for (int i = 0; i < 3; i++) fds[i] = fcntl(stdio[i], F_DUPFD_CLOEXEC, 3);
        for (int i = 0; i < 3; i++) dup2(fds[i], i);
        if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
        for (std::string& setting : envStore) putenv(setting.data());
        if (options.fileSizeLimit) {
            // An ignored signal stays ignored across exec.
            signal(SIGXFSZ, SIG_IGN);
            struct rlimit limit = {options.fileSizeLimit, options.fileSizeLimit};
            if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(125);
        }
        if (options.traced && ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(124);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

int WaitProgram(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

RunResult RunProgram(const std::string& program, const std::vector<std::string>& args, const RunOptions& options) {
    // The program's three standard streams are files in a directory of their
    // own, read back once it has ended.
    ScopedTempDir io;
    WriteFile(io / "in", options.input);
    int fds[] = {open((io / "in").c_str(), O_RDONLY | O_CLOEXEC),
                 open((io / "out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600),
                 open((io / "err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600)};
    pid_t pid = StartProgram(program, args, fds, options);
    for (int fd : fds) close(fd);
    RunResult result;
    result.status = WaitProgram(pid);
    result.out = ReadFile(io / "out");
    result.err = ReadFile(io / "err");
    return result;
}

RunResult RunFerrovan(const std::vector<std::string>& args, const RunOptions& options) {
    return RunProgram(FERROVAN_BIN, args, options);
}

RunResult RunDtldump(const std::vector<std::string>& args, const RunOptions& options) {
    return RunProgram(DTLDUMP_BIN, args, options);
}

std::string ReadToEnd(int fd) {
    std::string all;
    char buf[65536];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR);)
        if (n > 0) all.append(buf, static_cast<size_t>(n));
    return all;
}

std::string MaskedLog(std::string log) {
    for (const char* changing : {"Timestamp: ", "End time: ", "Elapsed: ", "Available space: "}) {
        for (size_t at = log.find(changing); at != std::string::npos; at = log.find(changing, at + 1)) {
            size_t from = at + strlen(changing);
            log.erase(from, std::min(log.find('\n', from), log.size()) - from);
        }
    }
    return log;
}

Pipe::Pipe() {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) == 0) read = fds[0], write = fds[1];
}

Pipe::Pipe(unsigned short columns) {
    struct winsize size = {24, columns, 0, 0};
    if (openpty(&read, &write, nullptr, nullptr, &size) != 0) throw std::runtime_error("openpty failed");
    fcntl(read, F_SETFD, FD_CLOEXEC);
    fcntl(write, F_SETFD, FD_CLOEXEC);
}

Pipe::~Pipe() {
    CloseWrite();
    if (read >= 0) close(read);
}

void Pipe::CloseWrite() {
    if (write >= 0) close(write);
    write = -1;
}

bool Pipe::Shrink() const { return fcntl(write, F_SETPIPE_SZ, 4096) >= 4096; }

RunDirs::RunDirs() {
    chmod(dir.path.c_str(), 0755);
    for (const char* d : {"root", "work", "tmp"}) mkdir((dir / d).c_str(), 0755);
    chmod((dir / "work").c_str(), 0777);
    chmod((dir / "tmp").c_str(), 0777);
    root = fs::canonical(dir / "root");
    work = fs::canonical(dir / "work");
    tmp = fs::canonical(dir / "tmp");
}

static std::vector<std::string> ScanArgs(const std::string& root, const std::vector<std::string>& extra) {
    std::vector<std::string> args = {root, "-dtl", "out.dtl", "-f"};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
}

RunResult RunDirs::Scan(const std::vector<std::string>& extra, RunOptions options) const {
    options.cwd = work;
    return RunProgram(options.program.empty() ? FERROVAN_BIN : options.program, ScanArgs(root, extra), options);
}

pid_t RunDirs::Start(const std::vector<std::string>& extra, int out, int err, RunOptions options) const {
    options.cwd = work;
    options.env.push_back("TMPDIR=" + tmp);
    // The leak checker of a sanitizer build refuses to run under a tracer.
    if (options.traced) options.env.push_back("ASAN_OPTIONS=detect_leaks=0");
    int stdio[3] = {open("/dev/null", O_RDONLY | O_CLOEXEC), out < 0 ? Create("stdout") : out,
                    err < 0 ? Create("stderr") : err};
    pid_t pid =
        StartProgram(options.program.empty() ? FERROVAN_BIN : options.program, ScanArgs(root, extra), stdio, options);
    close(stdio[0]);
    if (out < 0) close(stdio[1]);
    if (err < 0) close(stdio[2]);
    return pid;
}

int RunDirs::Create(const std::string& name) const {
    return open((work + "/" + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
}

void RunDirs::ClearWork() const {
    for (const std::string& name : Entries(work)) unlink((work + "/" + name).c_str());
}
