#include "support/utf8.h"

#include <cstring>

// Decodes one character at *p and advances *p past it. A terminator inside
// a sequence counts as one of its bytes; decoding then stops at it
// (*ended = true) instead of reading past the end of the string.
static uint32_t DecodeOne(const unsigned char** p, bool* ended) {
    const unsigned char* s = *p;
    uint32_t b = s[0];
    if (b < 0x80) {
        *p = s + 1;
        return b;
    }
    // Counter reaches 0 exactly for a 110xxxxx lead; everything else of 0x80
    // and above is taken as a three-byte lead.
    uint32_t mask = 0x80;
    int counter = 2;
    do {
        mask >>= 1;
        counter--;
    } while (b & mask);
    uint32_t second = s[1];
    if (second == 0) {
        *ended = true;
        return counter == 0 ? (b & 0x1F) << 6 : b << 12;
    }
    if (counter == 0) {
        *p = s + 2;
        return ((b & 0x1F) << 6) | (second & 0x3F);
    }
    uint32_t third = s[2];
    if (third == 0) *ended = true;
    *p = s + 3;
    // The lead byte is not masked: its top bits stay in the value (E2 82 AC
    // gives 0xE20AC), which the suite's readers expect.
    return (b << 12) | (((second >> 2) & 0x0F) << 8) | ((second & 0x03) << 6) | (third & 0x3F);
}

wchar_t* UtfToWChr(wchar_t* dst, const char* src) {
    const auto* p = reinterpret_cast<const unsigned char*>(src);
    wchar_t* out = dst;
    bool ended = false;
    while (*p && !ended) *out++ = static_cast<wchar_t>(DecodeOne(&p, &ended));
    *out = 0;
    return dst;
}

char* UtfToChr(char* dst, const char* src) {
    const auto* p = reinterpret_cast<const unsigned char*>(src);
    char* out = dst;
    bool ended = false;
    while (*p && !ended) *out++ = static_cast<char>(DecodeOne(&p, &ended) & 0xFF);
    *out = 0;
    return dst;
}

char* WChrToUtf(char* dst, const wchar_t* src) {
    char* out = dst;
    for (; *src; src++) {
        int32_t c = static_cast<int32_t>(*src);
        // Signed thresholds: negative values take the one-byte form, and the
        // three-byte form starts at 0x400 on purpose.
        if (c <= 0x7F) {
            *out++ = static_cast<char>(c);
        } else if (c <= 0x3FF) {
            *out++ = static_cast<char>(0xC0 | ((c >> 6) & 0x1F));
            *out++ = static_cast<char>(0x80 | (c & 0x3F));
        } else {
            *out++ = static_cast<char>(0xE0 | ((c >> 12) & 0x0F));
            *out++ = static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            *out++ = static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    *out = 0;
    return dst;
}

char* ChrToUtf(char* dst, const char* src) {
    memcpy(dst, src, strlen(src) + 1);
    return dst;
}

uint32_t WChrUtfLen(const wchar_t* src) {
    uint32_t len = 1;
    for (; *src; src++) {
        int32_t c = static_cast<int32_t>(*src);
        len += c <= 0x7F ? 1 : c <= 0x3FF ? 2 : 3;
    }
    return len;
}

uint32_t ChrUtfLen(const char* src) { return static_cast<uint32_t>(strlen(src)) + 1; }

uint32_t UtfChrLen(const char* str) {
    size_t len = strlen(str);
    const auto* s = reinterpret_cast<const unsigned char*>(str);
    uint32_t count = 0;
    // 0xC0 counts as a one-byte character and 0xE0 as a two-byte lead; a
    // sequence cut off by the end still counts as one character.
    for (size_t i = 0; i < len; count++) i += s[i] >= 0xE1 ? 3 : s[i] >= 0xC1 ? 2 : 1;
    return count;
}
