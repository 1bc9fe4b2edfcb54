// Ferrovan: the data-collection program of the Ironvale suite. It walks one
// directory tree depth-first (recording on one thread, with helper threads
// reading ahead) and writes every directory and entry to one binary detail
// file for the suite's report program.
// docs/ARCHITECTURE.md is the map of the sources.

#include "driver/run.h"

int main(int argc, char** argv) { return RunFerrovan(argc, argv); }
