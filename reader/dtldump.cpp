// dtldump: prints and checks a detail file, or reports on the scan it holds.
//
//   dtldump [--json] [--summary] FILE       the whole file (dump.cpp)
//   dtldump COMMAND [OPTIONS] FILE...       a report (commands.cpp)
//
// The first word picks: a command's name is a command, anything else starts
// the old form, so the scripts written for it keep working. A file named
// like a command is named ./top.

#include "reader/dtldump.h"

int main(int argc, char** argv) {
    if (argc > 1 && IsCommand(argv[1])) return CommandMain(argc, argv);
    return DumpMain(argc, argv);
}
