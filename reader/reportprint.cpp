#include "reader/reportprint.h"

#include <algorithm>
#include <numeric>

#include "reader/textout.h"

// ---- Shared pieces ---------------------------------------------------------

std::string Number(uint64_t v) { return std::to_string(v); }

std::string Signed(int64_t change) { return Cat(change > 0 ? "+" : "", std::to_string(change)); }

std::string SignedSize(int64_t change) {
    if (change == 0) return "0 B";
    uint64_t magnitude = change < 0 ? 0 - static_cast<uint64_t>(change) : static_cast<uint64_t>(change);
    return Cat(change < 0 ? "-" : "+", HumanSize(magnitude));
}

std::string CellPath(std::string_view path) {
    std::string cell;
    AppendEscaped(&cell, path, false);
    return cell;
}

void AppendTable(std::string* out, const TextTable& t) {
    std::vector<size_t> width(t.header.size());
    for (size_t c = 0; c < width.size(); c++) {
        width[c] = t.header[c].size();
        for (const auto& row : t.rows) width[c] = std::max(width[c], row[c].size());
    }
    auto line = [&](const std::vector<std::string>& cells) {
        std::string text = " ";
        for (size_t c = 0; c < cells.size(); c++) {
            bool last = c + 1 == cells.size();
            size_t pad = width[c] - std::min(width[c], cells[c].size());
            text += ' ';
            if (t.right[c]) text.append(pad, ' ');
            text += cells[c];
            if (!t.right[c] && !last) text.append(pad, ' ');
        }
        while (text.back() == ' ') text.pop_back();
        *out += text + "\n";
    };
    line(t.header);
    for (const auto& row : t.rows) line(row);
}

std::string PartialNote(const ReportScan& s) {
    if (s.complete) return "";
    std::string entries = Cat("PARTIAL: the figures cover only the ", Number(s.totals.entries), " entry records");
    if (!s.unfinished)
        return Cat("PARTIAL: the file is damaged or cut short at offset ", Number(s.fault.offset), ": ",
                   s.fault.message, "\n", entries, " before it\n");
    std::string note =
        Cat("PARTIAL: the scan that wrote this file did not complete (magic \"IDTL\")\n", entries, " it holds");
    if (!s.fault.message.empty())
        note += Cat("; reading stopped at offset ", Number(s.fault.offset), ": ", s.fault.message);
    return note + "\n";
}

void AppendTextHead(std::string* out, const ReportScan& s, const char* label) {
    if (!s.parts.empty()) return AppendPartsHead(out, s);
    *out += std::string(label) + "  ";
    AppendEscaped(out, s.path, false);
    if (s.compressed) *out += " (compressed)";
    *out += "\n";
    *out += std::string(std::string_view(label).size(), ' ') + "  scan of ";
    AppendEscaped(out, s.strings.rootPath, false);
    *out += " on ";
    AppendEscaped(out, s.strings.nodeName, false);
    *out += Cat(", started ", HeadingTime(s.log.runTime), "\n");
    *out += PartialNote(s);
}

void AppendJsonHead(std::string* out, const ReportScan& s) {
    if (!s.parts.empty()) return AppendPartsJsonHead(out, s);
    AppendJsonMember(out, "file", s.path);
    AppendFormat(out, ", \"compressed\": %s, ", s.compressed ? "true" : "false");
    AppendJsonMember(out, "nodeName", s.strings.nodeName);
    *out += ", ";
    AppendJsonMember(out, "rootPath", s.strings.rootPath);
    char started[24];
    *PutIsoTime(started, s.log.runTime) = '\0';
    AppendFormat(out, ", \"runTime\": %u, \"started\": \"%s\", \"complete\": %s, \"partial\": ", s.log.runTime, started,
                 s.complete ? "true" : "false");
    if (s.complete) {
        *out += "null";
    } else {
        AppendFormat(out, "{\"unfinished\": %s, \"entriesRead\": %llu, ", s.unfinished ? "true" : "false",
                     static_cast<unsigned long long>(s.totals.entries));
        if (s.fault.message.empty()) {
            *out += "\"offset\": null, \"message\": null}";
        } else {
            AppendFormat(out, "\"offset\": %llu, ", static_cast<unsigned long long>(s.fault.offset));
            AppendJsonMember(out, "message", s.fault.message);
            *out += '}';
        }
    }
}

