#include "driver/options.h"

OptionRec cmdOpts[] = {
    {"cfg", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"log", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"err", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"dtl", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"tag", OPT_ARG | OPT_ARG_REQUIRED, 0, nullptr, 0},
    {"p", 0, 0, nullptr, 0},
    {"touch", OPT_ARG | OPT_NUMERIC, 0, nullptr, 0},
    {"f", 0, 0, nullptr, 0},
    {"tmod", 0, 0, nullptr, 0},
    {"zip", 0, 0, nullptr, 0},
    {nullptr, 0, 0, nullptr, 0},
};

int gArgc = 0;
char** gArgv = nullptr;

// Placeholder until the parser lands: accepts nothing.
void ParseCommandLine(int argc, char** argv, OptionRec*) {
    gArgc = argc;
    gArgv = argv;
}
