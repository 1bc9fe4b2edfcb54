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
#include <vector>

struct DtlInflater;

/// A place in a compressed stream where inflating can start afresh: the
/// end of a deflate block, with the 32 KiB of plain bytes before it.
struct DtlCheckpoint {
    uint64_t plainPos = 0;        ///< offset in the plain bytes
    uint64_t compressedPos = 0;   ///< offset in the file of the first byte not wholly consumed
    int bits = 0;                 ///< bits of the byte before compressedPos still to be read
    std::vector<uint8_t> window;  ///< the plain bytes before plainPos, at most 32 KiB
};

/// Checkpoints gathered while a compressed file is read from front to back,
/// at least spacing plain bytes apart, so that it can be read again at any
/// offset by inflating at most about spacing bytes (DtlSeekRead).
struct DtlCheckpoints {
    uint64_t spacing = 4 << 20;
    std::vector<DtlCheckpoint> points;  ///< by plainPos
};

/// An open input. Plain data; DtlInputOpen fills it.
struct DtlInput {
    int fd = -1;
    bool compressed = false;  ///< the file starts with 0x78 0x01 and is inflated
    uint8_t pending[2] = {};  ///< the first bytes of a plain file, read to tell the kinds apart
    size_t pendingLen = 0;
    uint64_t compressedRead = 0;      ///< bytes of the compressed file read so far
    DtlInflater* inflater = nullptr;  ///< the stream and its input buffer; only when compressed
    DtlCheckpoints* checkpoints = nullptr;  ///< set before the first read to gather them
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

/// Reads a detail file at any offset: pread on a plain file; on a
/// compressed one, inflating from the nearest checkpoint at or before the
/// offset (or on from where the last read ended, when that is nearer).
struct DtlSeeker {
    DtlInput input;              ///< the file, and for a compressed one the inflater at plainAt
    DtlCheckpoints checkpoints;  ///< from the front-to-back reading; the stream's start is always one
    uint64_t plainAt = 0;        ///< plain offset the inflater has reached
};

/// Opens path for DtlSeekRead; a compressed file takes the checkpoints
/// gathered when it was read. False with *error filled when it cannot be
/// opened.
bool DtlSeekOpen(DtlSeeker* seeker, const char* path, bool compressed, DtlCheckpoints checkpoints, std::string* error);

/// Puts up to cap plain bytes from offset pos into buf. Returns how many (0
/// at the end of the data), or -1 with *error filled.
ssize_t DtlSeekRead(DtlSeeker* seeker, uint64_t pos, uint8_t* buf, size_t cap, std::string* error);

/// Closes the file and frees the inflater.
void DtlSeekClose(DtlSeeker* seeker);
