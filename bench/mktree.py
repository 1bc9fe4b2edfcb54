#!/usr/bin/env python3
"""Makes the deterministic trees bench/run.sh scans.

    mktree.py DEST --entries N [--seed S]
    mktree.py DEST --farm [--snapshots K] [--files F] [--seed S]

The first form makes a synthetic tree of N entries with the mix real trees
hold: wide and narrow directories, a few chains nested far deeper than the
rest, empty directories, regular files of many sizes (sparse, so the few of
5 GB cost no disk), symbolic links (to files, to directories, dangling),
groups of hard links, a few named pipes, and names that are short, long,
UTF-8, not valid UTF-8 or hold blanks.  About 10 % of the entries are
directories, 5 % symbolic links and 2 % extra hard links, as in the trees
the earlier figures were measured on.

The second form makes a backup server's snapshot farm: K snapshots of about
F files in nested directories, each snapshot hard-linking about 90 % of the
previous one's files and holding new files for the rest, so that most
files carry 2 to K links.

The same arguments always make the same tree: names, kinds, sizes, link
targets, hard-link groups, modes and modification times (set from the seed,
not from the clock).  Inode numbers, change times and the order in which
the file system lists a directory are the file system's own.  DEST must not
exist; prints one summary line.
"""
import argparse
import collections
import os
import random
import sys

# Modification times lie in the eight years after this fixed moment (2017).
EPOCH = 1_500_000_000
SPAN = 8 * 365 * 86400
FIVE_GB = 5_000_000_000
# Nothing made is nested deeper than this (except the deep chains) nor has a
# path longer than this, so every path stays well inside PATH_MAX.
MAX_DEPTH = 14
MAX_PATH = 3600

ALNUM = "abcdefghijklmnopqrstuvwxyz0123456789"
PUNCT = "_-."
UTF8_PIECES = ["é", "ü", "ø", "ß", "日本", "語", "Ж", "λ", "ก", "🙂"]


def make_name(rng):
    """One name as bytes; the mix matches the earlier trees' (80 % plain,
    10 % UTF-8, 5 % with blanks, 3 % invalid UTF-8, 2 % long)."""
    kind = rng.random()
    if kind < 0.80:
        n = "".join(rng.choice(ALNUM + PUNCT) for _ in range(rng.randint(1, 24)))
        return n.encode() if n not in (".", "..") else b"dot" + n.encode()
    if kind < 0.90:
        pieces = [rng.choice(UTF8_PIECES) for _ in range(rng.randint(1, 5))]
        return (rng.choice(ALNUM) + "".join(pieces)).encode()
    if kind < 0.95:
        return b"with blank " + str(rng.randrange(1000)).encode() + (b" " if rng.random() < 0.2 else b"")
    if kind < 0.98:
        return b"bad\xff\xfe" + str(rng.randrange(1000)).encode() + rng.choice([b"", b"\xc3", b"\x80x"])
    return rng.choice(ALNUM).encode() * rng.randint(100, 255)


def file_size(rng, big):
    """A size spread evenly over seven decades, some empty, a few of 5 GB."""
    if rng.random() < 0.05:
        return 0
    if big and rng.random() < 0.001:
        return FIVE_GB
    return int(10 ** rng.uniform(0, 7))


def file_mode(rng):
    r = rng.random()
    return 0o755 if r < 0.10 else 0o600 if r < 0.15 else 0o644


class Dir:
    """A directory being filled: its path, depth and the names it holds."""
    __slots__ = ("path", "depth", "names", "mtime", "branches")

    def __init__(self, path, depth, mtime, branches=True):
        self.path, self.depth, self.names, self.mtime = path, depth, set(), mtime
        # False for the levels of a deep chain: they get files only.
        self.branches = branches


def unique(d, name):
    """name, or name with a counter when d already holds it."""
    if name not in d.names:
        d.names.add(name)
        return name
    k = 2
    while name + b"~" + str(k).encode() in d.names:
        k += 1
    name += b"~" + str(k).encode()
    d.names.add(name)
    return name


def stamp(path, t, link=False):
    os.utime(path, ns=(t * 10**9, t * 10**9), follow_symlinks=not link)


def new_file(path, size, mode, t):
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode)
    try:
        if size:
            os.ftruncate(fd, size)
    finally:
        os.close(fd)
    stamp(path, t)


