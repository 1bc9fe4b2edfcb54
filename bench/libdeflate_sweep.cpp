// libdeflate's levels on one file held in memory: compressed size (with the
// 6 bytes of zlib header and trailer) against gzip -9 and speed in process
// CPU time, best of three runs (the machine is shared, so wall time says more
// about the neighbours than about the deflater). The program's level is the
// fastest whose size stays within 1.05 times gzip -9's (detail/compress.h).
//
//   build/bench/libdeflate_sweep FILE [GZIP9_BYTES]
//
// Without GZIP9_BYTES the file is compressed with gzip -9 first.
#include <libdeflate.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

static double CpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

static double GzipBytes(const char* path) {
    std::string command = std::string("gzip -9 -c '") + path + "' | wc -c";
    FILE* p = popen(command.c_str(), "r");
    double bytes = 0;
    if (p && fscanf(p, "%lf", &bytes) != 1) bytes = 0;
    if (p) pclose(p);
    return bytes;
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: libdeflate_sweep FILE [GZIP9_BYTES]\n");
        return 2;
    }
    std::ifstream f(argv[1], std::ios::binary);
    std::vector<unsigned char> in((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    double ref = argc > 2 ? atof(argv[2]) : GzipBytes(argv[1]);
    if (ref <= 0) {
        fprintf(stderr, "libdeflate_sweep: no gzip -9 size\n");
        return 1;
    }
    printf("libdeflate %s: %zu bytes; gzip -9 %.0f bytes\n", LIBDEFLATE_VERSION_STRING, in.size(), ref);
    printf("level       bytes  x gzip-9  MB/s(cpu)\n");
    for (int level = 1; level <= 12; level++) {
        libdeflate_compressor* c = libdeflate_alloc_compressor(level);
        std::vector<unsigned char> out(libdeflate_deflate_compress_bound(c, in.size()));
        size_t bytes = 0;
        double best = 1e9;
        for (int run = 0; run < 3; run++) {
            double start = CpuSeconds();
            bytes = libdeflate_deflate_compress(c, in.data(), in.size(), out.data(), out.size()) + 6;
            libdeflate_adler32(1, in.data(), in.size());
            best = std::min(best, CpuSeconds() - start);
        }
        libdeflate_free_compressor(c);
        printf("%5d %11zu %9.4f %10.1f\n", level, bytes, bytes / ref, in.size() / best / 1e6);
        fflush(stdout);
    }
}
