#include "detail/dtlfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

#include "detail/compress.h"
#include "log/log.h"

static void MakeTempName(const char* path, char (&out)[DTL_TEMP_NAME_SIZE]) {
    int n = snprintf(out, sizeof out, "%s-%d.tmp", path, static_cast<int>(time(nullptr)));
    if (n < 0 || n >= DTL_TEMP_NAME_SIZE)
        ErrExit("DTL file path too long for its temporary file (more than %d bytes): '%s'\n",
                DTL_TEMP_NAME_SIZE - 1, path);
}

static void RequireDtlFile(const char* path) {
    struct stat st;
    if (stat(path, &st) != 0) PosixErrExit(0, "Couldn't find DTL file: '%s'\n", path);
}

// A leftover of another run, or a name or link someone planted, is never
// reused or followed (the message says "decompressing" in both directions).
static void RequireFreeTempName(const char* path, const char* temp) {
    struct stat st;
    if (lstat(temp, &st) == 0)
        PosixErrExit(EEXIST, "Error. Could not write temp file for decompressing '%s'\n", path);
}

// The next two bytes of the stream are the zlib header 0x78 0x01; the
// stream is rewound either way.
static bool StartsCompressed(FILE* stream) {
    int first = fgetc(stream);
    int second = fgetc(stream);
    rewind(stream);
    return first == ZLIB_HEADER_0 && second == ZLIB_HEADER_1;
}

// rename() swaps the complete temporary file in for the original at once;
// when it fails the original stays and the temporary file goes.
static bool PutInPlace(const char* temp, const char* path) {
    if (rename(temp, path) == 0) return true;
    int saved = errno;
    unlink(temp);
    errno = saved;
    return false;
}

// Compresses or decompresses the detail file into a fresh temporary file and
// puts the complete result in place of the original at once.
static void Rewrite(const char* path, bool compress) {
    char temp[DTL_TEMP_NAME_SIZE];
    MakeTempName(path, temp);
    RequireFreeTempName(path, temp);
    const char* direction = compress ? "compression" : "decompression";
    fputs(compress ? "Compressing DTL file\n" : "Decompressing DTL file\n", stdout);
    fflush(stdout);
    // Until it is in place the temporary file goes with a signal or a fatal
    // exit; the original is untouched by then.
    int slot = RemoveOnFatalExit(temp);
    if ((compress ? compressFile(path, temp) : decompressFile(path, temp)) != 0) {
        KeepOnFatalExit(slot);  // removed already when it was made here; someone else's otherwise
        PosixErrExit(0, "Error occurred during %s of '%s'\nCould not write temp file: %s\n", direction, path, temp);
    }
    if (!PutInPlace(temp, path)) PosixErrExit(0, "An unknown error occurred during %s of '%s'\n", direction, path);
    KeepOnFatalExit(slot);
}

void CloseDtlFile(FILE* stream, const char* path, uint32_t zipFlag) {
    // The close flushes the last buffered records, so it is checked like a write.
    if (stream && fclose(stream) != 0) PosixErrExit(0, "Error closing DTL file '%s'\n", path);
    if (zipFlag == 0) return;
    RequireDtlFile(path);
    Rewrite(path, true);
}

FILE* OpenDtlFile(const char* path, const char* mode, int* wasCompressed) {
    RequireDtlFile(path);
    FILE* stream = fopen(path, mode);
    if (!stream) PosixErrExit(0, "Unable to open scan detail file '%s'\n", path);
    if (!StartsCompressed(stream)) return stream;
    if (wasCompressed) *wasCompressed = 1;
    fclose(stream);
    Rewrite(path, false);
    stream = fopen(path, mode);
    if (!stream) PosixErrExit(0, "Unable to open scan detail file '%s'\n", path);
    return stream;
}
