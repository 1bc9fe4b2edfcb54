#!/usr/bin/env python3
"""dtldump's HTML report in headless Chromium (tests/support/chromium.py),
checked against figures this test computes from its own walk of the tree:
the directories and files the page carries, the treemap's areas, zooming by
clicks and back, the colour switch, sorting the tables, the page with
scripts off, and hostile names. A screenshot of each page is left in --out.

    html_browser_test.py --ferrovan BIN --dtldump BIN --out DIR --source DIR

Exits 77 (skipped) only when chromium is missing and scripts/setup.sh
cannot install it, saying why.
"""

import os
import shutil
import stat
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import chromium  # noqa: E402
import pyharness  # noqa: E402

ARGS = None
BROWSER = None  # the chromium binary
DAY = 86400
text_path = pyharness.escaped
make = pyharness.make


def scan_and_render(root, work, extra=()):
    """The page of a scan of root, and its path."""
    dtl = os.path.join(work, "scan.dtl")
    page = os.path.join(work, "report.html")
    subprocess.run([ARGS.ferrovan, root, "-dtl", dtl, "-f"], check=True, stdout=subprocess.DEVNULL)
    subprocess.run([ARGS.dtldump, "html", dtl, "-o", page] + list(extra), check=True)
    return page


class Page:
    """One page open in a browser, with the helpers the checks share."""

    def __init__(self, browser, path):
        self.b = browser
        self.url = browser.open(path)
        self.wait("document.body.dataset.view !== undefined")

    def js(self, expression):
        return self.b.evaluate(expression)

    def wait(self, expression, timeout=10):
        deadline = time.monotonic() + timeout
        while not self.js(expression):
            if time.monotonic() > deadline:
                raise AssertionError("the page never came to: " + expression)
            time.sleep(0.05)

    def data(self):
        return self.js("JSON.parse(document.getElementById('data').textContent)")

    def cells(self):
        """The drawn cells: index, the first line of the title, rectangle."""
        return self.js(
            "[...document.querySelectorAll('#map .cell')].map(e => { const r = e.getBoundingClientRect();"
            " return {i: +e.dataset.cell, path: e.title.split('\\n')[0], other: e.classList.contains('other'),"
            " file: e.classList.contains('file'),"
            " x: r.left, y: r.top, w: r.width, h: r.height, colour: getComputedStyle(e).backgroundColor}; })")

    def click_on(self, selector_js):
        """A real click in the middle of the element the expression finds."""
        r = self.js("(() => { const e = %s; e.scrollIntoView({block: 'center'}); const r = e.getBoundingClientRect();"
                    " return [r.left + r.width / 2, r.top + r.height / 2]; })()" % selector_js)
        self.b.click(r[0], r[1])

    def click_cell(self, path):
        """A real click on a directory's title strip (its own, not a child's)."""
        self.js("document.getElementById('map').scrollIntoView()")
        cell = [c for c in self.cells() if c["path"] == path and not c["other"]][0]
        self.b.click(cell["x"] + 5, cell["y"] + 5)

    def view(self):
        return int(self.js("document.body.dataset.view"))


def cell_paths(data):
    """The page's cells as the test names them: a directory's real path,
    "file" and a file's, or "other in" and its directory's."""
    c = data["cells"]

    def dir_path(j):
        names = []
        while j > 0:
            names.append(c["name"][j])
            j = c["parent"][j]
        return data["rootPath"] + "".join("/" + n for n in reversed(names))

    paths = []
    for i in range(len(c["name"])):
        if c["file"][i]:
            paths.append("file " + dir_path(c["parent"][i]) + "/" + c["name"][i])
        else:
            paths.append(dir_path(i) if c["folded"][i] < 0 else "other in " + dir_path(c["parent"][i]))
    return paths


