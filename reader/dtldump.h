// The dtldump tool: printing a detail file whole (dump.cpp) and the report
// commands (commands.cpp). main (dtldump.cpp) picks one by the first word.
#pragma once

#include <string>

#include "reader/dtlread.h"

/// The usage text: the forms of the command line and the commands.
extern const char* const DTLDUMP_USAGE;

/// dtldump [--json] [--summary] FILE, as it has always been: prints and
/// checks the file. Takes main's arguments; returns the exit status.
int DumpMain(int argc, char** argv);

/// True when word names a report command.
bool IsCommand(const char* word);

/// dtldump COMMAND [OPTIONS] FILE...: argv[1] is the command. Returns the
/// exit status.
int CommandMain(int argc, char** argv);

/// Says on standard error why a file cannot be read, as the structure check
/// found it: "dtldump: FILE: offset N: message" (without the offset when
/// the file could not be opened). Returns the exit status, 1.
int RefuseFile(const std::string& path, bool opened, const DtlFault& fault);
