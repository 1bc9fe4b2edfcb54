#!/usr/bin/env python3
"""dtldump browse in a real terminal: the real program in a tmux pane of a
set size, keys typed with send-keys, the screen read with capture-pane and
checked against figures this test computes from its own walk of the tree.

    browse_test.py --ferrovan BIN --dtldump BIN --source DIR

Exits 77 (skipped) only when tmux is missing and scripts/setup.sh cannot
install it, saying why.
"""

import grp
import os
import pwd
import re
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
import pyharness  # noqa: E402

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


class Entry:
    """A row of the browser; a directory's figures are everything below it."""

    def __init__(self, name, st, counted, below=None):
        self.name, self.st, self.counted = name, st, counted
        self.is_dir = below is not None
        self.entries, _, self.bytes, self.apparent = below or [0, 1, st.st_size if counted else 0, st.st_size]


def order(listing, key, reverse=False, apparent=False):
    """The entries in the order the browser must list them."""
    value = {
        "size": lambda e: e.apparent if apparent else e.bytes,
        "count": lambda e: e.entries,
        "mtime": lambda e: int(e.st.st_mtime),
    }.get(key)
    by_name = sorted(listing, key=lambda e: e.name, reverse=key == "name" and reverse)
    return sorted(by_name, key=value, reverse=not reverse) if value else by_name


ROW = re.compile(r"^(.{10}) (.{5})% \[([# ]+)\] (.{9}) (.) (.*)$")


def rows(lines):
    """The entry rows on a screen: (size, share, count, mark, name) each."""
    found = [ROW.match(line) for line in lines[2:-1]]
    return [(m[1].strip(), m[2].strip(), m[4].strip(), m[5], m[6].rstrip()) for m in found if m]


class Pane:
    """A shell command in a tmux pane of a set size, on a server of its own."""

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

    def wait_text(self, text):
        return self.wait(lambda lines: any(text in line for line in lines), repr(text))

    def wait_rows(self, want, what):
        return self.wait(lambda lines: rows(lines) == want, what)

    def close(self):
        subprocess.run(["tmux", "-S", self.socket, "kill-server"], capture_output=True)
        shutil.rmtree(os.path.dirname(self.socket), ignore_errors=True)


