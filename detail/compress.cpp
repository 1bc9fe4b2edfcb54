#include "detail/compress.h"

#include "detail/blockwalk.h"
#include "log/log.h"
#include "support/threads.h"

#include <fcntl.h>
#include <libdeflate.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

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
    if (WriteFully(out, reinterpret_cast<const char*>(s_outbuf), used)) return true;
    Say("Failed writing to output file!");
    return false;
}

static void PutBigEndian32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

// The file is deflated in pieces of DEFLATE_PIECE bytes, on as many of the
// processors the process may use as there are pieces (at most
// DEFLATE_MAX_THREADS), and the pieces' streams are joined into one: every
// piece but the last has the final bit of its last block cleared and ends in
// an empty stored block, which brings the next piece's blocks to a byte
// boundary (zlib's sync flush does the same). A piece starts without the
// previous piece's history, which costs about 0.03 % of the size at 4 MiB.
// Readers see one stream as before, and a file of one piece is deflated as
// one call always did. The walk is over by now; only compression is shared
// out, so that a -zip run costs little more than a plain one on a machine
// with a second processor.
struct Piece {
    const unsigned char* input;
    size_t size;
    unsigned char* slot;  // where the piece's stream is written, in the output map
    size_t room;          // the slot's bytes: the deflater's bound and the join's tail
    size_t length;        // the stream's bytes once joined
    uint32_t adler;       // Adler-32 of the piece's input alone
};

// Bytes a joined piece may need past its stream: one partial byte and the
// stored block's LEN and NLEN.
constexpr size_t JOIN_TAIL = 5;

// What went wrong in a piece; the first failure of a compression is the one
// reported.
enum PieceFailure : int {
    PIECE_OK,
    PIECE_INPUT_FAULT,
    PIECE_OUTPUT_FAULT,
    PIECE_NO_MEMORY,
    PIECE_NO_ROOM,
    PIECE_BAD_STREAM,
};

struct DeflateJob {
    Piece* pieces;
    size_t count;
    std::atomic<size_t> next{0};  // the first piece nobody has taken
    std::atomic<int> failure{PIECE_OK};
};

static void Fail(DeflateJob* job, int failure) {
    int none = PIECE_OK;
    job->failure.compare_exchange_strong(none, failure);
}

// The maps of one compression, for the bus-error guard: writing into a mapped
// file takes its blocks as the pages are first touched, and a file system
// that has no room left then raises SIGBUS instead of returning ENOSPC (a
// file that shrinks under the input map does the same). The fault is taken
// on the thread that touched the page, which jumps back to where it armed
// the guard.
static const unsigned char* volatile guardIn;
static const unsigned char* volatile guardInEnd;
static const unsigned char* volatile guardOut;
static const unsigned char* volatile guardOutEnd;
static thread_local sigjmp_buf* faultJump;  // set while this thread works in the maps
static struct sigaction previousBusAction;

static void OnBusError(int, siginfo_t* info, void*) {
    const auto* at = static_cast<const unsigned char*>(info->si_addr);
    int where = at >= guardOut && at < guardOutEnd ? PIECE_OUTPUT_FAULT
                : at >= guardIn && at < guardInEnd ? PIECE_INPUT_FAULT
                                                   : PIECE_OK;
    if (where != PIECE_OK && faultJump != nullptr) siglongjmp(*faultJump, where);
    // Not one of ours: the fault repeats under the action that was there.
    sigaction(SIGBUS, &previousBusAction, nullptr);
}

static void Guard(const unsigned char* input, size_t size, const unsigned char* output, size_t room) {
    guardIn = input;
    guardInEnd = input + size;
    guardOut = output;
    guardOutEnd = output + room;
    struct sigaction guard{};
    guard.sa_sigaction = OnBusError;
    guard.sa_flags = SA_SIGINFO;
    sigemptyset(&guard.sa_mask);
    sigaction(SIGBUS, &guard, &previousBusAction);
}

static void Unguard() {
    sigaction(SIGBUS, &previousBusAction, nullptr);
    guardIn = nullptr;
    guardInEnd = nullptr;
    guardOut = nullptr;
    guardOutEnd = nullptr;
}

