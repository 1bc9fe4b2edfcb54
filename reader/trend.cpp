// trend: successive scans of one tree, ordered by their start times. Every
// file is read and checked whole, but only the earliest and the latest keep
// their directories: the growth over the period is theirs to tell, so the
// scans between cost what --summary costs and no more memory than one scan.
#include <algorithm>

#include "reader/multiscan.h"
#include "reader/textout.h"

// Rounds half away from zero, as llround does, without the maths library
// (the release program links only the C library).
int64_t PerDay(int64_t change, double days) {
    if (days <= 0) return 0;
    double perDay = static_cast<double>(change) / days;
    return static_cast<int64_t>(perDay < 0 ? perDay - 0.5 : perDay + 0.5);
}

bool ReadTrend(const std::vector<const char*>& paths, bool partial, Trend* trend, std::string* error) {
    std::vector<ReportScan> heads;
    if (!ReadHeads(paths, partial, &heads, error)) return false;
    for (const ReportScan& h : heads)
        if (!SameTree(h, heads[0])) {
            *error = "trend follows one tree (one root on one node) from scan to scan: " + TreesOf(heads[0], h);
            return false;
        }
    // Scans started at one time keep the order they were given in.
    std::vector<size_t> order(heads.size());
    for (size_t i = 0; i < order.size(); i++) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return heads[a].log.runTime < heads[b].log.runTime; });
    ReportOptions ends, between;
    ends.dirs = true;
    ends.partial = between.partial = partial;
    for (size_t k = 0; k < order.size(); k++) {
        bool first = k == 0, last = k + 1 == order.size();
        ReportScan& into = first ? trend->first : last ? trend->last : trend->scans.emplace_back();
        if (!ReadReport(paths[order[k]], first || last ? ends : between, &into)) {
            *error = FaultLine(into);
            return false;
        }
    }
    if (order.size() == 1) trend->last = trend->first;
    // The list of scans holds heads and totals only, in time order.
    trend->scans.insert(trend->scans.begin(), HeadOf(trend->first));
    if (order.size() > 1) trend->scans.push_back(HeadOf(trend->last));
    trend->diff = DiffScans(trend->first, trend->last);
    trend->days = (static_cast<double>(trend->last.log.runTime) - trend->first.log.runTime) / 86400.0;
    return true;
}

namespace {

// The directories whose size changed between the first scan and the last:
// those in both, and the topmost of those that appeared or vanished.
std::vector<DiffRow> Changes(const ScanDiff& diff) {
    std::vector<DiffRow> rows = diff.changed;
    rows.insert(rows.end(), diff.appeared.begin(), diff.appeared.end());
    rows.insert(rows.end(), diff.vanished.begin(), diff.vanished.end());
    return rows;
}

std::string Days(double days) {
    char text[32];
    snprintf(text, sizeof text, "%.1f", days);
    return text;
}

void JsonRows(std::string* out, const char* name, const std::vector<const DiffRow*>& rows, const Trend& t) {
    AppendFormat(out, ", \"%s\": [", name);
    for (size_t i = 0; i < rows.size(); i++) {
        const DiffRow& r = *rows[i];
        *out += i ? ",\n  {" : "\n  {";
        AppendJsonMember(out, "path", FullPath(t.last.strings.rootPath, r.path));
        *out += ", ";
        AppendJsonMember(out, "logicalPath", r.path);
        AppendFormat(out,
                     ", \"depth\": %u, \"bytesBefore\": %llu, \"bytesAfter\": %llu, \"bytesChange\": %lld, "
                     "\"bytesPerDay\": %s, \"entriesBefore\": %llu, \"entriesAfter\": %llu}",
                     r.depth, static_cast<unsigned long long>(r.before.bytes),
                     static_cast<unsigned long long>(r.after.bytes), static_cast<long long>(r.ByteChange()),
                     t.days > 0 ? std::to_string(PerDay(r.ByteChange(), t.days)).c_str() : "null",
                     static_cast<unsigned long long>(r.before.entries),
                     static_cast<unsigned long long>(r.after.entries));
    }
    *out += "\n]";
}

TextTable ScanTable(const Trend& t) {
    TextTable table{{"STARTED", "ENTRIES", "FILES", "DIRS", "SIZE", "BYTES", "CHANGE", "FILE"},
                    {false, true, true, true, true, true, true, false},
                    {}};
    for (size_t i = 0; i < t.scans.size(); i++) {
        const ReportScan& s = t.scans[i];
        const DtlTotals& x = s.totals;
        std::string change =
            i ? SignedSize(static_cast<int64_t>(x.totalFileSize - t.scans[i - 1].totals.totalFileSize)) : "";
        table.rows.push_back({HeadingTime(s.log.runTime), Number(x.entries), Number(x.files), Number(x.subdirEntries),
                              HumanSize(x.totalFileSize), Number(x.totalFileSize), change,
                              CellPath(s.path) + (s.complete ? "" : " (partial)")});
    }
    return table;
}

void TextRows(std::string* out, const std::string& title, const std::vector<const DiffRow*>& rows, const Trend& t) {
    *out += "\n" + title + "\n\n";
    if (rows.empty()) {
        *out += "  (none)\n";
        return;
    }
    TextTable table{{"SIZE CHANGE", "BYTES", "PER DAY", "BYTES/DAY", "SIZE BEFORE", "SIZE AFTER", "PATH"},
                    {true, true, true, true, true, true, false},
                    {}};
    for (const DiffRow* r : rows) {
        int64_t perDay = PerDay(r->ByteChange(), t.days);
        table.rows.push_back({SignedSize(r->ByteChange()), Signed(r->ByteChange()),
                              t.days > 0 ? SignedSize(perDay) : "-", t.days > 0 ? Signed(perDay) : "-",
                              r->inOld ? HumanSize(r->before.bytes) : "-", r->inNew ? HumanSize(r->after.bytes) : "-",
                              CellPath(FullPath(t.last.strings.rootPath, r->path))});
    }
    AppendTable(out, table);
}

}  // namespace

