#include "tests/support/testutil.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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
    std::string tmpl = (fs::temp_directory_path() / "ferrovan-test-XXXXXX").string();
    if (!mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp failed");
    path = tmpl;
}

ScopedTempDir::~ScopedTempDir() {
    // Tests may leave directories without permissions behind; give them back first.
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(path, fs::directory_options::skip_permission_denied, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
        if (it->is_directory(ec) && !it->is_symlink(ec)) chmod(it->path().c_str(), 0700);
    }
    chmod(path.c_str(), 0700);
    fs::remove_all(path, ec);
}

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

RunResult RunProgram(const std::string& program, const std::vector<std::string>& args, const RunOptions& options) {
    int inPipe[2], outPipe[2], errPipe[2];
    if (pipe(inPipe) || pipe(outPipe) || pipe(errPipe)) throw std::runtime_error("pipe failed");
    std::vector<std::string> argvStore;
    if (options.unprivileged) {
        argvStore = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", program};
    } else {
        argvStore = {program};
    }
    argvStore.insert(argvStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& a : argvStore) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(inPipe[0], 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        for (int fd : {inPipe[0], inPipe[1], outPipe[0], outPipe[1], errPipe[0], errPipe[1]}) close(fd);
        if (!options.cwd.empty() && chdir(options.cwd.c_str()) != 0) _exit(126);
        if (options.fileSizeLimit) {
            // An ignored signal stays ignored across exec.
            signal(SIGXFSZ, SIG_IGN);
            struct rlimit limit = {options.fileSizeLimit, options.fileSizeLimit};
            if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(125);
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    close(inPipe[0]);
    close(outPipe[1]);
    close(errPipe[1]);
    RunResult result;
    size_t written = 0;
    int inFd = inPipe[1];
    if (options.input.empty()) {
        close(inFd);
        inFd = -1;
    }
    int outFd = outPipe[0], errFd = errPipe[0];
    while (outFd >= 0 || errFd >= 0) {
        pollfd fds[3];
        int n = 0;
        if (outFd >= 0) fds[n++] = {outFd, POLLIN, 0};
        if (errFd >= 0) fds[n++] = {errFd, POLLIN, 0};
        if (inFd >= 0) fds[n++] = {inFd, POLLOUT, 0};
        if (poll(fds, n, -1) < 0) {
            if (errno == EINTR) continue;
            break;
        }
        for (int i = 0; i < n; i++) {
            if (!fds[i].revents) continue;
            if (fds[i].fd == inFd) {
                ssize_t put = write(inFd, options.input.data() + written, options.input.size() - written);
                if (put > 0) written += static_cast<size_t>(put);
                if (put < 0 || written == options.input.size()) {
                    close(inFd);
                    inFd = -1;
                }
                continue;
            }
            char buf[65536];
            ssize_t got = read(fds[i].fd, buf, sizeof buf);
            std::string& sink = fds[i].fd == outFd ? result.out : result.err;
            if (got > 0) {
                sink.append(buf, static_cast<size_t>(got));
            } else {
                close(fds[i].fd);
                (fds[i].fd == outFd ? outFd : errFd) = -1;
            }
        }
    }
    if (inFd >= 0) close(inFd);
    int status = 0;
    waitpid(pid, &status, 0);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

std::string FerrovanPath() { return FERROVAN_BIN; }
std::string DtldumpPath() { return DTLDUMP_BIN; }

RunResult RunFerrovan(const std::vector<std::string>& args, const RunOptions& options) {
    return RunProgram(FerrovanPath(), args, options);
}

uint16_t Le16(const std::string& b, size_t o) {
    return static_cast<uint16_t>(static_cast<uint8_t>(b.at(o)) | static_cast<uint8_t>(b.at(o + 1)) << 8);
}

uint32_t Le32(const std::string& b, size_t o) { return Le16(b, o) | static_cast<uint32_t>(Le16(b, o + 2)) << 16; }

uint64_t Le64(const std::string& b, size_t o) { return Le32(b, o) | static_cast<uint64_t>(Le32(b, o + 4)) << 32; }
