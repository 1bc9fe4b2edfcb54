// Times the program's own compressFile and decompressFile on one detail file
// (wall and process CPU time, output synced to disk as in a real run) and
// checks that the round trip restores the file. Built and run by bench/run.sh.
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "detail/compress.h"

static double Seconds(clockid_t clock) {
    timespec ts;
    clock_gettime(clock, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

static bool Timed(const char* what, int (*op)(const char*, const char*), const std::string& in,
                  const std::string& out, long long bytes) {
    unlink(out.c_str());
    double wall = Seconds(CLOCK_MONOTONIC), cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID);
    int status = op(in.c_str(), out.c_str());
    wall = Seconds(CLOCK_MONOTONIC) - wall;
    cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu;
    printf("%-10s %lld bytes of input: %.1f MB/s wall, %.1f MB/s cpu\n", what, bytes, bytes / wall / 1e6,
           bytes / cpu / 1e6);
    return status == 0;
}

static long long SizeOf(const std::string& path) {
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) return -1;
    fseeko(f, 0, SEEK_END);
    long long size = ftello(f);
    fclose(f);
    return size;
}

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    std::string plain = argv[1], packed = plain + ".z", back = plain + ".back";
    if (!Timed("compress", compressFile, plain, packed, SizeOf(plain))) return 1;
    printf("compressed size %lld\n", SizeOf(packed));
    if (!Timed("decompress", decompressFile, packed, back, SizeOf(packed))) return 1;
    std::string cmp = "cmp '" + plain + "' '" + back + "'";
    int same = system(cmp.c_str());
    unlink(packed.c_str());
    unlink(back.c_str());
    return same == 0 ? 0 : 1;
}