class TreemapInTheBrowser(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="ferrovan-html-")
        cls.root = os.path.join(cls.tmp, "root").encode()
        now = int(time.time())
        old = now - 2000 * DAY
        r = cls.root
        for path, size, mtime in [
            (b"big/a.bin", 400000, old), (b"big/b.bin", 300000, old), (b"big/inner/c.bin", 200000, old),
            (b"big/inner/deep/d.bin", 100000, old), (b"big/inner/deep/e.bin", 30000, old),
            (b"mid/e.bin", 90000, None), (b"mid/x/f.bin", 60000, None), (b"mid/y/g.bin", 40000, None),
            (b"small/h.txt", 20000, None), (b"top.dat", 50000, None),
        ]:
            make(os.path.join(r, path), size, mtime)
        os.link(os.path.join(r, b"mid/e.bin"), os.path.join(r, b"mid/e-again.bin"))  # counts once
        # Forty directories far below the bound: folded into one cell.
        for n in range(40):
            make(os.path.join(r, b"many/%d/f" % n), 300)
        for d in (b"big/inner/deep", b"big/inner", b"big"):
            os.utime(os.path.join(r, d), (old, old))
        cls.page = scan_and_render(cls.root.decode(), cls.tmp)
        tree = pyharness.walk(cls.root)
        cls.dirs = pyharness.figures(tree)  # [entries, files, bytes, ...] below each directory
        cls.rootText = os.path.realpath(cls.root).decode()
        cls.files = {cls.rootText + (d + b"/" + n).decode(): st.st_size for d, n, st, counted in tree
                     if counted and stat.S_ISREG(st.st_mode)}  # each hard-linked inode at its first name
        cls.browser = chromium.Browser(BROWSER, 1280, 900)
        cls.p = Page(cls.browser, cls.page)

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()
        shutil.rmtree(cls.tmp)

    def setUp(self):
        self.p.js("location.hash = ''")
        self.p.wait("document.body.dataset.view === '0'")

    def bytes_of(self, path):
        """The test's own bytes for a cell named as cell_paths names it."""
        carried = set(cell_paths(self.p.data()))
        if path.startswith("file "):
            return self.files[path[5:]]
        if not path.startswith("other in "):
            return self.dirs[self.logical(path)][2]
        d = self.logical(path[len("other in "):])
        kids = [k for k in self.dirs if k.startswith(d + b"/") and b"/" not in k[len(d) + 1:]]
        files = [f for f in self.files if os.path.dirname(f) == path[len("other in "):]]
        return (self.dirs[d][2] - sum(self.dirs[k][2] for k in kids if self.real(k) in carried)
                - sum(self.files[f] for f in files if "file " + f in carried))

    def logical(self, path):
        return path[len(self.rootText):].encode()

    def real(self, logical):
        return self.rootText + logical.decode()

    def test_carries_the_directories_above_the_bound_with_their_figures(self):
        data = self.p.data()
        root_bytes = self.dirs[b""][2]
        expected = {self.real(d) for d, f in self.dirs.items() if not d or (f[2] and f[2] >= 0.001 * root_bytes)}
        paths = cell_paths(data)
        self.assertEqual({p for p in paths if not p.startswith(("other", "file "))}, expected)
        self.assertNotIn(self.real(b"/many/7"), paths)  # folded
        # Files as large each a cell of their own, the hard-linked one at one name.
        self.assertEqual({p[5:] for p in paths if p.startswith("file ")},
                         {f for f, size in self.files.items() if size >= 0.001 * root_bytes})
        self.assertIn("file " + self.real(b"/top.dat"), paths)
        c = data["cells"]
        for i, path in enumerate(paths):
            with self.subTest(path=path):
                self.assertEqual(c["bytes"][i], self.bytes_of(path))
                if not path.startswith(("other", "file ")):
                    f = self.dirs[self.logical(path)]
                    self.assertEqual([c["entries"][i], c["files"][i]], f[:2])
        self.assertEqual(c["folded"][paths.index("other in " + self.real(b"/many"))], 40)

    def check_areas(self, view):
        """Each drawn cell's area against its share of the directory it lies in."""
        cells = self.p.cells()
        data = self.p.data()
        paths = cell_paths(data)
        width, height = self.p.js("[document.getElementById('map').clientWidth, document.getElementById('map').clientHeight]")
        parent = data["cells"]["parent"]
        top = [c for c in cells if parent[c["i"]] == view]
        self.assertGreaterEqual(len(top), 2)
        view_bytes = self.bytes_of(paths[view])
        # The shown directory's cells fill the map, each by its share.
        for c in top:
            with self.subTest(path=paths[c["i"]]):
                expected = width * height * self.bytes_of(paths[c["i"]]) / view_bytes
                self.assertAlmostEqual(c["w"] * c["h"], expected, delta=(c["w"] + c["h"]) / 32 + 0.5)
        # Cells drawn inside a cell share its inner area by size.
        inner = {}
        for c in cells:
            if parent[c["i"]] != view:
                inner.setdefault(parent[c["i"]], []).append(c)
        self.assertTrue(inner, "no directory drawn with its contents")
        for kids in inner.values():
            area = sum(k["w"] * k["h"] for k in kids)
            size = sum(self.bytes_of(paths[k["i"]]) for k in kids)
            for k in kids:
                with self.subTest(path=paths[k["i"]]):
                    self.assertAlmostEqual(k["w"] * k["h"], area * self.bytes_of(paths[k["i"]]) / size,
                                           delta=(k["w"] + k["h"]) / 16 + 1)

    def test_rectangles_have_areas_proportional_to_the_sizes(self):
        self.check_areas(0)
        shot = os.path.join(ARGS.out, "html-report.png")
        self.browser.screenshot(shot)
        self.assertGreater(os.path.getsize(shot), 10000)

    def test_a_click_zooms_in_and_the_path_above_goes_back(self):
        paths = cell_paths(self.p.data())
        big = paths.index(self.real(b"/big"))
        self.p.click_cell(self.real(b"/big"))
        self.p.wait("document.body.dataset.view === '%d'" % big)
        self.assertEqual(self.p.js("document.getElementById('crumbs').textContent"), self.rootText + "\u203Abig")
        self.check_areas(big)
        self.browser.screenshot(os.path.join(ARGS.out, "html-report-zoomed.png"))
        # One level deeper, then the browser's Back button, then the path.
        self.p.click_cell(self.real(b"/big/inner"))
        self.p.wait("document.body.dataset.view === '%d'" % paths.index(self.real(b"/big/inner")))
        self.p.js("history.back()")
        self.p.wait("document.body.dataset.view === '%d'" % big)
        self.p.click_on("document.querySelector('#crumbs button')")
        self.p.wait("document.body.dataset.view === '0'")
        self.assertEqual(self.p.js("document.getElementById('crumbs').textContent"), self.rootText)

    def test_colour_switch_shows_the_age_of_the_latest_modification(self):
        self.p.click_on("document.querySelector('input[value=age]')")
        self.p.wait("document.getElementById('legend').textContent.startsWith('< 1m')")
        swatch = dict(self.p.js("[...document.querySelectorAll('#legend span')]"
                                ".map(s => [s.textContent, s.style.getPropertyValue('--swatch')])"))
        colours = {c["path"]: c["colour"] for c in self.p.cells() if not c["other"]}
        self.assertEqual(colours[self.real(b"/big")], swatch[">= 3y"])  # nothing below it newer than 2000 days
        self.assertEqual(colours[self.real(b"/mid")], swatch["< 1m"])
        self.p.click_on("document.querySelector('input[value=top]')")
        self.p.wait("!document.getElementById('legend').textContent.startsWith('< 1m')")
        self.assertNotEqual({c["path"]: c["colour"] for c in self.p.cells() if not c["other"]}, colours)

    def column(self, table, n):
        return self.p.js("[...document.querySelector('%s').tBodies[0].rows].map(r => r.cells[%d].textContent)"
                         % (table, n))

    def sort_by(self, table, header):
        self.p.click_on("[...document.querySelectorAll('%s th')].find(h => h.textContent.startsWith('%s'))"
                        " .querySelector('button')" % (table, header))

    def test_tables_sort_by_their_headers(self):
        top = "#top table"
        entries = lambda: [int(v) for v in self.column(top, 2)]
        self.sort_by(top, "ENTRIES")
        self.assertEqual(entries(), sorted(entries(), reverse=True))
        self.sort_by(top, "ENTRIES")
        self.assertEqual(entries(), sorted(entries()))
        self.assertNotEqual(entries(), sorted(entries(), reverse=True))
        self.sort_by(top, "PATH")
        self.assertEqual(self.column(top, 5), sorted(self.column(top, 5)))
        self.sort_by(top, "SIZE")  # by the exact bytes beside it
        self.assertEqual([int(v) for v in self.column(top, 1)], sorted((int(v) for v in self.column(top, 1)), reverse=True))
        # Ages sort as they grow, not as text.
        ages = "#ages table"
        made = self.column(ages, 0)
        self.sort_by(ages, "MODIFIED")
        self.sort_by(ages, "AGE")
        self.assertEqual(self.column(ages, 0), made)
        self.sort_by(ages, "AGE")
        self.assertEqual(self.column(ages, 0), made[::-1])

    def test_tables_read_without_scripts_and_nothing_is_fetched(self):
        requests = [e["request"]["url"] for e in self.browser.events_of("Network.requestWillBeSent")]
        self.assertEqual(set(requests), {self.p.url})
        errors = [e for e in self.browser.events_of("Runtime.exceptionThrown")]
        errors += [e for e in self.browser.events_of("Log.entryAdded") if e["entry"]["level"] == "error"]
        self.assertEqual(errors, [])
        # With scripts off, the page as the program wrote it: the tables, no map.
        self.browser.scripts(False)
        try:
            self.browser.open(self.page)
            root = self.browser.call("DOM.getDocument", {"depth": 0})["root"]["nodeId"]
            html = self.browser.call("DOM.getOuterHTML", {"nodeId": root})["outerHTML"]
        finally:
            self.browser.scripts(True)
            self.browser.open(self.page)
            self.p.wait("document.body.dataset.view !== undefined")
        self.assertIn("<td>%s</td>" % self.real(b"/big/inner"), html)
        self.assertIn("<td>%s</td>" % self.real(b"/many"), html)
        self.assertNotIn('class="cell', html)
        self.assertNotIn("<button", html)


