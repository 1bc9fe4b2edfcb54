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
 * With -j N it is the parallel floor instead, the least a scanner on N
 * threads can do: the same system calls on N threads sharing a queue of
 * directories, in no order and with no output.  A directory is opened
 * relative to its parent's descriptor while the parent's is still open, or
 * by its path from the root without following links once descriptors run
 * short; batches of a large directory's listing are handed to idle threads,
 * so one huge directory is examined on all of them.  It counts the same
 * entries and directories as the one-thread walk; bench/parallel.sh times it.
 *
 * Build: cc -O2 -o floor bench/floor.c
 * Use:   floor [-w OUT] ROOT      prints "N entries, M directories"
 *        floor -j N ROOT          the same count, on N threads
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <linux/openat2.h>
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
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

/* The parallel floor (-j N). */

/* A directory met by the parallel walk.  fdRefs counts who still needs its
 * descriptor: the thread listing it, the batches of its listing handed to
 * other threads, and the subdirectories queued to be opened relative to it;
 * the last one closes it.  memRefs keeps the node, whose name the paths of
 * its descendants are built from, while its descriptor is open and while
 * any subdirectory's node lives. */
struct pdir {
    struct pdir *parent;
    int fd;
    int pinned; /* holds one of the parent's fdRefs: opened relative to it */
    int fdRefs, memRefs;
    char name[];
};

/* A directory to open and list (buf NULL), or a batch of its listing to
 * examine. */
struct task {
    struct pdir *dir;
    char *buf;
    long len;
};

/* What one thread counted; added up after the threads end. */
struct counts {
    unsigned long long entries, dirs, failures;
};

static pthread_mutex_t queueLock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t queueWait = PTHREAD_COND_INITIALIZER;
/* Last in, first out: the walk stays deep rather than wide, which keeps few
 * parents' descriptors pinned, and handed-off batches are taken first. */
static struct task *queue;
static size_t queueLen, queueCap;
static int busy;       /* threads running a task; under queueLock */
static int idle;       /* threads waiting for one; read without the lock */
static int openFds;    /* descriptors of directories now open */
static int fdBudget;   /* above this many, subdirectories no longer pin their parent's */
static struct pdir *rootDir;

/* Needs queueLock. */
static void enqueue(const struct task *t, size_t n)
{
    if (queueLen + n > queueCap) {
        queueCap = (queueCap + n) * 2;
        queue = realloc(queue, queueCap * sizeof *queue);
        if (!queue) die("realloc");
    }
    memcpy(queue + queueLen, t, n * sizeof *t);
    queueLen += n;
    if (__atomic_load_n(&idle, __ATOMIC_RELAXED)) {
        if (n == 1)
            pthread_cond_signal(&queueWait);
        else
            pthread_cond_broadcast(&queueWait);
    }
}

static void pushTasks(const struct task *t, size_t n)
{
    pthread_mutex_lock(&queueLock);
    enqueue(t, n);
    pthread_mutex_unlock(&queueLock);
}

static void dropNode(struct pdir *d)
{
    while (d && __atomic_sub_fetch(&d->memRefs, 1, __ATOMIC_ACQ_REL) == 0) {
        struct pdir *parent = d->parent;
        free(d);
        d = parent;
    }
}

static void dropFd(struct pdir *d)
{
    if (__atomic_sub_fetch(&d->fdRefs, 1, __ATOMIC_ACQ_REL) == 0) {
        close(d->fd);
        __atomic_sub_fetch(&openFds, 1, __ATOMIC_RELAXED);
        dropNode(d);
    }
}

/* Opens d by its path from the root, refusing a link anywhere on the way,
 * for a directory whose parent's descriptor was not kept for it. */