void PrintTrend(std::string* out, const Trend& t, const PrintOptions& o) {
    std::vector<DiffRow> changes = Changes(t.diff);
    std::vector<const DiffRow*> grew = PickDiffRows(changes, o, [](const DiffRow&r) { return r.ByteChange(); }),
                                shrank = PickDiffRows(changes, o, [](const DiffRow&r) { return -r.ByteChange(); });
    const ReportScan &first = t.scans.front(), &last = t.scans.back();
    if (o.json) {
        *out += "{\"command\": \"trend\", ";
        AppendJsonMember(out, "nodeName", last.strings.nodeName);
        *out += ", ";
        AppendJsonMember(out, "rootPath", last.strings.rootPath);
        *out += ", \"scans\": [";
        for (size_t i = 0; i < t.scans.size(); i++) {
            const DtlTotals& x = t.scans[i].totals;
            *out += i ? ",\n  {" : "\n  {";
            AppendJsonHead(out, t.scans[i]);
            AppendFormat(out, ", \"entries\": %llu, \"files\": %llu, \"dirs\": %llu, \"bytes\": %llu}",
                         static_cast<unsigned long long>(x.entries), static_cast<unsigned long long>(x.files),
                         static_cast<unsigned long long>(x.subdirEntries),
                         static_cast<unsigned long long>(x.totalFileSize));
        }
        AppendFormat(out, "\n], \"days\": %s, \"depth\": %s", Days(t.days).c_str(),
                     o.depth < 0 ? "null" : std::to_string(o.depth).c_str());
        JsonRows(out, "grew", grew, t);
        JsonRows(out, "shrank", shrank, t);
        *out += "}\n";
        return;
    }
    *out += Cat("Detail files  ", Number(t.scans.size()), " scans of ");
    AppendEscaped(out, last.strings.rootPath, false);
    *out += " on ";
    AppendEscaped(out, last.strings.nodeName, false);
    *out += Cat(", from ", HeadingTime(first.log.runTime), " to ", HeadingTime(last.log.runTime), " (", Days(t.days),
                " days)\n");
    for (const ReportScan& s : t.scans)
        if (!s.complete) *out += Cat(CellPath(s.path), ":\n", PartialNote(s));
    *out += "\nTotals per scan, earliest first (each hard-linked inode's size counts once)\n\n";
    AppendTable(out, ScanTable(t));
    std::string span = Cat(" from the first scan to the last");
    if (o.depth >= 0) span += Cat(", at most ", Number(static_cast<uint64_t>(o.depth)), " levels below the root");
    *out +=
        "(a directory's size is that of every entry below it, at any depth; PER DAY spreads the change\n"
        " over the days between the first scan's start and the last one's)\n";
    TextRows(out, "Directories that grew most" + span, grew, t);
    TextRows(out, "Directories that shrank most" + span, shrank, t);
}
