#include "reader/history.h"

#include <algorithm>
#include <cstdint>

#include "reader/htmlreport.h"
#include "reader/multiscan.h"
#include "reader/textout.h"

namespace {

// The followed directories' sizes in one scan: the root is row 0, the
// top-level directories are found by name among the rows of depth 1.
std::vector<int64_t> SizesIn(const ReportScan& scan, const std::vector<std::string>& paths) {
    std::vector<int64_t> sizes(paths.size(), -1);
    if (scan.dirs.empty()) return sizes;
    sizes[0] = static_cast<int64_t>(scan.dirs[0].total.bytes);
    for (const DirRow& d : scan.dirs) {
        if (d.depth != 1) continue;
        for (size_t p = 1; p < paths.size(); p++)
            if (std::string_view(paths[p]).substr(1) == d.name) sizes[p] = static_cast<int64_t>(d.total.bytes);
    }
    return sizes;
}

std::string Svg(const History& h, size_t row) {
    constexpr double W = 160, H = 36, PAD = 3;
    int64_t t0 = h.scans.front().log.runTime, t1 = h.scans.back().log.runTime;
    // Each line spans its own smallest to largest size: a month's growth of
    // a large directory is a small share of it, and must still show.
    int64_t low = INT64_MAX, high = 0;
    for (int64_t b : h.bytes[row])
        if (b >= 0) {
            low = std::min(low, b);
            high = std::max(high, b);
        }
    std::string points, dots;
    for (size_t i = 0; i < h.scans.size(); i++) {
        int64_t b = h.bytes[row][i];
        if (b < 0) continue;
        double x = t1 > t0 ? PAD + (W - 2 * PAD) * static_cast<double>(h.scans[i].log.runTime - t0) /
                                       static_cast<double>(t1 - t0)
                           : W / 2;
        double y = high > low ? H - PAD - (H - 2 * PAD) * static_cast<double>(b - low) / static_cast<double>(high - low)
                              : H / 2;
        AppendFormat(&points, "%s%.1f,%.1f", points.empty() ? "" : " ", x, y);
        AppendFormat(&dots, "<circle cx=\"%.1f\" cy=\"%.1f\" r=\"2.5\"><title>", x, y);
        AppendHtmlText(&dots, Cat(HeadingTime(h.scans[i].log.runTime), ": ", HumanSize(static_cast<uint64_t>(b)), " (",
                                  Number(static_cast<uint64_t>(b)), " bytes)"));
        dots += "</title></circle>";
    }
    return Cat("<svg width=\"160\" height=\"36\" viewBox=\"0 0 160 36\" role=\"img\" aria-label=\"size over time\">",
               "<polyline fill=\"none\" stroke=\"currentColor\" stroke-width=\"1.5\" points=\"", points, "\"/>",
               "<g fill=\"currentColor\">", dots, "</g></svg>");
}

}  // namespace

bool ReadHistory(const ReportScan& page, const std::vector<const char*>& files, bool partial, History* h,
                 std::string* error) {
    std::vector<ReportScan> heads;
    if (!ReadHeads(files, partial, &heads, error)) return false;
    for (const ReportScan& s : heads)
        if (!SameTree(s, page)) {
            *error = "--history takes earlier scans of the page's tree (its root on its node): " + TreesOf(page, s);
            return false;
        }
    // The root and the largest top-level directories of the page's scan.
    h->paths.push_back("/");
    PrintOptions top;
    top.depth = 1;
    top.rows = HISTORY_ROWS + 1;
    for (size_t i : RankedDirs(page.dirs, top, [](const DirRow& d) { return d.total.bytes; }))
        if (i != 0 && h->paths.size() <= HISTORY_ROWS) h->paths.push_back("/" + page.dirs[i].name);
    std::vector<std::vector<int64_t>> perScan;
    ReportOptions options;
    options.dirs = true;
    options.partial = partial;
    for (const char* file : files) {
        ReportScan scan;
        if (!ReadReport(file, options, &scan)) {
            *error = FaultLine(scan);
            return false;
        }
        perScan.push_back(SizesIn(scan, h->paths));
        h->scans.push_back(HeadOf(scan));
    }
    perScan.push_back(SizesIn(page, h->paths));
    h->scans.push_back(HeadOf(page));
    std::vector<size_t> order(h->scans.size());
    for (size_t i = 0; i < order.size(); i++) order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t a, size_t b) { return h->scans[a].log.runTime < h->scans[b].log.runTime; });
    std::vector<ReportScan> scans;
    h->bytes.assign(h->paths.size(), {});
    for (size_t i : order) {
        scans.push_back(std::move(h->scans[i]));
        for (size_t p = 0; p < h->paths.size(); p++) h->bytes[p].push_back(perScan[i][p]);
    }
    h->scans = std::move(scans);
    return true;
}

std::string HistoryHtml(const History& h) {
    const ReportScan &first = h.scans.front(), &last = h.scans.back();
    double days = (static_cast<double>(last.log.runTime) - first.log.runTime) / 86400.0;
    std::string out =
        Cat("<div id=\"history\">\n<h3>Size over time</h3>\n<p class=\"explain\">", Number(h.scans.size()),
            " scans of this tree, from ", HeadingTime(first.log.runTime), " to ", HeadingTime(last.log.runTime),
            ": the root and its largest directories, each line from its own smallest size (bottom) to its "
            "largest (top; flat: unchanged). Hover a point for its scan and size. &quot;-&quot;: not in that "
            "scan.</p>\n");
    out +=
        "<table>\n<thead><tr><th scope=\"col\">PATH</th><th scope=\"col\">OVER TIME</th>"
        "<th scope=\"col\" class=\"n\">FIRST</th><th scope=\"col\" class=\"n\">LAST</th>"
        "<th scope=\"col\" class=\"n\">CHANGE</th><th scope=\"col\" class=\"n\">PER DAY</th></tr></thead>\n<tbody>\n";
    for (size_t p = 0; p < h.paths.size(); p++) {
        int64_t a = h.bytes[p].front(), b = h.bytes[p].back();
        int64_t change = std::max<int64_t>(b, 0) - std::max<int64_t>(a, 0);
        auto size = [](int64_t x) { return x < 0 ? std::string("-") : HumanSize(static_cast<uint64_t>(x)); };
        std::string path;
        AppendEscaped(&path, FullPath(last.strings.rootPath, h.paths[p]), false);
        out += "<tr><td>";
        AppendHtmlText(&out, path);
        out += Cat("</td><td>", Svg(h, p), "</td><td class=\"n\">", size(a), "</td><td class=\"n\">", size(b),
                   "</td><td class=\"n\">", SignedSize(change), "</td><td class=\"n\">",
                   days > 0 ? SignedSize(PerDay(change, days)) : "-", "</td></tr>\n");
    }
    return out + "</tbody>\n</table>\n</div>";
}
