"""What the Python tests of dtldump share: their command line and skip rule,
files made with set sizes and times, their own walk of a tree, and names as
dtldump writes them in text."""

import argparse
import os
import stat
import subprocess
import sys
import unittest


def start(options, tool, find, *setup_flags):
    """The values of the --OPTION arguments, each required. When find()
    finds no tool, scripts/setup.sh installs it; where it cannot, the run
    ends as skipped (77), saying why: never silently."""
    parser = argparse.ArgumentParser()
    for name in options:
        parser.add_argument("--" + name, required=True)
    args, start.rest = parser.parse_known_args()
    if not find():
        setup = subprocess.run([os.path.join(args.source, "scripts", "setup.sh"), *setup_flags],
                               capture_output=True, text=True)
        if not find():
            print("SKIPPED: %s is not installed, and scripts/setup.sh could not install it:\n%s"
                  % (tool, (setup.stdout + setup.stderr)[-3000:]))
            sys.exit(77)
    return args


def run_tests():
    """Runs the test cases of the calling program; exits 0 when all pass."""
    unittest.main(module="__main__", argv=[sys.argv[0]] + start.rest, verbosity=2)


def make(path, size=0, mtime=None):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.truncate(size)
    if mtime:
        os.utime(path, (mtime, mtime))


def walk(root):
    """Every entry below root (bytes) as the scan meets it: a directory's
    listing in order, then its subdirectories depth first. Each is (logical
    path of its directory, b"" for the root; name; lstat; counted), counted
    false for the later names of a hard-linked inode (low 32 bits)."""
    entries, seen = [], set()

    def visit(logical):
        with os.scandir(root + logical) as it:
            listing = [(logical, d.name, os.lstat(d.path)) for d in it]
        for _, name, st in listing:
            inode = st.st_ino & 0xFFFFFFFF
            entries.append((logical, name, st, st.st_nlink < 2 or inode not in seen))
            if st.st_nlink >= 2:
                seen.add(inode)
        for _, name, st in listing:
            if stat.S_ISDIR(st.st_mode):
                visit(logical + b"/" + name)

    visit(b"")
    return entries


def figures(entries):
    """Each directory of a walk (b"" for the root) with [entries, files,
    bytes, apparent bytes] of everything below it: bytes count each
    hard-linked inode once, apparent bytes every name."""
    dirs = {b"": [0, 0, 0, 0]}
    for logical, name, st, counted in entries:
        is_dir = stat.S_ISDIR(st.st_mode)
        if is_dir:
            dirs[logical + b"/" + name] = [0, 0, 0, 0]
        at = logical
        while True:
            f = dirs[at]
            f[0] += 1
            f[1] += not is_dir
            f[2] += st.st_size if counted else 0
            f[3] += st.st_size
            if not at:
                break
            at = at[: at.rfind(b"/")]
    return dirs


def escaped(name, c1=False):
    """A name (bytes) as dtldump's text shows it: backslashes, line feeds,
    tabs and other control characters escaped, and every byte that is not
    part of valid UTF-8 as \\xNN. With c1 the control characters U+0080 to
    U+009F too (byte by byte), as a terminal must never receive them."""
    out = []
    for ch in name.decode("utf-8", "surrogateescape"):
        o = ord(ch)
        if ch in "\\\n\t":
            out.append({"\\": "\\\\", "\n": "\\n", "\t": "\\t"}[ch])
        elif 0xDC80 <= o <= 0xDCFF:
            out.append("\\x%02x" % (o - 0xDC00))
        elif o < 0x20 or o == 0x7F or (c1 and 0x80 <= o < 0xA0):
            out.extend("\\x%02x" % b for b in ch.encode())
        else:
            out.append(ch)
    return "".join(out)