void AppendJsonTally(std::string* out, const Tally& t) {
    AppendFormat(out, "\"entries\": %llu, \"files\": %llu, \"dirs\": %llu, \"bytes\": %llu",
                 static_cast<unsigned long long>(t.entries), static_cast<unsigned long long>(t.files),
                 static_cast<unsigned long long>(t.entries - t.files), static_cast<unsigned long long>(t.bytes));
}

const ReportScan& RowScan(const ReportScan& s, size_t row) { return s.parts.empty() ? s : s.parts[s.partOf[row]]; }

std::string RowLogical(const ReportScan& s, size_t row) {
    return s.parts.empty() ? DirPath(s.dirs, row) : s.dirs[row].name;
}

std::string RowCell(const ReportScan& s, size_t row) {
    const ReportScan& scan = RowScan(s, row);
    std::string path = CellPath(FullPath(scan.strings.rootPath, RowLogical(s, row)));
    return s.parts.empty() ? path : Cat(CellPath(scan.strings.nodeName), ":", path);
}

void AppendJsonRowPath(std::string* out, const ReportScan& s, size_t row) {
    const ReportScan& scan = RowScan(s, row);
    std::string logical = RowLogical(s, row);
    if (!s.parts.empty()) {
        AppendFormat(out, "\"scan\": %u, ", s.partOf[row]);
        AppendJsonMember(out, "nodeName", scan.strings.nodeName);
        *out += ", ";
    }
    AppendJsonMember(out, "path", FullPath(scan.strings.rootPath, logical));
    *out += ", ";
    AppendJsonMember(out, "logicalPath", logical);
}

std::vector<size_t> RankedDirs(const std::vector<DirRow>& dirs, const PrintOptions& o, uint64_t (*key)(const DirRow&)) {
    std::vector<size_t> order;
    for (size_t i = 0; i < dirs.size(); i++)
        if ((o.depth < 0 || dirs[i].depth <= o.depth) && key(dirs[i]) > 0) order.push_back(i);
    size_t keep = std::min(order.size(), o.rows);
    std::partial_sort(order.begin(), order.begin() + keep, order.end(), [&](size_t a, size_t b) {
        uint64_t ka = key(dirs[a]), kb = key(dirs[b]);
        return ka != kb ? ka > kb : a < b;
    });
    order.resize(keep);
    return order;
}

// ---- top -----------------------------------------------------------------

static std::vector<size_t> TopOrder(const ReportScan& s, const PrintOptions& o) {
    auto bytes = [](const DirRow& d) { return d.total.bytes; };
    auto entries = [](const DirRow& d) { return d.total.entries; };
    std::vector<size_t> order = o.byEntries ? RankedDirs(s.dirs, o, entries) : RankedDirs(s.dirs, o, bytes);
    // The root leads even when it holds nothing, so that the table is never empty.
    if (order.empty() && !s.dirs.empty()) order.push_back(0);
    return order;
}

TextTable TopTable(const ReportScan& s, const PrintOptions& o) {
    TextTable t{{"SIZE", "BYTES", "ENTRIES", "FILES", "DIRS", "PATH"}, {true, true, true, true, true, false}, {}};
    t.sortBy = {1};
    for (size_t i : TopOrder(s, o)) {
        const DirRow& d = s.dirs[i];
        t.rows.push_back({HumanSize(d.total.bytes), Number(d.total.bytes), Number(d.total.entries),
                          Number(d.total.files), Number(d.total.entries - d.total.files), RowCell(s, i)});
    }
    return t;
}

