#!/usr/bin/env python3
"""dtldump browse in a real terminal.

Builds trees, scans them with the real Ferrovan and runs the real dtldump
browse in tmux (a private server on a socket of its own, a pane of a set
size): the test types keys with send-keys and reads the screen with
capture-pane, and checks what it shows against figures it computes from its
own walk of the tree: the order of the entries for each sort key, sizes and
shares, going down and up, the details panel, the hard-link view, hostile
names shown as escapes, a resize and a too small terminal, and that quitting
or a signal gives the terminal back as it was. A damaged file is refused
with the structure check's message before anything is drawn, and output
that is not a terminal gets a message and status 2.

    browse_test.py --ferrovan BIN --dtldump BIN --source DIR

Exits 77 (skipped) only when tmux is missing and scripts/setup.sh cannot
install it, saying why.
"""

import argparse
import grp
import os
import pwd
import re
import shutil
import stat
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import names  # noqa: E402

ARGS = None
BASE_TIME = 1700000000


def human(n):
    """A size as the reports write it: binary units, three digits."""
    if n < 1024:
        return "%d B" % n
    v, unit = float(n), 0
    while v >= 1023.5 and unit < 6:
        v /= 1024
        unit += 1
    text = "%.2f" % v if v < 9.995 else "%.1f" % v if v < 99.95 else "%.0f" % v
    return text + " " + ["B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"][unit]


def shown(name):
    """A name (bytes) as the browser must show it: the text reports'
    escapes, and C1 control characters escaped too."""
    return names.escaped(name, c1=True)


class Entry:
    def __init__(self, name, st, counted):
        self.name, self.st, self.counted = name, st, counted
        self.is_dir = stat.S_ISDIR(st.st_mode)
        self.bytes = st.st_size if counted else 0  # a directory: everything below it, added later
        self.apparent = st.st_size
        self.entries = 0


def walk(root):
    """Every directory (logical bytes path, b"/" for the root) with its
    entries, walked as the scan walks: a directory's listing in order, then
    its subdirectories depth first; each hard-linked inode counted at its
    first name. A directory entry's figures are everything below it."""
    dirs, seen = {}, set()

    def visit(path, logical):
        listing = []
        with os.scandir(path) as it:
            for d in it:
                st = os.lstat(d.path)
                inode = st.st_ino & 0xFFFFFFFF
                counted = st.st_nlink < 2 or inode not in seen
                if st.st_nlink >= 2:
                    seen.add(inode)
                listing.append(Entry(os.fsencode(d.name), st, counted))
        dirs[logical] = listing
        for e in listing:
            if e.is_dir:
                e.bytes, e.apparent, e.entries = visit(os.path.join(path, os.fsdecode(e.name)),
                                                       logical.rstrip(b"/") + b"/" + e.name)
        return totals(listing)

    visit(root, b"/")
    return dirs


def totals(listing):
    """The directory's total as the footer shows it: every entry below it,
    directories' own entries included."""
    b = sum(e.bytes + (e.st.st_size if e.is_dir and e.counted else 0) for e in listing)
    a = sum(e.apparent + (e.st.st_size if e.is_dir else 0) for e in listing)
    n = len(listing) + sum(e.entries for e in listing)
    return b, a, n


def order(listing, key, reverse=False, apparent=False):
    """The entries in the order the browser must list them."""
    value = {
        "size": lambda e: e.apparent if apparent else e.bytes,
        "count": lambda e: e.entries,
        "mtime": lambda e: int(e.st.st_mtime),
        "name": lambda e: 0,
    }[key]
    by_name = sorted(listing, key=lambda e: e.name, reverse=key == "name" and reverse)
    return sorted(by_name, key=value, reverse=not reverse) if key != "name" else by_name


ROW = re.compile(r"^(.{10}) (.{5})% \[([# ]+)\] (.{9}) (.) (.*)$")


