// Byte order of the detail file: every integer written to it passes through
// logShort, logInt or logInt64, which make it little-endian whatever the host.
#pragma once

#include <cstdint>

/// 0 = not yet determined; 2 = little-endian host (values pass unchanged);
/// any other value = big-endian host (values are byte-reversed).
extern int32_t endianType;

/// Records the host byte order on first use and returns endianType.
int32_t WhichEnd();

/// The low 16 bits of v in file byte order.
inline uint16_t logShort(uint32_t v) {
    uint16_t s = static_cast<uint16_t>(v);
    return endianType == 2 ? s : __builtin_bswap16(s);
}

/// v in file byte order.
inline uint32_t logInt(uint32_t v) { return endianType == 2 ? v : __builtin_bswap32(v); }

/// v in file byte order.
inline uint64_t logInt64(uint64_t v) { return endianType == 2 ? v : __builtin_bswap64(v); }
