// Fuzz target for the report commands: the input is written to an anonymous
// in-memory file and read by every report computation (strictly and with
// partial reading), by the export in both formats and by every printer.
// Nothing may crash, hang or leak, and the figures must agree with each
// other and with what the reader counted. The records are reached through
// the seed corpus (fuzz/corpus/dtl_report/: files the program wrote on tiny
// trees, plain, compressed, with hard links, odd names and an unfinished one).
#include <algorithm>
#include <cstdint>
#include <string>

#include "fuzz/memoryfile.h"
#include "reader/dtlread.h"
#include "reader/export.h"
#include "reader/htmlreport.h"
#include "reader/report.h"
#include "reader/reportprint.h"
#include "reader/textout.h"

static void Add(Tally* sum, const Tally& t) {
    sum->entries += t.entries;
    sum->files += t.files;
    sum->bytes += t.bytes;
}

static bool Same(const Tally& a, const Tally& b) {
    return a.entries == b.entries && a.files == b.files && a.bytes == b.bytes;
}

// The figures of one reading agree with the records it read.
static void CheckFigures(const ReportScan& s) {
    const DtlTotals& t = s.totals;
    const Tally all{t.entries, t.files, t.totalFileSize};
    if (!s.dirs.empty()) Check(Same(s.dirs[0].total, all));
    for (const DirRow& d : s.dirs) Check(d.total.bytes >= d.coldBytes && d.total.files >= d.coldFiles);
    Tally users, groups, kinds, modified, accessed, extensions;
    for (const OwnerRow& r : s.users) Add(&users, r.tally);
    for (const OwnerRow& r : s.groups) Add(&groups, r.tally);
    for (const Tally& k : s.kinds) Add(&kinds, k);
    Check(Same(users, all) && Same(groups, all) && Same(kinds, all));
    for (const AgeRow& a : s.ages) Add(&modified, a.modified), Add(&accessed, a.accessed);
    Check(modified.files == t.files && accessed.files == t.files && modified.bytes == accessed.bytes);
    for (const ExtensionRow& e : s.extensions) Add(&extensions, e.tally);
    Check(extensions.files == s.kinds[KIND_FILE].entries);
}

// The treemap's cells inside each directory (subdirectories, files of their
// own and the rest) add up to it, and the page
// holds only its own two scripts and no stray byte.
static void CheckPage(const ReportScan& s) {
    for (double share : {0.0, 0.001, 1.0}) {
        std::vector<MapCell> cells = MapCells(s, share);
        std::vector<Tally> inside(cells.size());
        for (size_t i = 0; i < cells.size(); i++) {
            int32_t p = cells[i].parent;
            if (p < 0) continue;
            Check(static_cast<size_t>(p) < i && !cells[p].other);
            Add(&inside[p], cells[i].tally);
        }
        for (size_t i = 0; i < cells.size(); i++)
            if (!cells[i].other && cells[i].file < 0) Check(Same(inside[i], cells[i].tally));
    }
    HtmlOptions options;
    options.print.rows = 3;
    options.print.coldName = "1y";
    std::string page;
    AppendHtmlReport(&page, s, options);
    size_t scripts = 0;
    for (size_t at = 0; (at = page.find("</script", at)) != std::string::npos; at++) scripts++;
    Check(scripts == 2 && IsUtf8(page));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* memoryPath = StoreInput(data, size);
    if (!memoryPath) return 0;
    DtlFault fault;
    const bool sound = DtlCheckFile(memoryPath, &fault);

    ReportOptions options{
        .dirs = true, .owners = true, .ages = true, .types = true, .ownerNames = false, .largestFiles = 3,
        .fileShare = 0};
    for (bool partial : {false, true}) {
        options.partial = partial;
        ReportScan scan;
        bool read = ReadReport(memoryPath, options, &scan);
        if (!partial) Check(read == sound && scan.complete == sound);
        if (!read) {
            Check(!scan.fault.message.empty());
            continue;
        }
        CheckFigures(scan);
        CheckPage(scan);
        ScanDiff diff = DiffScans(scan, scan);
        Check(diff.changed.empty() && diff.appeared.empty() && diff.vanished.empty() &&
              diff.unchanged == scan.dirs.size());
        std::string out;
        for (bool json : {false, true}) {
            PrintOptions print{.json = json, .rows = 3, .depth = json ? 1 : -1, .coldName = "1y"};
            PrintTop(&out, scan, print);
            PrintOwners(&out, scan, print);
            PrintAges(&out, scan, print);
            PrintTypes(&out, scan, print);
            PrintDiff(&out, scan, scan, diff, print);
        }
        Check(!out.empty());
    }
    for (ExportFormat format : {EXPORT_CSV, EXPORT_NDJSON}) {
        ExportSink sink;
        ReportScan scan;
        // NDJSON has one line per entry record read.
        if (ExportEntries(memoryPath, format, true, &sink, &scan) && format == EXPORT_NDJSON)
            Check(static_cast<uint64_t>(std::count(sink.text.begin(), sink.text.end(), '\n')) == scan.totals.entries);
    }
    return 0;
}
