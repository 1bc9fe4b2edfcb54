// The age and types reports, as text tables or JSON.
#include <algorithm>
#include <array>

#include "reader/reportprint.h"
#include "reader/textout.h"

namespace {

const char* const KIND_NAMES[KIND_COUNT] = {"file", "directory", "symbolic link", "other"};
const char* const KIND_KEYS[KIND_COUNT] = {"file", "dir", "symlink", "other"};

void AgeJson(std::string* out, const std::vector<AgeRow>& ages, bool modified) {
    AppendFormat(out, "\"%s\": [", modified ? "modified" : "accessed");
    for (size_t i = 0; i < ages.size(); i++) {
        const AgeRow& a = ages[i];
        const Tally& t = modified ? a.modified : a.accessed;
        AppendFormat(out, "%s\n  {\"label\": ", i ? "," : "");
        AppendJsonString(out, a.label);
        AppendFormat(out, ", \"fromSec\": %lld, \"toSec\": ", static_cast<long long>(a.from));
        *out += a.to < 0 ? "null" : std::to_string(a.to);
        AppendFormat(out, ", \"files\": %llu, \"bytes\": %llu}", static_cast<unsigned long long>(t.files),
                     static_cast<unsigned long long>(t.bytes));
    }
    *out += "\n]";
}

// Percent of part in whole, one decimal.
std::string Share(uint64_t part, uint64_t whole) {
    char text[16];
    snprintf(text, sizeof text, "%.1f%%", whole ? 100.0 * static_cast<double>(part) / static_cast<double>(whole) : 0.0);
    return text;
}

}  // namespace

void PrintAges(std::string* out, const ReportScan& s, const PrintOptions& o) {
    if (o.json) {
        // The coldest directories: most bytes in files untouched for the cold age.
        std::vector<size_t> order = RankedDirs(s.dirs, o, [](const DirRow& d) { return d.coldBytes; });
        *out += "{\"command\": \"age\", ";
        AppendJsonHead(out, s);
        *out += ", ";
        AgeJson(out, s.ages, true);
        *out += ", ";
        AgeJson(out, s.ages, false);
        *out += ", \"cold\": ";
        AppendJsonString(out, o.coldName);
        *out += ", \"depth\": ";
        *out += o.depth < 0 ? "null" : std::to_string(o.depth);
        *out += ", \"coldDirectories\": [";
        for (size_t i = 0; i < order.size(); i++) {
            const DirRow& d = s.dirs[order[i]];
            *out += i ? ",\n  {" : "\n  {";
            AppendJsonRowPath(out, s, order[i]);
            AppendFormat(
                out, ", \"depth\": %u, \"coldFiles\": %llu, \"coldBytes\": %llu, \"files\": %llu, \"bytes\": %llu}",
                d.depth, static_cast<unsigned long long>(d.coldFiles), static_cast<unsigned long long>(d.coldBytes),
                static_cast<unsigned long long>(d.total.files), static_cast<unsigned long long>(d.total.bytes));
        }
        *out += "\n]}\n";
        return;
    }
    AppendTextHead(out, s, "Detail file");
    *out +=
        "\nFiles (entries that are not directories) by age, measured back from the start of the scan\n"
        "(each hard-linked inode's size counts once)\n\n";
    AppendTable(out, AgeTable(s));
    *out += "\nDirectories holding the most cold bytes: files neither modified nor accessed for " + o.coldName +
            " or more,\nat any depth below the directory";
    if (o.depth >= 0) *out += Cat(" (directories at most ", std::to_string(o.depth), " levels below the root)");
    *out += "\n\n";
    TextTable c = ColdTable(s, o);
    if (c.rows.empty())
        *out += "  (none)\n";
    else
        AppendTable(out, c);
}

TextTable AgeTable(const ReportScan& s) {
    TextTable t{{"AGE", "MODIFIED", "SIZE", "BYTES", "ACCESSED", "SIZE", "BYTES"},
                {false, true, true, true, true, true, true},
                {}};
    t.sortBy = {SORT_ROWS, -1, 3, -1, -1, 6};  // ages sort as they grow, not as text
    for (const AgeRow& a : s.ages)
        t.rows.push_back({a.label, Number(a.modified.files), HumanSize(a.modified.bytes), Number(a.modified.bytes),
                          Number(a.accessed.files), HumanSize(a.accessed.bytes), Number(a.accessed.bytes)});
    return t;
}

TextTable ColdTable(const ReportScan& s, const PrintOptions& o) {
    TextTable c{{"COLD SIZE", "COLD BYTES", "COLD FILES", "OF SIZE", "PATH"}, {true, true, true, true, false}, {}};
    c.sortBy = {1};
    for (size_t i : RankedDirs(s.dirs, o, [](const DirRow& d) { return d.coldBytes; })) {
        const DirRow& d = s.dirs[i];
        c.rows.push_back({HumanSize(d.coldBytes), Number(d.coldBytes), Number(d.coldFiles),
                          Share(d.coldBytes, d.total.bytes), RowCell(s, i)});
    }
    return c;
}

