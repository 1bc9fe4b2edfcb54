#!/usr/bin/env bash
# Times Ferrovan side by side with the least work a scanner can do and with
# other tools that walk a tree, on synthetic trees of 100,000 and 1,000,000
# entries, and prints medians, ratios to the floor, time per entry and peak
# memory. It also checks that the detail files are right: two runs give the
# same file, the -zip file decompresses to the plain one, and (with
# --baseline) an older build writes the same bytes.
#
#   bench/run.sh [--rounds N] [--sizes "100000 1000000"] [--baseline REF]
#                [--work DIR] [--shared DIR]
#
# --shared names the folder holding floor.c and mktree.py (default
# ../shared/bench next to this checkout). Trees are made once in --work
# (default build/bench-work) and reused. Run it on an otherwise idle machine
# if you can; the figures are wall-clock times and the ratios are only
# meaningful within one run.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD

rounds=5
sizes="100000 1000000"
baseline=""
work=build/bench-work
shared=$top/../shared/bench
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds=$2; shift 2 ;;
    --sizes) sizes=$2; shift 2 ;;
    --baseline) baseline=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    --shared) shared=$2; shift 2 ;;
    *) echo "usage: bench/run.sh [--rounds N] [--sizes LIST] [--baseline REF] [--work DIR] [--shared DIR]" >&2; exit 2 ;;
  esac
done
for f in floor.c mktree.py; do
  [ -f "$shared/$f" ] || { echo "bench/run.sh: $shared/$f not found (use --shared DIR)" >&2; exit 2; }
done

scripts/setup.sh ncdu time gcc python3
cmake --preset release >/dev/null
cmake --build --preset release >/dev/null
mkdir -p "$work"
work=$(cd "$work" && pwd)
cc -O2 -o "$work/floor" "$shared/floor.c"
ferrovan=$top/build/release/Ferrovan

if [ -n "$baseline" ]; then
  rm -rf "$work/baseline-src"
  git worktree add -f --detach "$work/baseline-src" "$baseline" >/dev/null
  (cd "$work/baseline-src" && cmake --preset release >/dev/null && cmake --build --preset release --target Ferrovan >/dev/null)
  baseBin=$work/baseline-src/build/release/Ferrovan
fi

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

# One timed run: appends "tool seconds maxKiB" to $results.
timed() {
  local tool=$1; shift
  /usr/bin/time -f "%e %M" -o "$work/time.txt" "$@" >/dev/null 2>"$work/stderr.txt" || {
    echo "bench/run.sh: $tool failed:" >&2; cat "$work/stderr.txt" >&2; exit 1; }
  echo "$tool $(cat "$work/time.txt")" >>"$results"
}

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
    [ -n "$baseline" ] && timed baseline "$baseBin" "$tree" -f -dtl "$out/base-$r.dtl"
  done

  plainSize=$(stat -c %s "$out/plain-1.dtl")
  zipSize=$(stat -c %s "$out/zip.dtl")
  gzipSize=$(gzip -9 -c "$out/plain-1.dtl" | wc -c)
  python3 - "$results" "$entries" "$plainSize" "$zipSize" "$gzipSize" <<'EOF'
import statistics, sys
path, entries, plain, packed, gz = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4]), int(sys.argv[5])
runs = {}
for line in open(path):
    tool, secs, kib = line.split()
    runs.setdefault(tool, []).append((float(secs), int(kib)))
floor = statistics.median(s for s, _ in runs["floor"])
print(f"\n{entries} entries, {len(runs['floor'])} rounds (median wall-clock seconds)")
print(f"{'tool':14} {'median s':>9} {'ratio':>7} {'ns/entry':>9} {'peak MiB':>9}")
for tool, vals in runs.items():
    med = statistics.median(s for s, _ in vals)
    peak = max(k for _, k in vals) / 1024
    print(f"{tool:14} {med:9.3f} {med / floor:7.2f} {med * 1e9 / entries:9.0f} {peak:9.1f}")
zipTime = statistics.median(s for s, _ in runs["ferrovan-zip"]) - statistics.median(s for s, _ in runs["ferrovan"])
print(f"detail file {plain / 1e6:.1f} MB; -zip {packed / 1e6:.1f} MB = {packed / gz:.3f} x gzip -9 ({gz / 1e6:.1f} MB);"
      f" compression {plain / 1e6 / zipTime if zipTime > 0 else float('inf'):.0f} MB/s (zip run minus plain run)")
EOF

  # The detail files: identical from run to run, and -zip restores exactly.
  for r in $(seq 2 "$rounds"); do
    same_detail "$out/plain-1.dtl" "$out/plain-$r.dtl" || { echo "DIFFERENT: plain-1 and plain-$r" >&2; exit 1; }
  done
  python3 -c 'import sys, zlib; sys.stdout.buffer.write(zlib.decompress(open(sys.argv[1], "rb").read()))' \
    "$out/zip.dtl" >"$out/unzipped.dtl"
  same_detail "$out/plain-1.dtl" "$out/unzipped.dtl" || { echo "DIFFERENT: -zip does not restore the plain file" >&2; exit 1; }
  if [ -n "$baseline" ]; then
    same_detail "$out/plain-1.dtl" "$out/base-1.dtl" || { echo "DIFFERENT: baseline $baseline writes other bytes" >&2; exit 1; }
    echo "detail file identical to the one $baseline writes (cmp, run time and free space masked)"
  fi
  echo "detail files identical across runs; -zip restores the plain file exactly"
done

[ -n "$baseline" ] && git worktree remove --force "$work/baseline-src" >/dev/null
exit 0