// Lets another piece's blocks follow: clears the final bit of the last block
// and puts an empty stored block after its end code (three zero bits for
// "not final, stored", zero bits to the byte boundary, LEN 0 and NLEN
// 0xffff). Returns the joined stream's bytes, at most JOIN_TAIL more.
static size_t JoinTail(unsigned char* stream, uint64_t lastBlock, uint64_t end) {
    stream[lastBlock / 8] &= static_cast<unsigned char>(~(1u << (lastBlock % 8)));
    size_t byte = end / 8;
    stream[byte] &= static_cast<unsigned char>((1u << (end % 8)) - 1);
    size_t next = (end + 3 + 7) / 8;
    for (size_t i = byte + 1; i < next; i++) stream[i] = 0;
    stream[next] = 0;
    stream[next + 1] = 0;
    stream[next + 2] = 0xff;
    stream[next + 3] = 0xff;
    return next + 4;
}

static int DeflatePiece(libdeflate_compressor* compressor, Piece* piece, bool last) {
    size_t packed =
        libdeflate_deflate_compress(compressor, piece->input, piece->size, piece->slot, piece->room - JOIN_TAIL);
    if (packed == 0) return PIECE_NO_ROOM;
    piece->adler = libdeflate_adler32(1, piece->input, piece->size);
    if (last) {
        piece->length = packed;
        return PIECE_OK;
    }
    uint64_t lastBlock, end;
    if (!FindLastBlock(piece->slot, packed, &lastBlock, &end)) return PIECE_BAD_STREAM;
    piece->length = JoinTail(piece->slot, lastBlock, end);
    return PIECE_OK;
}

// One worker: takes the next piece until none is left or one has failed.
static void* DeflatePieces(void* arg) {
    auto* job = static_cast<DeflateJob*>(arg);
    libdeflate_compressor* compressor = libdeflate_alloc_compressor(DEFLATE_LEVEL);
    if (compressor == nullptr) {
        Fail(job, PIECE_NO_MEMORY);
        return nullptr;
    }
    sigjmp_buf jump;
    int fault = sigsetjmp(jump, 1);
    if (fault == 0) {
        faultJump = &jump;
        for (;;) {
            size_t i = job->next.fetch_add(1);
            if (i >= job->count || job->failure.load() != PIECE_OK) break;
            int failure = DeflatePiece(compressor, &job->pieces[i], i + 1 == job->count);
            if (failure != PIECE_OK) Fail(job, failure);
        }
    } else {
        Fail(job, fault);
    }
    faultJump = nullptr;
    libdeflate_free_compressor(compressor);
    return nullptr;
}

// Deflates every piece, on helper threads and this one. The helpers start
// with the interrupting signals blocked, so that a signal is handled on this
// thread as in any other part of the run; a helper that cannot be started
// leaves its share to the others.
static int DeflateAll(DeflateJob* job) {
    pthread_t helpers[DEFLATE_MAX_THREADS];
    size_t wanted = std::min({ProcessorCount(), job->count, DEFLATE_MAX_THREADS}) - 1, started = 0;
    while (started < wanted && StartBlockedThread(&helpers[started], DeflatePieces, job, 0)) started++;
    DeflatePieces(job);
    for (size_t i = 0; i < started; i++) pthread_join(helpers[i], nullptr);
    return job->failure.load();
}

// Gives the blocks of [from, to) of the output file back to the file
// system, whole pages only: a piece's slot once its stream has moved on, so
// that the temporary file never needs much more room than the stream (file
// systems that cannot make holes keep the blocks until the final cut).
static void PunchOut(int out, size_t from, size_t to) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    from = (from + page - 1) / page * page;
    to = to / page * page;
    if (from < to)
        (void)fallocate(out, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, static_cast<off_t>(from),
                        static_cast<off_t>(to - from));
}

