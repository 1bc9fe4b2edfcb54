// Compression and decompression of whole files: the finished detail file
// becomes one zlib stream (header 0x78 0x01, raw deflate blocks, big-endian
// Adler-32 of the plain bytes) and is restored from it exactly.
//
// Compression deflates the file in pieces of 4 MiB (libdeflate) on the
// processors the process may use and joins them into one stream, reading the
// file through a map and writing into a map of the output file; decompression
// streams through two static 512 KiB buffers (zlib), so one call at a time.
// Sizes are 64-bit, so files of 4 GiB and more are handled whole. Failures
// are reported on standard output, one line each, and returned as 1; the
// output file is then removed, so a failed call leaves nothing behind.
#pragma once

#include <cstddef>
#include <cstdint>

/// Bytes of each of the two buffers of decompression.
constexpr size_t COMPRESS_BUFFER_SIZE = 524288;

/// The first two bytes of every compressed detail file.
constexpr unsigned char ZLIB_HEADER_0 = 0x78;
constexpr unsigned char ZLIB_HEADER_1 = 0x01;

// The deflater's level, chosen by measurement on the detail file of a
// million-entry tree (bench/libdeflate_sweep): the fastest level whose output
// stays within 1.05 times gzip -9's size.
constexpr int DEFLATE_LEVEL = 6;

// Compression is shared out in pieces of this many bytes, each deflated on
// its own (bench/compress_file_speed): large enough that a piece's lost
// history costs about 0.03 % of the size, small enough that two processors
// finish together.
constexpr size_t DEFLATE_PIECE = size_t{4} << 20;
/// The most threads one compression uses, this one included.
constexpr size_t DEFLATE_MAX_THREADS = 8;

// Statuses printed with "tdefl_compress() failed with status %i!" (the
// numbers are zlib's codes for the same conditions, as printed before).
constexpr int DEFLATE_NO_MEMORY = -4;  ///< the deflater could not be set up
constexpr int DEFLATE_NO_ROOM = -5;    ///< the stream did not fit its bound
constexpr int DEFLATE_BAD_STREAM = -2;  ///< a piece's stream could not be joined to the next

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
/// returns 1 with errno telling why (EBADMSG for a bad compressed stream,
/// ENOSPC when the output's file system ran out of room while the stream was
/// written into its map).
int doCompression(const char* mode, const char* inPath, const char* outPath);
/// The two directions of doCompression: mode "c" and mode "d".
int compressFile(const char* in, const char* out);
int decompressFile(const char* in, const char* out);

/// Inflates the compressed file open on inFd (read from its start) and
/// appends the plain bytes to outFd, checking header, trailer and length
/// exactly as decompressFile does. Returns 0, or 1 after printing the failure
/// (unless quiet; errno tells why). Neither descriptor is closed.
int InflateFd(int inFd, int outFd, bool quiet = false);
