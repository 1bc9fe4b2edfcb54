#include "support/helpers.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

char* tempDir = nullptr;
char* tempId = nullptr;

int fGetpos(FILE* stream, int64_t* pos) {
    off_t p = ftello(stream);
    if (p < 0) return -1;
    *pos = p;
    return 0;
}

int fSetpos(FILE* stream, const int64_t* pos) { return fseeko(stream, static_cast<off_t>(*pos), SEEK_SET); }

int PathNCmp(const char* a, const char* b, size_t n) {
    for (size_t i = 0; i < n; i++) {
        char x = a[i], y = b[i];
        if (x != y) {
            if (x == '/' && y != '\0') return -1;
            if (y == '/' && x != '\0') return 1;
            return static_cast<signed char>(x) - static_cast<signed char>(y);
        }
        if (x == '\0') return 0;
    }
    return 0;
}

int PathCmp(const char* a, const char* b) {
    size_t la = strlen(a), lb = strlen(b);
    return PathNCmp(a, b, (la < lb ? la : lb) + 1);
}

static bool IsDirectory(const char* path) {
    struct stat st;
    return path && stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// The directory tempnam would choose: TMPDIR when it names a directory (and
// the program is not running with raised privileges), then the directory
// given, then the system's. Administrators point TMPDIR at a scratch disk so
// that large temporary files stay out of a RAM-backed /tmp.
static const char* TempDirectory(const char* given) {
    const char* env = secure_getenv("TMPDIR");
    if (IsDirectory(env)) return env;
    if (IsDirectory(given)) return given;
    return IsDirectory(P_tmpdir) ? P_tmpdir : "/tmp";
}

char* DefinedTempName(const char* base) {
    char prefix[512];
    if (base && tempId) {
        snprintf(prefix, sizeof prefix, "%s.%s", tempId, base);
    } else {
        snprintf(prefix, sizeof prefix, "%s", tempId ? tempId : (base ? base : "file"));
    }
    if (strlen(prefix) > 5) prefix[5] = '\0';  // the system's temporary names keep five characters
    const char* dir = TempDirectory(tempDir);
    size_t dirLength = strlen(dir);
    const char* slash = dirLength > 0 && dir[dirLength - 1] == '/' ? "" : "/";
    static const char letters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char random[6];
    if (getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) {
        static unsigned counter;
        uint64_t mix = static_cast<uint64_t>(getpid()) * 2654435761u + ++counter * 40503u + static_cast<uint64_t>(time(nullptr));
        for (auto& r : random) r = static_cast<unsigned char>(mix >>= 5);
    }
    char suffix[7];
    for (int i = 0; i < 6; i++) suffix[i] = letters[random[i] % (sizeof letters - 1)];
    suffix[6] = '\0';
    size_t len = dirLength + 1 + strlen(prefix) + 6 + 1;
    char* name = static_cast<char*>(malloc(len));
    if (name) snprintf(name, len, "%s%s%s%s", dir, slash, prefix, suffix);
    return name;
}

FILE* AnonymousTempFile() {
    int fd = open(TempDirectory(tempDir), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    // File systems without unnamed files: an exclusive name, removed at once.
    for (int tries = 0; fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EEXIST) && tries < 10; tries++) {
        char* name = DefinedTempName("tmp");
        if (!name) return nullptr;
        fd = open(name, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) unlink(name);
        free(name);
    }
    if (fd < 0) return nullptr;
    FILE* stream = fdopen(fd, "w+");
    if (!stream) close(fd);
    return stream;
}

void MkdirRecursive(const char* path) {
    char copy[257];
    strncpy(copy, path, 256);
    copy[256] = '\0';
    size_t len = strlen(copy);
    if (len > 0 && copy[len - 1] == '/') copy[--len] = '\0';
    for (size_t i = 1; i < len; i++) {
        if (copy[i] != '/') continue;
        copy[i] = '\0';
        if (access(copy, F_OK) != 0) mkdir(copy, 0700);
        copy[i] = '/';
    }
    if (len > 0 && access(copy, F_OK) != 0) mkdir(copy, 0700);
}

int cp(const char* to, const char* from) {
    int in = open(from, O_RDONLY | O_CLOEXEC);
    if (in < 0) return -1;
    int out = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (out < 0) {
        int saved = errno;
        close(in);
        errno = saved;
        return -1;
    }
    char buf[4096];
    for (;;) {
        ssize_t got = read(in, buf, sizeof buf);
        if (got == 0) break;
        if (got < 0) {
            if (errno == EINTR) continue;
            goto fail;
        }
        for (ssize_t done = 0; done < got;) {
            ssize_t put = write(out, buf + done, static_cast<size_t>(got - done));
            if (put < 0) {
                if (errno == EINTR) continue;
                goto fail;
            }
            done += put;
        }
    }
    close(in);
    return close(out) == 0 ? 0 : -1;
fail:
    int saved = errno;
    close(in);
    close(out);
    errno = saved;
    return -1;
}

template <typename Char>
static uint64_t DecimalPrefix(const Char* s, Char** end) {
    uint64_t value = 0;
    while (*s >= '0' && *s <= '9') value = value * 10 + static_cast<uint64_t>(*s++ - '0');
    if (end) *end = const_cast<Char*>(s);
    return value;
}

uint64_t strtoul64(const char* s, char** end) { return DecimalPrefix(s, end); }
uint64_t wcstoul64(const wchar_t* ws, wchar_t** end) { return DecimalPrefix(ws, end); }

int GetSecure(char* buf, int size) {
    struct termios saved, quiet;
    bool haveTerminal = tcgetattr(STDIN_FILENO, &saved) == 0;
    if (haveTerminal) {
        quiet = saved;
        quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON);
        tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    }
    int stored = 0, ender = 0;
    while (stored < size - 1) {
        int c = getchar();
        if (static_cast<signed char>(c) < 32) {
            ender = static_cast<signed char>(c);
            break;
        }
        buf[stored++] = static_cast<char>(c);
        putchar('*');
    }
    if (size > 0) buf[stored] = '\0';
    putchar('\n');
    fflush(stdout);
    if (haveTerminal) tcsetattr(STDIN_FILENO, TCSANOW, &saved);
    return ender;
}
