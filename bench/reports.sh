#!/usr/bin/env bash
# Times dtldump's report commands against `dtldump --summary`, which reads
# and checks the same file and prints only its totals: the cost of each
# report beyond reading the file. Plain and compressed detail files of the
# million-entry synthetic tree (the tree bench/run.sh makes), every command
# in turn within each round, output to /dev/null; prints medians of
# wall-clock, user and system time, peak memory, and each command's ratio to
# the summary of the files it reads (diff reads two).
#
#   bench/reports.sh [--rounds N] [--tree DIR | --file FILE...] [--baseline REF]
#                    [--work DIR]
#
# --tree DIR      scan this tree (plain and -zip) instead of the synthetic
#                 tree-1000000 in --work, which is made when missing.
# --file FILE     time the commands on this detail file (plain or compressed);
#                 may be given several times.
# --baseline REF  also times --summary of the dtldump of an older commit.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
. bench/maketree.sh

rounds=7
files=()
tree=""
baseline=""
work=build/bench-work
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds=$2; shift 2 ;;
    --file) files+=("$2"); shift 2 ;;
    --tree) tree=$2; shift 2 ;;
    --baseline) baseline=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    *) echo "usage: bench/reports.sh [--rounds N] [--tree DIR | --file FILE...] [--baseline REF] [--work DIR]" >&2
       exit 2 ;;
  esac
done

prepare python3
dtldump=$top/build/release/dtldump
out=$work/reports
rm -rf "$out"; mkdir -p "$out"

if [ ${#files[@]} = 0 ]; then
  [ -n "$tree" ] || tree=$work/tree-1000000
  [ "$tree" != "$work/tree-1000000" ] || make_tree "$tree" --entries 1000000 --seed 7
  "$top/build/release/Ferrovan" "$tree" -f -dtl "$out/plain.dtl" >/dev/null
  "$top/build/release/Ferrovan" "$tree" -f -zip -dtl "$out/zip.dtl" >/dev/null
  files=("$out/plain.dtl" "$out/zip.dtl")
fi

if [ -n "$baseline" ]; then
  rm -rf "$work/baseline-reader"
  git worktree add -f --detach "$work/baseline-reader" "$baseline" >/dev/null
  (cd "$work/baseline-reader" && cmake --preset release >/dev/null && cmake --build --preset release --target dtldump >/dev/null)
  baseBin=$work/baseline-reader/build/release/dtldump
fi

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'),"\
  "$(free -g | awk '/Mem:/ {print $2}') GiB, Linux $(uname -r)"

# One timed run: appends "command seconds user system maxKiB" to $results.
# Python's clock and wait4 give milliseconds where time(1) gives hundredths,
# and a report of a million entries takes a few of those.
timed() {
  local name=$1; shift
  python3 - "$name" "$results" "$out/stderr.txt" "$@" <<'EOF' || exit 1
import os, subprocess, sys, time
name, results, errors, argv = sys.argv[1], sys.argv[2], sys.argv[3], sys.argv[4:]
start = time.perf_counter()
child = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=open(errors, "w"))
_, status, usage = os.wait4(child.pid, 0)
wall = time.perf_counter() - start
if status != 0:
    sys.exit(f"bench/reports.sh: {name} failed:\n" + open(errors).read())
with open(results, "a") as f:
    f.write(f"{name} {wall:.4f} {usage.ru_utime:.4f} {usage.ru_stime:.4f} {usage.ru_maxrss}\n")
EOF
}

for f in "${files[@]}"; do
  results=$out/results-$(basename "$f").txt
  : >"$results"
  "$dtldump" --summary "$f" >/dev/null  # the file in the page cache
  for r in $(seq 1 "$rounds"); do
    timed summary "$dtldump" --summary "$f"
    if [ -n "$baseline" ]; then timed "summary@$baseline" "$baseBin" --summary "$f"; fi
    timed top "$dtldump" top "$f"
    timed owners "$dtldump" owners "$f"
    timed age "$dtldump" age "$f"
    timed types "$dtldump" types "$f"
    timed export-csv "$dtldump" export "$f"
    timed export-ndjson "$dtldump" export --json "$f"
    timed diff "$dtldump" diff "$f" "$f"
  done
  python3 - "$results" "$f" "$(stat -c %s "$f")" "$("$dtldump" --summary "$f" | awk '/entry records/ {print $3}')" \
    "$("$dtldump" export "$f" | wc -c)" <<'EOF'
import statistics, sys
path, name, size, entries, csv = sys.argv[1:]
runs = {}
for line in open(path):
    tool, secs, user, system, kib = line.split()
    runs.setdefault(tool, []).append((float(secs), float(user), float(system), int(kib)))
med = lambda tool, i: statistics.median(r[i] for r in runs[tool])
wall, cpu = med("summary", 0), med("summary", 1) + med("summary", 2)
print(f"\n{name}: {int(size) / 1e6:.1f} MB, {int(entries):,} entry records, CSV export {int(csv) / 1e6:.1f} MB;"
      f" {len(runs['summary'])} rounds, medians")
print(f"{'command':22} {'wall s':>7} {'ratio':>6} {'user s':>7} {'sys s':>6} {'cpu ratio':>9} {'peak MiB':>9}")
for tool in runs:
    files = 2 if tool == "diff" else 1  # against the summaries of the files it reads
    print(f"{tool:22} {med(tool, 0):7.3f} {med(tool, 0) / (files * wall):6.2f} {med(tool, 1):7.3f} {med(tool, 2):6.3f}"
          f" {(med(tool, 1) + med(tool, 2)) / (files * cpu):9.2f} {max(r[3] for r in runs[tool]) / 1024:9.1f}")
EOF
done

if [ -n "$baseline" ]; then git worktree remove --force "$work/baseline-reader" >/dev/null; fi
exit 0
