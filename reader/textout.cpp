#include "reader/textout.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/termwidth.h"

size_t Utf8Length(const unsigned char* p, size_t n) {
    uint32_t cp;
    return p[0] < 0x80 ? 1 : DecodeUtf8(p, n, &cp);
}

bool IsUtf8(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0, len; i < text.size(); i += len)
        if (!(len = Utf8Length(p + i, text.size() - i))) return false;
    return true;
}

void AppendFormat(std::string* out, const char* format, ...) {
    char buf[512];
    va_list ap, again;
    va_start(ap, format);
    va_copy(again, ap);
    int n = vsnprintf(buf, sizeof buf, format, ap);
    if (n >= static_cast<int>(sizeof buf)) {
        size_t at = out->size();
        out->resize(at + n + 1);
        vsnprintf(out->data() + at, n + 1, format, again);
        out->pop_back();
    } else if (n > 0) {
        out->append(buf, n);
    }
    va_end(again);
    va_end(ap);
}

void AppendEscaped(std::string* out, std::string_view text, bool quoted) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    if (quoted) *out += '"';
    for (size_t i = 0; i < text.size();) {
        unsigned char c = p[i];
        size_t len = Utf8Length(p + i, text.size() - i);
        if (c == '\\' || (quoted && c == '"')) {
            *out += '\\';
            *out += static_cast<char>(c);
        } else if (c == '\n') {
            *out += "\\n";
        } else if (c == '\t') {
            *out += "\\t";
        } else if (len == 0 || c < 0x20 || c == 0x7F) {
            AppendFormat(out, "\\x%02x", c);
        } else {
            out->append(text.substr(i, len));
            i += len;
            continue;
        }
        i++;
    }
    if (quoted) *out += '"';
}

void AppendJsonString(std::string* out, std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    *out += '"';
    for (size_t i = 0; i < text.size();) {
        unsigned char c = p[i];
        size_t len = Utf8Length(p + i, text.size() - i);
        if (len == 0) {
            *out += "\xEF\xBF\xBD";
            i++;
        } else if (c == '"' || c == '\\') {
            *out += '\\';
            *out += static_cast<char>(c);
            i++;
        } else if (c < 0x20 || c == 0x7F) {
            AppendFormat(out, "\\u%04x", c);
            i++;
        } else {
            out->append(text.substr(i, len));
            i += len;
        }
    }
    *out += '"';
}

void AppendJsonMember(std::string* out, const char* key, std::string_view text) {
    AppendFormat(out, "\"%s\": ", key);
    AppendJsonString(out, text);
    if (IsUtf8(text)) return;
    AppendFormat(out, ", \"%sHex\": \"", key);
    AppendHex(out, text);
    *out += '"';
}

void AppendHex(std::string* out, std::string_view bytes) {
    static const char digits[] = "0123456789abcdef";
    size_t at = out->size();
    out->resize(at + 2 * bytes.size());
    char* p = out->data() + at;
    for (unsigned char c : bytes) {
        *p++ = digits[c >> 4];
        *p++ = digits[c & 15];
    }
}

void AppendCsvField(std::string* out, std::string_view text) {
    bool quote = text.find_first_of(",\"\n\r") != std::string_view::npos;
    if (quote) *out += '"';
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    for (size_t i = 0; i < text.size();) {
        size_t len = Utf8Length(p + i, text.size() - i);
        if (len == 0) {
            *out += "\xEF\xBF\xBD";
            i++;
            continue;
        }
        if (p[i] == '"') *out += '"';
        out->append(text.substr(i, len));
        i += len;
    }
    if (quote) *out += '"';
}

const char* KindName(uint32_t mode) {
    switch (mode & S_IFMT) {
        case S_IFREG: return "file";
        case S_IFDIR: return "dir";
        case S_IFLNK: return "symlink";
        case S_IFCHR: return "chardev";
        case S_IFBLK: return "blockdev";
        case S_IFIFO: return "fifo";
        case S_IFSOCK: return "socket";
        default: return "unknown";
    }
}

