// Reports over the scans of several trees: each file read in turn, its
// figures added to the sum, and of its directories only the rows that the
// report could show kept.
#include "reader/multiscan.h"

#include <algorithm>
#include <map>
#include <unordered_map>

#include "reader/textout.h"

std::string FaultLine(const std::string& path, bool opened, const DtlFault& fault) {
    if (!opened) return Cat(path, ": ", fault.message);
    return Cat(path, ": offset ", Number(fault.offset), ": ", fault.message);
}

std::string FaultLine(const ReportScan& s) { return FaultLine(s.path, s.opened, s.fault); }

bool ReadHeads(const std::vector<const char*>& paths, bool partial, std::vector<ReportScan>* heads,
               std::string* error) {
    for (const char* path : paths) {
        ReportScan& s = heads->emplace_back();
        DtlReader r;
        if (!OpenScan(&r, path, partial, &s)) {
            *error = FaultLine(s);
            return false;
        }
        DtlClose(&r);
    }
    return true;
}

ReportScan HeadOf(const ReportScan& s) {
    ReportScan head;
    head.path = s.path;
    head.opened = s.opened;
    head.compressed = s.compressed;
    head.unfinished = s.unfinished;
    head.complete = s.complete;
    head.fault = s.fault;
    head.log = s.log;
    head.root = s.root;
    head.strings = s.strings;
    head.totals = s.totals;
    return head;
}

bool SameTree(const ReportScan& a, const ReportScan& b) {
    return a.strings.rootPath == b.strings.rootPath && a.strings.nodeName == b.strings.nodeName;
}

std::string TreesOf(const ReportScan& a, const ReportScan& b) {
    std::string trees;
    for (const ReportScan* s : {&a, &b}) {
        trees += Cat(trees.empty() ? "" : ", ", s->path, " is of ");
        AppendEscaped(&trees, s->strings.rootPath, true);
        trees += " on ";
        AppendEscaped(&trees, s->strings.nodeName, true);
    }
    return trees;
}

namespace {

void Add(Tally* sum, const Tally& t) {
    sum->entries += t.entries;
    sum->files += t.files;
    sum->bytes += t.bytes;
}

void AddTotals(DtlTotals* sum, const DtlTotals& t) {
    sum->dirHeaders += t.dirHeaders;
    sum->emptyDirHeaders += t.emptyDirHeaders;
    sum->entries += t.entries;
    sum->files += t.files;
    sum->subdirEntries += t.subdirEntries;
    sum->symlinks += t.symlinks;
    sum->hardLinks += t.hardLinks;
    sum->linkedInodes += t.linkedInodes;
    sum->totalFileSize += t.totalFileSize;
}

std::string TreeName(const ReportScan& s) {
    std::string name;
    AppendEscaped(&name, s.strings.rootPath, true);
    name += " on ";
    AppendEscaped(&name, s.strings.nodeName, true);
    return name;
}

// Users or groups of every scan by number, largest bytes first as in the
// report of one scan. The name is the one this machine gives the number.
std::vector<OwnerRow> Merged(const std::map<uint32_t, OwnerRow>& byId) {
    std::vector<OwnerRow> rows;
    rows.reserve(byId.size());
    for (const auto& [id, row] : byId) rows.push_back(row);
    std::stable_sort(rows.begin(), rows.end(),
                     [](const OwnerRow& a, const OwnerRow& b) { return a.tally.bytes > b.tally.bytes; });
    return rows;
}

void AddOwners(std::map<uint32_t, OwnerRow>* byId, const std::vector<OwnerRow>& rows) {
    for (const OwnerRow& r : rows) {
        OwnerRow& into = (*byId)[r.id];
        into.id = r.id;
        into.name = r.name;
        Add(&into.tally, r.tally);
    }
}

// Keeps the rows of one scan's directories that a report over all of them
// could show: the first print.rows by each key the report ranks by. A row
// that ranks lower in its own scan cannot rank higher in the sum.
void KeepRows(ReportScan* sum, uint32_t part, const ReportScan& scan, const ReportOptions& o,
              const PrintOptions& print) {
    std::vector<size_t> keep = print.byEntries
                                   ? RankedDirs(scan.dirs, print, [](const DirRow& d) { return d.total.entries; })
                                   : RankedDirs(scan.dirs, print, [](const DirRow& d) { return d.total.bytes; });
    if (o.ages)
        for (size_t i : RankedDirs(scan.dirs, print, [](const DirRow& d) { return d.coldBytes; })) keep.push_back(i);
    if (!scan.dirs.empty()) keep.push_back(0);  // the root, for a sum whose every directory is empty
    std::sort(keep.begin(), keep.end());
    keep.erase(std::unique(keep.begin(), keep.end()), keep.end());
    for (size_t i : keep) {
        DirRow row = scan.dirs[i];
        row.name = DirPath(scan.dirs, i);
        row.parent = 0;
        sum->dirs.push_back(std::move(row));
        sum->partOf.push_back(part);
    }
}

}  // namespace