class Browse(unittest.TestCase):
    HOSTILE = [b"new\nline", b"clear\x1b[2Jscreen", b"title\x1b]0;pwned\x07x", b"bad\xff\xfeutf8",
               "\u4e2d\u6587\u540d".encode(), b"tab\there", b"back\\slash", "e\u0301te".encode()]

    @classmethod
    def setUpClass(cls):
        cls.work = tempfile.mkdtemp(prefix="browse-test-")
        root = cls.root = os.path.join(cls.work, "tree")
        files = [(b"big.bin", 300000, 50), (b"docs/a.txt", 1000, 1), (b"docs/b.txt", 20000, 2),
                 (b"docs/c.txt", 5000, 3), (b"docs/sub/deep.bin", 70000, 4), (b"media/m1", 150000, 5),
                 (b"media/m2", 90000, 6)] + [(b"names/" + n, 100 * (i + 1), 10 + i) for i, n in enumerate(cls.HOSTILE)]
        for path, size, t in files:
            pyharness.make(os.path.join(os.fsencode(root), path), size, BASE_TIME + t)
        os.makedirs(root + "/links")
        os.makedirs(root + "/empty")
        os.link(root + "/media/m1", root + "/links/hard1")
        os.symlink("big.bin", root + "/sym")
        # Every directory's time after its contents: distinct, for the time order.
        for i, d in enumerate(["docs/sub", "docs", "media", "links", "names", "empty"]):
            os.utime(os.path.join(root, d), (BASE_TIME + 20 + i,) * 2)
        cls.dtl, cls.zip = cls.work + "/scan.dtl", cls.work + "/scan-zip.dtl"
        for dtl, extra in ((cls.dtl, []), (cls.zip, ["-zip"])):
            subprocess.run([ARGS.ferrovan, root, "-dtl", dtl, "-f"] + extra, check=True, stdout=subprocess.DEVNULL)
        tree = pyharness.walk(os.fsencode(root))
        cls.below = pyharness.figures(tree)
        cls.dirs = {d: [] for d in cls.below}
        for d, name, st, counted in tree:
            cls.dirs[d].append(Entry(name, st, counted, cls.below.get(d + b"/" + name)))

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

    def expected_rows(self, d, key="size", reverse=False, apparent=False):
        total = self.below[d][3 if apparent else 2]
        out = []
        for e in order(self.dirs[d], key, reverse, apparent):
            size = e.apparent if apparent else e.bytes
            share = "%.1f" % (100.0 * size / total) if total else "0.0"
            mark = "H" if not e.counted else "@" if stat.S_ISLNK(e.st.st_mode) else " "
            out.append((human(size), share, str(e.entries) if e.is_dir else "", mark,
                        pyharness.escaped(e.name, c1=True) + ("/" if e.is_dir else "")))
        return out

    def test_sizes_order_and_shares_for_every_sort_key(self):
        for dtl in (self.dtl, self.zip):
            pane = self.browse(dtl)
            lines = pane.wait_rows(self.expected_rows(b""), "the root by size")
            self.assertIn(self.root, lines[0])
            self.assertIn("--- " + self.root, lines[1])
            n, _, b, _ = self.below[b""]
            self.assertIn("Total %s (%d bytes) in %d entries" % (human(b), b, n), lines[-1])
            for key, letter in (("name", "n"), ("count", "C"), ("mtime", "M"), ("size", "s")):
                for reverse in (False, True):
                    pane.keys(letter)
                    pane.wait_rows(self.expected_rows(b"", key, reverse), "the root by %s, reversed %s" % (key, reverse))
            pane.keys("q")
            pane.wait_text("EXIT 0")

    def test_down_and_up_with_the_keys_people_know(self):
        pane = self.browse()
        names = [e.name for e in order(self.dirs[b""], "size")]
        pane.wait_rows(self.expected_rows(b""), "the root")
        # docs, then its subdirectory, by arrows and Enter; back by Backspace and h.
        pane.keys(*["j"] * names.index(b"docs"), "Enter")
        lines = pane.wait_rows(self.expected_rows(b"/docs"), "docs")
        self.assertIn("--- " + self.root + "/docs ", lines[1])
        sub = [e.name for e in order(self.dirs[b"/docs"], "size")].index(b"sub")
        pane.keys(*["Down"] * sub, "Right")
        pane.wait_rows(self.expected_rows(b"/docs/sub"), "docs/sub")
        pane.keys("BSpace")
        lines = pane.wait_rows(self.expected_rows(b"/docs"), "docs again")
        self.assertIn(" %d/%d" % (sub + 1, len(self.dirs[b"/docs"])), lines[1])  # the cursor on the directory left
        pane.keys("h")
        lines = pane.wait_rows(self.expected_rows(b""), "the root again")
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
        pane.wait_rows(self.expected_rows(b""), "the root")
        pane.keys("/", "links", "Enter", "Enter")
        pane.wait_rows(self.expected_rows(b"/links"), "links")
        pane.keys("a")
        pane.wait_rows(self.expected_rows(b"/links", apparent=True), "links with every name counted")
        pane.wait_text("hard links: each name")
        pane.keys("i")
        text = "\n".join(pane.wait_text("Inode"))
        st = self.dirs[b"/links"][0].st
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

    def test_hostile_names_are_shown_as_escapes(self):
        pane = self.browse()
        pane.keys("/", "names", "Enter", "Enter", "n")
        lines = pane.wait_rows(self.expected_rows(b"/names", "name"), "the hostile names in name order")
        # Nothing the names hold reached the terminal: the header is still
        # there, the title unchanged, every row where it belongs.
        self.assertTrue(lines[0].startswith("dtldump browse"))
        self.assertNotIn("pwned", pane.run("display-message", "-p", "-t", "0", "#{pane_title}"))

    def test_resize_and_a_too_small_terminal(self):
        pane = self.browse()
        pane.wait_rows(self.expected_rows(b""), "the root")
        pane.run("resize-window", "-t", "0", "-x", "60", "-y", "8")
        pane.wait_text("Terminal too small (60x8)")
        pane.run("resize-window", "-t", "0", "-x", "70", "-y", "12")
        lines = pane.wait(lambda lines: rows(lines) == self.expected_rows(b"") and len(lines) == 12, "the root in 70x12")
        self.assertTrue(all(len(line) <= 70 for line in lines))
        self.assertEqual(len(ROW.match(lines[2]).group(3)), 10)  # the bar narrows
        pane.keys("q")
        pane.wait_text("EXIT 0")

    def test_leaving_restores_the_terminal(self):
        for how, status in (("q", 0), ("C-c", 130), ("TERM", 143), ("HUP", 129)):
            pane = self.browse()
            pane.wait_rows(self.expected_rows(b""), "the root")
            if how in ("q", "C-c"):
                pane.keys(how)
            else:
                pid = pane.run("list-panes", "-t", "0", "-F", "#{pane_pid}").strip()
                child = subprocess.run(["pgrep", "-P", pid], capture_output=True, text=True).stdout.split()[0]
                os.kill(int(child), getattr(signal, "SIG" + how))
            lines = pane.wait(lambda lines: "EXIT %d" % status in lines and any("icanon" in l for l in lines),
                              "the status and the terminal's modes")
            # Back on the normal screen, in the modes the shell had.
            self.assertNotIn("dtldump browse", "\n".join(lines), how)
            self.assertLessEqual({"icanon", "echo", "isig"}, set(" ".join(lines).split()), how)

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
        text = "\n".join(pane.screen(joined=True))
        self.assertIn(message[message.index("offset"):], text)
        self.assertNotIn("dtldump browse", text)
        pane = self.browse(cut, extra="--partial")
        self.assertTrue(rows(pane.wait_text("PARTIAL: damaged file")))

    def test_output_that_is_not_a_terminal(self):
        run = subprocess.run([ARGS.dtldump, "browse", self.dtl], capture_output=True, text=True,
                             stdin=subprocess.DEVNULL)
        self.assertEqual((run.returncode, run.stdout), (2, ""))
        self.assertIn("draws on a terminal", run.stderr)


if __name__ == "__main__":
    ARGS = pyharness.start(("ferrovan", "dtldump", "source"), "tmux", lambda: shutil.which("tmux"))
    pyharness.run_tests()
