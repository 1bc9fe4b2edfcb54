// The diff report, as text tables or JSON.
#include <algorithm>
#include <functional>

#include "reader/reportprint.h"
#include "reader/textout.h"

namespace {

struct Total {
    const char* name;  // in text
    const char* key;   // in JSON
    uint64_t DtlTotals::*field;
    bool bytes;
};

const Total TOTALS[] = {
    {"total size", "totalFileSize", &DtlTotals::totalFileSize, true},
    {"entries", "entries", &DtlTotals::entries, false},
    {"files", "files", &DtlTotals::files, false},
    {"directories", "dirs", &DtlTotals::subdirEntries, false},
    {"symbolic links", "symlinks", &DtlTotals::symlinks, false},
    {"hard-link entries", "hardLinks", &DtlTotals::hardLinks, false},
};

// A row's real path: in the new scan's root, or the old one's for a vanished directory.
std::string RowPath(const ReportScan& before, const ReportScan& after, const DiffRow& r) {
    return FullPath((r.inNew ? after : before).strings.rootPath, r.path);
}

void JsonRows(std::string* out, const char* name, const std::vector<const DiffRow*>& rows, const ReportScan& before,
              const ReportScan& after) {
    AppendFormat(out, ", \"%s\": [", name);
    for (size_t i = 0; i < rows.size(); i++) {
        const DiffRow& r = *rows[i];
        *out += i ? ",\n  {" : "\n  {";
        AppendJsonMember(out, "path", RowPath(before, after, r));
        *out += ", ";
        AppendJsonMember(out, "logicalPath", r.path);
        AppendFormat(out,
                     ", \"depth\": %u, \"bytesBefore\": %llu, \"bytesAfter\": %llu, \"entriesBefore\": %llu, "
                     "\"entriesAfter\": %llu, \"filesBefore\": %llu, \"filesAfter\": %llu, \"dirsInside\": %llu}",
                     r.depth, static_cast<unsigned long long>(r.before.bytes),
                     static_cast<unsigned long long>(r.after.bytes), static_cast<unsigned long long>(r.before.entries),
                     static_cast<unsigned long long>(r.after.entries), static_cast<unsigned long long>(r.before.files),
                     static_cast<unsigned long long>(r.after.files), static_cast<unsigned long long>(r.dirsInside));
    }
    *out += "\n]";
}

void TextRows(std::string* out, const std::string& title, const std::vector<const DiffRow*>& rows,
              const ReportScan& before, const ReportScan& after) {
    *out += "\n" + title + "\n\n";
    if (rows.empty()) {
        *out += "  (none)\n";
        return;
    }
    TextTable t{{"SIZE CHANGE", "BYTES", "ENTRIES", "SIZE BEFORE", "SIZE AFTER", "PATH"},
                {true, true, true, true, true, false},
                {}};
    for (const DiffRow* r : rows)
        t.rows.push_back({SignedSize(r->ByteChange()), Signed(r->ByteChange()), Signed(r->EntryChange()),
                          r->inOld ? HumanSize(r->before.bytes) : "-", r->inNew ? HumanSize(r->after.bytes) : "-",
                          CellPath(RowPath(before, after, *r))});
    AppendTable(out, t);
}

}  // namespace

std::vector<const DiffRow*> PickDiffRows(const std::vector<DiffRow>& rows, const PrintOptions& o,
                                         const std::function<int64_t(const DiffRow&)>& key) {
    std::vector<const DiffRow*> picked;
    for (const DiffRow& r : rows)
        if ((o.depth < 0 || r.depth <= o.depth) && key(r) > 0) picked.push_back(&r);
    size_t keep = std::min(picked.size(), o.rows);
    std::partial_sort(picked.begin(), picked.begin() + keep, picked.end(), [&](const DiffRow* a, const DiffRow* b) {
        return key(*a) != key(*b) ? key(*a) > key(*b) : a->path < b->path;
    });
    picked.resize(keep);
    return picked;
}

