#!/usr/bin/env bash
# Times Ferrovan side by side with the least work a scanner can do and with
# other tools that walk a tree, on synthetic trees of 100,000 and 1,000,000
# entries, and prints medians, ratios to the floor, time per entry and peak
# memory; then the -zip figures (compression speed, size against gzip -9).
# It also checks that the detail files are right: every run gives the same
# file, the -zip file decompresses to the plain one, and (with --baseline)
# an older build writes the same bytes.
#
#   bench/run.sh [--rounds N] [--sizes "100000 1000000"] [--baseline REF]
#                [--sweep] [--work DIR] [--shared DIR]
#
# --baseline REF  also times the Ferrovan of an older commit and compares its
#                 detail file with the current one's (cmp).
# --sweep         after the rounds, measures zlib's levels and tuning
#                 parameters on the largest tree's detail file (CPU time,
#                 size against gzip -9; bench/deflate_sweep.cpp).
# --shared        the folder holding floor.c and mktree.py (default
#                 ../shared/bench next to this checkout, or ../../shared/bench).
#
# Trees are made once in --work (default build/bench-work) and reused; a
# million entries take a few minutes to make and about 1 GB of metadata.
# The tools run in turn within each round, so that the machine's mood at any
# moment falls on all of them; the ratios are only meaningful within one run.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

rounds=5
sizes="100000 1000000"
baseline=""
sweep=0
work=build/bench-work
# The shared folder sits next to the main checkout; worktrees are one level deeper.
shared=$top/../shared/bench
[ -d "$shared" ] || shared=$top/../../shared/bench
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds=$2; shift 2 ;;
    --sizes) sizes=$2; shift 2 ;;
    --baseline) baseline=$2; shift 2 ;;
    --sweep) sweep=1; shift ;;
    --work) work=$2; shift 2 ;;
    --shared) shared=$2; shift 2 ;;
    *) echo "usage: bench/run.sh [--rounds N] [--sizes LIST] [--baseline REF] [--sweep] [--work DIR] [--shared DIR]" >&2
       exit 2 ;;
  esac
done
for f in floor.c mktree.py; do
  [ -f "$shared/$f" ] || { echo "bench/run.sh: $shared/$f not found (use --shared DIR)" >&2; exit 2; }
done

scripts/setup.sh ncdu time gcc python3 gzip
cmake --preset release >/dev/null
cmake --build --preset release >/dev/null
mkdir -p "$work"
work=$(cd "$work" && pwd)
cc -O2 -o "$work/floor" "$shared/floor.c"
ferrovan=$top/build/release/Ferrovan
# The program's own compression of a file, timed apart from the scan.
g++ -O2 -std=c++20 -I"$top" -o "$work/compress_file_speed" bench/compress_file_speed.cpp \
  build/release/libferrovan_core.a -Wl,-Bstatic -lz -Wl,-Bdynamic

if [ -n "$baseline" ]; then
  rm -rf "$work/baseline-src"
  git worktree add -f --detach "$work/baseline-src" "$baseline" >/dev/null
  (cd "$work/baseline-src" && cmake --preset release >/dev/null && cmake --build --preset release --target Ferrovan >/dev/null)
  baseBin=$work/baseline-src/build/release/Ferrovan
fi

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'),"\
  "$(free -g | awk '/Mem:/ {print $2}') GiB, Linux $(uname -r), $(stat -f -c %T "$work") at $work"
echo "zlib $(python3 -c 'import zlib; print(zlib.ZLIB_RUNTIME_VERSION)'), $(ncdu -v), $(du --version | head -1), $(find --version | head -1)"

# The run time and the volume's free space differ from run to run; everything
# else in a detail file must be the same.
masked() {
  python3 - "$1" <<'EOF'
import sys
b = bytearray(open(sys.argv[1], "rb").read())
b[8:12] = bytes(4)       # runTime
b[192:200] = bytes(8)    # availableSpace
sys.stdout.buffer.write(b)
EOF
}
same_detail() {
  cmp -s <(masked "$1") <(masked "$2")
}

# One timed run: appends "tool seconds user system maxKiB" to $results.
timed() {
  local tool=$1; shift
  /usr/bin/time -f "%e %U %S %M" -o "$work/time.txt" "$@" >/dev/null 2>"$work/stderr.txt" || {
    echo "bench/run.sh: $tool failed:" >&2; cat "$work/stderr.txt" >&2; exit 1; }
  echo "$tool $(cat "$work/time.txt")" >>"$results"
}

summary=$work/summary.txt
: >"$summary"
for n in $sizes; do
  tree=$work/tree-$n
  [ -d "$tree" ] || python3 "$shared/mktree.py" "$tree" --entries "$n" --seed 7
  entries=$(find "$tree" -mindepth 1 | wc -l)
  results=$work/results-$n.txt
  : >"$results"
  out=$work/out-$n
  rm -rf "$out"; mkdir -p "$out"
  # Warm the cache once before anything is timed. Reading a symbolic link
  # sets its access time once after the link is made, so the first scan of a
  # fresh tree records other times than every later one: scan once untimed.
  "$work/floor" "$tree" >/dev/null
  "$ferrovan" "$tree" -f -dtl "$out/warm.dtl" >/dev/null
  for r in $(seq 1 "$rounds"); do
    timed floor "$work/floor" "$tree"
    timed floor-w "$work/floor" -w "$out/floor.out" "$tree"
    timed ferrovan "$ferrovan" "$tree" -f -dtl "$out/plain-$r.dtl"
    timed ferrovan-zip "$ferrovan" "$tree" -f -zip -dtl "$out/zip.dtl"
    timed ncdu ncdu -0 -x -o "$out/ncdu.out" "$tree"
    timed du du -a "$tree"
    timed find find "$tree" -printf '%u %g %i %m %A@ %T@ %C@ %s %n %p\n'
    if [ -n "$baseline" ]; then timed baseline "$baseBin" "$tree" -f -dtl "$out/base-$r.dtl"; fi
  done

  # The program's compression on its own, three times (wall and CPU).
  for r in 1 2 3; do "$work/compress_file_speed" "$out/plain-1.dtl" >>"$out/zipspeed.txt"; done
  plainSize=$(stat -c %s "$out/plain-1.dtl")
  zipSize=$(stat -c %s "$out/zip.dtl")
  gzipSize=$(gzip -9 -c "$out/plain-1.dtl" | wc -c)
  python3 - "$results" "$entries" "$plainSize" "$zipSize" "$gzipSize" "$out/zipspeed.txt" "$summary" <<'EOF'
