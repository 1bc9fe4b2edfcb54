// The run of one scan from start to exit, in its fixed order.
#pragma once

/// Runs the program with the command line; returns the exit status (0).
/// Every failure ends the process through the fatal-exit routines.
int RunFerrovan(int argc, char** argv);

/// Asks before an existing file at name is replaced, unless it is the
/// unfinished detail file of an interrupted run ("IDTL"). Exits 0 when the
/// answer is not y or Y.
void CheckExistingDtlFile(const char* name);

/// Formats an elapsed time in seconds as the log's " Elapsed: hh:mm:ss" line
/// (a difference of 0 shows as one second) into out (at least 48 bytes).
const char* FormatElapsed(long long seconds, char* out);
