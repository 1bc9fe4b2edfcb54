// The driver's own state: what the command line asks of the run's end, and
// the recorded options that nothing below reads.
#pragma once

#include <cstdint>

extern uint32_t thrdCount;  ///< -touch's number (8 without one); 32 when absent; read by nothing
extern uint32_t tmodFlag;   ///< found bit of -tmod; read by nothing
extern uint32_t zipFlag;    ///< found bit of -zip: compress the detail file at the end
