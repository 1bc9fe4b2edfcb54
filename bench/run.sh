#!/usr/bin/env bash
# Times Ferrovan side by side with the least work a scanner can do and with
# other tools that walk a tree, on synthetic trees of 100,000 and 1,000,000
# entries and on a backup server's snapshot farm, and prints medians, ratios
# to the floor, time per entry and peak memory; then the -zip figures
# (compression speed, size against gzip -9, a -zip run against a plain one).
# It also checks the detail files on every tree it scans (the synthetic
# trees, the farm, and /usr untimed): every run gives the same file, the
# -zip file inflates to the plain one, and (with --baseline) an older build
# writes the same bytes. Any difference stops the script.
#
#   bench/run.sh [--rounds N] [--sizes "100000 1000000"] [--farm KxF|none]
#                [--baseline REF] [--sweep] [--work DIR]
#
# --farm KxF      the snapshot farm: K snapshots of F files (default 10x30000;
#                 a smaller one such as 3x3000 for quick trials; none: no farm).
# --baseline REF  also builds the Ferrovan of an older commit in a temporary
#                 worktree, times it, and compares its detail file with the
#                 current one's (cmp) on every tree, /usr included.
# --sweep         after the rounds, measures libdeflate's levels
#                 on the largest tree's detail file (CPU time,
#                 size against gzip -9; bench/libdeflate_sweep.cpp).
#
# Everything it runs comes from this checkout (bench/floor.c, bench/mktree.py)
# or from Debian packages that scripts/setup.sh installs. Trees are made once
# in --work (default build/bench-work) and remade only when mktree.py or their
# arguments change; a million entries take a few minutes to make and about
# 1 GB of metadata. The tools run in turn within each round, so that the
# machine's mood at any moment falls on all of them; the ratios are only
# meaningful within one run.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
me=bench/run.sh
. bench/maketree.sh

rounds=5
sizes="100000 1000000"
farm=10x30000
baseline=""
sweep=0
work=build/bench-work
usage="usage: bench/run.sh [--rounds N] [--sizes LIST] [--farm KxF|none] [--baseline REF] [--sweep] [--work DIR]"
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds=$2; shift 2 ;;
    --sizes) sizes=$2; shift 2 ;;
    --farm) farm=$2; shift 2 ;;
    --baseline) baseline=$2; shift 2 ;;
    --sweep) sweep=1; shift ;;
    --work) work=$2; shift 2 ;;
    *) echo "$usage" >&2; exit 2 ;;
  esac
done
[[ "$rounds" =~ ^[1-9][0-9]*$ ]] || { echo "bench/run.sh: --rounds takes a positive number" >&2; exit 2; }
for n in $sizes; do
  [[ "$n" =~ ^[1-9][0-9]*$ ]] || { echo "bench/run.sh: --sizes takes numbers of entries, not '$n'" >&2; exit 2; }
done
[[ "$farm" =~ ^([1-9][0-9]*)x([1-9][0-9]*)$ || "$farm" = none ]] ||
  { echo "bench/run.sh: --farm takes SNAPSHOTSxFILES (such as 10x30000) or none" >&2; exit 2; }
if [ -n "$baseline" ]; then
  git rev-parse -q --verify "$baseline^{commit}" >/dev/null ||
    { echo "bench/run.sh: --baseline $baseline is not a commit of this repository" >&2; exit 2; }
fi

prepare ncdu time gcc python3 gzip
cc -O2 -o "$work/floor" bench/floor.c
ferrovan=$top/build/release/Ferrovan
# The program's own compression of a file, timed apart from the scan, and
# the level sweep: built by the bench preset, which links what the core does.
scripts/setup.sh libbenchmark-dev
cmake --preset bench >/dev/null
cmake --build --preset bench --target compress_file_speed libdeflate_sweep >/dev/null
cp build/bench/bench/compress_file_speed build/bench/bench/libdeflate_sweep "$work/"

if [ -n "$baseline" ]; then
  # The temporary worktree goes however the script ends.
  trap 'git -C "$top" worktree remove --force "$work/baseline-src" >/dev/null 2>&1 || true' EXIT
  build_baseline "$baseline" "$work/baseline-src"
  baseBin=$work/baseline-src/build/release/Ferrovan
fi

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'),"\
  "$(free -g | awk '/Mem:/ {print $2}') GiB, Linux $(uname -r), $(stat -f -c %T "$work") at $work"
