// Raw-deflate sweep over zlib's levels, memLevels, strategies and tuning
// parameters on one file held in memory: compressed size against gzip -9 and
// speed in process CPU time (the machine is shared, so wall time says more
// about the neighbours than about zlib), best of three runs.
//
// Built and run by bench/run.sh --sweep; by hand:
//   g++ -O2 -std=c++20 bench/deflate_sweep.cpp -lz -o deflate_sweep
//   deflate_sweep FILE GZIP9_BYTES levels|tuned
//   deflate_sweep FILE GZIP9_BYTES LEVEL MEMLEVEL STRATEGY GOOD LAZY NICE CHAIN ...
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

constexpr size_t CHUNK = 524288;  // as the program's streaming buffers

struct Setting {
    int level, memLevel, strategy;
    int good, lazy, nice, chain;  // deflateTune; chain 0 = the level's own
};

static double CpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// Compressed size (with the 6 bytes of header and trailer) and the best CPU
// time of three runs.
static size_t Deflate(const std::vector<unsigned char>& in, const Setting& s, double* seconds) {
    static std::vector<unsigned char> out(CHUNK);
    size_t total = 0;
    *seconds = 1e9;
    for (int run = 0; run < 3; run++) {
        double start = CpuSeconds();
        z_stream z{};
        deflateInit2(&z, s.level, Z_DEFLATED, -15, s.memLevel, s.strategy);
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
        *seconds = std::min(*seconds, CpuSeconds() - start);
    }
    return total;
}

int main(int argc, char** argv) {
    if (argc < 4) {
        fprintf(stderr, "usage: deflate_sweep FILE GZIP9_BYTES levels|tuned|LEVEL MEM STRATEGY GOOD LAZY NICE CHAIN...\n");
        return 2;
    }
    std::ifstream f(argv[1], std::ios::binary);
    std::vector<unsigned char> in((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    double ref = atof(argv[2]);
    std::vector<Setting> settings;
    std::string mode = argv[3];
    if (mode == "levels") {
        for (int level = 1; level <= 9; level++) settings.push_back({level, 8, Z_DEFAULT_STRATEGY, 0, 0, 0, 0});
        for (int level : {6, 7}) settings.push_back({level, 9, Z_DEFAULT_STRATEGY, 0, 0, 0, 0});
        settings.push_back({6, 8, Z_FILTERED, 0, 0, 0, 0});
    } else if (mode == "tuned") {
        // deflate_slow (levels 4 to 9) with longer matches and chains from 32
        // to 384, and deflate_fast (level 3) with longer chains: the frontier
        // between speed and size on detail files.
        for (int chain : {32, 64, 96, 128, 192, 384}) {
            for (int lazy : {8, 32, 128}) settings.push_back({6, 8, Z_DEFAULT_STRATEGY, 8, lazy, 258, chain});
        }
        for (int chain : {64, 128}) {
            settings.push_back({6, 9, Z_DEFAULT_STRATEGY, 8, 128, 258, chain});
            settings.push_back({6, 8, Z_FILTERED, 8, 128, 258, chain});
            settings.push_back({3, 8, Z_DEFAULT_STRATEGY, 8, 32, 258, chain});
        }
    } else {
        for (int a = 3; a + 6 < argc; a += 7) {
            settings.push_back({atoi(argv[a]), atoi(argv[a + 1]), atoi(argv[a + 2]), atoi(argv[a + 3]),
                                atoi(argv[a + 4]), atoi(argv[a + 5]), atoi(argv[a + 6])});
        }
    }
    printf("zlib %s: %zu bytes; gzip -9 %.0f bytes\n", zlibVersion(), in.size(), ref);
    printf("level mem strategy good lazy nice chain       bytes  x gzip-9  MB/s(cpu)\n");
    for (const Setting& s : settings) {
        double seconds;
        size_t size = Deflate(in, s, &seconds);
        printf("%5d %3d %8d %4d %4d %4d %5d %11zu %9.4f %9.1f\n", s.level, s.memLevel, s.strategy, s.good, s.lazy,
               s.nice, s.chain, size, size / ref, in.size() / seconds / 1e6);
        fflush(stdout);
    }
}
