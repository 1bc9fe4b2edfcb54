/* floor: the least work a single-threaded, depth-first scanner can do.
 *
 * It walks a tree the way Ferrovan must: read a whole directory, then descend
 * into its subdirectories in the order they were read, never following a
 * symbolic link.  The system calls are the ones no such scanner can avoid:
 * one openat per directory (O_NOFOLLOW below the root, so a directory swapped
 * for a link is not entered), the getdents64 batches, one close, and one
 * fstatat(AT_SYMLINK_NOFOLLOW) per entry.  No DIR stream (no fstat or fcntl
 * per directory), no path strings, no allocation per entry.
 *
 * With -w OUT it also writes a 48-byte record and the name (with its NUL) per
 * entry through a 4 MiB buffer, about what a detail record costs; bench/run.sh
 * times both forms beside the program.
 *
 * Build: cc -O2 -o floor bench/floor.c
 * Use:   floor [-w OUT] ROOT      prints "N entries, M directories"
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

/* getdents64 fills this with packed records of the kernel's own layout. */
struct linux_dirent64 {
    uint64_t d_ino;
    int64_t d_off;
    unsigned short d_reclen;
    unsigned char d_type;
    char d_name[];
};

enum { READ_SIZE = 64 * 1024, OUT_SIZE = 4 * 1024 * 1024 };

static unsigned long long entries, dirs, failures;
static char readBuf[READ_SIZE];

/* Output through one large buffer; errors are checked where it is flushed. */
static int outFd = -1;
static char *outBuf;
static size_t outLen;

/* Names of the subdirectories still to visit, for every level at once: each
 * level appends its own after the ones of the levels above and cuts them off
 * again when it is done, so the stack grows only with the widest path. */
static char *pending;
static size_t pendingLen, pendingCap;

static void die(const char *what)
{
    perror(what);
    exit(1);
}

static void flushOut(void)
{
    size_t done = 0;
    while (done < outLen) {
        ssize_t n = write(outFd, outBuf + done, outLen - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            die("write");
        }
        done += (size_t)n;
    }
    outLen = 0;
}

/* Hot: copies a few fields and the name into the buffer, no system call
 * except when the buffer is full. */
static void emit(const struct stat *st, const char *name, size_t nameLen)
{
    if (outLen + 48 + nameLen + 1 > OUT_SIZE) flushOut();
    unsigned char *rec = (unsigned char *)outBuf + outLen;
    uint32_t ino = (uint32_t)st->st_ino, mode = st->st_mode, nlink = (uint32_t)st->st_nlink;
    uint32_t uid = st->st_uid, gid = st->st_gid;
    uint64_t size = (uint64_t)st->st_size, blocks = (uint64_t)st->st_blocks;
    uint32_t atime = (uint32_t)st->st_atime, mtime = (uint32_t)st->st_mtime, ctime = (uint32_t)st->st_ctime;
    memcpy(rec, &ino, 4);
    memcpy(rec + 4, &mode, 4);
    memcpy(rec + 8, &nlink, 4);
    memcpy(rec + 12, &uid, 4);
    memcpy(rec + 16, &gid, 4);
    memcpy(rec + 20, &atime, 4);
    memcpy(rec + 24, &mtime, 4);
    memcpy(rec + 28, &ctime, 4);
    memcpy(rec + 32, &size, 8);
    memcpy(rec + 40, &blocks, 8);
    memcpy(rec + 48, name, nameLen + 1);
    outLen += 48 + nameLen + 1;
}

static void push(const char *name, size_t len)
{
    if (pendingLen + len + 1 > pendingCap) {
        pendingCap = (pendingCap + len + 1) * 2;
        pending = realloc(pending, pendingCap);
        if (!pending) die("realloc");
    }
    memcpy(pending + pendingLen, name, len + 1);
    pendingLen += len + 1;
}

/* Lists the open directory fd completely, then walks its subdirectories in
 * read order; closes fd. */
static void walk(int fd)
{
    dirs++;
    size_t mine = pendingLen;
    for (;;) {
        long got = syscall(SYS_getdents64, fd, readBuf, sizeof readBuf);
        if (got <= 0) {
            if (got < 0) failures++;
            break;
        }
        for (long at = 0; at < got;) {
            struct linux_dirent64 *d = (struct linux_dirent64 *)(readBuf + at);
            at += d->d_reclen;
            const char *n = d->d_name;
            if (n[0] == '.' && (!n[1] || (n[1] == '.' && !n[2]))) continue;
            entries++;
            struct stat st;
            if (fstatat(fd, n, &st, AT_SYMLINK_NOFOLLOW)) {
                failures++;
                continue;
            }
            size_t len = strlen(n);
            if (outFd >= 0) emit(&st, n, len);
            if (S_ISDIR(st.st_mode)) push(n, len);
        }
    }
    /* Offsets, not pointers: a deeper level may move the stack. */
    for (size_t at = mine; at < pendingLen;) {
        size_t len = strlen(pending + at);
        int sub = openat(fd, pending + at, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (sub < 0) {
            dirs++;
            failures++;
        } else {
            walk(sub);
        }
        at += len + 1;
    }
    pendingLen = mine;
    close(fd);
}

int main(int argc, char **argv)
{
    const char *usage = "usage: floor [-w OUT] ROOT\n";
    int i = 1;
    if (i + 1 < argc && !strcmp(argv[i], "-w")) {
        outFd = open(argv[i + 1], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (outFd < 0) die(argv[i + 1]);
        outBuf = malloc(OUT_SIZE);
        if (!outBuf) die("malloc");
        i += 2;
    }
    if (i + 1 != argc || argv[i][0] == '-') {
        fputs(usage, stderr);
        return 2;
    }
    /* The root may itself be reached through a link; nothing below it is. */
    int root = open(argv[i], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root < 0) die(argv[i]);
    walk(root);
    if (outFd >= 0) {
        flushOut();
        if (close(outFd)) die("close");
    }
    printf("%llu entries, %llu directories", entries, dirs);
    if (failures) printf(", %llu failures", failures);
    printf("\n");
    return 0;
}
