// Conversions between 8-bit strings, wide strings of 32-bit characters and
// UTF-8 byte strings, with the length functions that size their buffers.
//
// These are the suite's own conversions, not standard UTF-8: they cover 16-bit
// code values only, switch to three bytes at 0x400, keep a three-byte lead's
// top bits in the decoded value, and never validate. Other programs of the
// suite read what these write, so the thresholds and masks must stay as they
// are. Every destination is the caller's; nothing allocates or checks sizes.
#pragma once

#include <cstdint>

/// Decodes UTF-8 into wide characters; dst needs one character per source
/// byte plus the terminator. Returns dst.
wchar_t* UtfToWChr(wchar_t* dst, const char* src);
/// Decodes UTF-8 into 8-bit characters, each decoded value cut to its low
/// 8 bits; dst needs strlen(src) + 1 bytes. Returns dst.
char* UtfToChr(char* dst, const char* src);
/// Encodes wide characters as UTF-8; dst needs WChrUtfLen(src) bytes. Returns dst.
char* WChrToUtf(char* dst, const wchar_t* src);
/// Copies the bytes of src unchanged, terminator included; names and link
/// targets are stored this way. Returns dst.
char* ChrToUtf(char* dst, const char* src);
/// Bytes that WChrToUtf writes for src, terminator included.
uint32_t WChrUtfLen(const wchar_t* src);
/// Bytes that ChrToUtf writes for src: strlen(src) + 1.
uint32_t ChrUtfLen(const char* src);
/// Number of characters in a UTF-8 string (0 for the empty string).
uint32_t UtfChrLen(const char* str);