echo "zlib $(python3 -c 'import zlib; print(zlib.ZLIB_RUNTIME_VERSION)'), $(ncdu -v), $(du --version | head -1), $(find --version | head -1)"
echo "Ferrovan $(git describe --always --dirty)${baseline:+, baseline $baseline ($(git rev-parse --short "$baseline"))}"

# Inflates a -zip detail file with Python's zlib, which knows nothing of ours.
inflate() {
  python3 -c 'import sys, zlib; sys.stdout.buffer.write(zlib.decompress(open(sys.argv[1], "rb").read()))' \
    "$2" 2>"$work/zlib.txt" >"$3" || {
    echo "bench/run.sh: DIFFERENT: $1: the -zip file does not inflate" >&2
    echo "  $(tail -1 "$work/zlib.txt")" >&2
    exit 1; }
}
# Times every tool on one tree and checks its detail files.
bench_tree() {
  local label=$1 tree=$2
  results=$work/results-$label.txt
  : >"$results"
  local out=$work/out-$label
  rm -rf "$out"; mkdir -p "$out"
  # Warm the cache once before anything is timed. Listing a directory or
  # reading a symbolic link sets its access time once after it changed (or a
  # day after the last time), so the first scan of a fresh tree records other
  # times than every later one: scan once untimed. The floor counts entries.
  local entries
  entries=$("$work/floor" "$tree" | cut -d' ' -f1)
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
  local plainSize zipSize gzipSize
  plainSize=$(stat -c %s "$out/plain-1.dtl")
  zipSize=$(stat -c %s "$out/zip.dtl")
  gzipSize=$(gzip -9 -c "$out/plain-1.dtl" | wc -c)
  echo
  sed -n 2p "$tree.made"
  python3 - "$label" "$results" "$entries" "$plainSize" "$zipSize" "$gzipSize" "$out/zipspeed.txt" "$summary" <<'EOF'
import re, statistics, sys
label, path, entries, plain, packed, gz, speeds, summary = sys.argv[1:]
entries, plain, packed, gz = int(entries), int(plain), int(packed), int(gz)
sys.path.insert(0, "bench")
import results
runs = results.read(path)
med, peak = runs.med, runs.peak
floor = med("floor")
print(f"{label}: {entries} entries, {len(runs['floor'])} rounds (medians of wall-clock, user and system seconds)")
print(f"{'tool':14} {'wall s':>7} {'ratio':>6} {'ns/entry':>9} {'user s':>7} {'sys s':>6} {'peak MiB':>9}")
for tool in runs:
    print(f"{tool:14} {med(tool):7.3f} {med(tool) / floor:6.2f} {med(tool) * 1e9 / entries:9.0f}"
          f" {med(tool, 1):7.2f} {med(tool, 2):6.2f} {peak(tool):9.1f}")
text = open(speeds).read()
wall = [float(m) for m in re.findall(r"^compress .*?([0-9.]+) MB/s wall", text, re.M)]
cpu = [float(m) for m in re.findall(r"^compress .*?([0-9.]+) MB/s cpu", text, re.M)]
extra = med("ferrovan-zip") - med("ferrovan")
scan = plain / 1e6 / extra if extra > 0 else float("inf")
print(f"-zip: detail file {plain / 1e6:.1f} MB -> {packed / 1e6:.2f} MB = {packed / gz:.3f} x gzip -9 ({gz / 1e6:.2f} MB);"
      f" compression {statistics.median(wall):.1f} MB/s wall, {statistics.median(cpu):.1f} MB/s CPU"
      f" (compressFile alone, median of 3); a -zip run takes {med('ferrovan-zip') / med('ferrovan'):.2f} x"
      f" a plain run, {scan:.1f} MB/s from the -zip run minus the plain run")
with open(summary, "a") as s:
    for tool in runs:
        s.write(f"{label} {entries} {tool} {med(tool) * 1e9 / entries:.1f} {med(tool) / floor:.3f} {peak(tool):.1f}\n")
EOF

  # The detail files: identical from run to run, -zip restores exactly, and
  # the baseline writes the same bytes.
  local files=("$out"/plain-*.dtl)
  if [ -n "$baseline" ]; then files+=("$out"/base-*.dtl); fi
  inflate "$label" "$out/zip.dtl" "$out/unzipped.dtl"
  mask "${files[@]}" "$out/unzipped.dtl"
  for r in $(seq 2 "$rounds"); do
    same "$label: two runs of the current build" "$out/plain-1.dtl" "$out/plain-$r.dtl"
  done
  same "$label: the -zip file inflated is not the plain one" "$out/plain-1.dtl" "$out/unzipped.dtl"
  if [ -n "$baseline" ]; then
    for r in $(seq 1 "$rounds"); do
      same "$label: baseline $baseline writes other bytes" "$out/plain-1.dtl" "$out/base-$r.dtl"
    done
    echo "detail file identical to the one $baseline writes (cmp, run time and free space masked)"
  fi
  echo "detail files identical across runs; -zip restores the plain file exactly"
}

