/* slowfs: a read-only mirror of a directory that answers every request
 * after a set delay, the way a file server across a network does.
 *
 * Each request the kernel sends (lookup, getattr, opendir, each readdir,
 * releasedir, readlink, open, read, release, statfs) sleeps for the delay
 * before it is answered, and requests are served on many threads at once,
 * so that a scanner that keeps many requests in flight gains as it would
 * against a real server.  The kernel keeps nothing: attribute, entry and
 * negative-lookup timeouts are zero and readdirplus is off, so every stat
 * of an entry goes to the mirror again, on every scan.
 *
 * What a scan records comes through unchanged: inode numbers (in stat and
 * in listings), modes, owners, sizes, blocks, times to the nanosecond and
 * link counts are the source's, so that two scans of one mount write the
 * same detail file.  Only the device number is the mount's own.
 *
 * Build: cc -O2 -o slowfs bench/slowfs.c $(pkg-config --cflags --libs fuse3)
 * Use:   slowfs [--delay-us N] [--threads N] SOURCE MOUNTPOINT
 *        (stays in the foreground until unmounted: fusermount3 -u MOUNTPOINT)
 * bench/parallel.sh mounts it for its slow mode.
 */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE
#endif
#define FUSE_USE_VERSION 312 /* 3.12: fuse_loop_cfg */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <fuse.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

static int rootFd = -1;
static struct timespec delay = {0, 300 * 1000};

/* Requests answered, by kind; printed when the mirror is unmounted, so that
 * a benchmark can tell how many round trips a scan took. */
enum { GETATTR, READLINK, OPENDIR, READDIR, RELEASEDIR, OPEN, READ, RELEASE, STATFS, KINDS };
static const char* const kindNames[KINDS] = {"getattr", "readlink", "opendir", "readdir", "releasedir",
                                             "open",    "read",     "release", "statfs"};
static unsigned long long answered[KINDS];

/* Every handler starts here: the request's round trip to the "server". */
static void wait_delay(int kind) {
    __atomic_add_fetch(&answered[kind], 1, __ATOMIC_RELAXED);
    struct timespec left = delay;
    while (clock_nanosleep(CLOCK_MONOTONIC, 0, &left, &left) == EINTR) {}
}

/* Paths come as "/a/b"; the source is reached relative to its descriptor. */
static const char* rel(const char* path) { return path[1] ? path + 1 : "."; }

static void* slow_init(struct fuse_conn_info* conn, struct fuse_config* cfg) {
    /* Nothing cached by the kernel: every scan asks again. */
    conn->want &= ~(unsigned)(FUSE_CAP_READDIRPLUS | FUSE_CAP_READDIRPLUS_AUTO);
    cfg->entry_timeout = 0;
    cfg->attr_timeout = 0;
    cfg->negative_timeout = 0;
    cfg->kernel_cache = 0;
    /* The source's inode numbers, in stat and in listings. */
    cfg->use_ino = 1;
    cfg->readdir_ino = 1;
    return NULL;
}

static int slow_getattr(const char* path, struct stat* st, struct fuse_file_info* fi) {
    (void)fi;
    wait_delay(GETATTR);
    return fstatat(rootFd, rel(path), st, AT_SYMLINK_NOFOLLOW) ? -errno : 0;
}

static int slow_readlink(const char* path, char* buf, size_t size) {
    wait_delay(READLINK);
    ssize_t n = readlinkat(rootFd, rel(path), buf, size - 1);
    if (n < 0) return -errno;
    buf[n] = 0;
    return 0;
}

/* An open directory: the stream, where the kernel's last read ended, and an
 * entry read but not yet handed over (the kernel's buffer was full). */
struct dir {
    DIR* stream;
    off_t offset;
    struct dirent* entry;
};

