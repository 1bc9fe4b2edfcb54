#!/usr/bin/env python3
"""Times dtldump browse on a pseudo-terminal against dtldump --summary.

For each detail file, in each round: --summary's wall time and peak
memory; then the browser on a pty of 120x40: the time until the root is on
the screen (the footer's "Total" written), the answer time of each key of a
fixed walk through the scan (from the key written to the last byte of the
redraw: output quiet for 100 ms afterwards, which is not counted), and the
browser's peak memory. Prints medians over the rounds.

    browse_timing.py --dtldump BIN [--rounds N] FILE...
"""

import argparse
import fcntl
import os
import pty
import select
import statistics
import struct
import subprocess
import sys
import termios
import time

QUIET = 0.1
# The walk: down the largest directories, sorts, the details panel, the
# hard-link view, a search, the ends of the list, and back up.
KEYS = [("Enter", b"\r"), ("Enter", b"\r"), ("Enter", b"\r"), ("j", b"j"), ("n (name)", b"n"),
        ("C (entries)", b"C"), ("M (time)", b"M"), ("s (size)", b"s"), ("End", b"\x1b[F"), ("Home", b"\x1b[H"),
        ("i", b"i"), ("i", b"i"), ("a", b"a"), ("a", b"a"), ("Backspace", b"\x7f"), ("Backspace", b"\x7f"),
        ("Backspace", b"\x7f"), ("C (entries)", b"C"), ("Enter", b"\r"), ("Backspace", b"\x7f"), ("/", b"/"),
        ("text + Enter", b"a\r")]


def summary(dtldump, path):
    start = time.monotonic()
    pid = os.fork()
    if pid == 0:
        fd = os.open(os.devnull, os.O_WRONLY)
        os.dup2(fd, 1)
        os.execv(dtldump, [dtldump, "--summary", path])
    _, status, usage = os.wait4(pid, 0)
    assert os.waitstatus_to_exitcode(status) == 0
    return time.monotonic() - start, usage.ru_maxrss / 1024


def drain(fd, until=None, deadline=30):
    """Reads until `until` has come (or, without it, until the output is
    quiet for QUIET); returns the time of the last byte and the bytes."""
    got, last = b"", time.monotonic()
    end = last + deadline
    while time.monotonic() < end:
        ready, _, _ = select.select([fd], [], [], QUIET)
        if not ready:
            if until is None or until in got:
                return last, got
            continue
        try:
            chunk = os.read(fd, 65536)
        except OSError:
            break
        if not chunk:
            break
        got += chunk
        last = time.monotonic()
    raise SystemExit("the browser did not answer: %r" % got[-300:])


def browse(dtldump, path):
    start = time.monotonic()
    pid, fd = pty.fork()
    if pid == 0:
        fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 40, 120, 0, 0))
        os.execve(dtldump, [dtldump, "browse", path],
                  dict(os.environ, TERM="xterm-256color", LANG="C.UTF-8"))
    shown, _ = drain(fd, until=b"Total ")
    keys = []
    for name, key in KEYS:
        sent = time.monotonic()
        os.write(fd, key)
        answered, _ = drain(fd)
        keys.append((name, answered - sent))
    os.write(fd, b"q")
    _, status, usage = os.wait4(pid, 0)
    os.close(fd)
    assert os.waitstatus_to_exitcode(status) == 0
    return shown - start, keys, usage.ru_maxrss / 1024


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--dtldump", required=True)
    ap.add_argument("--rounds", type=int, default=5)
    ap.add_argument("files", nargs="+")
    args = ap.parse_args()
    print("uptime:", subprocess.run(["uptime"], capture_output=True, text=True).stdout.strip())
    for path in args.files:
        s_times, s_mem, b_times, b_mem, key_times = [], [], [], [], []
        for _ in range(args.rounds):
            t, m = summary(args.dtldump, path)
            s_times.append(t)
            s_mem.append(m)
            t, keys, m = browse(args.dtldump, path)
            b_times.append(t)
            b_mem.append(m)
            key_times.append(keys)
        med = statistics.median
        print("\n%s (%.1f MB)" % (path, os.path.getsize(path) / 1e6))
        print("| | wall s | ratio | peak MiB |")
        print("|---|---:|---:|---:|")
        print("| `--summary` | %.3f | 1.00 | %.1f |" % (med(s_times), med(s_mem)))
        print("| `browse`: root shown | %.3f | %.2f | %.1f |" % (med(b_times), med(b_times) / med(s_times), med(b_mem)))
        per_key = [med(r[i][1] for r in key_times) for i in range(len(KEYS))]
        worst, worst_key = max((k[1], k[0]) for r in key_times for k in r)
        print("key answers (median of rounds, ms): " +
              ", ".join("%s %.1f" % (KEYS[i][0], 1000 * t) for i, t in enumerate(per_key)))
        print("slowest key of any round: %.1f ms (%s); median key: %.1f ms" % (1000 * worst, worst_key,
                                                                            1000 * med(per_key)))
    print("uptime:", subprocess.run(["uptime"], capture_output=True, text=True).stdout.strip())


if __name__ == "__main__":
    main()
