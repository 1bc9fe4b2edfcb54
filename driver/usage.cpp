// The usage and version texts, printed by the option parser for "-?" and "-?V".
// The wording, spacing and misspellings are the program's own and stay as
// they are.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "driver/options.h"
#include "support/version.h"

// One entry per line, each printed with puts.
static constexpr const char* usageLine[] = {
    "",
    "Ferrovan is the data collection program of the Ironvale application suite.",
    "",
    "Usage: Ferrovan [<scan-root>] [-cfg <config-file>] [-dtl <detail-file>] [-f] ",
    "              [-tag <tag-string] [-touch] [-log <log-file>] [-err <err-file>] [-zip]",
    "where:",
    "    <scan-root>",
    "        specifies the root directory at which to begin the file scan.  If this",
    "        paramter is not present, the -cfg <configuration-file> option must be",
    "        used to specify an scan root.",
    "    -cfg <config-file>",
    "        specifies the configuration filename.  The syntax of this file is",
    "        described below.",
    "    -dtl <detail-file>",
    "        specifies the file to receive the details of the scan.  This file is",
    "        then used as input to Oxbrook to produce detail file-level reports.",
    "        If the option is not present, its default is Ferrovan.dtl.",
    "    -f",
    "        unconditionally deletes an existing .dtl file with the same name.",
    "    -tag <tag-string>",
    "        this option is used when the resulting .dtl file is going to be used",
    "        with the Zentrix TVX service package.  <tag-string> is any string up to",
    "        31 characters as assigned by the TVX administration process.",
    "    -touch",
    "        if present, this option causes the program to read the first block of",
    "        each offline file.  It is used to recall stub file contents after a",
    "        Wendrow import operation.  This option is incompatible with -ads.",
    "    -threads n",
    "        specifies the number of file processing threads.  The defaualt is 32.",
    "    -log <log-file> and -err <err-file>",
    "        specify files to receive the execution log and any error messages.",
    "        If they are not specified, the defaults at stdout and stderr.",
    "\t -zip",
    "\t \t if present, this option causes the DTL file created during a scan",
    "\t \t to be compressed.",
    "Configuration file",
    "------------------",
    "This file is used to specify include/exclude files and directories for the",
    "scan root.  It must have a single [ScanRoot] section which contains a path",
    "parameter if the root scan path was not specified on the command line and,",
    "optionally, one or more include/exclude directory or file parameters.",
    "Its form is",
    "",
    "[ScanRoot]",
    "path         = <scan-root-directory>",
    "includedirs  = <dir-template>",
    "excludedirs  = <dir-template>",
    "includefiles = <file-template>",
    "excludefiles = <file-template>",
    "",
    "The <dir-template> and <file-template> values may contain wildcard characters",
    "with the following meanings:",
    "",
    "    ? - any single character not including a path separator",
    "    * - zero or more characters not including a path separator",
    "    ~ - zero or more characters",
};
static_assert(std::size(usageLine) == 56);

static constexpr const char* versionLine[] = {
    "Version " FERROVAN_VERSION " built on Apr  2 2014 at 12:13:49",
    "",
    "Ferrovan - file scanning component of the Zentrix file system analysis utilities",
    "",
    "    13 Oct 2006 - Initial release",
    "    11 Apr 2007 - Added support for difference engine to .dtl files",
    "    10 Jun 2007 - Small bug fixes",
    "     3 Aug 2007 - -touch option made readonly, -recall added for forced recall",
    "     4 Nov 2007 - Build of 'diff' index moved to Quillan.  Scan speed improved ",
    "    20 May 2010 - Updates to add debug logging.",
    "                  Updates to check on invalid file sizes.",
    "    23 Mar 2011 - Added support for Reparse Points.",
    "                  Added log for reparse points found.",
    "    26 Dec 2012 - Fixed segmentation fault in btree code on Ubuntu Linux 64-bit.",
    "\t 30 Oct 2013 - -zip option for DTL file compression added.                  ",
};

// argv[0] behind its last backslash; a '/' is no separator here, so a path
// in argv[0] is shown whole.
static const char* ProgramName() {
    const char* name = (gArgv && gArgc > 0 && gArgv[0]) ? gArgv[0] : "Ferrovan";
    const char* backslash = strrchr(name, '\\');
    return backslash ? backslash + 1 : name;
}

void ShowUsage() {
    for (const char* line : usageLine) puts(line);
    printf("For version information enter '%s -?V'\n", ProgramName());
    exit(0);
}

void ShowVersion() {
    for (const char* line : versionLine) puts(line);
    printf("For usage information enter '%s -?'\n", ProgramName());
    exit(0);
}