static int slow_opendir(const char* path, struct fuse_file_info* fi) {
    wait_delay(OPENDIR);
    int fd = openat(rootFd, rel(path), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -errno;
    struct dir* d = calloc(1, sizeof *d);
    if (!d || !(d->stream = fdopendir(fd))) {
        int err = d ? errno : ENOMEM;
        free(d);
        close(fd);
        return -err;
    }
    fi->fh = (uintptr_t)d;
    return 0;
}

/* Answers one readdir request from where the last one ended; each entry
 * carries its offset, so that every request of a long listing comes here
 * (and waits) rather than being served from a copy the library keeps. */
static int slow_readdir(const char* path, void* buf, fuse_fill_dir_t fill, off_t offset, struct fuse_file_info* fi,
                        enum fuse_readdir_flags flags) {
    (void)path;
    (void)flags;
    wait_delay(READDIR);
    struct dir* d = (struct dir*)(uintptr_t)fi->fh;
    if (offset != d->offset) {
        seekdir(d->stream, offset);
        d->entry = NULL;
        d->offset = offset;
    }
    for (;;) {
        if (!d->entry) {
            errno = 0;
            d->entry = readdir(d->stream);
            if (!d->entry) return errno ? -errno : 0;
        }
        struct stat st = {.st_ino = d->entry->d_ino, .st_mode = (mode_t)d->entry->d_type << 12};
        off_t next = telldir(d->stream);
        if (fill(buf, d->entry->d_name, &st, next, 0)) return 0;
        d->entry = NULL;
        d->offset = next;
    }
}

static int slow_releasedir(const char* path, struct fuse_file_info* fi) {
    (void)path;
    wait_delay(RELEASEDIR);
    struct dir* d = (struct dir*)(uintptr_t)fi->fh;
    closedir(d->stream);
    free(d);
    return 0;
}

static int slow_open(const char* path, struct fuse_file_info* fi) {
    wait_delay(OPEN);
    if ((fi->flags & O_ACCMODE) != O_RDONLY) return -EROFS;
    int fd = openat(rootFd, rel(path), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return -errno;
    fi->fh = (uint64_t)fd;
    return 0;
}

static int slow_read(const char* path, char* buf, size_t size, off_t offset, struct fuse_file_info* fi) {
    (void)path;
    wait_delay(READ);
    ssize_t n = pread((int)fi->fh, buf, size, offset);
    return n < 0 ? -errno : (int)n;
}

static int slow_release(const char* path, struct fuse_file_info* fi) {
    (void)path;
    wait_delay(RELEASE);
    close((int)fi->fh);
    return 0;
}

static int slow_statfs(const char* path, struct statvfs* sv) {
    (void)path;
    wait_delay(STATFS);
    return fstatvfs(rootFd, sv) ? -errno : 0;
}

static const struct fuse_operations ops = {
    .init = slow_init,
    .getattr = slow_getattr,
    .readlink = slow_readlink,
    .opendir = slow_opendir,
    .readdir = slow_readdir,
    .releasedir = slow_releasedir,
    .open = slow_open,
    .read = slow_read,
    .release = slow_release,
    .statfs = slow_statfs,
};

static long number(const char* text, long max) {
    char* end;
    long n = strtol(text, &end, 10);
    if (*end || end == text || n < 0 || n > max) return -1;
    return n;
}

int main(int argc, char** argv) {
    const char* usage = "usage: slowfs [--delay-us N] [--threads N] SOURCE MOUNTPOINT\n";
    long delayUs = 300, threads = 256;
    int i = 1;
    for (; i + 1 < argc && argv[i][0] == '-'; i += 2) {
        if (!strcmp(argv[i], "--delay-us"))
            delayUs = number(argv[i + 1], 10 * 1000 * 1000);
        else if (!strcmp(argv[i], "--threads"))
            threads = number(argv[i + 1], 100000);
        else
            delayUs = -1;
        if (delayUs < 0 || threads < 1) {
            fputs(usage, stderr);
            return 2;
        }
    }
    if (i + 2 != argc) {
        fputs(usage, stderr);
        return 2;
    }
    delay.tv_sec = delayUs / 1000000;
    delay.tv_nsec = delayUs % 1000000 * 1000;
    rootFd = open(argv[i], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFd < 0) {
        perror(argv[i]);
        return 1;
    }
    char mountpoint[PATH_MAX];
    if (!realpath(argv[i + 1], mountpoint)) {
        perror(argv[i + 1]);
        return 1;
    }
    /* The default slack of 50 us would stretch a delay of 300 us by a
     * sixth; the serving threads inherit this. */
    prctl(PR_SET_TIMERSLACK, 1UL);

    char* fuseArgv[] = {argv[0], "-o", "ro,fsname=slowfs,subtype=slowfs", NULL};
    struct fuse_args args = FUSE_ARGS_INIT(3, fuseArgv);
    struct fuse* fs = fuse_new(&args, &ops, sizeof ops, NULL);
    if (!fs) return 1;
    if (fuse_mount(fs, mountpoint)) {
        fuse_destroy(fs);
        return 1;
    }
    struct fuse_session* se = fuse_get_session(fs);
    fuse_set_signal_handlers(se);
    /* Idle threads are kept, so that a burst of requests does not start
     * and end a thread for each one. */
    struct fuse_loop_config* loop = fuse_loop_cfg_create();
    fuse_loop_cfg_set_max_threads(loop, (unsigned)threads);
    fuse_loop_cfg_set_idle_threads(loop, (unsigned)threads);
    int ret = fuse_loop_mt(fs, loop);
    fuse_loop_cfg_destroy(loop);
    fuse_remove_signal_handlers(se);
    fuse_unmount(fs);
    fuse_destroy(fs);
    unsigned long long all = 0;
    for (int k = 0; k < KINDS; k++) all += answered[k];
    fprintf(stderr, "slowfs: %llu requests answered after %ld us:", all, delayUs);
    for (int k = 0; k < KINDS; k++)
        if (answered[k]) fprintf(stderr, " %s %llu", kindNames[k], answered[k]);
    fputc('\n', stderr);
    return ret ? 1 : 0;
}
