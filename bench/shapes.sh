#!/usr/bin/env bash
# The read-ahead walk on the shapes that stress what it holds ahead of the
# walk: a flat directory of a million entries (one listing far larger than
# the budget of listings), a chain 150 directories deep (the walk enters
# 100 of them; every level keeps a descriptor while its child is open), and
# a tree of a million directories (a thousand directories of a thousand
# empty directories: a million jobs, each an open and a listing). For each,
# Ferrovan at its default and with FERROVAN_THREADS=1: wall time, peak
# resident memory (GNU time's maximum), the largest number of descriptors
# open at once (sampled from /proc every 10 ms), and the two detail files
# compared (cmp, run time and free space masked).
#
#   bench/shapes.sh [--entries N] [--work DIR]
#
# --entries N  entries of the flat directory and directories of the tree
#              (default 1000000; the tree is sqrt(N) by sqrt(N))
#
# The shapes are made once in --work (default build/bench-work) and made
# again only when --entries changes. A million directories take about 4 GB
# of the disk (a block each) and a few minutes to make.
set -euo pipefail
cd "$(dirname "$0")/.."
me=bench/shapes.sh
. bench/maketree.sh

entries=1000000
work=build/bench-work
while [ $# -gt 0 ]; do
  case "$1" in
    --entries) entries=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    *) echo "usage: bench/shapes.sh [--entries N] [--work DIR]" >&2; exit 2 ;;
  esac
done
[[ "$entries" =~ ^[1-9][0-9]*$ ]] || { echo "$me: --entries takes a positive number" >&2; exit 2; }

prepare time python3
ferrovan=$PWD/build/release/Ferrovan
results=$work/shapes.txt

# make_shape NAME PYTHON: runs the Python snippet with the shape's directory
# as sys.argv[1] unless it was made for the same number of entries.
make_shape() {
  local dir=$work/shape-$1
  [ -d "$dir" ] && [ "$(cat "$dir.made" 2>/dev/null)" = "$entries" ] && return
  echo "making $dir ..."
  rm -rf "$dir" "$dir.made"
  mkdir -p "$dir"
  python3 -c "$2" "$dir" "$entries"
  echo "$entries" >"$dir.made"
}

make_shape flat '
import os, sys
d, n = sys.argv[1], int(sys.argv[2])
for i in range(n):
    os.close(os.open(os.path.join(d, "f%07d" % i), os.O_CREAT | os.O_WRONLY, 0o644))
'
make_shape chain '
import os, sys
fd = os.open(sys.argv[1], os.O_RDONLY)
for level in range(150):
    os.mkdir("d", dir_fd=fd)
    os.close(os.open("d/f", os.O_CREAT | os.O_WRONLY, 0o644, dir_fd=fd))
    nfd = os.open("d", os.O_RDONLY, dir_fd=fd)
    os.close(fd)
    fd = nfd
'
make_shape dirs '
import math, os, sys
d, n = sys.argv[1], int(sys.argv[2])
side = max(1, math.isqrt(n))
for i in range(side):
    top = os.path.join(d, "t%04d" % i)
    os.mkdir(top)
    for j in range(side):
        os.mkdir(os.path.join(top, "d%04d" % j))
'

# The most descriptors Ferrovan (the child of time(1) running as $1) holds
# at once, sampled while it runs.
peak_fds() {
  local parent=$1 most=0 n child
  while kill -0 "$parent" 2>/dev/null; do
    child=$(pgrep -P "$parent" | head -1) || child=""
    if [ -n "$child" ]; then
      n=$(ls /proc/"$child"/fd 2>/dev/null | wc -l) || n=0
      [ "$n" -gt "$most" ] && most=$n
    fi
    sleep 0.01
  done
  echo "$most"
}

: >"$results"
echo "uptime: $(uptime)"
printf '%-8s %-10s %9s %9s %8s\n' shape threads "wall s" "peak MiB" "most fds"
for shape in flat chain dirs; do
  dir=$work/shape-$shape
  "$ferrovan" "$dir" -f -dtl "$work/shape.dtl" >/dev/null 2>&1 || true  # access times settle
  for threads in default 1; do
    out=$work/shape-$threads.dtl
    env=()
    [ "$threads" = default ] || env=(FERROVAN_THREADS=$threads)
    start=$EPOCHREALTIME
    env "${env[@]}" /usr/bin/time -f "%M" -o "$work/time.txt" "$ferrovan" "$dir" -f -dtl "$out" \
      >/dev/null 2>"$work/stderr.txt" &
    pid=$!
    fds=$(peak_fds $pid)
    wait $pid || true  # the chain's deepest levels are reported, which is not a failure
    us=$(( ${EPOCHREALTIME//[.,]/} - ${start//[.,]/} ))
    kib=$(tail -1 "$work/time.txt")
    awk -v s="$shape" -v t="$threads" -v u="$us" -v k="$kib" -v f="$fds" \
      'BEGIN { printf "%-8s %-10s %9.3f %9.1f %8s\n", s, t, u / 1e6, k / 1024, f }'
    echo "$shape $threads $us $kib $fds" >>"$results"
  done
  mask "$work/shape-default.dtl" "$work/shape-1.dtl"
  same "$shape: default against FERROVAN_THREADS=1" "$work/shape-default.dtl" "$work/shape-1.dtl"
done
echo "detail files identical to FERROVAN_THREADS=1's on every shape (cmp, run time and free space masked)"