class Pane:
    """dtldump (or a shell command) in a tmux pane of a set size, on a server
    of the test's own."""

    def __init__(self, command, width=100, height=24):
        self.socket = os.path.join(tempfile.mkdtemp(prefix="tmux-"), "s")
        # The shell traps SIGINT (its child gets the default back) so that it
        # lives on to say how the child ended and in which modes the
        # terminal was left.
        self.run("-f", "/dev/null", "new-session", "-d", "-x", str(width), "-y", str(height), "-e", "LANG=C.UTF-8",
                 "sh -c 'trap : INT; %s; echo \"EXIT $?\"; stty -a | tr \" ;\" \"\\n\\n\" | grep -E \"^-?(icanon|echo|isig)$\""
                 " | tr \"\\n\" \" \"; echo; sleep 600'" % command)

    def run(self, *args):
        return subprocess.run(["tmux", "-S", self.socket] + list(args), check=True, capture_output=True,
                              text=True).stdout

    def keys(self, *keys):
        self.run("send-keys", "-t", "0", *keys)

    def screen(self, joined=False):
        return self.run("capture-pane", "-p", "-t", "0", *(["-J"] if joined else [])).rstrip("\n").split("\n")

    def wait(self, predicate, what, timeout=10):
        """Polls the screen until predicate holds for it; returns it."""
        deadline = time.monotonic() + timeout
        while True:
            lines = self.screen()
            if predicate(lines):
                return lines
            if time.monotonic() > deadline:
                raise AssertionError("the screen never showed %s:\n%s" % (what, "\n".join(lines)))
            time.sleep(0.02)

    def wait_text(self, text, timeout=10):
        return self.wait(lambda lines: any(text in line for line in lines), repr(text), timeout)

    def close(self):
        subprocess.run(["tmux", "-S", self.socket, "kill-server"], capture_output=True)
        shutil.rmtree(os.path.dirname(self.socket), ignore_errors=True)


def rows(lines):
    """The entry rows on a screen: (size, share, mark, name) each."""
    found = []
    for line in lines[2:-1]:
        m = ROW.match(line)
        if m:
            found.append((m.group(1).strip(), m.group(2).strip(), m.group(4).strip(), m.group(5), m.group(6).rstrip()))
    return found


def expected_rows(listing, key="size", reverse=False, apparent=False):
    total_b, total_a, _ = totals(listing)
    total = total_a if apparent else total_b
    out = []
    for e in order(listing, key, reverse, apparent):
        size = e.apparent if apparent else e.bytes
        share = "%.1f" % (100.0 * size / total) if total else "0.0"
        mark = "H" if not e.counted else "@" if stat.S_ISLNK(e.st.st_mode) else " "
        count = str(e.entries) if e.is_dir else ""
        out.append((human(size), share, count, mark, shown(e.name) + ("/" if e.is_dir else "")))
    return out


def make_file(path, size, mtime):
    with open(path, "wb") as f:
        f.write(b"x" * size)
    os.utime(path, (mtime, mtime))