std::string HumanSize(uint64_t bytes) {
    static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    char text[32];
    if (bytes < 1024) {
        snprintf(text, sizeof text, "%llu B", static_cast<unsigned long long>(bytes));
        return text;
    }
    double value = static_cast<double>(bytes);
    int unit = 0;
    // Up to the unit that shows at most "1023", never a rounded "1024".
    while (value >= 1023.5 && unit < 6) {
        value /= 1024;
        unit++;
    }
    snprintf(text, sizeof text, value < 9.995 ? "%.2f %s" : value < 99.95 ? "%.1f %s" : "%.0f %s", value, units[unit]);
    return text;
}

static char* Put2(char* p, unsigned v) {
    p[0] = static_cast<char>('0' + v / 10);
    p[1] = static_cast<char>('0' + v % 10);
    return p + 2;
}

char* PutIsoTime(char* p, int64_t seconds) {
    int64_t days = seconds >= 0 ? seconds / 86400 : (seconds - 86399) / 86400;
    int64_t rest = seconds - days * 86400;
    // Days to a civil date (proleptic Gregorian), in eras of 400 years.
    int64_t z = days + 719468;
    int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    int64_t doe = z - era * 146097;
    int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    int64_t mp = (5 * doy + 2) / 153;
    unsigned day = static_cast<unsigned>(doy - (153 * mp + 2) / 5 + 1);
    unsigned month = static_cast<unsigned>(mp < 10 ? mp + 3 : mp - 9);
    unsigned year = static_cast<unsigned>(yoe + era * 400 + (month <= 2));
    p = Put2(p, year / 100 % 100);
    p = Put2(p, year % 100);
    *p++ = '-';
    p = Put2(p, month);
    *p++ = '-';
    p = Put2(p, day);
    *p++ = 'T';
    p = Put2(p, static_cast<unsigned>(rest / 3600));
    *p++ = ':';
    p = Put2(p, static_cast<unsigned>(rest / 60 % 60));
    *p++ = ':';
    p = Put2(p, static_cast<unsigned>(rest % 60));
    *p++ = 'Z';
    return p;
}

// Writes v's n digits at p, two at a time from the end; a 32-bit value
// divides faster than a 64-bit one.
template <typename T>
static char* PutDigits(char* p, T v, int n) {
    static const char pairs[] =
        "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
        "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
        "8081828384858687888990919293949596979899";
    char* end = p + n;
    char* d = end;
    while (v >= 100) {
        d -= 2;
        memcpy(d, pairs + 2 * (v % 100), 2);
        v /= 100;
    }
    if (v >= 10)
        memcpy(d - 2, pairs + 2 * v, 2);
    else
        d[-1] = static_cast<char>('0' + v);
    return end;
}

char* PutDecimal(char* p, uint64_t v) {
    static const uint64_t powers[20] = {1ull,
                                        10ull,
                                        100ull,
                                        1000ull,
                                        10000ull,
                                        100000ull,
                                        1000000ull,
                                        10000000ull,
                                        100000000ull,
                                        1000000000ull,
                                        10000000000ull,
                                        100000000000ull,
                                        1000000000000ull,
                                        10000000000000ull,
                                        100000000000000ull,
                                        1000000000000000ull,
                                        10000000000000000ull,
                                        100000000000000000ull,
                                        1000000000000000000ull,
                                        10000000000000000000ull};
    if (v < 10) {
        *p = static_cast<char>('0' + v);
        return p + 1;
    }
    // The number of digits from the number of bits: log10(2) is about 1233 / 4096.
    int t = ((64 - __builtin_clzll(v)) * 1233) >> 12;
    int n = t + 1 - (v < powers[t]);
    return v <= UINT32_MAX ? PutDigits(p, static_cast<uint32_t>(v), n) : PutDigits(p, v, n);
}

std::string HeadingTime(int64_t seconds) {
    char text[24];
    char* end = PutIsoTime(text, seconds);
    std::string s(text, end - 1);  // without the Z
    s[10] = ' ';
    return s + " UTC";
}