static int openByPath(const struct pdir *d, char *path)
{
    size_t len = 0;
    for (const struct pdir *p = d; p != rootDir; p = p->parent) len += strlen(p->name) + 1;
    if (!len || len > PATH_MAX) { /* never the root, which is open */
        errno = ENAMETOOLONG;
        return -1;
    }
    char *at = path + len;
    *--at = 0;
    for (const struct pdir *p = d; p != rootDir; p = p->parent) {
        size_t n = strlen(p->name);
        at -= n;
        memcpy(at, p->name, n);
        if (p->parent != rootDir) *--at = '/';
    }
    struct open_how how = {.flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC,
                           .resolve = RESOLVE_NO_SYMLINKS};
    return (int)syscall(SYS_openat2, rootDir->fd, path, &how, sizeof how);
}

/* Hot: examines one batch of d's listing and queues the subdirectories it
 * finds, all at once; the caller holds one of d's fdRefs. */
static void examine(struct pdir *d, const char *buf, long got, struct counts *c)
{
    struct task found[256];
    size_t nfound = 0;
    for (long at = 0; at < got;) {
        const struct linux_dirent64 *e = (const struct linux_dirent64 *)(buf + at);
        at += e->d_reclen;
        const char *n = e->d_name;
        if (n[0] == '.' && (!n[1] || (n[1] == '.' && !n[2]))) continue;
        c->entries++;
        struct stat st;
        if (fstatat(d->fd, n, &st, AT_SYMLINK_NOFOLLOW)) {
            c->failures++;
            continue;
        }
        if (!S_ISDIR(st.st_mode)) continue;
        size_t len = strlen(n);
        struct pdir *sub = malloc(sizeof *sub + len + 1);
        if (!sub) die("malloc");
        memcpy(sub->name, n, len + 1);
        sub->parent = d;
        sub->fd = -1;
        sub->fdRefs = 0;
        sub->memRefs = 1;
        __atomic_add_fetch(&d->memRefs, 1, __ATOMIC_RELAXED);
        sub->pinned = __atomic_load_n(&openFds, __ATOMIC_RELAXED) < fdBudget;
        if (sub->pinned) __atomic_add_fetch(&d->fdRefs, 1, __ATOMIC_RELAXED);
        found[nfound++] = (struct task){sub, NULL, 0};
        if (nfound == sizeof found / sizeof *found) {
            pushTasks(found, nfound);
            nfound = 0;
        }
    }
    if (nfound) pushTasks(found, nfound);
}

/* Opens d (unless it is the root, opened already) and reads its listing
 * whole; each batch is examined after the next one has been read, so that
 * a batch followed by more can go to an idle thread instead. */
