// What the fuzz targets share: a broken expectation stops the run where
// libFuzzer sees it; and, since the reader opens files by name, the
// detail-file targets write each input to one anonymous in-memory file,
// reached through /proc.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

/// Traps unless ok, so that libFuzzer keeps the input.
static inline void Check(bool ok) {
    if (!ok) __builtin_trap();
}

/// Writes the input to the memory file in place of the last one and returns
/// the path to open it by; nullptr when it cannot be written.
static inline const char* StoreInput(const uint8_t* data, size_t size) {
    static int memoryFile = -1;
    static char memoryPath[64];
    if (memoryFile < 0) {
        memoryFile = memfd_create("fuzz_input", MFD_CLOEXEC);
        Check(memoryFile >= 0);
        snprintf(memoryPath, sizeof memoryPath, "/proc/self/fd/%d", memoryFile);
    }
    if (ftruncate(memoryFile, 0) != 0) return nullptr;
    for (size_t done = 0; done < size;) {
        ssize_t put = pwrite(memoryFile, data + done, size - done, static_cast<off_t>(done));
        if (put <= 0) return nullptr;
        done += static_cast<size_t>(put);
    }
    return memoryPath;
}
