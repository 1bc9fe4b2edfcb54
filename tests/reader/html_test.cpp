// The HTML report's page as the program writes it: escaping for the script
// element and for HTML, the treemap's bound and the folding into "other",
// the page whole with hostile names (its command line is in
// commands_test.cpp). What the page does in a browser is
// tests/reader/html_browser_test.py.
#include <gtest/gtest.h>

#include <algorithm>

#include "reader/htmlreport.h"
#include "reader/textout.h"
#include "tests/reader/scantree.h"
#include "tests/support/dtlbuilder.h"

namespace {

TEST(HtmlReport, EscapesForTheScriptElementAndForHtml) {
    struct Case {
        std::string in, script, html;
    } cases[] = {
        {"plain caf\xC3\xA9", "plain caf\xC3\xA9", "plain caf\xC3\xA9"},
        {"</script><!--", "\\u003c/script\\u003e\\u003c!--", "&lt;/script&gt;&lt;!--"},
        {"a&b \"q\" 'a'", "a\\u0026b \"q\" 'a'", "a&amp;b &quot;q&quot; &#39;a&#39;"},
        // The line and paragraph separators; U+2027 beside them stays.
        {"x\xE2\x80\xA8y\xE2\x80\xA9z\xE2\x80\xA7", "x\\u2028y\\u2029z\xE2\x80\xA7",
         "x\xE2\x80\xA8y\xE2\x80\xA9z\xE2\x80\xA7"},
        {"\xE2\x80", "\xE2\x80", "\xE2\x80"},  // cut short: nothing to match
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.in);
        EXPECT_EQ(ScriptSafe(c.in), c.script);
        std::string html;
        AppendHtmlText(&html, c.in);
        EXPECT_EQ(html, c.html);
    }
}

// A tree of directory rows by hand: each own tally, the totals added up.
struct Dir {
    const char* path;
    uint64_t ownEntries, ownFiles, ownBytes;
    uint32_t ownNewest;
};

ReportScan HandScan(const std::vector<Dir>& tree) {
    ReportScan s;
    for (const Dir& d : tree) {
        DirRow& row = s.dirs.emplace_back();
        std::string path = d.path;
        row.name = path == "/" ? "" : path.substr(path.rfind('/') + 1);
        std::string parent = path.substr(0, std::max<size_t>(path.rfind('/'), 1));
        for (size_t i = 0; i < s.dirs.size() - 1; i++)
            if (path != "/" && DirPath(s.dirs, i) == parent) row.parent = static_cast<uint32_t>(i);
        row.own = {d.ownEntries, d.ownFiles, d.ownBytes};
        row.total = row.own;
        row.ownNewest = row.newest = d.ownNewest;
    }
    for (size_t i = s.dirs.size(); i-- > 1;) {
        DirRow& p = s.dirs[s.dirs[i].parent];
        p.total += s.dirs[i].total;
        p.newest = std::max(p.newest, s.dirs[i].newest);
    }
    return s;
}

TEST(HtmlReport, CarriesDirectoriesDownToTheBoundAndFoldsTheRest) {
    // Sizes: / 10000, /a 6000, /a/a1 4000, /a/a2 1000, /b 3000, /b/b1 5,
    // /c 890, /d 10, /e 0 (one empty file). Two files are large enough to
    // be cells of their own at some bounds: /a/f (600) and /b/x (2000).
    ReportScan scan = HandScan({{"/", 3, 1, 100, 50},
                                      {"/a", 3, 1, 1000, 10},
                                      {"/a/a1", 1, 1, 4000, 900},
                                      {"/a/a2", 1, 1, 1000, 20},
                                      {"/b", 2, 1, 2995, 30},
                                      {"/b/b1", 1, 1, 5, 700},
                                      {"/c", 1, 1, 890, 40},
                                      {"/d", 1, 1, 10, 800},
                                      {"/e", 1, 1, 0, 600}});
    ASSERT_EQ(scan.dirs[0].total.bytes, 10000u);
    scan.bigFiles = {{"/a/f", 600, 0, 1, 0, 0, 0}, {"/b/x", 2000, 0, 4, 0, 0, 0}};
    struct Case {
        double share;
        std::vector<std::string> cells;  // "path bytes" or "other path bytes folded newest"
    } cases[] = {
        {1.0, {"/ 10000", "other / 10000 5 900"}},
        // At the bound exactly (/a/a2: 1000 of 10000) a directory is carried.
        {0.1,
         {"/ 10000", "/a 6000", "/a/a1 4000", "/a/a2 1000", "/b 3000", "file /b/x 2000", "other / 1000 3 800",
          "other /a 1000 0 10", "other /a/a1 4000 0 900", "other /a/a2 1000 0 20", "other /b 1000 1 700"}},
        // No bound: every directory but the empty one, each with its own entries.
        {0.0,
         {"/ 10000", "/a 6000", "/a/a1 4000", "/a/a2 1000", "/b 3000", "/b/b1 5", "/c 890", "/d 10",
          "file /a/f 600", "file /b/x 2000", "other / 100 1 600", "other /a 400 0 10", "other /a/a1 4000 0 900",
          "other /a/a2 1000 0 20", "other /b 995 0 30", "other /b/b1 5 0 700", "other /c 890 0 40",
          "other /d 10 0 800"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.share);
        std::vector<MapCell> cells = MapCells(scan, c.share);
        // Each cell follows the directory it lies in. That a directory's
        // cells add up to it shows in the bytes below; the fuzz target
        // checks every figure of it on every tree it makes.
        std::vector<std::string> got;
        for (size_t i = 0; i < cells.size(); i++) {
            const MapCell& m = cells[i];
            std::string path = DirPath(scan.dirs, m.row);
            if (m.file >= 0)
                got.push_back(Cat("file ", scan.bigFiles[m.file].logical, " ", std::to_string(m.tally.bytes)));
            else
                got.push_back(m.other ? Cat("other ", path, " ", std::to_string(m.tally.bytes), " ",
                                            std::to_string(m.folded), " ", std::to_string(m.newest))
                                      : Cat(path, " ", std::to_string(m.tally.bytes)));
            ASSERT_TRUE(m.parent < static_cast<int32_t>(i) && (m.parent < 0 || !cells[m.parent].other));
            if (!m.other && m.file < 0) {
                EXPECT_EQ(m.newest, scan.dirs[m.row].newest) << path;
            }
        }
        EXPECT_EQ(got, c.cells);
    }
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += what.size()) n++;
    return n;
}

