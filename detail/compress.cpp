#include "detail/compress.h"

#include <fcntl.h>
#include <libdeflate.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>

// One decompression at a time: the buffers and the stream state are shared.
static unsigned char s_inbuf[COMPRESS_BUFFER_SIZE];
static unsigned char s_outbuf[COMPRESS_BUFFER_SIZE];
static z_stream g_deflator;

// False while a caller that reports failures itself inflates.
static bool sayFailures = true;

// Prints one line on standard output without disturbing errno, which the
// callers report afterwards.
static void Say(const char* text) {
    if (!sayFailures) return;
    int saved = errno;
    printf("%s\n", text);
    fflush(stdout);
    errno = saved;
}

static void SayStatus(const char* format, int status) {
    if (!sayFailures) return;
    int saved = errno;
    printf(format, status);
    fflush(stdout);
    errno = saved;
}

static bool ReadFull(int fd, unsigned char* buf, size_t n) {
    for (size_t done = 0; done < n;) {
        ssize_t got = read(fd, buf + done, n - done);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            if (got == 0) errno = EIO;  // the file shrank under us
            return false;
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

static bool WriteFull(int fd, const unsigned char* buf, size_t n) {
    for (size_t done = 0; done < n;) {
        ssize_t put = write(fd, buf + done, n - done);
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) {
            if (put == 0) errno = ENOSPC;
            return false;
        }
        done += static_cast<size_t>(put);
    }
    return true;
}

// Reads the next piece of the input, at most one buffer, into s_inbuf.
// remaining counts in 64 bits: inputs of 4 GiB and more are read whole.
static bool NextChunk(int in, uint64_t* remaining, size_t* got) {
    *got = static_cast<size_t>(std::min<uint64_t>(*remaining, COMPRESS_BUFFER_SIZE));
    if (!ReadFull(in, s_inbuf, *got)) {
        Say("Failed reading from input file!");
        return false;
    }
    *remaining -= *got;
    return true;
}

static bool WriteOutBuffer(int out, size_t used) {
    if (WriteFull(out, s_outbuf, used)) return true;
    Say("Failed writing to output file!");
    return false;
}

static void PutBigEndian32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

// The maps of one compression, for the bus-error guard: writing into a mapped
// file takes its blocks as the pages are first touched, and a file system
// that has no room left then raises SIGBUS instead of returning ENOSPC (a
// file that shrinks under the input map does the same).
static const unsigned char* volatile guardIn;
static const unsigned char* volatile guardInEnd;
static const unsigned char* volatile guardOut;
static const unsigned char* volatile guardOutEnd;
static sigjmp_buf faultJump;
static volatile sig_atomic_t faultIn;  // 1: the input map, 2: the output map
static struct sigaction previousBusAction;

static void OnBusError(int, siginfo_t* info, void*) {
    const auto* at = static_cast<const unsigned char*>(info->si_addr);
    faultIn = at >= guardOut && at < guardOutEnd ? 2 : at >= guardIn && at < guardInEnd ? 1 : 0;
    if (faultIn != 0) siglongjmp(faultJump, 1);
    // Not one of ours: the fault repeats under the action that was there.
    sigaction(SIGBUS, &previousBusAction, nullptr);
}

// Header, raw deflate and Adler-32 trailer into the output map, with the
// guard on. Returns the stream's length; 0 when a map faulted (*fault: 1
// input, 2 output) or when the deflater found no room (which the bound rules
// out).
static size_t DeflateGuarded(libdeflate_compressor* compressor, const unsigned char* input, size_t size,
                             unsigned char* output, size_t room, int* fault) {
    guardIn = input;
    guardInEnd = input + size;
    guardOut = output;
    guardOutEnd = output + room;
    struct sigaction guard{};
    guard.sa_sigaction = OnBusError;
    guard.sa_flags = SA_SIGINFO;
    sigemptyset(&guard.sa_mask);
    sigaction(SIGBUS, &guard, &previousBusAction);
    volatile size_t length = 0;
    faultIn = 0;
    if (sigsetjmp(faultJump, 1) == 0) {
        output[0] = ZLIB_HEADER_0;
        output[1] = ZLIB_HEADER_1;
        size_t packed = libdeflate_deflate_compress(compressor, input, size, output + 2, room - 6);
        if (packed != 0) {
            PutBigEndian32(output + 2 + packed, libdeflate_adler32(1, input, size));
            length = packed + 6;
        }
    }
    sigaction(SIGBUS, &previousBusAction, nullptr);
    guardIn = nullptr;
    guardInEnd = nullptr;
    guardOut = nullptr;
    guardOutEnd = nullptr;
    *fault = faultIn;
    return faultIn != 0 ? 0 : length;
}

// Deflates input into out through a map of out sized to the deflater's
// bound, then cuts the file to the stream's length.
static int DeflateInto(libdeflate_compressor* compressor, const unsigned char* input, size_t size, int out) {
    size_t room = libdeflate_deflate_compress_bound(compressor, size) + 6;
    if (ftruncate(out, static_cast<off_t>(room)) != 0) {
        Say("Failed writing to output file!");
        return 1;
    }
    void* map = mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_SHARED, out, 0);
    if (map == MAP_FAILED) {
        Say("Failed writing to output file!");
        return 1;
    }
    int fault = 0;
    size_t length = DeflateGuarded(compressor, input, size, static_cast<unsigned char*>(map), room, &fault);
    munmap(map, room);
    if (fault != 0) {
        // The fault does not say why; a full file system is the usual cause.
        errno = fault == 2 ? ENOSPC : EIO;
        Say(fault == 2 ? "Failed writing to output file!" : "Failed reading from input file!");
        return 1;
    }
    if (length == 0) {
        SayStatus("tdefl_compress() failed with status %i!\n", DEFLATE_NO_ROOM);
        errno = EIO;
        return 1;
    }
    if (ftruncate(out, static_cast<off_t>(length)) != 0) {
        Say("Failed writing to output file!");
        return 1;
    }
    return 0;
}

