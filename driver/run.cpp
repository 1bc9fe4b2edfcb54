#include "driver/run.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "config/configfile.h"
#include "config/roots.h"
#include "detail/dtlfile.h"
#include "detail/format.h"
#include "detail/writer.h"
#include "driver/globals.h"
#include "driver/options.h"
#include "log/log.h"
#include "scan/idtable.h"
#include "scan/readahead.h"
#include "scan/walk.h"
#include "support/byteorder.h"
#include "support/memory.h"

void CheckExistingDtlFile(const char* name) {
    FILE* f = fopen(name, "r");
    if (!f) return;
    // A whole log header beginning "IDTL": the run that wrote it never finished.
    unsigned char block[sizeof(DtlLogHeader)];
    size_t got = fread(block, 1, sizeof block, f);
    fclose(f);
    if (got == sizeof block) {
        uint32_t magic;
        memcpy(&magic, block, sizeof magic);
        if (logInt(magic) == DTL_MAGIC_UNFINISHED) return;
    }
    printf("File '%s' already exists\n", name);
    printf("Do you want to overwrite it (Y or N): ");
    fflush(stdout);
    char answer = 0;
    if (scanf("%c", &answer) == 1 && (answer | 0x20) == 'y') return;
    printf("No further actions available. Exiting now.");
    exit(0);
}

const char* FormatElapsed(long long seconds, char* out) {
    int elapsed = static_cast<int>(seconds ? seconds : 1);
    snprintf(out, 48, " Elapsed: %02d:%02d:%02d\n", elapsed / 3600, (elapsed % 3600) / 60, elapsed % 60);
    return out;
}

// Opens the detail file for update where the run has always created it, so
// that "Unable to create" comes at the same moment and for the same reasons,
// but without truncating it: until the root is validated an existing file
// stays as it was. A file this run creates is registered, so that a run
// ending before its headers are written leaves nothing behind. Returns the
// registration slot (-1 for an existing file).
static int OpenDetailFile(const char* name, FILE** stream) {
    int slot = -1;
    HoldInterrupts();
    int fd = open(name, O_RDWR | O_CREAT | O_EXCL, 0666);
    if (fd >= 0) {
        slot = RemoveOnFatalExit(name);
    } else if (errno == EEXIST) {
        fd = open(name, O_RDWR);
        if (fd < 0 && errno == ENOENT) {
            // A dangling symbolic link: the file it names is created, as
            // always, and it is that file which goes if the run ends early.
            fd = open(name, O_RDWR | O_CREAT, 0666);
            char target[PATH_MAX];
            if (fd >= 0 && realpath(name, target)) slot = RemoveOnFatalExit(target);
        }
    }
    if (fd < 0 || !(*stream = fdopen(fd, "w+b"))) {
        ReleaseInterrupts();
        PosixErrExit(0, "Unable to create audit detail file '%s'\n", name);
    }
    ReleaseInterrupts();
    return slot;
}

// The root is valid: an existing detail file is emptied and the headers,
// beginning "IDTL", are written in one step that no signal divides. From
// here on the file stays however the run ends; readers and the next run's
// overwrite check recognise an unfinished one by its "IDTL".
static void StartDetailFile(FILE* stream, const char* name, int createdSlot) {
    HoldInterrupts();
    struct stat st;
    int fd = fileno(stream);
    // Only a regular file can be emptied; a device or pipe never held anything.
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0 && ftruncate(fd, 0) != 0)
        PosixErrExit(0, "Unable to create audit detail file '%s'\n", name);
    WriteLogHeaders();
    KeepOnFatalExit(createdSlot);
    ReleaseInterrupts();
}

// FERROVAN_THREADS: the threads the walk may use, its own included. Read
// before anything is opened, so that a wrong value leaves no file behind.
static uint32_t WalkThreadsWanted() {
    const char* text = getenv("FERROVAN_THREADS");
    if (!text) return WALK_THREADS_DEFAULT;
    uint32_t value = 0;
    const char* p = text;
    while (*p >= '0' && *p <= '9' && value <= AHEAD_MAX_THREADS) value = value * 10 + static_cast<uint32_t>(*p++ - '0');
    if (p == text || *p != '\0' || value < 1 || value > AHEAD_MAX_THREADS)
        ErrExit("FERROVAN_THREADS must be a whole number from 1 to %u, not '%s'\n", AHEAD_MAX_THREADS, text);
    return value;
}

