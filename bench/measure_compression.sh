#!/bin/sh
# Measures the detail-file compression on detail-like data made from real
# trees: zlib's levels and tuning parameters against gzip -9, then the
# program's own compressFile and decompressFile. Not built by CMake.
#
# Usage: bench/measure_compression.sh [tree ...]   (default: /usr)
# Needs the release build (cmake --preset release && cmake --build --preset release).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$here")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM

g++ -O2 -std=c++20 "$here/deflate_sweep.cpp" -lz -o "$work/deflate_sweep"
g++ -O2 -std=c++20 -I"$top" "$here/compress_file_speed.cpp" "$top/build/release/libferrovan_core.a" -lz \
    -o "$work/compress_file_speed"

[ $# -gt 0 ] || set -- /usr
for tree in "$@"; do
    data="$work/$(basename "$tree").dtl"
    python3 "$here/make_detail_like.py" "$tree" "$data"
    ref=$(gzip -9 -c "$data" | wc -c)
    echo "== $tree"
    "$work/deflate_sweep" "$data" "$ref" levels
    "$work/deflate_sweep" "$data" "$ref" candidates | tail -n +3
    "$work/compress_file_speed" "$data"
done
