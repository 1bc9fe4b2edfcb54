// Ferrovan: the data-collection program of the Ironvale suite. It walks one
// directory tree depth-first on one thread and writes every directory and
// entry to one binary detail file for the suite's report program.
//
// The map:
//   driver/   main, the option table and parser, the usage and version texts,
//             and the run's fixed sequence (RunFerrovan).
//   config/   the configuration file, the scan-root record and its
//             validation, the include/exclude templates and their matcher.
//   scan/     the directory walk, the file record, owner and hard-link
//             tracking, forced recall, and the totals on the log.
//   detail/   the detail-file layout, its writer, and its closing,
//             compression and decompression (and the dtldump reader).
//   btree/    the paged B-tree behind the owner and hard-link tables.
//   log/      log, error and debug output and the fatal-exit routines.
//   support/  memory, string objects, UTF-8, number formatting, byte order
//             and small wrappers around the C library.
//
// How data flows: the command line and the configuration file give one scan
// root; validation resolves it and reads its volume figures; the detail
// writer lays down the headers; the walk reads each directory whole and
// dispatches every entry to the detail writer, which keeps owners and
// hard-linked inodes in the B-trees; when the root is done the writer
// finishes the file ("FDTL"), the totals go to the log, and the file is
// compressed when asked. The log module serves all of them, and every fatal
// condition ends the process through it.

#include "driver/run.h"

int main(int argc, char** argv) { return RunFerrovan(argc, argv); }