void PrintTop(std::string* out, const ReportScan& s, const PrintOptions& o) {
    if (o.json) {
        std::vector<size_t> order = TopOrder(s, o);
        *out += "{\"command\": \"top\", ";
        AppendJsonHead(out, s);
        AppendFormat(out, ", \"by\": \"%s\", \"depth\": ", o.byEntries ? "entries" : "size");
        *out += o.depth < 0 ? "null" : std::to_string(o.depth);
        AppendFormat(out, ", \"totalFileSize\": %llu, \"directories\": [",
                     static_cast<unsigned long long>(s.totals.totalFileSize));
        for (size_t i = 0; i < order.size(); i++) {
            const DirRow& d = s.dirs[order[i]];
            *out += i ? ",\n  {" : "\n  {";
            AppendJsonRowPath(out, s, order[i]);
            AppendFormat(out, ", \"depth\": %u, ", d.depth);
            AppendJsonTally(out, d.total);
            *out += '}';
        }
        *out += "\n]}\n";
        return;
    }
    AppendTextHead(out, s, "Detail file");
    *out += Cat("\nLargest directories by ", o.byEntries ? "entry count" : "size");
    if (o.depth >= 0) *out += Cat(", at most ", std::to_string(o.depth), " levels below the root");
    *out +=
        "\n(a directory's size and counts are those of every entry below it, at any depth;\n"
        " each hard-linked inode counts once, where the walk met it first)\n\n";
    AppendTable(out, TopTable(s, o));
}

// ---- owners --------------------------------------------------------------

static Tally Rest(const std::vector<OwnerRow>& rows, size_t shown) {
    Tally rest;
    for (size_t i = shown; i < rows.size(); i++) {
        rest.entries += rows[i].tally.entries;
        rest.files += rows[i].tally.files;
        rest.bytes += rows[i].tally.bytes;
    }
    return rest;
}

static void OwnerJson(std::string* out, const std::vector<OwnerRow>& rows, const PrintOptions& o, bool users) {
    size_t shown = std::min(rows.size(), o.rows);
    AppendFormat(out, "\"%s\": [", users ? "users" : "groups");
    for (size_t i = 0; i < shown; i++) {
        AppendFormat(out, "%s\n  {\"id\": %u, \"name\": ", i ? "," : "", rows[i].id);
        if (rows[i].name.empty())
            *out += "null";
        else
            AppendJsonString(out, rows[i].name);
        *out += ", ";
        AppendJsonTally(out, rows[i].tally);
        *out += '}';
    }
    AppendFormat(out, "\n], \"%sOthers\": ", users ? "users" : "groups");
    if (shown == rows.size()) {
        *out += "null";
    } else {
        AppendFormat(out, "{\"count\": %zu, ", rows.size() - shown);
        AppendJsonTally(out, Rest(rows, shown));
        *out += '}';
    }
}

TextTable OwnerTable(const std::vector<OwnerRow>& rows, const PrintOptions& o, bool users) {
    size_t shown = std::min(rows.size(), o.rows);
    TextTable t{{users ? "UID" : "GID", users ? "USER" : "GROUP", "ENTRIES", "FILES", "DIRS", "SIZE", "BYTES"},
                {true, false, true, true, true, true, true},
                {}};
    t.sortBy = {-1, -1, -1, -1, -1, 6};
    auto add = [&](std::string id, std::string name, const Tally& x) {
        t.rows.push_back({std::move(id), std::move(name), Number(x.entries), Number(x.files),
                          Number(x.entries - x.files), HumanSize(x.bytes), Number(x.bytes)});
    };
    for (size_t i = 0; i < shown; i++)
        add(Number(rows[i].id), rows[i].name.empty() ? "-" : CellPath(rows[i].name), rows[i].tally);
    if (shown < rows.size()) {
        add("", Cat("(", Number(rows.size() - shown), " more)"), Rest(rows, shown));
        t.restRows = 1;
    }
    return t;
}

void PrintOwners(std::string* out, const ReportScan& s, const PrintOptions& o) {
    if (o.json) {
        *out += "{\"command\": \"owners\", ";
        AppendJsonHead(out, s);
        *out += ", ";
        OwnerJson(out, s.users, o, true);
        *out += ", ";
        OwnerJson(out, s.groups, o, false);
        *out += "}\n";
        return;
    }
    AppendTextHead(out, s, "Detail file");
    *out +=
        "\nOwners, largest first. The detail file holds only user and group numbers; the names are\n"
        "looked up in this machine's user and group databases (\"-\": none there).\n\nUsers\n";
    AppendTable(out, OwnerTable(s.users, o, true));
    *out += "\nGroups\n";
    AppendTable(out, OwnerTable(s.groups, o, false));
}