// Kinds, largest first.
static std::array<size_t, KIND_COUNT> KindOrder(const ReportScan& s) {
    std::array<size_t, KIND_COUNT> kinds = {KIND_FILE, KIND_DIR, KIND_SYMLINK, KIND_OTHER};
    std::stable_sort(kinds.begin(), kinds.end(),
                     [&](size_t a, size_t b) { return s.kinds[a].bytes > s.kinds[b].bytes; });
    return kinds;
}

// What the extensions past the first shown add up to.
static Tally ExtensionRest(const ReportScan& s, size_t shown) {
    Tally rest;
    for (size_t i = shown; i < s.extensions.size(); i++) {
        rest.entries += s.extensions[i].tally.entries;
        rest.bytes += s.extensions[i].tally.bytes;
    }
    return rest;
}

void PrintTypes(std::string* out, const ReportScan& s, const PrintOptions& o) {
    size_t shown = std::min(s.extensions.size(), o.rows);
    if (o.json) {
        std::array<size_t, KIND_COUNT> kinds = KindOrder(s);
        Tally rest = ExtensionRest(s, shown);
        *out += "{\"command\": \"types\", ";
        AppendJsonHead(out, s);
        *out += ", \"kinds\": [";
        for (size_t i = 0; i < KIND_COUNT; i++)
            AppendFormat(out, "%s\n  {\"kind\": \"%s\", \"entries\": %llu, \"bytes\": %llu}", i ? "," : "",
                         KIND_KEYS[kinds[i]], static_cast<unsigned long long>(s.kinds[kinds[i]].entries),
                         static_cast<unsigned long long>(s.kinds[kinds[i]].bytes));
        *out += "\n], \"extensions\": [";
        for (size_t i = 0; i < shown; i++) {
            const ExtensionRow& e = s.extensions[i];
            *out += i ? ",\n  {" : "\n  {";
            AppendJsonMember(out, "extension", e.extension);
            AppendFormat(out, ", \"files\": %llu, \"bytes\": %llu}", static_cast<unsigned long long>(e.tally.entries),
                         static_cast<unsigned long long>(e.tally.bytes));
        }
        *out += "\n], \"extensionsOthers\": ";
        if (shown == s.extensions.size())
            *out += "null";
        else
            AppendFormat(out, "{\"count\": %zu, \"files\": %llu, \"bytes\": %llu}", s.extensions.size() - shown,
                         static_cast<unsigned long long>(rest.entries), static_cast<unsigned long long>(rest.bytes));
        *out += "}\n";
        return;
    }
    AppendTextHead(out, s, "Detail file");
    *out += "\nEntries by kind (each hard-linked inode's size counts once)\n\n";
    AppendTable(out, KindTable(s));
    *out += "\nRegular files by name extension, largest first (the text after the last dot, in lower case)\n\n";
    AppendTable(out, ExtensionsTable(s, o));
}

TextTable KindTable(const ReportScan& s) {
    TextTable k{{"KIND", "ENTRIES", "SIZE", "BYTES"}, {false, true, true, true}, {}};
    k.sortBy = {-1, -1, 3};
    for (size_t i : KindOrder(s))
        k.rows.push_back(
            {KIND_NAMES[i], Number(s.kinds[i].entries), HumanSize(s.kinds[i].bytes), Number(s.kinds[i].bytes)});
    return k;
}

TextTable ExtensionsTable(const ReportScan& s, const PrintOptions& o) {
    size_t shown = std::min(s.extensions.size(), o.rows);
    TextTable e{{"EXTENSION", "FILES", "SIZE", "BYTES", "OF SIZE"}, {false, true, true, true, true}, {}};
    e.sortBy = {-1, -1, 3, -1, 3};
    uint64_t all = s.kinds[KIND_FILE].bytes;
    for (size_t i = 0; i < shown; i++) {
        const ExtensionRow& x = s.extensions[i];
        e.rows.push_back({x.extension.empty() ? "(none)" : CellPath("." + x.extension), Number(x.tally.entries),
                          HumanSize(x.tally.bytes), Number(x.tally.bytes), Share(x.tally.bytes, all)});
    }
    if (shown < s.extensions.size()) {
        Tally rest = ExtensionRest(s, shown);
        e.rows.push_back({Cat("(", Number(s.extensions.size() - shown), " more)"), Number(rest.entries),
                          HumanSize(rest.bytes), Number(rest.bytes), Share(rest.bytes, all)});
        e.restRows = 1;
    }
    return e;
}