import re, statistics, sys
path, entries, plain, packed, gz, speeds, summary = sys.argv[1:]
entries, plain, packed, gz = int(entries), int(plain), int(packed), int(gz)
runs = {}
for line in open(path):
    tool, secs, user, system, kib = line.split()
    runs.setdefault(tool, []).append((float(secs), float(user), float(system), int(kib)))
med = lambda tool, i=0: statistics.median(r[i] for r in runs[tool])
floor = med("floor")
print(f"\n{entries} entries, {len(runs['floor'])} rounds (medians of wall-clock, user and system seconds)")
print(f"{'tool':14} {'wall s':>7} {'ratio':>6} {'ns/entry':>9} {'user s':>7} {'sys s':>6} {'peak MiB':>9}")
for tool in runs:
    peak = max(r[3] for r in runs[tool]) / 1024
    print(f"{tool:14} {med(tool):7.3f} {med(tool) / floor:6.2f} {med(tool) * 1e9 / entries:9.0f}"
          f" {med(tool, 1):7.2f} {med(tool, 2):6.2f} {peak:9.1f}")
text = open(speeds).read()
wall = [float(m) for m in re.findall(r"^compress .*?([0-9.]+) MB/s wall", text, re.M)]
cpu = [float(m) for m in re.findall(r"^compress .*?([0-9.]+) MB/s cpu", text, re.M)]
scan = plain / 1e6 / (med("ferrovan-zip") - med("ferrovan")) if med("ferrovan-zip") > med("ferrovan") else float("inf")
print(f"-zip: detail file {plain / 1e6:.1f} MB -> {packed / 1e6:.2f} MB = {packed / gz:.3f} x gzip -9 ({gz / 1e6:.2f} MB);"
      f" compression {statistics.median(wall):.1f} MB/s wall, {statistics.median(cpu):.1f} MB/s CPU"
      f" (compressFile alone, median of 3); {scan:.1f} MB/s from the -zip run minus the plain run")
with open(summary, "a") as s:
    for tool in runs:
        s.write(f"{entries} {tool} {med(tool) * 1e9 / entries:.1f}\n")
EOF

  # The detail files: identical from run to run, and -zip restores exactly.
  for r in $(seq 2 "$rounds"); do
    same_detail "$out/plain-1.dtl" "$out/plain-$r.dtl" || { echo "DIFFERENT: plain-1 and plain-$r" >&2; exit 1; }
  done
  python3 -c 'import sys, zlib; sys.stdout.buffer.write(zlib.decompress(open(sys.argv[1], "rb").read()))' \
    "$out/zip.dtl" >"$out/unzipped.dtl"
  same_detail "$out/plain-1.dtl" "$out/unzipped.dtl" || { echo "DIFFERENT: -zip does not restore the plain file" >&2; exit 1; }
  if [ -n "$baseline" ]; then
    for r in $(seq 1 "$rounds"); do
      same_detail "$out/plain-1.dtl" "$out/base-$r.dtl" || { echo "DIFFERENT: baseline $baseline writes other bytes" >&2; exit 1; }
    done
    echo "detail file identical to the one $baseline writes (cmp, run time and free space masked)"
  fi
  echo "detail files identical across runs; -zip restores the plain file exactly"
done

# Costs that grow with the tree: time per entry at each size against the smallest.
python3 - "$summary" <<'EOF'
import sys
per = {}
for line in open(sys.argv[1]):
    n, tool, ns = line.split()
    per.setdefault(tool, {})[int(n)] = float(ns)
sizes = sorted({n for t in per.values() for n in t})
if len(sizes) > 1:
    print("\ntime per entry against the", sizes[0], "entry tree:",
          ", ".join(f"{tool} " + " ".join(f"{per[tool][n] / per[tool][sizes[0]]:.2f}" for n in sizes[1:])
                    for tool in per if all(n in per[tool] for n in sizes)))
EOF

if [ "$sweep" = 1 ]; then
  largest=$(echo $sizes | tr ' ' '\n' | sort -n | tail -1)
  file=$work/out-$largest/plain-1.dtl
  g++ -O2 -std=c++20 -o "$work/deflate_sweep" bench/deflate_sweep.cpp -Wl,-Bstatic -lz -Wl,-Bdynamic
  echo
  "$work/deflate_sweep" "$file" "$(gzip -9 -c "$file" | wc -c)" levels
  "$work/deflate_sweep" "$file" "$(gzip -9 -c "$file" | wc -c)" tuned | tail -n +3
fi

if [ -n "$baseline" ]; then git worktree remove --force "$work/baseline-src" >/dev/null; fi
exit 0
