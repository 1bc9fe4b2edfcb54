// Program-wide state of the run, set by the driver and read by the walk and
// the detail writer.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ctime>

struct TreeHeader;

extern char* compiledArchitecture;  ///< "IA32", 32 bytes
extern char srvrName[64];           ///< this machine's node name
extern uint32_t showProgress;       ///< 0x10000 when -p asks the walk to log every directory
extern uint32_t thrdCount;          ///< -touch's number (8 without one); 32 when absent; read by nothing
extern uint32_t tmodFlag;           ///< found bit of -tmod; read by nothing
extern uint32_t zipFlag;            ///< found bit of -zip: compress the detail file at the end
extern FILE* dtlFile;               ///< the detail file, open for update
extern char* tagStr;                ///< 31-character tag, blank-padded, zero-terminated
extern time_t timeStamp;            ///< start time of the run
extern TreeHeader* idTree;          ///< owner and group ids
extern TreeHeader* hlinkTree;       ///< hard-linked inodes
extern FILE* hlinkFile;             ///< anonymous temporary file collecting hard-link entries
