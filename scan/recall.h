// Forced recall of an offline file: a file whose data a migration product
// keeps elsewhere is brought back by writing past its end and cutting it
// back to its length, which leaves length and contents as they were.
#pragma once

#include <cstdint>

#include "scan/accesspath.h"

/// Writes 10 bytes of 0xFF at offset size of fd (open for writing; size is
/// the file's length from lstat), then truncates fd back to size. Failures
/// go to the error file through LogPosixErr naming paths->accessPath: a failed
/// seek skips the rest; a failed write still truncates; a failed truncation
/// is reported with error number -1 ("(p-1) Unknown error -1"), not with the
/// real error: readers of the error file expect exactly that line.
void ForceFileRecall(int fd, int64_t size, const AccessPaths* paths);
