#include "config/roots.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <strings.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log/log.h"
#include "support/memory.h"

char srvrName[64];
AuditRoot* rootList = nullptr;
AuditRoot* rootLast = nullptr;
int rootCount = 0;
char* trgtSrvr = nullptr;
char* trgtName = nullptr;
char* tvxRoot = nullptr;

AuditRoot* NewRoot() { return static_cast<AuditRoot*>(GetMem(sizeof(AuditRoot), "root record")); }

void ValidateRootList() {
    if (!rootList) ErrExit("No scan root specified\n");
    for (AuditRoot* root = rootList; root; root = root->next) {
        // A [ScanRoot] section without a path line, and no root on the command line.
        if (!root->path) ErrExit("No scan root specified\n");
        ValidateRoot(root);
        for (AuditRoot* earlier = rootList; earlier != root; earlier = earlier->next)
            if (strcasecmp(earlier->path, root->path) == 0) ErrExit("Duplicate root path: %s\n", root->path);
        root->rootIndex = static_cast<uint32_t>(rootCount++);
    }
}

void ValidateRoot(AuditRoot* root) {
    char resolved[PATH_MAX];
    if (!realpath(root->path, resolved)) PosixErrExit(0, "Root '%s' is an invalid path\n", root->path);
    free(root->path);
    root->path = SaveAStr(resolved);

    struct stat st;
    if (stat(root->path, &st) != 0) PosixErrExit(0, "Root '%s' does not exist or is not accessible\n", root->path);
    if (!S_ISDIR(st.st_mode)) ErrExit("Root '%s' is not a directory\n", root->path);

    // Block counts are widened before the multiplication so that large
    // volumes do not wrap; the block size, not the fragment size, is the unit.
    struct statvfs vfs;
    if (statvfs(root->path, &vfs) != 0)
        PosixErrExit(0, "Unable to retrieve capacity information for: %s\n", root->path);
    root->volumeCapacity = static_cast<uint64_t>(vfs.f_blocks) * vfs.f_bsize;
    root->availableSpace = static_cast<uint64_t>(vfs.f_bfree) * vfs.f_bsize;

    MatchPathToMountPoint(root->path, &trgtSrvr, &trgtName);
    if (trgtName) {
        size_t size = strlen(trgtSrvr) + 1 + strlen(trgtName) + 1;
        root->mountSource = static_cast<char*>(GetMem(size, "mount source"));
        snprintf(root->mountSource, size, "%s:%s", trgtSrvr, trgtName);
        tvxRoot = trgtName;
    } else {
        root->mountSource = nullptr;
        trgtSrvr = srvrName;
        tvxRoot = root->path;
    }
}

int MatchPathToMountPoint(const char*, char** serverOut, char** nameOut) {
    *serverOut = nullptr;
    *nameOut = nullptr;
    return 0;
}
