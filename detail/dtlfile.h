// Closing the detail file at the end of a run (compressing it in place when
// asked) and opening a detail file for reading, compressed or not.
//
// A compressed detail file is recognised by its first two bytes, 0x78 0x01.
// Replacing the file in place always goes through a temporary file beside it,
// named "<path>-<seconds>.tmp", created exclusively, synced and renamed over
// the original in one step: at every moment either the old or the new file is
// complete under the real name, and a failure leaves the original untouched
// and no temporary file behind. Every failure is fatal (status 1).
#pragma once

#include <cstdint>
#include <cstdio>

/// Size of the buffer in which the temporary name is built; a detail file
/// path too long for it is a fatal error.
constexpr int DTL_TEMP_NAME_SIZE = 1024;

/// Closes stream (when not null) and, when zipFlag is not 0, replaces the
/// file at path by its compressed form, printing "Compressing DTL file".
void CloseDtlFile(FILE* stream, const char* path, uint32_t zipFlag);

/// Opens the detail file at path with mode (a read mode such as "rb" or
/// "r+b") and returns the stream at its start. A compressed file is first
/// decompressed in place ("Decompressing DTL file" is printed) and
/// *wasCompressed is set to 1; otherwise *wasCompressed is left as it is.
FILE* OpenDtlFile(const char* path, const char* mode, int* wasCompressed);
