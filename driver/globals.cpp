#include "driver/globals.h"

char* compiledArchitecture = nullptr;
char srvrName[64];
uint32_t showProgress = 0;
uint32_t thrdCount = 32;
uint32_t tmodFlag = 0;
uint32_t zipFlag = 0;
FILE* dtlFile = nullptr;
char* tagStr = nullptr;
time_t timeStamp = 0;
TreeHeader* idTree = nullptr;
TreeHeader* hlinkTree = nullptr;
FILE* hlinkFile = nullptr;
