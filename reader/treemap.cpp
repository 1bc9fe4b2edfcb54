// The treemap's cells and their data for the HTML report: the directories
// that matter at the page's bound, the rest of each folded into one cell.
#include <algorithm>

#include "reader/htmlreport.h"
#include "reader/textout.h"

std::vector<MapCell> MapCells(const ReportScan& s, double minShare) {
    std::vector<MapCell> cells;
    if (s.dirs.empty()) return cells;
    const std::vector<DirRow>& dirs = s.dirs;
    // A directory is never larger than its parent: every carried directory's
    // parent is carried too, and the cells form a tree from the root.
    const double bound = minShare * static_cast<double>(dirs[0].total.bytes);
    std::vector<int32_t> cellOf(dirs.size(), -1);
    for (size_t i = 0; i < dirs.size(); i++) {
        uint64_t bytes = dirs[i].total.bytes;
        if (i != 0 && (bytes == 0 || static_cast<double>(bytes) < bound)) continue;
        cellOf[i] = static_cast<int32_t>(cells.size());
        MapCell& cell = cells.emplace_back();
        cell.row = static_cast<uint32_t>(i);
        cell.parent = i ? cellOf[dirs[i].parent] : -1;
        cell.tally = dirs[i].total;
        cell.newest = dirs[i].newest;
    }
    // Files as large as a carried directory are cells of their own; their
    // directories are at least as large, so carried.
    const size_t carried = cells.size();
    for (size_t f = 0; f < s.bigFiles.size(); f++) {
        const FileRow& file = s.bigFiles[f];
        if (file.bytes == 0 || static_cast<double>(file.bytes) < bound || cellOf[file.dir] < 0) continue;
        MapCell& cell = cells.emplace_back();
        cell.row = file.dir;
        cell.parent = cellOf[file.dir];
        cell.file = static_cast<int32_t>(f);
        cell.tally = {1, 1, file.bytes};
        cell.newest = file.mtime;
    }
    // What each carried directory holds beside its carried subdirectories and files:
    // its own entries, and the subdirectories folded with all below them.
    std::vector<MapCell> rest(carried);
    for (size_t c = 0; c < carried; c++) {
        const DirRow& d = dirs[cells[c].row];
        rest[c].row = cells[c].row;
        rest[c].parent = static_cast<int32_t>(c);
        rest[c].other = true;
        rest[c].tally = d.total;
        rest[c].newest = d.ownNewest;
    }
    for (size_t i = 1; i < dirs.size(); i++) {
        int32_t parentCell = cellOf[dirs[i].parent];
        if (parentCell < 0) continue;  // inside a folded directory: counted with it
        MapCell& r = rest[static_cast<size_t>(parentCell)];
        if (cellOf[i] >= 0) {
            r.tally.entries -= dirs[i].total.entries;
            r.tally.files -= dirs[i].total.files;
            r.tally.bytes -= dirs[i].total.bytes;
        } else {
            r.folded++;
            r.newest = std::max(r.newest, dirs[i].newest);
        }
    }
    for (const MapCell& c : cells) {
        if (c.file < 0) continue;
        Tally& r = rest[static_cast<size_t>(c.parent)].tally;
        r.entries--;
        r.files--;
        r.bytes -= c.tally.bytes;
    }
    for (const MapCell& r : rest)
        if (r.tally.entries) cells.push_back(r);
    return cells;
}

std::string MapJson(const ReportScan& s, const std::vector<MapCell>& cells, const HtmlOptions& o) {
    std::string json = "{\"rootPath\": ";
    std::string text;
    AppendEscaped(&text, s.strings.rootPath, false);
    AppendJsonString(&json, text);
    AppendFormat(&json, ", \"minShare\": %g, \"colour\": \"%s\", \"directories\": %zu, \"ages\": [", o.minShare,
                 o.colourByAge ? "age" : "top", s.dirs.size());
    for (size_t i = 0; i < s.ages.size(); i++) {
        if (i) json += ", ";
        AppendJsonString(&json, s.ages[i].label);
    }
    json += "],\n\"cells\": {";
    // One column at a time: a column of numbers is short to write and quick
    // for the page to read.
    bool first = true;
    auto column = [&](const char* name, auto value) {
        AppendFormat(&json, "%s\"%s\": [", first ? "" : ",\n", name);
        first = false;
        for (size_t i = 0; i < cells.size(); i++) {
            if (i) json += ',';
            value(cells[i]);
        }
        json += ']';
    };
    auto number = [&](uint64_t v) {
        char digits[24];
        json.append(digits, PutDecimal(digits, v));
    };
    column("name", [&](const MapCell& c) {
        text.clear();
        if (c.file >= 0) {
            std::string_view logical = s.bigFiles[c.file].logical;
            AppendEscaped(&text, logical.substr(logical.rfind('/') + 1), false);
        } else if (!c.other && c.parent >= 0) {
            AppendEscaped(&text, s.dirs[c.row].name, false);
        }
        AppendJsonString(&json, text);
    });
    column("parent", [&](const MapCell& c) { AppendFormat(&json, "%d", c.parent); });
    column("bytes", [&](const MapCell& c) { number(c.tally.bytes); });
    column("size", [&](const MapCell& c) { AppendJsonString(&json, HumanSize(c.tally.bytes)); });
    column("entries", [&](const MapCell& c) { number(c.tally.entries); });
    column("files", [&](const MapCell& c) { number(c.tally.files); });
    column("folded", [&](const MapCell& c) { AppendFormat(&json, "%d", c.other ? static_cast<int>(c.folded) : -1); });
    column("age", [&](const MapCell& c) {
        AppendFormat(&json, "%d", c.newest ? static_cast<int>(AgeRowOf(s.ages, s.log.runTime, c.newest)) : -1);
    });
    column("newest", [&](const MapCell& c) { number(c.newest); });
    column("file", [&](const MapCell& c) { json += c.file >= 0 ? '1' : '0'; });
    json += "}}";
    return json;
}

std::string ScriptSafe(std::string_view json) {
    std::string safe;
    safe.reserve(json.size() + json.size() / 16);
    for (size_t i = 0; i < json.size(); i++) {
        char c = json[i];
        if (c == '<' || c == '>' || c == '&') {
            AppendFormat(&safe, "\\u%04x", static_cast<unsigned char>(c));
        } else if (c == '\xE2' && i + 2 < json.size() && json[i + 1] == '\x80' &&
                   (json[i + 2] == '\xA8' || json[i + 2] == '\xA9')) {
            safe += json[i + 2] == '\xA8' ? "\\u2028" : "\\u2029";
            i += 2;
        } else {
            safe += c;
        }
    }
    return safe;
}
