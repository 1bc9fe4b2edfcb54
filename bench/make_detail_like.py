#!/usr/bin/env python3
"""Writes a detail-like file from a real tree, for measuring compression.

Usage: make_detail_like.py ROOT OUT

The records follow the detail file's layout: an 88 + 120 + 76 byte header
block, then for every directory a 48-byte header record with its logical path
and, for each entry, a 48-byte little-endian record (flags, uid, gid, inode,
mode, ctime, atime, mtime, size, link count, name length, link-target length)
followed by the name and the symbolic-link target, each zero-terminated; then
a 48-byte end marker. Depth first, entries in directory order.
"""
import os
import stat
import struct
import sys

RECORD = struct.Struct("<IIIIIIIIQIHH")


def walk(out, root, logical):
    name = (logical or "/").encode("utf-8", "surrogateescape") + b"\0"
    out.write(RECORD.pack(0x40000000, 0, 0, 0, 0, 0, 0, 0, 0, 0, len(name), 0) + name)
    path = root + logical
    try:
        names = os.listdir(path or "/")
    except OSError:
        return
    subdirs = []
    for entry in names:
        full = os.path.join(path or "/", entry)
        try:
            st = os.lstat(full)
        except OSError:
            continue
        flags = 0x80000000
        target = b""
        if stat.S_ISLNK(st.st_mode):
            flags |= 0x10000
            target = os.readlink(os.fsencode(full)) + b"\0"
        if st.st_nlink >= 2:
            flags |= 0x20000
        raw = os.fsencode(entry) + b"\0"
        out.write(RECORD.pack(flags, st.st_uid, st.st_gid, st.st_ino & 0xFFFFFFFF, st.st_mode & 0xFFFF,
                              int(st.st_ctime) & 0xFFFFFFFF, int(st.st_atime) & 0xFFFFFFFF,
                              int(st.st_mtime) & 0xFFFFFFFF, st.st_size, st.st_nlink & 0xFFFF,
                              len(raw), len(target)) + raw + target)
        if stat.S_ISDIR(st.st_mode):
            subdirs.append(entry)
    for entry in subdirs:
        walk(out, root, logical + "/" + entry)


def main():
    root, target = sys.argv[1].rstrip("/"), sys.argv[2]
    sys.setrecursionlimit(10000)
    with open(target, "wb") as out:
        out.write(b"FDTL" + b"\0" * (88 + 120 + 76 - 4))
        walk(out, root, "")
        out.write(b"\xff" * 48)


if __name__ == "__main__":
    main()
