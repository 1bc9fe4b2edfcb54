// Fuzz target for the report commands: the input is written to an anonymous
// in-memory file and read as a detail file by every report computation
// (ReadReport with all figures, strictly and with partial reading), by the
// export in both formats, and by every printer, text and JSON. Whatever the
// bytes, nothing may crash, hang or leak, and the figures must agree with
// each other and with what the reader counted:
//
// - a strict reading succeeds exactly when the structure check passes;
// - the root directory's totals, the owners, the kinds and the ages each
//   add up to the records' totals, for a partial reading as well;
// - NDJSON has one line per entry record read;
// - a scan compared with itself shows no change;
// - the treemap's cells inside each directory add up to it, and the HTML
//   page holds only its own two scripts and no stray byte.
//
// The records are reached through the seed corpus (fuzz/corpus/dtl_report/:
// files written by the program on tiny trees, plain, compressed, with hard
// links, odd names and an unfinished one).
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

static Tally Sum(const std::vector<OwnerRow>& rows) {
    Tally sum;
    for (const OwnerRow& r : rows) Add(&sum, r.tally);
    return sum;
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
    Check(Same(Sum(s.users), all) && Same(Sum(s.groups), all));
    Tally kinds, modified, accessed;
    for (const Tally& k : s.kinds) Add(&kinds, k);
    Check(Same(kinds, all));
    for (const AgeRow& a : s.ages) Add(&modified, a.modified), Add(&accessed, a.accessed);
    Check(modified.files == t.files && accessed.files == t.files && modified.bytes == accessed.bytes);
    uint64_t extensionFiles = 0;
    for (const ExtensionRow& e : s.extensions) extensionFiles += e.tally.files;
    Check(extensionFiles == s.kinds[KIND_FILE].entries);
}

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
            if (!cells[i].other) Check(Same(inside[i], cells[i].tally));
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

    ReportOptions options{.dirs = true, .owners = true, .ages = true, .types = true, .ownerNames = false};
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
        bool exported = ExportEntries(memoryPath, format, true, &sink, &scan);
        if (!exported) continue;
        if (format == EXPORT_NDJSON)
            Check(static_cast<uint64_t>(std::count(sink.text.begin(), sink.text.end(), '\n')) == scan.totals.entries);
    }
    return 0;
}
