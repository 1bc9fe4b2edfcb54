#include "scan/recall.h"

#include <unistd.h>

#include <cstring>

#include "log/log.h"

void ForceFileRecall(int fd, int64_t size, const AccessPaths* paths) {
    if (lseek(fd, static_cast<off_t>(size), SEEK_SET) == static_cast<off_t>(-1)) {
        LogPosixErr(0, "Error touching (seek) '%s'\n", paths->accessPath);
        return;
    }
    unsigned char touch[10];
    memset(touch, 0xFF, sizeof touch);
    if (write(fd, touch, sizeof touch) == -1) LogPosixErr(0, "Error touching (write) '%s'\n", paths->accessPath);
    if (ftruncate(fd, static_cast<off_t>(size)) != 0)
        LogPosixErr(-1, "Error touching (truncate) '%s'\n", paths->accessPath);
}
