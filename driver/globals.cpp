#include "driver/globals.h"

uint32_t thrdCount = 32;
uint32_t tmodFlag = 0;
uint32_t zipFlag = 0;
