#include "support/numfmt.h"

#include <cstdio>
#include <cstring>

char* ValueStr(int64_t value, char* buffer, char separator) {
    int len = snprintf(buffer, NUM_BUF_SIZE, "%lld", static_cast<long long>(value));
    // The sign is counted like a digit, so -123 gets a separator ("-,123").
    int seps = (len - 1) / 3;
    int out = len + seps;
    buffer[out] = '\0';
    int in = len - 1;
    for (int group = 0; group < seps; group++) {
        for (int k = 0; k < 3; k++) buffer[--out] = buffer[in--];
        buffer[--out] = separator;
    }
    // With '.' the text is a count of thousandths shown with two decimals.
    if (separator == '.') buffer[len + seps - 1] = '\0';
    return buffer;
}

char* EditValueMetric(uint64_t value, char* buffer) {
    char figure[NUM_BUF_SIZE];
    char exact[NUM_BUF_SIZE];
    if (value < 1000000) {
        // The result is bounded at 63 characters; the figures never come near it.
        if (snprintf(buffer, NUM_BUF_SIZE, "%s bytes", ValueStr(static_cast<int64_t>(value), figure, '.')) < 0)
            buffer[0] = '\0';
        return buffer;
    }
    const char* unit;
    uint64_t thousandths;
    if (value < 1000000000) {
        unit = "mb";
        thousandths = (value + 999) / 1000;
    } else if ((value >> 12) > 244140624) {  // value >= 10^12
        unit = "tb";
        thousandths = (value + 999999999) / 1000000000;
    } else {
        unit = "gb";
        thousandths = (value + 999999) / 1000000;
    }
    ValueStr(static_cast<int64_t>(thousandths), figure, '.');
    ValueStr(static_cast<int64_t>(value), exact, ',');
    if (snprintf(buffer, NUM_BUF_SIZE, "%s%s (%s)", figure, unit, exact) < 0) buffer[0] = '\0';
    return buffer;
}

uint64_t NumericString(const char* text, int allowSuffix) {
    constexpr uint64_t bad = ~uint64_t{0};
    uint64_t value = 0;
    for (const char* p = text; *p; p++) {
        if (*p >= '0' && *p <= '9') {
            value = value * 10 + static_cast<uint64_t>(*p - '0');
            continue;
        }
        if (!allowSuffix || p[1] != '\0') return bad;
        switch (*p) {
            case 'K': value *= 1024; break;
            case 'M': value *= 1048576; break;
            case 'G': value *= 1073741824; break;
            case 'k': value *= 1000; break;
            case 'm': value *= 1000000; break;
            case 'g': value *= 1000000000; break;
            default: return bad;
        }
        break;
    }
    if (!allowSuffix && value > 4294967295u) return bad;
    return value;
}
