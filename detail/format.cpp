#include "detail/format.h"

#include <cstring>

void EncodeEndMarker(DtlRecordFixed* out) { memset(out, 0xFF, sizeof *out); }

size_t EncodeHeaderString(uint8_t* out, const char* str) {
    size_t n = strlen(str);
    // The unit count is a signed 16-bit number: longer texts would wrap.
    if (n > DTL_HEADER_STRING_MAX) return 0;
    uint16_t unit = logShort(static_cast<uint32_t>(2 * n + 2));
    memcpy(out, &unit, 2);
    uint8_t* p = out + 2;
    for (size_t i = 0; i <= n; i++, p += 2) {
        // Sign extension: bytes 0x80..0xFF become units 0xFF80..0xFFFF.
        unit = logShort(static_cast<uint16_t>(static_cast<int16_t>(static_cast<signed char>(str[i]))));
        memcpy(p, &unit, 2);
    }
    return HeaderStringSize(n);
}

// Copies text into a zeroed field, keeping its last byte zero.
static void CopyField(char* field, size_t size, const char* text) {
    memset(field, 0, size);
    strncpy(field, text, size - 1);
}

void EncodeVersionHeader(DtlVersionHeader* out, const char* version, const char* platform,
                         const char* architecture) {
    CopyField(out->version, sizeof out->version, version);
    CopyField(out->platform, sizeof out->platform, platform);
    CopyField(out->architecture, sizeof out->architecture, architecture);
}
