// Raw-deflate sweep over zlib's levels, memLevels and tuning parameters on
// one file held in memory, timed in process CPU time (the machine is shared,
// so wall time says more about the neighbours than about zlib).
//
// Build and run (see measure_compression.sh):
//   g++ -O2 -std=c++20 bench/deflate_sweep.cpp -lz -o /tmp/deflate_sweep
//   /tmp/deflate_sweep FILE GZIP9_BYTES [levels|grid|candidates]
#include <zlib.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

constexpr size_t CHUNK = 524288;

struct Setting {
    int level, memLevel;
    int good, lazy, nice, chain;  // deflateTune; 0 = the level's own
};

static double CpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Compressed size (with the 6 bytes of header and trailer) and best CPU time of three runs.
static int runs = 3;

static size_t Deflate(const std::vector<unsigned char>& in, const Setting& s, double* seconds) {
    static std::vector<unsigned char> out(CHUNK);
    size_t total = 0;
    *seconds = 1e9;
    for (int run = 0; run < runs; run++) {
        double start = CpuSeconds();
        z_stream z{};
        deflateInit2(&z, s.level, Z_DEFLATED, -15, s.memLevel, Z_DEFAULT_STRATEGY);
        if (s.chain) deflateTune(&z, s.good, s.lazy, s.nice, s.chain);
        total = 6;
        for (size_t pos = 0;;) {
            size_t n = std::min(CHUNK, in.size() - pos);
            z.next_in = const_cast<unsigned char*>(in.data() + pos);
            z.avail_in = static_cast<uInt>(n);
            pos += n;
            int flush = pos == in.size() ? Z_FINISH : Z_NO_FLUSH;
            int st;
            do {
                z.next_out = out.data();
                z.avail_out = CHUNK;
                st = deflate(&z, flush);
                total += CHUNK - z.avail_out;
            } while (z.avail_out == 0);
            if (st == Z_STREAM_END) break;
        }
        deflateEnd(&z);
        double t = CpuSeconds() - start;
        if (t < *seconds) *seconds = t;
    }
    return total;
}

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    std::ifstream f(argv[1], std::ios::binary);
    std::vector<unsigned char> in((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    double ref = atof(argv[2]);
    printf("input %zu bytes, gzip -9 %.0f bytes, zlib %s\n", in.size(), ref, zlibVersion());
    printf("level mem  good lazy nice chain      bytes vs gzip-9   MB/s(cpu)\n");
    std::vector<Setting> settings;
    std::string mode = argc > 3 ? argv[3] : "levels";
    if (mode == "candidates") {
        // The fastest settings of the grid within 5 percent, against the plain levels.
        for (int level : {5, 6, 7}) settings.push_back({level, 8, 0, 0, 0, 0});
        settings.push_back({6, 8, 8, 16, 128, 192});
        settings.push_back({6, 8, 8, 32, 128, 192});
        settings.push_back({6, 8, 8, 128, 64, 192});
        settings.push_back({6, 8, 8, 16, 128, 256});
        settings.push_back({6, 8, 8, 32, 258, 384});
        settings.push_back({6, 8, 16, 64, 258, 512});
        settings.push_back({6, 8, 32, 128, 258, 512});
        settings.push_back({8, 8, 0, 0, 0, 0});
    } else if (mode == "grid") {
        // A grid of tuning parameters around levels 6 and 7, one run each.
        runs = 1;
        for (int good : {4, 8, 32})
            for (int lazy : {16, 32, 128})
                for (int nice : {32, 64, 128, 258})
                    for (int chain : {128, 192, 256}) settings.push_back({6, 8, good, lazy, nice, chain});
    } else {
        for (int level = 1; level <= 9; level++) settings.push_back({level, 8, 0, 0, 0, 0});
        for (int level : {6, 7, 9}) settings.push_back({level, 9, 0, 0, 0, 0});
    }
    for (const Setting& s : settings) {
        double seconds;
        size_t size = Deflate(in, s, &seconds);
        printf("%5d %3d %5d %4d %4d %5d %10zu %+8.1f%% %8.1f\n", s.level, s.memLevel, s.good, s.lazy, s.nice,
               s.chain, size, 100.0 * (size - ref) / ref, in.size() / seconds / 1e6);
    }
}