// The whole file in one call: the input through a read-only map, the stream
// into a map of the output file, so that memory stays bounded for files of
// many GiB (mapped pages belong to the page cache). The zlib header 0x78
// 0x01 is written here, not by a library that might encode the level in its
// second byte: readers recognise a compressed file by those two bytes alone.
static int Deflate(int in, uint64_t size, int out) {
    if (size > SIZE_MAX / 2) {
        errno = EFBIG;
        Say("Failed reading from input file!");
        return 1;
    }
    static const unsigned char nothing[1] = {0};
    const unsigned char* input = nothing;
    if (size > 0) {
        void* map = mmap(nullptr, static_cast<size_t>(size), PROT_READ, MAP_SHARED, in, 0);
        if (map == MAP_FAILED) {
            Say("Failed reading from input file!");
            return 1;
        }
        madvise(map, static_cast<size_t>(size), MADV_SEQUENTIAL);  // read once, front to back
        input = static_cast<const unsigned char*>(map);
    }
    int result = 1;
    libdeflate_compressor* compressor = libdeflate_alloc_compressor(DEFLATE_LEVEL);
    if (compressor) {
        result = DeflateInto(compressor, input, static_cast<size_t>(size), out);
    } else {
        SayStatus("tdefl_compress() failed with status %i!\n", DEFLATE_NO_MEMORY);
        errno = ENOMEM;
    }
    int saved = errno;
    libdeflate_free_compressor(compressor);
    if (size > 0) munmap(const_cast<unsigned char*>(input), static_cast<size_t>(size));
    errno = saved;
    return result;
}

static int InflateFailed(int status) {
    SayStatus("tinfl_decompress() failed with status %i!\n", status);
    errno = EBADMSG;
    return 1;
}

