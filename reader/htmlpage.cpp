// The page of dtldump's HTML report: the template filled with the scan's
// heading and totals, the report tables as HTML, the treemap's data, and the
// style sheet and script the program carries (reader/html/).
#include <string_view>
#include <utility>

#include "reader/htmlassets.h"
#include "reader/htmlreport.h"
#include "reader/textout.h"
#include "support/version.h"

void AppendHtmlText(std::string* out, std::string_view text) {
    for (char c : text) {
        switch (c) {
            case '&': *out += "&amp;"; break;
            case '<': *out += "&lt;"; break;
            case '>': *out += "&gt;"; break;
            case '"': *out += "&quot;"; break;
            case '\'': *out += "&#39;"; break;
            default: *out += c;
        }
    }
}

namespace {

// A name as the text reports write it (stray bytes as \xNN), then as HTML.
std::string HtmlName(std::string_view name) {
    std::string text, html;
    AppendEscaped(&text, name, false);
    AppendHtmlText(&html, text);
    return html;
}

std::string Html(std::string_view text) {
    std::string html;
    AppendHtmlText(&html, text);
    return html;
}

void AppendRow(std::string* out, const TextTable& t, const std::vector<std::string>& row) {
    *out += "<tr>";
    for (size_t c = 0; c < row.size(); c++) {
        *out += t.right[c] ? "<td class=\"n\">" : "<td>";
        AppendHtmlText(out, row[c]);
        *out += "</td>";
    }
    *out += "</tr>\n";
}

// One figure of the totals: its name, and the value with the exact count
// beneath when it is a size.
void AppendFigure(std::string* out, const char* name, uint64_t value, bool size) {
    *out += Cat("<div><dt>", name, "</dt><dd>");
    if (size)
        *out += Cat(HumanSize(value), "<span class=\"exact\">", Number(value), " bytes</span>");
    else
        *out += Number(value);
    *out += "</dd></div>\n";
}

// The log's totals: of the root header when the file is complete, else of
// the records read, which are all a partial report has.
std::string Totals(const ReportScan& s) {
    std::string out = "<dl class=\"totals\">\n";
    const DtlRootHeader& h = s.root;
    const DtlTotals& t = s.totals;
    bool whole = s.complete;
    AppendFigure(&out, "Total file size", whole ? h.totalFileSize : t.totalFileSize, true);
    AppendFigure(&out, "Directories", whole ? h.dirCount : t.dirHeaders, false);
    AppendFigure(&out, "Empty dirs", whole ? h.emptyDirCount : t.emptyDirHeaders, false);
    AppendFigure(&out, "Files", whole ? h.fileCount : t.files, false);
    AppendFigure(&out, "Symbolic links", whole ? h.symlinkCount : t.symlinks, false);
    AppendFigure(&out, "Hard links", whole ? h.hardLinkCount : t.hardLinks, false);
    if (h.volumeCapacity) {
        AppendFigure(&out, "Volume capacity", h.volumeCapacity, true);
        AppendFigure(&out, "Available space", h.availableSpace, true);
    }
    return out + "</dl>";
}

void Section(std::string* out, const char* id, const char* title, const std::string& explain) {
    *out += Cat("<section id=\"", id, "\" aria-labelledby=\"", id, "-title\">\n<h2 id=\"", id, "-title\">", title,
                "</h2>\n<p class=\"explain\">", explain, "</p>\n");
}

void Titled(std::string* out, const char* title, const TextTable& table) {
    *out += Cat("<div>\n<h3>", title, "</h3>\n");
    AppendHtmlTable(out, table);
    *out += "</div>\n";
}

std::string Tables(const ReportScan& s, const PrintOptions& o) {
    std::string out;
    std::string depth =
        o.depth < 0 ? "" : Cat(" Only directories at most ", Number(o.depth), " levels below the root.");
    Section(&out, "top", "Largest directories",
            "A directory's size and counts are those of every entry below it, at any depth; each hard-linked "
            "inode counts once, where the walk met it first." +
                depth);
    AppendHtmlTable(&out, TopTable(s, o));
    out += "</section>\n";
    Section(&out, "owners", "Owners",
            "Largest first. The detail file holds only user and group numbers; the names are looked up in the "
            "user and group databases of the machine that made this page (&quot;-&quot;: none there).");
    out += "<div class=\"tables\">\n";
    Titled(&out, "Users", OwnerTable(s.users, o, true));
    Titled(&out, "Groups", OwnerTable(s.groups, o, false));
    out += "</div>\n</section>\n";
    Section(&out, "ages", "Ages",
            "Files (entries that are not directories) by age, measured back from the start of the scan; each "
            "hard-linked inode's size counts once.");
    out += "<div class=\"tables\">\n";
    Titled(&out, "By last modification and last access", AgeTable(s));
    TextTable cold = ColdTable(s, o);
    std::string coldTitle = "Directories holding the most cold bytes: files neither modified nor accessed for " +
                            Html(o.coldName) + " or more, at any depth below the directory";
    if (cold.rows.empty())
        out += Cat("<div>\n<h3>", coldTitle, "</h3>\n<p>(none)</p>\n</div>\n");
    else
        Titled(&out, coldTitle.c_str(), cold);
    out += "</div>\n</section>\n";
    Section(&out, "types", "Types", "Each hard-linked inode's size counts once.");
    out += "<div class=\"tables\">\n";
    Titled(&out, "Entries by kind", KindTable(s));
    Titled(&out, "Regular files by name extension (the text after the last dot, in lower case)", ExtensionsTable(s, o));
    out += "</div>\n</section>\n";
    return out;
}

// The template with each {{NAME}} replaced by its value; the values are
// not searched again.
std::string Fill(std::string_view page, const std::vector<std::pair<std::string_view, std::string>>& values) {
    std::string out;
    size_t at = 0;
    for (size_t open; (open = page.find("{{", at)) != std::string_view::npos;) {
        size_t close = page.find("}}", open);
        if (close == std::string_view::npos) break;
        std::string_view name = page.substr(open + 2, close - open - 2);
        out.append(page.substr(at, open - at));
        bool known = false;
        for (const auto& [key, value] : values)
            if (key == name) {
                out += value;
                known = true;
            }
        if (!known) out.append(page.substr(open, close + 2 - open));
        at = close + 2;
    }
    out.append(page.substr(at));
    return out;
}

}  // namespace