void PrintDiff(std::string* out, const ReportScan& before, const ReportScan& after, const ScanDiff& diff,
               const PrintOptions& o) {
    auto grew = [&](const DiffRow& r) { return o.byEntries ? r.EntryChange() : r.ByteChange(); };
    auto shrank = [&](const DiffRow& r) { return -grew(r); };
    // Appeared and vanished directories rank by their own figures.
    auto size = [&](const DiffRow& r) {
        const Tally& t = r.inNew ? r.after : r.before;
        return static_cast<int64_t>(o.byEntries ? t.entries : t.bytes) + 1;  // empty ones are shown too
    };
    std::vector<const DiffRow*> grown = PickDiffRows(diff.changed, o, grew),
                                shrunk = PickDiffRows(diff.changed, o, shrank),
                                appeared = PickDiffRows(diff.appeared, o, size),
                                vanished = PickDiffRows(diff.vanished, o, size);
    if (o.json) {
        *out += "{\"command\": \"diff\", \"old\": {";
        AppendJsonHead(out, before);
        *out += "}, \"new\": {";
        AppendJsonHead(out, after);
        AppendFormat(out, "}, \"by\": \"%s\", \"depth\": %s", o.byEntries ? "entries" : "size",
                     o.depth < 0 ? "null" : std::to_string(o.depth).c_str());
        *out += ", \"totals\": {";
        for (size_t i = 0; i < std::size(TOTALS); i++)
            AppendFormat(out, "%s\"%s\": {\"before\": %llu, \"after\": %llu}", i ? ", " : "", TOTALS[i].key,
                         static_cast<unsigned long long>(before.totals.*TOTALS[i].field),
                         static_cast<unsigned long long>(after.totals.*TOTALS[i].field));
        AppendFormat(
            out, "}, \"unchangedDirs\": %llu, \"changedDirs\": %zu, \"appearedDirs\": %llu, \"vanishedDirs\": %llu",
            static_cast<unsigned long long>(diff.unchanged), diff.changed.size(),
            static_cast<unsigned long long>(diff.appearedDirs), static_cast<unsigned long long>(diff.vanishedDirs));
        JsonRows(out, "grew", grown, before, after);
        JsonRows(out, "shrank", shrunk, before, after);
        JsonRows(out, "appeared", appeared, before, after);
        JsonRows(out, "vanished", vanished, before, after);
        *out += "}\n";
        return;
    }
    AppendTextHead(out, before, "Old");
    AppendTextHead(out, after, "New");
    *out += "\nTotals (each hard-linked inode's size counts once)\n\n";
    TextTable t{{"", "BEFORE", "AFTER", "CHANGE", ""}, {false, true, true, true, true}, {}};
    for (const Total& x : TOTALS) {
        uint64_t a = before.totals.*x.field, b = after.totals.*x.field;
        int64_t change = static_cast<int64_t>(b - a);
        if (x.bytes)
            t.rows.push_back({x.name, HumanSize(a), HumanSize(b), SignedSize(change), Signed(change) + " bytes"});
        else
            t.rows.push_back({x.name, Number(a), Number(b), Signed(change), ""});
    }
    AppendTable(out, t);
    AppendFormat(out, "\nDirectories: %llu unchanged, %zu changed, %llu appeared, %llu vanished\n",
                 static_cast<unsigned long long>(diff.unchanged), diff.changed.size(),
                 static_cast<unsigned long long>(diff.appearedDirs),
                 static_cast<unsigned long long>(diff.vanishedDirs));
    *out += "(a directory's figures are those of every entry below it, at any depth)\n";
    std::string by = o.byEntries ? "entry count" : "size";
    TextRows(out, "Grew most, by " + by, grown, before, after);
    TextRows(out, "Shrank most, by " + by, shrunk, before, after);
    TextRows(out, "Appeared (the topmost of each new subtree; ENTRIES is everything below it)", appeared, before,
             after);
    TextRows(out, "Vanished (the topmost of each removed subtree)", vanished, before, after);
}