// Streams the plain bytes out as they are restored and checks the trailer at
// the end; the caller discards the output when this fails.
static int InflateLoop(int in, uint64_t size, int out) {
    z_stream& z = g_deflator;
    uint64_t remaining = size;
    if (remaining < 2) return InflateFailed(INFLATE_BAD_HEADER);
    size_t got;
    if (!NextChunk(in, &remaining, &got)) return 1;
    if (s_inbuf[0] != ZLIB_HEADER_0 || s_inbuf[1] != ZLIB_HEADER_1) return InflateFailed(INFLATE_BAD_HEADER);
    z.next_in = s_inbuf + 2;
    z.avail_in = static_cast<uInt>(got - 2);
    z.next_out = s_outbuf;
    z.avail_out = COMPRESS_BUFFER_SIZE;
    uLong adler = adler32(0, nullptr, 0);
    for (;;) {
        if (z.avail_in == 0 && remaining > 0) {
            if (!NextChunk(in, &remaining, &got)) return 1;
            z.next_in = s_inbuf;
            z.avail_in = static_cast<uInt>(got);
        }
        int status = inflate(&z, Z_NO_FLUSH);
        if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) return InflateFailed(INFLATE_CORRUPT);
        if (z.avail_out == 0 || status == Z_STREAM_END) {
            size_t used = COMPRESS_BUFFER_SIZE - z.avail_out;
            adler = adler32(adler, s_outbuf, static_cast<uInt>(used));
            if (!WriteOutBuffer(out, used)) return 1;
            z.next_out = s_outbuf;
            z.avail_out = COMPRESS_BUFFER_SIZE;
        }
        if (status == Z_STREAM_END) break;
        // No progress with all input used: the file ends inside the stream.
        if (status == Z_BUF_ERROR && z.avail_in == 0 && remaining == 0) return InflateFailed(INFLATE_TRUNCATED);
    }
    uint64_t left = z.avail_in + remaining;
    if (left < 4) return InflateFailed(INFLATE_TRUNCATED);
    if (left > 4) return InflateFailed(INFLATE_TRAILING_DATA);
    unsigned char trailer[4];
    size_t have = z.avail_in;
    std::copy_n(z.next_in, have, trailer);
    if (remaining > 0 && !ReadFull(in, trailer + have, static_cast<size_t>(remaining))) {
        Say("Failed reading from input file!");
        return 1;
    }
    unsigned char expected[4];
    PutBigEndian32(expected, static_cast<uint32_t>(adler));
    if (!std::equal(trailer, trailer + 4, expected)) return InflateFailed(INFLATE_BAD_CHECKSUM);
    return 0;
}

static int Inflate(int in, uint64_t size, int out) {
    g_deflator = z_stream{};
    if (inflateInit2(&g_deflator, -MAX_WBITS) != Z_OK) {
        InflateFailed(INFLATE_CORRUPT);
        errno = ENOMEM;
        return 1;
    }
    int result = InflateLoop(in, size, out);
    int saved = errno;
    inflateEnd(&g_deflator);
    errno = saved;
    return result;
}

static bool InputSize(int fd, uint64_t* size) {
    struct stat st;
    if (fstat(fd, &st) != 0) {
        Say("Failed reading from input file!");
        return false;
    }
    *size = static_cast<uint64_t>(st.st_size);
    return true;
}

int InflateFd(int inFd, int outFd, bool quiet) {
    sayFailures = !quiet;
    uint64_t size;
    int result = 1;
    if (!InputSize(inFd, &size)) {
        // InputSize has said why.
    } else if (lseek(inFd, 0, SEEK_SET) != 0) {
        Say("Failed reading from input file!");
    } else {
        result = Inflate(inFd, size, outFd);
    }
    sayFailures = true;
    return result;
}

int doCompression(const char* mode, const char* inPath, const char* outPath) {
    char op = mode ? static_cast<char>(mode[0] | 0x20) : '\0';
    if (op != 'c' && op != 'd') {
        Say("Invalid mode!");
        errno = EINVAL;
        return 1;
    }
    int in = open(inPath, O_RDONLY | O_CLOEXEC);
    if (in < 0) {
        Say("Failed opening input file!");
        return 1;
    }
    struct stat inStat;
    if (fstat(in, &inStat) != 0) {
        int saved = errno;
        Say("Failed reading from input file!");
        close(in);
        errno = saved;
        return 1;
    }
    // Exclusive and without following links: an existing file or a link
    // planted under the temporary name is never written through.
    // Read and write: the compressed stream is written through a shared map.
    int out = open(outPath, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (out < 0) {
        int saved = errno;
        Say("Failed opening output file!");
        close(in);
        errno = saved;
        return 1;
    }
    // The result replaces the input, so it gets the input's permissions
    // before any data is in it; where that is refused the umask's stay.
    (void)fchmod(out, inStat.st_mode & 0777);
    uint64_t size = static_cast<uint64_t>(inStat.st_size);
    int result = op == 'c' ? Deflate(in, size, out) : Inflate(in, size, out);
    // Synced before anyone renames it into place, so that a crash cannot
    // leave a name pointing at an empty or partial file.
    int saved = errno;
    if (result == 0 && fsync(out) != 0) {
        saved = errno;
        Say("Failed writing to output file!");
        result = 1;
    }
    if (close(out) != 0 && result == 0) {
        saved = errno;
        Say("Failed writing to output file!");
        result = 1;
    }
    close(in);
    if (result != 0) unlink(outPath);
    errno = saved;
    return result;
}

int compressFile(const char* in, const char* out) { return doCompression("c", in, out); }

int decompressFile(const char* in, const char* out) { return doCompression("d", in, out); }