static void list(struct pdir *d, char *bufs[2], char *path, struct counts *c)
{
    c->dirs++;
    if (d->fd < 0) {
        int fd;
        if (d->pinned) {
            fd = openat(d->parent->fd, d->name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            dropFd(d->parent);
        } else {
            fd = openByPath(d, path);
        }
        if (fd < 0) {
            c->failures++;
            dropNode(d);
            return;
        }
        __atomic_add_fetch(&openFds, 1, __ATOMIC_RELAXED);
        d->fd = fd;
        d->fdRefs = 1;
    }
    long held = 0;
    int cur = 0;
    for (;;) {
        long got = syscall(SYS_getdents64, d->fd, bufs[!cur], READ_SIZE);
        if (got <= 0) {
            if (got < 0) c->failures++;
            break;
        }
        if (held && __atomic_load_n(&idle, __ATOMIC_RELAXED)) {
            char *copy = malloc((size_t)held);
            if (!copy) die("malloc");
            memcpy(copy, bufs[cur], (size_t)held);
            __atomic_add_fetch(&d->fdRefs, 1, __ATOMIC_RELAXED);
            pushTasks(&(struct task){d, copy, held}, 1);
        } else if (held) {
            examine(d, bufs[cur], held, c);
        }
        cur = !cur;
        held = got;
    }
    if (held) examine(d, bufs[cur], held, c);
    dropFd(d);
}

static void *worker(void *arg)
{
    struct counts *c = arg;
    char *bufs[2] = {malloc(READ_SIZE), malloc(READ_SIZE)};
    char *path = malloc(PATH_MAX);
    if (!bufs[0] || !bufs[1] || !path) die("malloc");
    for (;;) {
        pthread_mutex_lock(&queueLock);
        while (!queueLen && busy) {
            __atomic_add_fetch(&idle, 1, __ATOMIC_RELAXED);
            pthread_cond_wait(&queueWait, &queueLock);
            __atomic_sub_fetch(&idle, 1, __ATOMIC_RELAXED);
        }
        if (!queueLen) {
            /* Nothing queued and nobody at work who could queue more. */
            pthread_mutex_unlock(&queueLock);
            break;
        }
        struct task t = queue[--queueLen];
        busy++;
        pthread_mutex_unlock(&queueLock);
        if (t.buf) {
            examine(t.dir, t.buf, t.len, c);
            free(t.buf);
            dropFd(t.dir);
        } else {
            list(t.dir, bufs, path, c);
        }
        pthread_mutex_lock(&queueLock);
        if (!--busy && !queueLen) pthread_cond_broadcast(&queueWait);
        pthread_mutex_unlock(&queueLock);
    }
    free(bufs[0]);
    free(bufs[1]);
    free(path);
    return NULL;
}

static void walkParallel(int root, int threads)
{
    /* Every directory open at once needs a descriptor: take all the system
     * allows, and keep room for each thread's own open directory. */
    struct rlimit lim;
    if (!getrlimit(RLIMIT_NOFILE, &lim)) {
        lim.rlim_cur = lim.rlim_max;
        setrlimit(RLIMIT_NOFILE, &lim);
        getrlimit(RLIMIT_NOFILE, &lim);
        long room = (long)(lim.rlim_cur > INT_MAX ? INT_MAX : lim.rlim_cur) - 2L * threads - 16;
        fdBudget = room > 0 ? (int)room : 0;
        if ((long)lim.rlim_cur < threads + 16L) {
            fprintf(stderr, "floor: %d threads need %d descriptors, and only %ld are allowed\n", threads,
                    threads + 16, (long)lim.rlim_cur);
            exit(1);
        }
    }
    rootDir = calloc(1, sizeof *rootDir + 1);
    if (!rootDir) die("calloc");
    rootDir->fd = root;
    rootDir->fdRefs = 2; /* its listing, and this function until the threads end */
    rootDir->memRefs = 1;
    openFds = 1;
    pushTasks(&(struct task){rootDir, NULL, 0}, 1);

    pthread_t *ids = malloc((size_t)threads * sizeof *ids);
    struct counts *each = calloc((size_t)threads, sizeof *each);
    if (!ids || !each) die("malloc");
    for (int i = 0; i < threads; i++) {
        int err = pthread_create(&ids[i], NULL, worker, &each[i]);
        if (err) {
            errno = err;
            die("pthread_create");
        }
    }
    for (int i = 0; i < threads; i++) {
        pthread_join(ids[i], NULL);
        entries += each[i].entries;
        dirs += each[i].dirs;
        failures += each[i].failures;
    }
    dropFd(rootDir);
    free(ids);
    free(each);
    free(queue);
}

int main(int argc, char **argv)
{
    const char *usage = "usage: floor [-w OUT] ROOT\n       floor -j N ROOT\n";
    int i = 1, threads = 0;
    if (i + 1 < argc && !strcmp(argv[i], "-w")) {
        outFd = open(argv[i + 1], O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (outFd < 0) die(argv[i + 1]);
        outBuf = malloc(OUT_SIZE);
        if (!outBuf) die("malloc");
        i += 2;
    } else if (i + 1 < argc && !strcmp(argv[i], "-j")) {
        char *end;
        long n = strtol(argv[i + 1], &end, 10);
        if (*end || end == argv[i + 1] || n < 1 || n > 1024) {
            fputs("floor: -j takes a number of threads from 1 to 1024\n", stderr);
            return 2;
        }
        threads = (int)n;
        i += 2;
    }
    if (i + 1 != argc || argv[i][0] == '-') {
        fputs(usage, stderr);
        return 2;
    }
    /* The root may itself be reached through a link; nothing below it is. */
    int root = open(argv[i], O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (root < 0) die(argv[i]);
    if (threads)
        walkParallel(root, threads);
    else
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