class Browse(unittest.TestCase):
    HOSTILE = [b"new\nline", b"clear\x1b[2Jscreen", b"title\x1b]0;pwned\x07x", b"bad\xff\xfeutf8",
               "\u4e2d\u6587\u540d".encode(), b"tab\there", b"back\\slash", "e\u0301te".encode()]

    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="browse-test-")
        root = cls.root = os.path.join(cls.work, "tree")
        os.makedirs(os.path.join(root, "docs", "sub"))
        os.makedirs(os.path.join(root, "media"))
        os.makedirs(os.path.join(root, "links"))
        os.makedirs(os.path.join(root, "names"))
        os.makedirs(os.path.join(root, "empty"))
        t = BASE_TIME
        make_file(os.path.join(root, "big.bin"), 300000, t + 50)
        make_file(os.path.join(root, "docs", "a.txt"), 1000, t + 1)
        make_file(os.path.join(root, "docs", "b.txt"), 20000, t + 2)
        make_file(os.path.join(root, "docs", "c.txt"), 5000, t + 3)
        make_file(os.path.join(root, "docs", "sub", "deep.bin"), 70000, t + 4)
        make_file(os.path.join(root, "media", "m1"), 150000, t + 5)
        make_file(os.path.join(root, "media", "m2"), 90000, t + 6)
        os.link(os.path.join(root, "media", "m1"), os.path.join(root, "links", "hard1"))
        os.symlink("big.bin", os.path.join(root, "sym"))
        for i, name in enumerate(cls.HOSTILE):
            make_file(os.path.join(os.fsencode(root), b"names", name), 100 * (i + 1), t + 10 + i)
        # Every directory's time after its contents: distinct, for the time order.
        for i, d in enumerate(["docs/sub", "docs", "media", "links", "names", "empty"]):
            os.utime(os.path.join(root, d), (t + 20 + i, t + 20 + i))
        cls.dtl = os.path.join(cls.work, "scan.dtl")
        cls.zip = os.path.join(cls.work, "scan-zip.dtl")
        subprocess.run([ARGS.ferrovan, root, "-dtl", cls.dtl, "-f"], check=True, stdout=subprocess.DEVNULL)
        subprocess.run([ARGS.ferrovan, root, "-dtl", cls.zip, "-f", "-zip"], check=True, stdout=subprocess.DEVNULL)
        cls.dirs = walk(root)

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.work, ignore_errors=True)

    def setUp(self):
        self.panes = []

    def tearDown(self):
        for p in self.panes:
            p.close()

    def browse(self, dtl=None, width=100, height=24, extra=""):
        pane = Pane("exec 2>&1; %s browse %s %s" % (ARGS.dtldump, extra, dtl or self.dtl), width, height)
        self.panes.append(pane)
        return pane

    def wait_rows(self, pane, want, what):
        lines = pane.wait(lambda lines: rows(lines) == want, what)
        return lines

    def test_sizes_order_and_shares_for_every_sort_key(self):
        root = self.dirs[b"/"]
        for dtl in (self.dtl, self.zip):
            pane = self.browse(dtl)
            lines = self.wait_rows(pane, expected_rows(root), "the root by size")
            self.assertIn(self.root, lines[0])
            self.assertIn("--- " + self.root, lines[1])
            b, _, n = totals(root)
            self.assertIn("Total %s (%d bytes) in %d entries" % (human(b), b, n), lines[-1])
            for key, letter in (("name", "n"), ("count", "C"), ("mtime", "M"), ("size", "s")):
                pane.keys(letter)
                self.wait_rows(pane, expected_rows(root, key), "the root by " + key)
                pane.keys(letter)
                self.wait_rows(pane, expected_rows(root, key, reverse=True), "the root by " + key + " reversed")
            pane.keys("q")
            pane.wait_text("EXIT 0")

    def test_down_and_up_with_the_keys_people_know(self):
        pane = self.browse()
        root = self.dirs[b"/"]
        names = [e.name for e in order(root, "size")]
        self.wait_rows(pane, expected_rows(root), "the root")
        # docs, then its subdirectory, by arrows and Enter; back by Backspace and h.
        pane.keys(*["j"] * names.index(b"docs"), "Enter")
        docs = self.dirs[b"/docs"]
        lines = self.wait_rows(pane, expected_rows(docs), "docs")
        self.assertIn("--- " + self.root + "/docs ", lines[1])
        sub = [e.name for e in order(docs, "size")].index(b"sub")
        pane.keys(*["Down"] * sub, "Right")
        self.wait_rows(pane, expected_rows(self.dirs[b"/docs/sub"]), "docs/sub")
        pane.keys("BSpace")
        lines = self.wait_rows(pane, expected_rows(docs), "docs again")
        self.assertIn(" %d/%d" % (sub + 1, len(docs)), lines[1])  # the cursor on the directory left
        pane.keys("h")
        lines = self.wait_rows(pane, expected_rows(root), "the root again")
        self.assertIn(" %d/%d" % (names.index(b"docs") + 1, len(names)), lines[1])
        # End, Home, and a search by name.
        pane.keys("End")
        pane.wait_text(" %d/%d" % (len(names), len(names)))
        pane.keys("Home")
        pane.wait_text(" 1/%d" % len(names))
        pane.keys("/", "medi", "Enter")
        pane.wait_text(" %d/%d" % (names.index(b"media") + 1, len(names)))

    def test_details_panel_and_hard_links_each_name(self):
        pane = self.browse()
        self.wait_rows(pane, expected_rows(self.dirs[b"/"]), "the root")
        links = self.dirs[b"/links"]
        names = [e.name for e in order(self.dirs[b"/"], "size")]
        pane.keys("/", "links", "Enter", "Enter")
        lines = self.wait_rows(pane, expected_rows(links), "links")
        hard = links[0]
        # The second name of media/m1 or links/hard1 counts nothing here.
        self.assertEqual(rows(lines)[0][3], "H" if not hard.counted else " ")
        pane.keys("a")
        self.wait_rows(pane, expected_rows(links, apparent=True), "links with every name counted")
        pane.wait_text("hard links: each name")
        pane.keys("i")
        lines = pane.wait_text("Inode")
        text = "\n".join(lines)
        st = hard.st
        for label, value in (("Path", self.root + "/links/hard1"), ("Kind", "file"),
                             ("Mode", "%s (%04o)" % (stat.filemode(st.st_mode), st.st_mode & 0o7777)),
                             ("Owner", "%s (%d)" % (pwd.getpwuid(st.st_uid).pw_name, st.st_uid)),
                             ("Group", "%s (%d)" % (grp.getgrgid(st.st_gid).gr_name, st.st_gid)),
                             ("Size", "%s (%d bytes)" % (human(st.st_size), st.st_size)),
                             ("Links", str(st.st_nlink)), ("Inode", str(st.st_ino & 0xFFFFFFFF)),
                             ("Modified", time.strftime("%Y-%m-%d %H:%M:%S UTC", time.gmtime(st.st_mtime)))):
            self.assertRegex(text, re.escape(label) + r" +" + re.escape(value), label)
        pane.keys("i", "h", "?")
        pane.wait_text("this help")
        self.assertIn(b"links", names)

    def test_hostile_names_are_shown_as_escapes(self):
        pane = self.browse()
        pane.keys("/", "names", "Enter", "Enter", "n")
        want = expected_rows(self.dirs[b"/names"], "name")
        lines = self.wait_rows(pane, want, "the hostile names in name order")
        self.assertIn("clear\\x1b[2Jscreen", "\n".join(lines))
        self.assertIn("\u4e2d\u6587\u540d", "\n".join(lines))
        # Nothing the names hold reached the terminal: the header is still
        # there, the title unchanged, every row where it belongs.
        self.assertTrue(lines[0].startswith("dtldump browse"))
        self.assertNotIn("pwned", pane.run("display-message", "-p", "-t", "0", "#{pane_title}"))

    def test_resize_and_a_too_small_terminal(self):
        pane = self.browse()
        root = self.dirs[b"/"]
        self.wait_rows(pane, expected_rows(root), "the root")
        pane.run("resize-window", "-t", "0", "-x", "60", "-y", "8")
        lines = pane.wait_text("Terminal too small (60x8)")
        pane.run("resize-window", "-t", "0", "-x", "70", "-y", "12")
        lines = pane.wait(lambda lines: rows(lines) == expected_rows(root) and len(lines) == 12, "the root in 70x12")
        self.assertTrue(all(len(line) <= 70 for line in lines))
        self.assertEqual(len(ROW.match(lines[2]).group(3)), 10)  # the bar narrows
        pane.keys("q")
        lines = pane.wait_text("EXIT 0")

    def test_leaving_restores_the_terminal(self):
        for how, status in (("q", 0), ("C-c", 130), ("TERM", 143), ("HUP", 129)):
            pane = self.browse()
            self.wait_rows(pane, expected_rows(self.dirs[b"/"]), "the root")
            if how in ("q", "C-c"):
                pane.keys(how)
            else:
                pid = pane.run("list-panes", "-t", "0", "-F", "#{pane_pid}").strip()
                child = subprocess.run(["pgrep", "-P", pid], capture_output=True, text=True).stdout.split()[0]
                os.kill(int(child), getattr(__import__("signal"), "SIG" + how))
            lines = pane.wait(lambda lines: "EXIT %d" % status in lines and any("icanon" in l for l in lines),
                              "the status and the terminal's modes")
            text = "\n".join(lines)
            # Back on the normal screen, in the modes the shell had.
            self.assertNotIn("dtldump browse", text, how)
            self.assertIn("icanon", text.split())
            self.assertIn("echo", text.split())
            self.assertIn("isig", text.split())

    def test_partial_and_damaged_files(self):
        with open(self.dtl, "rb") as f:
            data = f.read()
        cut = os.path.join(self.work, "cut.dtl")
        with open(cut, "wb") as f:
            f.write(data[: len(data) * 2 // 3])
        check = subprocess.run([ARGS.dtldump, "--summary", cut], capture_output=True, text=True)
        message = check.stderr.strip().splitlines()[-1]
        self.assertIn("offset", message)
        pane = self.browse(cut)
        pane.wait_text("EXIT 1")
        lines = pane.screen(joined=True)
        self.assertIn(message[message.index("offset"):], "\n".join(lines))
        self.assertNotIn("dtldump browse", "\n".join(lines))
        pane = self.browse(cut, extra="--partial")
        lines = pane.wait_text("PARTIAL: damaged file")
        self.assertTrue(rows(lines))

    def test_output_that_is_not_a_terminal(self):
        run = subprocess.run([ARGS.dtldump, "browse", self.dtl], capture_output=True, text=True,
                             stdin=subprocess.DEVNULL)
        self.assertEqual(run.returncode, 2)
        self.assertEqual(run.stdout, "")
        self.assertIn("draws on a terminal", run.stderr)


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    for option in ("--ferrovan", "--dtldump", "--source"):
        parser.add_argument(option, required=True)
    ARGS, rest = parser.parse_known_args()
    if not shutil.which("tmux"):
        setup = subprocess.run([os.path.join(ARGS.source, "scripts", "setup.sh")], capture_output=True, text=True)
        if not shutil.which("tmux"):
            print("SKIPPED: tmux is not installed, and scripts/setup.sh could not install it:\n"
                  + (setup.stdout + setup.stderr)[-3000:])
            return 77
    result = unittest.main(argv=[sys.argv[0]] + rest, exit=False, verbosity=2).result
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