void AppendHtmlTable(std::string* out, const TextTable& t) {
    *out += "<table class=\"sortable\">\n<thead><tr>";
    for (size_t c = 0; c < t.header.size(); c++) {
        int by = c < t.sortBy.size() ? t.sortBy[c] : -1;
        *out += t.right[c] ? "<th scope=\"col\" class=\"n\"" : "<th scope=\"col\"";
        if (by == SORT_ROWS)
            *out += " data-sort=\"rows\"";
        else if (by >= 0)
            *out += Cat(" data-by=\"", Number(static_cast<uint64_t>(by)), "\"");
        *out += '>';
        AppendHtmlText(out, t.header[c]);
        *out += "</th>";
    }
    *out += "</tr></thead>\n<tbody>\n";
    size_t ranked = t.rows.size() - std::min(t.restRows, t.rows.size());
    for (size_t r = 0; r < ranked; r++) AppendRow(out, t, t.rows[r]);
    *out += "</tbody>\n";
    if (ranked < t.rows.size()) {
        *out += "<tfoot>\n";
        for (size_t r = ranked; r < t.rows.size(); r++) AppendRow(out, t, t.rows[r]);
        *out += "</tfoot>\n";
    }
    *out += "</table>\n";
}

void AppendHtmlReport(std::string* out, const ReportScan& s, const HtmlOptions& o) {
    std::vector<MapCell> cells = MapCells(s, o.minShare);
    size_t carried = 0;
    for (const MapCell& c : cells) carried += !c.other;
    std::string root = HtmlName(s.strings.rootPath), node = HtmlName(s.strings.nodeName);
    std::string scan = Cat("on ", node, ", started ", HeadingTime(s.log.runTime), " &middot; detail file ",
                           HtmlName(s.path), s.compressed ? " (compressed)" : "");
    std::string note;
    std::string partial = PartialNote(s);
    for (size_t at = 0, end; (end = partial.find('\n', at)) != std::string::npos; at = end + 1)
        note += Cat("<p class=\"note\">", Html(partial.substr(at, end - at)), "</p>\n");
    char share[32];
    snprintf(share, sizeof share, "%g", o.minShare * 100);
    std::string bound =
        Cat("The treemap carries the ", Number(carried), " directories of at least ", share,
            " % of the root&#39;s size (of ", Number(s.dirs.size()),
            " in the scan); the rest of each directory, its own entries and the smaller subdirectories, is one "
            "cell, &quot;other&quot;. Click a directory to zoom in, the path above it to go back up.");
    *out += Fill(HTML_TEMPLATE, {
                                    {"SCRIPT_HASH", std::string(HTML_SCRIPT_HASH)},
                                    {"VERSION", FERROVAN_VERSION},
                                    {"TITLE", Cat("Scan of ", root, " on ", node)},
                                    {"STYLE", std::string(HTML_STYLE)},
                                    {"HEADING", "Scan of " + root},
                                    {"SCAN", scan},
                                    {"NOTE", note},
                                    {"TOTALS", Totals(s)},
                                    {"BOUND", bound},
                                    {"HISTORY", o.history},
                                    {"TABLES", Tables(s, o.print)},
                                    {"FOOTER", Cat("Made by dtldump of Ferrovan ", FERROVAN_VERSION,
                                                   ". Everything this page shows is in this one file: it "
                                                   "loads nothing else and needs no network.")},
                                    {"DATA", ScriptSafe(MapJson(s, cells, o))},
                                    {"SCRIPT", std::string(HTML_SCRIPT)},
                                });
}