TEST(HtmlReport, NoNameEndsAnElementOrBecomesMarkup) {
    // A scan whose names try to break out of every context the page puts
    // them in. A name holds no slash, so "</script>" is a path: the
    // directory "<script>alert(1)<" holds "script>".
    FakeScan s;
    s.rootPath = "/srv/<b>root</b>";
    s.nodeName = "n\"ode<";
    const std::vector<std::string> names = {"<script>alert(1)<",
                                            "q\"uo'te&amp;",
                                            "sep\xE2\x80\xA8line\xE2\x80\xA9",
                                            "bad\xff\xfe",
                                            "<!--",
                                            "{{DATA}}",
                                            "<img src=x onerror=alert(2)>"};
    auto dir = [](const std::string& name, uint32_t inode) {
        return FakeEntry{.name = name, .mode = S_IFDIR | 0755, .size = 4096, .links = 2, .inode = inode};
    };
    uint32_t inode = 100;
    FakeDir root{"/", {}};
    for (const std::string& name : names) root.entries.push_back(dir(name, inode++));
    s.dirs.push_back(root);
    for (size_t i = 0; i < names.size(); i++) {
        FakeDir d{"/" + names[i],
                  {{.name = i ? "f" + std::to_string(i) : "f.<scr", .size = 100000 * (i + 1), .inode = inode++}}};
        if (i == 0) d.entries.push_back(dir("script>", inode++));
        s.dirs.push_back(d);
        if (i == 0) s.dirs.push_back({"/<script>alert(1)</script>", {{.name = "g", .size = 5000, .inode = inode++}}});
    }
    ScopedTempDir tmp;
    std::string file = tmp / "hostile.dtl";
    WriteFile(file, BuildDetail(s).bytes);
    ReportScan scan;
    ReportOptions all{.dirs = true, .owners = true, .ages = true, .types = true};
    ASSERT_TRUE(ReadReport(file.c_str(), all, &scan)) << scan.fault.message;
    std::string page;
    HtmlOptions options;
    options.minShare = 0;
    AppendHtmlReport(&page, scan, options);

    // Our two scripts and nothing else; every placeholder filled, and no
    // name taken for one.
    EXPECT_EQ(Count(page, "<script"), 2u);
    EXPECT_EQ(Count(page, "</script"), 2u);
    EXPECT_EQ(Count(page, "<b>"), 0u);
    EXPECT_EQ(Count(page, "<img"), 0u);
    EXPECT_EQ(Count(page, "{{"), 2u);  // the name, in the top table and in the data
    EXPECT_EQ(Count(page, "{{DATA}}"), 2u);
    EXPECT_TRUE(IsUtf8(page)) << "a stray byte reached the page";
    EXPECT_NE(page.find("<title>Scan of /srv/&lt;b&gt;root&lt;/b&gt; on n&quot;ode&lt;</title>"), std::string::npos);
    // Names in the tables: as the text reports write them, then as HTML.
    for (const char* cell : {"<td>/srv/&lt;b&gt;root&lt;/b&gt;/&lt;script&gt;alert(1)&lt;/script&gt;</td>",
                             "<td>/srv/&lt;b&gt;root&lt;/b&gt;/q&quot;uo&#39;te&amp;amp;</td>",
                             "<td>/srv/&lt;b&gt;root&lt;/b&gt;/bad\\xff\\xfe</td>",
                             "<td>/srv/&lt;b&gt;root&lt;/b&gt;/{{DATA}}</td>", "<td>.&lt;scr</td>"})
        EXPECT_NE(page.find(cell), std::string::npos) << cell;

    // The data: nothing in it that the HTML parser reads; as JSON, the
    // names the reports write.
    const std::string open = "<script type=\"application/json\" id=\"data\">";
    ASSERT_NE(page.find(open), std::string::npos);
    const size_t from = page.find(open) + open.size();
    const std::string data = page.substr(from, page.find("</script>", from) - from);
    for (const char* banned : {"<", ">", "&", "\xE2\x80\xA8", "\xE2\x80\xA9"})
        EXPECT_EQ(data.find(banned), std::string::npos) << banned;
    const char* readNames =
        "import json, sys; d = json.loads(sys.stdin.read()); print(d['rootPath']);"
        " print('\\n'.join(sorted(set(d['cells']['name']) - {''})))";
    EXPECT_EQ(Python(readNames, data),
              "/srv/<b>root</b>\n<!--\n<img src=x onerror=alert(2)>\n<script>alert(1)<\nbad\\xff\\xfe\n"
              "q\"uo'te&amp;\nscript>\nsep\xE2\x80\xA8line\xE2\x80\xA9\n{{DATA}}\n");
}

}  // namespace