// Moves the joined pieces together behind the zlib header and puts the
// Adler-32 of the whole file after them. Returns the stream's length.
static size_t Gather(const Piece* pieces, size_t count, unsigned char* output, int out) {
    output[0] = ZLIB_HEADER_0;
    output[1] = ZLIB_HEADER_1;
    size_t at = 2;
    uLong adler = pieces[0].adler;
    for (size_t i = 0; i < count; i++) {
        const Piece& piece = pieces[i];
        if (piece.slot != output + at) {
            memmove(output + at, piece.slot, piece.length);
            size_t slot = static_cast<size_t>(piece.slot - output);
            PunchOut(out, std::max(slot, at + piece.length), slot + piece.length);
        }
        at += piece.length;
        if (i > 0) adler = adler32_combine64(adler, piece.adler, static_cast<off64_t>(piece.size));
    }
    PutBigEndian32(output + at, static_cast<uint32_t>(adler));
    return at + 4;
}

static int GatherGuarded(const Piece* pieces, size_t count, unsigned char* output, int out, size_t* length) {
    sigjmp_buf jump;
    int fault = sigsetjmp(jump, 1);
    if (fault == 0) {
        faultJump = &jump;
        *length = Gather(pieces, count, output, out);
    }
    faultJump = nullptr;
    return fault;
}

static int SayFailure(int failure) {
    switch (failure) {
        case PIECE_INPUT_FAULT:
            errno = EIO;  // the fault does not say why
            Say("Failed reading from input file!");
            break;
        case PIECE_OUTPUT_FAULT:
            errno = ENOSPC;  // a full file system is the usual cause
            Say("Failed writing to output file!");
            break;
        case PIECE_NO_MEMORY:
            SayStatus("tdefl_compress() failed with status %i!\n", DEFLATE_NO_MEMORY);
            errno = ENOMEM;
            break;
        default:
            SayStatus("tdefl_compress() failed with status %i!\n",
                      failure == PIECE_NO_ROOM ? DEFLATE_NO_ROOM : DEFLATE_BAD_STREAM);
            errno = EIO;
            break;
    }
    return 1;
}

// Deflates input into out through a map of out with a slot per piece, each
// sized to the deflater's bound, gathers the pieces at the front and cuts
// the file to the stream's length.
static int DeflateInto(const unsigned char* input, size_t size, int out) {
    size_t count = size == 0 ? 1 : (size - 1) / DEFLATE_PIECE + 1;
    std::vector<Piece> pieces(count);
    size_t room = 2 + 4;
    for (size_t i = 0; i < count; i++) {
        pieces[i].input = input + i * DEFLATE_PIECE;
        pieces[i].size = std::min(DEFLATE_PIECE, size - i * DEFLATE_PIECE);
        pieces[i].room = libdeflate_deflate_compress_bound(nullptr, pieces[i].size) + JOIN_TAIL;
        room += pieces[i].room;
    }
    if (ftruncate(out, static_cast<off_t>(room)) != 0) {
        Say("Failed writing to output file!");
        return 1;
    }
    void* map = mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_SHARED, out, 0);
    if (map == MAP_FAILED) {
        Say("Failed writing to output file!");
        return 1;
    }
    auto* output = static_cast<unsigned char*>(map);
    for (size_t i = 0, at = 2; i < count; at += pieces[i].room, i++) pieces[i].slot = output + at;
    Guard(input, size, output, room);
    DeflateJob job;
    job.pieces = pieces.data();
    job.count = count;
    int failure = DeflateAll(&job);
    size_t length = 0;
    if (failure == PIECE_OK) failure = GatherGuarded(pieces.data(), count, output, out, &length);
    Unguard();
    munmap(map, room);
    if (failure != PIECE_OK) return SayFailure(failure);
    if (ftruncate(out, static_cast<off_t>(length)) != 0) {
        Say("Failed writing to output file!");
        return 1;
    }
    return 0;
}

// The whole file through a read-only map, the stream into a map of the
// output file, so that memory stays bounded for files of many GiB (mapped
// pages belong to the page cache). The zlib header 0x78 0x01 is written
// here, not by a library that might encode the level in its second byte:
// readers recognise a compressed file by those two bytes alone.
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
    int result = DeflateInto(input, static_cast<size_t>(size), out);
    int saved = errno;
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