// The scan root named on the command line: the one word the option parser
// left in argv. A [ScanRoot] section without a path takes its path from here.
static void TakeCommandLineRoot(int argc, char** argv) {
    bool taken = false;
    for (int i = 1; i < argc; i++) {
        if (!argv[i]) continue;
        if (taken) ErrExit("Only one scan root may be specified\n");
        if (rootList && rootList->path)
            ErrExit("Scan root cannot be specified in both the configuration file and on the command line\n");
        size_t length = strlen(argv[i]);
        auto* path = static_cast<char*>(GetMem(length + 1, "root path"));
        memcpy(path, argv[i], length);
        if (!rootList) rootList = rootLast = NewRoot();
        rootList->path = path;
        taken = true;
    }
}

int RunFerrovan(int argc, char** argv) {
    auto* architecture = static_cast<char*>(GetMem(32, "Architecture"));
    snprintf(architecture, 32, "%s", "IA32");
    WhichEnd();
    struct utsname node;
    if (uname(&node) == 0) {
        size_t n = strnlen(node.nodename, sizeof srvrName - 1);
        memcpy(srvrName, node.nodename, n);
        srvrName[n] = '\0';
    }

    ParseCommandLine(argc, argv, cmdOpts);
    showProgress = cmdOpts[CMD_P].optFlags & OPT_FOUND;
    if (cmdOpts[CMD_TOUCH].optFlags & OPT_FOUND)
        thrdCount = (cmdOpts[CMD_TOUCH].optFlags & OPT_HAS_ARG) ? cmdOpts[CMD_TOUCH].optNumber : 8;
    tmodFlag = cmdOpts[CMD_TMOD].optFlags & OPT_FOUND;
    bool force = cmdOpts[CMD_F].optFlags & OPT_FOUND;
    zipFlag = cmdOpts[CMD_ZIP].optFlags & OPT_FOUND;
    walkThreads = WalkThreadsWanted();

    OpenLogErrFiles(0, cmdOpts[CMD_LOG].optArg, cmdOpts[CMD_ERR].optArg);
    InstallInterruptHandlers();

    const char* dtlName = (cmdOpts[CMD_DTL].optFlags & OPT_FOUND) ? cmdOpts[CMD_DTL].optArg : "ferro.dtl";
    struct stat st;
    if (stat(dtlName, &st) == 0 && !force) CheckExistingDtlFile(dtlName);
    FILE* dtl = nullptr;
    int createdSlot = OpenDetailFile(dtlName, &dtl);
    time_t start = time(nullptr);
    DtlWriterOpen(dtl, dtlName, start, cmdOpts[CMD_TAG].optArg, architecture);

    char startText[47];
    strftime(startText, sizeof startText, "%a, %d %b, %Y at %X", localtime(&start));

    LogEntry("Zentrix Filesystem Audit Utility\n\n");
    if (cmdOpts[CMD_CFG].optFlags & OPT_FOUND) ProcessConfigFile(cmdOpts[CMD_CFG].optArg);
    TakeCommandLineRoot(argc, argv);
    ValidateRootList();
    LogEntry("Run on: %s, Timestamp: %s\n\n", srvrName, startText);
    StartDetailFile(dtl, dtlName, createdSlot);

    // The page files are named only between their creation and their removal.
    HoldInterrupts();
    IdTableOpen();
    HardLinkTableOpen();
    ReleaseInterrupts();
    for (AuditRoot* root = rootList; root; root = root->next) ProcessRoot(root);

    time_t end = time(nullptr);
    struct tm* endTm = localtime(&end);
    LogEntry("\nEnd time: %02d:%02d:%02d\n", endTm->tm_hour, endTm->tm_min, endTm->tm_sec);
    char elapsed[48];
    LogEntry("%s", FormatElapsed(static_cast<long long>(end - start), elapsed));

    IdTableFree();
    HardLinkTableFree();

    CloseDtlFile(dtlFile, dtlName, zipFlag);
    return 0;
}
