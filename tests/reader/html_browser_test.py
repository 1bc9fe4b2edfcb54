#!/usr/bin/env python3
"""dtldump's HTML report in a real browser.

Builds a tree, scans it with the real Ferrovan, writes the page with the real
dtldump and opens it in headless Chromium (tests/support/chromium.py, the
DevTools protocol on a pipe). What the browser shows is checked against
figures this test computes from its own walk of the tree: which directories
the page carries, the treemap's rectangles with areas proportional to the
sizes, a zoom by a real click and the way back by the path above the map
and by the browser's Back, the colour switch, the tables sorted by clicks
on their headers and readable with scripts off, no request beyond the file
itself; then hostile names render as text and run nothing. A screenshot of
each page is left in --out.

    html_browser_test.py --ferrovan BIN --dtldump BIN --out DIR --source DIR

Exits 77 (skipped) only when chromium is missing and scripts/setup.sh
cannot install it, saying why.
"""

import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import chromium  # noqa: E402
import names  # noqa: E402

ARGS = None
BROWSER = None  # the chromium binary
DAY = 86400


def text_path(name):
    """A name (bytes) as the text reports write it."""
    return names.escaped(name)


def walk(root):
    """Every directory below root (bytes paths, b"" for the root) with the
    entries, files and bytes below it, each hard-linked inode once."""
    dirs = {b"": [0, 0, 0]}
    seen = set()
    for top, subdirs, files in os.walk(root):
        logical = os.path.relpath(top, root)
        logical = b"" if logical == b"." else b"/" + logical
        for name in subdirs + files:
            st = os.lstat(os.path.join(top, name))
            inode = st.st_ino & 0xFFFFFFFF
            counted = st.st_nlink < 2 or inode not in seen
            seen.add(inode)
            is_dir = name in subdirs and not os.path.islink(os.path.join(top, name))
            if is_dir:
                dirs.setdefault(logical + b"/" + name, [0, 0, 0])
            # Everything counts in its directory and every directory above.
            at = logical
            while True:
                d = dirs[at]
                d[0] += 1
                d[1] += 0 if is_dir else 1
                d[2] += st.st_size if counted else 0
                if not at:
                    break
                at = at[: at.rfind(b"/")]
    return dirs


def counted_files(root):
    """Every file below root (real path, str) with its size, each
    hard-linked inode at its first name in the walk's order."""
    files, seen = {}, set()
    for top, subdirs, names in os.walk(root):
        for name in names:
            path = os.path.join(top, name)
            st = os.lstat(path)
            inode = st.st_ino & 0xFFFFFFFF
            if st.st_nlink < 2 or inode not in seen:
                files[os.path.realpath(os.path.dirname(path)).decode() + "/" + name.decode()] = st.st_size
            seen.add(inode)
    return files


def make(path, size=0, mtime=None):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.truncate(size)
    if mtime:
        os.utime(path, (mtime, mtime))


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
        cls.dirs = walk(cls.root)
        cls.files = counted_files(cls.root)
        cls.browser = chromium.Browser(BROWSER, 1280, 900)
        cls.p = Page(cls.browser, cls.page)
        cls.rootText = os.path.realpath(cls.root).decode()

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


def main():
    global ARGS, BROWSER
    parser = argparse.ArgumentParser()
    for option in ("--ferrovan", "--dtldump", "--out", "--source"):
        parser.add_argument(option, required=True)
    ARGS, rest = parser.parse_known_args()
    os.makedirs(ARGS.out, exist_ok=True)
    BROWSER = chromium.find_chromium()
    if not BROWSER:
        setup = subprocess.run([os.path.join(ARGS.source, "scripts", "setup.sh"), "--browser"],
                               capture_output=True, text=True)
        BROWSER = chromium.find_chromium()
        if not BROWSER:
            print("SKIPPED: chromium is not installed, and scripts/setup.sh --browser could not install it:\n"
                  + (setup.stdout + setup.stderr)[-3000:])
            return 77
    print("browser:", BROWSER)
    result = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2).result
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
