// Speed of the per-entry detail-file code: encoding a record's fixed part,
// reading and checking a whole file of a million records, and the reports
// over it (their figures on the reading thread's heels, and the export).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "detail/format.h"
#include "reader/dtlread.h"
#include "reader/export.h"
#include "reader/report.h"

namespace {

void BM_EncodeEntryFixed(benchmark::State& state) {
    WhichEnd();
    struct stat st {};
    st.st_mode = S_IFREG | 0644;
    st.st_nlink = 1;
    DtlRecordFixed rec;
    for (auto _ : state) {
        st.st_size++;
        EncodeEntryFixed(&rec, 0, st, 12, 0);
        benchmark::DoNotOptimize(rec);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EncodeEntryFixed);

// Writes a complete file: the root with `dirs` subdirectories (each with two
// links, so in the hard-link table) of `files` files each.
std::string MakeFile(int dirs, int files, uint64_t* records) {
    WhichEnd();
    char path[] = "/tmp/dtlread-speed-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) abort();
    close(fd);
    FILE* out = fopen(path, "w+b");
    std::vector<uint8_t> head(DTL_STRINGS_POS + 512);
    size_t pos = DTL_STRINGS_POS;
    uint32_t nodeOffset = static_cast<uint32_t>(pos);
    pos += EncodeHeaderString(head.data() + pos, "bench");
    uint32_t tagOffset = static_cast<uint32_t>(pos);
    pos += EncodeHeaderString(head.data() + pos, std::string(31, ' ').c_str());
    uint32_t pathOffset = static_cast<uint32_t>(pos);
    pos += EncodeHeaderString(head.data() + pos, "/bench");
    head.resize(pos);
    fwrite(head.data(), 1, head.size(), out);

    std::vector<DtlHardLinkEntry> table;
    uint64_t at = pos, total = 0;
    DtlRecordFixed rec;
    struct stat st {};
    char name[32];
    auto put = [&](const char* text) {
        fwrite(&rec, sizeof rec, 1, out);
        fwrite(text, 1, strlen(text) + 1, out);
        at += sizeof rec + strlen(text) + 1;
        ++*records;
    };
    uint64_t rootPos = at;
    EncodeDirHeaderFixed(&rec, 2);
    SetDirCounts(&rec, 0, dirs, 0);
    put("/");
    for (int d = 0; d < dirs; d++) {
        st = {};
        st.st_mode = S_IFDIR | 0755;
        st.st_nlink = 2;
        st.st_ino = 1000000 + d;
        st.st_size = 4096;
        total += 4096;
        snprintf(name, sizeof name, "dir%d", d);
        DtlHardLinkEntry link;
        EncodeHardLinkEntry(&link, 0, rootPos, at);
        table.push_back(link);
        EncodeEntryFixed(&rec, DTL_HARDLINK, st, static_cast<uint16_t>(strlen(name) + 1), 0);
        put(name);
    }
    for (int d = 0; d < dirs; d++) {
        snprintf(name, sizeof name, "/dir%d", d);
        EncodeDirHeaderFixed(&rec, static_cast<uint16_t>(strlen(name) + 1));
        SetDirCounts(&rec, files, 0, 1000ull * files);
        put(name);
        for (int f = 0; f < files; f++) {
            st = {};
            st.st_mode = S_IFREG | 0644;
            st.st_nlink = 1;
            st.st_ino = static_cast<ino_t>(d) * files + f;
            st.st_size = 1000;
            total += 1000;
            snprintf(name, sizeof name, "file-%08d.dat", f);
            EncodeEntryFixed(&rec, 0, st, static_cast<uint16_t>(strlen(name) + 1), 0);
            put(name);
        }
    }
    EncodeEndMarker(&rec);
    fwrite(&rec, sizeof rec, 1, out);
    uint64_t tablePos = at + sizeof rec;
    fwrite(table.data(), sizeof(DtlHardLinkEntry), table.size(), out);

    DtlLogHeader log{};
    log.magic = logInt(DTL_MAGIC_COMPLETE);
    log.formatVersion = logInt(DTL_FORMAT_VERSION);
    log.tagOffset = logInt(tagOffset);
    log.nodeNameOffset = logInt(nodeOffset);
    log.hardLinkTableOffset = logInt64(tablePos);
    log.completionFlags = logInt(DTL_COMPLETE);
    DtlRootHeader root{};
    root.totalFileSize = logInt64(total);
    root.dtlStartPos = logInt64(pos);
    root.pathOffset = logInt(pathOffset);
    root.dirCount = logInt(dirs + 1);
    root.fileCount = logInt(static_cast<uint32_t>(dirs * files));
    root.hardLinkCount = logInt(dirs);
    DtlVersionHeader version;
    EncodeVersionHeader(&version, "2.2.0", "Mac", "IA32");
    rewind(out);
    fwrite(&log, sizeof log, 1, out);
    fwrite(&root, sizeof root, 1, out);
    fwrite(&version, sizeof version, 1, out);
    fclose(out);
    return path;
}

void BM_CheckDetailFile(benchmark::State& state) {
    uint64_t records = 0;
    std::string path = MakeFile(1000, 1000, &records);
    DtlFault fault;
    for (auto _ : state) {
        if (!DtlCheckFile(path.c_str(), &fault)) {
            state.SkipWithError(fault.message.c_str());
            break;
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
    unlink(path.c_str());
}
BENCHMARK(BM_CheckDetailFile)->Unit(benchmark::kMillisecond);

// Every figure of the reports at once (directories, owners, ages, kinds and
// extensions): the most a report command gathers in its one pass.
void BM_ReportFigures(benchmark::State& state) {
    uint64_t records = 0;
    std::string path = MakeFile(1000, 1000, &records);
    ReportOptions options{.dirs = true, .owners = true, .ages = true, .types = true, .ownerNames = false};
    for (auto _ : state) {
        ReportScan scan;
        if (!ReadReport(path.c_str(), options, &scan)) {
            state.SkipWithError(scan.fault.message.c_str());
            break;
        }
        benchmark::DoNotOptimize(scan.dirs.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
    unlink(path.c_str());
}
BENCHMARK(BM_ReportFigures)->Unit(benchmark::kMillisecond);

// The export of every entry, written to /dev/null.
void BM_Export(benchmark::State& state) {
    uint64_t records = 0;
    std::string path = MakeFile(1000, 1000, &records);
    ExportSink sink;
    sink.fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
    for (auto _ : state) {
        ReportScan scan;
        if (!ExportEntries(path.c_str(), state.range(0) ? EXPORT_NDJSON : EXPORT_CSV, false, &sink, &scan)) {
            state.SkipWithError(scan.fault.message.c_str());
            break;
        }
    }
    close(sink.fd);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * records));
    unlink(path.c_str());
}
BENCHMARK(BM_Export)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
