// Streaming zlib compression and decompression of whole files: the finished
// detail file becomes one zlib stream (header 0x78 0x01, raw deflate blocks,
// big-endian Adler-32 of the plain bytes) and is restored from it exactly.
//
// Both directions stream through two static 512 KiB buffers, so one call at
// a time; counts are 64-bit, so files of 4 GiB and more are handled whole.
// Failures are reported on standard output, one line each, and returned as 1;
// the output file is then removed, so a failed call leaves nothing behind.
#pragma once

#include <cstddef>
#include <cstdint>

/// Bytes of each of the two streaming buffers.
constexpr size_t COMPRESS_BUFFER_SIZE = 524288;

/// The first two bytes of every compressed detail file.
constexpr unsigned char ZLIB_HEADER_0 = 0x78;
constexpr unsigned char ZLIB_HEADER_1 = 0x01;

// Parameters of the deflater, chosen by measurement on the detail file of a
// million-entry tree (bench/run.sh --sweep): level 6's lazy matching with
// chains of 96 and matches up to the longest. No zlib setting reaches both
// 50 MB/s and 1.05 times gzip -9's size; this is the fastest found within
// 1.05 (1.048, about 38 MB/s of CPU time where the former chain of 384 gave
// 1.031 at 20 MB/s).
constexpr int DEFLATE_LEVEL = 6;
constexpr int DEFLATE_MEM_LEVEL = 8;
constexpr int DEFLATE_GOOD_LENGTH = 8;
constexpr int DEFLATE_MAX_LAZY = 128;
constexpr int DEFLATE_NICE_LENGTH = 258;
constexpr int DEFLATE_MAX_CHAIN = 96;

// Statuses printed with "tinfl_decompress() failed with status %i!" (scripts
// that watch the output match that wording; the numbers are this module's own).
constexpr int INFLATE_CORRUPT = -1;        ///< the deflate data is invalid, or the inflater could not start
constexpr int INFLATE_BAD_CHECKSUM = -2;   ///< the Adler-32 trailer does not match the restored bytes
constexpr int INFLATE_BAD_HEADER = -3;     ///< the file does not begin with 0x78 0x01
constexpr int INFLATE_TRUNCATED = -4;      ///< the file ends inside the stream or its trailer
constexpr int INFLATE_TRAILING_DATA = -5;  ///< bytes follow the trailer

/// Compresses (mode "c" or "C") or decompresses ("d" or "D") the file inPath
/// into outPath, which is created exclusively (an existing name or link is
/// refused), gets inPath's permission bits and is synced to disk before it is
/// closed. Any other mode prints "Invalid mode!". Returns 0 on success; on
/// failure prints what went wrong, removes outPath when it created it, and
/// returns 1 with errno telling why (EBADMSG for a bad compressed stream).
int doCompression(const char* mode, const char* inPath, const char* outPath);
/// The two directions of doCompression: mode "c" and mode "d".
int compressFile(const char* in, const char* out);
int decompressFile(const char* in, const char* out);

/// Inflates the compressed file open on inFd (read from its start) and
/// appends the plain bytes to outFd, checking header, trailer and length
/// exactly as decompressFile does. Returns 0, or 1 after printing the failure
/// (unless quiet; errno tells why). Neither descriptor is closed.
int InflateFd(int inFd, int outFd, bool quiet = false);