bool ReadScans(const std::vector<const char*>& paths, const ReportOptions& options, const PrintOptions& print,
               ReportScan* sum, std::string* error) {
    std::vector<ReportScan> heads;
    if (!ReadHeads(paths, options.partial, &heads, error)) return false;
    for (size_t i = 0; i < heads.size(); i++)
        for (size_t j = 0; j < i; j++)
            if (SameTree(heads[i], heads[j])) {
                *error = Cat(heads[j].path, " and ", heads[i].path, " are successive scans of one tree, ",
                             TreeName(heads[i]),
                             ": their figures are not summed; dtldump trend follows one tree from scan to scan");
                return false;
            }
    std::map<uint32_t, OwnerRow> users, groups;
    std::unordered_map<std::string, Tally> extensions;  // a tree may hold a hundred thousand
    sum->complete = true;
    for (size_t i = 0; i < paths.size(); i++) {
        ReportScan scan;
        if (!ReadReport(paths[i], options, &scan)) {
            *error = FaultLine(scan);
            return false;
        }
        AddTotals(&sum->totals, scan.totals);
        sum->root.totalFileSize += scan.totals.totalFileSize;
        AddOwners(&users, scan.users);
        AddOwners(&groups, scan.groups);
        if (sum->ages.empty())
            sum->ages = scan.ages;
        else
            for (size_t a = 0; a < scan.ages.size(); a++) {
                Add(&sum->ages[a].modified, scan.ages[a].modified);
                Add(&sum->ages[a].accessed, scan.ages[a].accessed);
            }
        for (size_t k = 0; k < KIND_COUNT; k++) Add(&sum->kinds[k], scan.kinds[k]);
        extensions.reserve(scan.extensions.size());
        for (ExtensionRow& e : scan.extensions) Add(&extensions[std::move(e.extension)], e.tally);
        if (options.dirs) KeepRows(sum, static_cast<uint32_t>(i), scan, options, print);
        // The part keeps its head and totals; its rows are in the sum now.
        sum->parts.push_back(HeadOf(scan));
    }
    sum->users = Merged(users);
    sum->groups = Merged(groups);
    sum->extensions.reserve(extensions.size());
    for (auto& [extension, tally] : extensions) sum->extensions.push_back({extension, tally});
    // Largest first, and by name among equals, as the report of one scan ranks them.
    std::sort(sum->extensions.begin(), sum->extensions.end(), [](const ExtensionRow& a, const ExtensionRow& b) {
        return a.tally.bytes != b.tally.bytes ? a.tally.bytes > b.tally.bytes : a.extension < b.extension;
    });
    return true;
}

void AppendPartsHead(std::string* out, const ReportScan& s) {
    *out += Cat("Detail files  ", Number(s.parts.size()),
                " scans of different trees or machines; every figure below is their sum\n\n");
    TextTable t{{"SCAN", "NODE", "ROOT", "STARTED", "ENTRIES", "SIZE", "BYTES", "FILE"},
                {true, false, false, false, true, true, true, false},
                {}};
    std::string notes;
    for (size_t i = 0; i < s.parts.size(); i++) {
        const ReportScan& p = s.parts[i];
        t.rows.push_back({Number(i), CellPath(p.strings.nodeName), CellPath(p.strings.rootPath),
                          HeadingTime(p.log.runTime), Number(p.totals.entries), HumanSize(p.totals.totalFileSize),
                          Number(p.totals.totalFileSize), CellPath(p.path) + (p.compressed ? " (compressed)" : "")});
        if (!p.complete) notes += Cat(CellPath(p.path), ":\n", PartialNote(p));
    }
    t.rows.push_back({"", "(all)", "", "", Number(s.totals.entries), HumanSize(s.totals.totalFileSize),
                      Number(s.totals.totalFileSize), ""});
    AppendTable(out, t);
    *out += notes;
}

void AppendPartsJsonHead(std::string* out, const ReportScan& s) {
    *out += "\"scans\": [";
    for (size_t i = 0; i < s.parts.size(); i++) {
        const ReportScan& p = s.parts[i];
        *out += i ? ",\n  {" : "\n  {";
        AppendJsonHead(out, p);
        AppendFormat(out, ", \"entries\": %llu, \"totalFileSize\": %llu}",
                     static_cast<unsigned long long>(p.totals.entries),
                     static_cast<unsigned long long>(p.totals.totalFileSize));
    }
    AppendFormat(
        out, "\n], \"complete\": %s, \"entries\": %llu",
        std::all_of(s.parts.begin(), s.parts.end(), [](const ReportScan& p) { return p.complete; }) ? "true" : "false",
        static_cast<unsigned long long>(s.totals.entries));
}
