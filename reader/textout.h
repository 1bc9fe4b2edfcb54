// How dtldump writes what it reads: names (bytes that need not be UTF-8) in
// text, JSON and CSV, sizes for people, times in ISO 8601, numbers fast.
//
// Every way of writing a name is lossless or says where the exact bytes are:
// text escapes control characters, backslashes and stray bytes as \xNN; JSON
// and CSV put U+FFFD for each stray byte and the exact bytes, in hexadecimal,
// in a twin member or column ("pathHex").
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The texts joined into one string.
template <typename... Texts>
std::string Cat(const Texts&... texts) {
    std::string joined;
    (joined.append(std::string_view(texts)), ...);
    return joined;
}

/// Length of the valid UTF-8 sequence at p (at most n bytes), or 0.
size_t Utf8Length(const unsigned char* p, size_t n);

/// True when text is valid UTF-8.
bool IsUtf8(std::string_view text);

/// Appends printf-formatted text.
void AppendFormat(std::string* out, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Text: the name with ", \ and control characters escaped (\n, \t, \xNN)
/// and bytes that are not UTF-8 as \xNN; in double quotes when quoted.
void AppendEscaped(std::string* out, std::string_view text, bool quoted);

/// JSON: a string; each byte that is not part of valid UTF-8 becomes U+FFFD.
void AppendJsonString(std::string* out, std::string_view text);

/// JSON: "key": "text", and when text is not UTF-8 also "keyHex": "<bytes>".
void AppendJsonMember(std::string* out, const char* key, std::string_view text);

/// The bytes in lower-case hexadecimal, two digits each.
void AppendHex(std::string* out, std::string_view bytes);

/// CSV (RFC 4180): the text, in double quotes (doubled inside) when it holds
/// a comma, a double quote, a line feed or a carriage return; stray bytes as
/// U+FFFD.
void AppendCsvField(std::string* out, std::string_view text);

/// The kind an entry's mode makes it, as the dump and the export name it:
/// "file", "dir", "symlink", "chardev", "blockdev", "fifo", "socket" or
/// "unknown".
const char* KindName(uint32_t mode);

/// A size for people in binary units with three significant digits:
/// "512 B", "1.50 KiB", "42.3 MiB", "118 GiB".
std::string HumanSize(uint64_t bytes);

/// Writes seconds since 1970 as "YYYY-MM-DDThh:mm:ssZ" (20 bytes) at p and
/// returns the end. Makes no call and takes no lock.
char* PutIsoTime(char* p, int64_t seconds);

/// Writes v in decimal at p and returns the end.
char* PutDecimal(char* p, uint64_t v);

/// A time for the heading of a report: "2024-01-02 03:04:05 UTC".
std::string HeadingTime(int64_t seconds);