class HostileNames(unittest.TestCase):
    NAMES = [b"<script>alert(1)<", b"q\"uo'te&amp;", "sep\u2028line\u2029".encode(), b"bad\xff\xfe",
             b"<img src=x onerror=alert(2)>", b"new\nline", b"<!--"]

    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.mkdtemp(prefix="ferrovan-html-")
        cls.root = os.path.join(cls.tmp.encode(), b"r<script>alert(3)<")
        for n, name in enumerate(cls.NAMES):
            make(os.path.join(cls.root, name, b"x.<b>" if n == 0 else b"f"), 100000 * (n + 1))
        make(os.path.join(cls.root, cls.NAMES[0], b"script>", b"g"), 50000)  # the path holds "</script>"
        cls.page = scan_and_render(cls.root.decode("utf-8", "surrogateescape"), cls.tmp, ["--min-share", "0"])
        cls.browser = chromium.Browser(BROWSER, 1280, 900)
        cls.p = Page(cls.browser, cls.page)
        cls.rootText = text_path(os.path.realpath(cls.root))

    @classmethod
    def tearDownClass(cls):
        cls.browser.close()
        shutil.rmtree(cls.tmp)

    def test_names_render_as_text_and_run_nothing(self):
        self.browser.screenshot(os.path.join(ARGS.out, "html-report-hostile.png"))
        self.assertEqual(self.browser.events_of("Page.javascriptDialogOpening"), [])
        self.assertEqual(self.p.js("[document.scripts.length, document.querySelectorAll('img, [onerror]').length]"),
                         [2, 0])
        self.assertEqual(self.p.js("document.title"), "Scan of %s on %s" % (self.rootText, os.uname().nodename))
        expected = {self.rootText + "/" + text_path(n) for n in self.NAMES}
        expected.add(self.rootText + "/" + text_path(self.NAMES[0]) + "/script>")
        drawn = {c["path"] for c in self.p.cells() if not c["other"] and not c["file"]}
        self.assertEqual(drawn, expected)
        # The files, each a cell of its own, named as text too.
        files = {c["path"] for c in self.p.cells() if c["file"]}
        self.assertIn(self.rootText + "/" + text_path(self.NAMES[0]) + "/x.<b>", files)
        self.assertIn(self.rootText + "/" + text_path(self.NAMES[5]) + "/f", files)
        shown = set(self.p.js("[...document.querySelector('#top table').tBodies[0].rows].map(r => r.cells[5].textContent)"))
        self.assertEqual(shown - {self.rootText}, expected)
        self.assertIn(".<b>", self.p.js("document.getElementById('types').textContent"))
        # Zoomed into the directory whose path holds "</script>": the path above says so, as text.
        self.p.click_cell(self.rootText + "/" + text_path(self.NAMES[0]))
        self.p.wait("document.body.dataset.view !== '0'")
        self.assertEqual(self.p.js("document.getElementById('crumbs').textContent"),
                         self.rootText + "\u203A" + text_path(self.NAMES[0]))
        self.assertEqual(self.browser.events_of("Page.javascriptDialogOpening"), [])


if __name__ == "__main__":
    ARGS = pyharness.start(("ferrovan", "dtldump", "out", "source"), "chromium", chromium.find_chromium, "--browser")
    BROWSER = chromium.find_chromium()
    print("browser:", BROWSER)
    os.makedirs(ARGS.out, exist_ok=True)
    pyharness.run_tests()