summary=$work/summary.txt
: >"$summary"
for n in $sizes; do
  make_tree "$work/tree-$n" --entries "$n" --seed 7
done
if [ "$farm" != none ]; then
  make_tree "$work/farm-$farm" --farm --snapshots "${farm%x*}" --files "${farm#*x}" --seed 7
fi
for n in $sizes; do
  bench_tree "tree-$n" "$work/tree-$n"
done
if [ "$farm" != none ]; then
  bench_tree "farm-$farm" "$work/farm-$farm"
fi

# /usr as a real tree, untimed: the -zip file and (with --baseline) the older
# build's detail file against the current build's. Another session may
# install packages meanwhile: when a comparison fails, the current build
# scans once more, and only a difference that this second scan confirms
# stops the script.
usr=$work/out-usr
rm -rf "$usr"; mkdir -p "$usr"
"$ferrovan" /usr -f -dtl "$usr/warm.dtl" >/dev/null
"$ferrovan" /usr -f -dtl "$usr/plain.dtl" >/dev/null
"$ferrovan" /usr -f -zip -dtl "$usr/zip.dtl" >/dev/null
[ -z "$baseline" ] || "$baseBin" /usr -f -dtl "$usr/base.dtl" >/dev/null
inflate /usr "$usr/zip.dtl" "$usr/unzipped.dtl"
mask "$usr/plain.dtl" "$usr/unzipped.dtl"
[ -z "$baseline" ] || mask "$usr/base.dtl"
usr_same() {
  local what=$1 other=$2
  cmp -s "$usr/plain.dtl" "$other" && return
  "$ferrovan" /usr -f -dtl "$usr/again.dtl" >/dev/null
  mask "$usr/again.dtl"
  if cmp -s "$usr/plain.dtl" "$usr/again.dtl"; then
    same "/usr: $what" "$usr/plain.dtl" "$other"
  else
    same "/usr: $what (/usr changed between the scans; a second scan disagrees too)" "$usr/again.dtl" "$other"
  fi
}
usr_same "the -zip file inflated is not the plain one" "$usr/unzipped.dtl"
[ -z "$baseline" ] || usr_same "baseline $baseline writes other bytes" "$usr/base.dtl"
echo
echo "/usr: $("$work/floor" /usr); -zip restores the plain file exactly${baseline:+; detail file identical to the one $baseline writes}"

# Costs that grow with the tree: time per entry at each size against the
# smallest, and Ferrovan on every tree side by side.
python3 - "$summary" <<'EOF'
import sys
per, rows = {}, []
for line in open(sys.argv[1]):
    label, entries, tool, ns, ratio, peak = line.split()
    if label.startswith("tree-"):
        per.setdefault(tool, {})[int(entries)] = float(ns)
    if tool == "ferrovan":
        rows.append((label, int(entries), float(ns), float(ratio), float(peak)))
sizes = sorted({n for t in per.values() for n in t})
if len(sizes) > 1:
    print("\ntime per entry against the", sizes[0], "entry tree:",
          ", ".join(f"{tool} " + " ".join(f"{per[tool][n] / per[tool][sizes[0]]:.2f}" for n in sizes[1:])
                    for tool in per if all(n in per[tool] for n in sizes)))
print(f"\n{'Ferrovan on':16} {'entries':>9} {'ns/entry':>9} {'ratio':>6} {'peak MiB':>9}")
for label, entries, ns, ratio, peak in rows:
    print(f"{label:16} {entries:9} {ns:9.0f} {ratio:6.2f} {peak:9.1f}")
EOF

if [ "$sweep" = 1 ]; then
  largest=$(echo $sizes | tr ' ' '\n' | sort -n | tail -1)
  file=$work/out-tree-$largest/plain-1.dtl
  echo
  "$work/libdeflate_sweep" "$file" "$(gzip -9 -c "$file" | wc -c)"
fi
exit 0
