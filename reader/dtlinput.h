// The bytes of a detail file as the reader takes them in: read straight from
// a plain file, or inflated on the fly from a compressed one.
//
// A compressed detail file is one zlib stream: the two bytes 0x78 0x01, raw
// deflate data, and the big-endian Adler-32 of the plain bytes, with nothing
// after it. It is inflated piece by piece into the caller's buffer, so it
// takes neither a temporary copy on disk nor more memory than a 32 KiB
// window and one input buffer; the trailer is checked when the stream ends.
// The input is only ever read forward, so a pipe serves as well as a file.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

struct DtlInflater;

/// An open input. Plain data; DtlInputOpen fills it.
struct DtlInput {
    int fd = -1;
    bool compressed = false;  ///< the file starts with 0x78 0x01 and is inflated
    uint8_t pending[2] = {};  ///< the first bytes of a plain file, read to tell the kinds apart
    size_t pendingLen = 0;
    uint64_t compressedRead = 0;      ///< bytes of the compressed file read so far
    DtlInflater* inflater = nullptr;  ///< the stream and its input buffer; only when compressed
};

/// Opens path and tells a compressed file from a plain one by its first two
/// bytes. False with *error filled when the file cannot be opened or read.
bool DtlInputOpen(DtlInput* input, const char* path, std::string* error);

/// Puts up to cap plain bytes into buf. Returns how many (at least 1 while
/// any remain), 0 at the end of the data, or -1 with *error filled: a read
/// error, or a compressed stream that is damaged, cut short, followed by
/// other bytes or whose trailer does not match.
ssize_t DtlInputRead(DtlInput* input, uint8_t* buf, size_t cap, std::string* error);

/// Closes the file and frees the inflater.
void DtlInputClose(DtlInput* input);