def make_tree(dest, entries, seed):
    rng = random.Random(seed)
    count = collections.Counter()
    os.mkdir(dest)
    dirs = [Dir(dest, 0, EPOCH + rng.randrange(SPAN))]
    files = []
    filled = 0
    made = 0
    while made < entries:
        # Every directory is filled once, in the order made; when all are,
        # more entries go to directories drawn at random.
        if filled < len(dirs):
            d = dirs[filled]
            filled += 1
        else:
            d = dirs[rng.randrange(len(dirs))]
        fan = rng.choice([0, 0, 1, 2, 3, 5, 10, 20, 40, 80, 150, 170])
        for _ in range(fan):
            if made >= entries:
                break
            name = make_name(rng)
            if len(d.path) + len(name) > MAX_PATH:
                name = name[:8]
            path = os.path.join(d.path, unique(d, name))
            t = EPOCH + rng.randrange(SPAN)
            r = rng.random()
            if r < 0.10 and d.branches and d.depth < MAX_DEPTH and len(path) < MAX_PATH - 300:
                os.mkdir(path)
                dirs.append(Dir(path, d.depth + 1, t))
                count["dirs"] += 1
                made += 1
                # One directory in 300 starts a chain nested far deeper.
                if rng.random() < 1 / 300:
                    made += deep_chain(rng, dirs, dirs[-1], min(rng.randint(10, 30), entries - made), count)
            elif r < 0.15 and files:
                pick = rng.random()
                if pick < 0.80:
                    target = os.path.relpath(rng.choice(files), d.path)
                elif pick < 0.90:
                    target = os.path.relpath(rng.choice(dirs).path, d.path)
                elif pick < 0.95:
                    target = b"missing/" + make_name(rng)
                else:
                    target = b"/nonexistent/" + make_name(rng)
                os.symlink(target, path)
                stamp(path, t, link=True)
                count["symlinks"] += 1
                made += 1
            elif r < 0.17 and files:
                os.link(rng.choice(files), path)
                count["hard links"] += 1
                made += 1
            elif r < 0.171:
                os.mkfifo(path)
                stamp(path, t)
                count["fifos"] += 1
                made += 1
            else:
                size = file_size(rng, True)
                new_file(path, size, file_mode(rng), t)
                files.append(path)
                count["files"] += 1
                count["5 GB files"] += size == FIVE_GB
                made += 1
    # Last, because every entry made in a directory changed its time.
    for d in dirs:
        stamp(d.path, d.mtime)
    count["empty dirs"] = sum(1 for d in dirs[1:] if not d.names)
    count["deepest"] = max(d.depth for d in dirs)
    kinds = ["dirs", "empty dirs", "deepest", "files", "5 GB files", "symlinks", "hard links", "fifos"]
    print(f"tree {os.fsdecode(dest)}: {made} entries:", ", ".join(f"{count[k]} {k}" for k in kinds), f"(seed {seed})")


def deep_chain(rng, dirs, top, levels, count):
    """Nests levels directories with short names below top; returns how many
    were made. Each joins dirs, so it gets files (but no subdirectories) of
    its own later."""
    parent = top
    for i in range(levels):
        path = os.path.join(parent.path, unique(parent, b"d%d" % i))
        os.mkdir(path)
        parent = Dir(path, parent.depth + 1, EPOCH + rng.randrange(SPAN), branches=False)
        dirs.append(parent)
        count["dirs"] += 1
    return levels


def make_farm(dest, snapshots, per_snapshot, seed):
    """Snapshot k hard-links about 90 % of snapshot k-1's files at the same
    place and holds new files for the rest: some changed in place (a new
    inode under the same name), some new names; about as many vanish."""
    rng = random.Random(seed)
    os.mkdir(dest)
    # One directory layout for all snapshots, about one directory for ten
    # files, each hung below a directory drawn at random (so a few are deep).
    layout = [(b"", 0, EPOCH + rng.randrange(SPAN))]
    holders = [Dir(b"", 0, 0)]
    for _ in range(max(per_snapshot // 10, 1)):
        parent = holders[rng.randrange(len(holders))]
        if parent.depth >= 10:
            parent = holders[0]
        path = os.path.join(parent.path, unique(parent, make_name(rng)[:40]))
        holders.append(Dir(path, parent.depth + 1, 0))
        layout.append((path, parent.depth + 1, EPOCH + rng.randrange(SPAN)))

    def new_place():
        d = holders[rng.randrange(len(holders))]
        return os.path.join(d.path, unique(d, make_name(rng)))

    live = []  # relative path, size, mode, time of each file in the newest snapshot
    for _ in range(per_snapshot):
        live.append((new_place(), file_size(rng, False), file_mode(rng), EPOCH + rng.randrange(SPAN)))
    prev = None
    made = linked = 0
    for k in range(snapshots):
        snap = os.path.join(dest, b"snapshot-%02d" % k)
        os.mkdir(snap)
        for rel, _, _ in layout[1:]:
            os.mkdir(os.path.join(snap, rel))
        made += len(layout)
        if prev is None:
            fresh = live
        else:
            kept, fresh = [], []
            for f in live:
                r = rng.random()
                if r < 0.90:
                    os.link(os.path.join(prev, f[0]), os.path.join(snap, f[0]))
                    kept.append(f)
                elif r < 0.96:
                    fresh.append((f[0], file_size(rng, False), f[2], EPOCH + SPAN + k * 86400))
            while len(kept) + len(fresh) < per_snapshot:
                fresh.append((new_place(), file_size(rng, False), file_mode(rng), EPOCH + SPAN + k * 86400))
            linked += len(kept)
            live = kept + fresh
        for rel, size, mode, t in fresh:
            new_file(os.path.join(snap, rel), size, mode, t)
        made += len(live)
        for rel, _, t in layout:
            stamp(os.path.join(snap, rel), t)
        prev = snap
    stamp(dest, EPOCH + SPAN)
    links = collections.Counter()
    for rel, _, _, _ in live:
        links[os.lstat(os.path.join(prev, rel)).st_nlink] += 1
    print(f"farm {os.fsdecode(dest)}: {made} entries: {snapshots} snapshots of {len(layout) - 1} directories"
          f" and {per_snapshot} files, {linked} files linked to the previous snapshot;"
          " links of the newest snapshot's files:", " ".join(f"{n}x{links[n]}" for n in sorted(links)),
          f"(seed {seed})")


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("dest")
    ap.add_argument("--entries", type=int, default=100000, help="entries of the synthetic tree")
    ap.add_argument("--seed", type=int, default=7)
    ap.add_argument("--farm", action="store_true", help="make a snapshot farm instead")
    ap.add_argument("--snapshots", type=int, default=10, help="snapshots of the farm")
    ap.add_argument("--files", type=int, default=30000, help="files per snapshot of the farm")
    a = ap.parse_args()
    # Modes must not depend on who runs the maker.
    os.umask(0o022)
    dest = os.fsencode(a.dest)
    if a.farm:
        make_farm(dest, a.snapshots, a.files, a.seed)
    else:
        make_tree(dest, a.entries, a.seed)
    return 0


if __name__ == "__main__":
    sys.exit(main())
