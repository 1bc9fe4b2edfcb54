#!/usr/bin/env bash
# Times Ferrovan's read-ahead walk at its default number of helper threads
# and at chosen counts (FERROVAN_THREADS) side by side with the least work a
# scanner can do on one thread (bench/floor.c) and on many (floor -j N), and
# with other tools that walk a tree (gdu, ncdu, du, find), in three modes:
#
#   warm  the page cache holds the tree (one untimed scan first)
#   cold  the caches are dropped before every timed run (root only)
#   slow  a mirror of a smaller tree that answers every request after a set
#         delay, with the kernel's caches off (bench/slowfs.c, libfuse3), the
#         way a file server across a network behaves
#
# It prints medians of wall time, ratios to the parallel floor, to the
# one-thread floor and to gdu, and peak resident memory, with `uptime` at
# the start and the end. It checks every run: each floor's count of entries
# and directories against the one-thread floor's on the same tree, and each
# Ferrovan detail file against the FERROVAN_THREADS=1 run's of the same mode
# (cmp, with the run time and the free space masked). Any difference stops
# the script.
#
#   bench/parallel.sh [--quick] [--rounds N] [--size N] [--modes "warm cold slow"]
#                     [--threads "1 2 4 8 16 32 64"] [--floor-threads "32"]
#                     [--tools LIST] [--slow-tools LIST] [--slow-rounds N]
#                     [--slow-entries N] [--delay-us N] [--baseline REF] [--work DIR]
#
# --size N          entries of the tree (mktree.py --entries N --seed 7)
# --threads LIST    FERROVAN_THREADS values timed besides the default (unset);
#                   1 is always among them: every detail file is compared
#                   with its run's
# --floor-threads   threads of the parallel floor; with several counts, the
#                   first is the one the ratios are taken to
# --tools LIST      which tools run in warm and cold mode: floor floor-j
#                   ferrovan gdu ncdu du find baseline (the default: all)
# --slow-tools LIST the same for slow mode, where each one-thread tool takes
#                   about half a minute (default: floor floor-j ferrovan gdu
#                   baseline)
# --slow-rounds N   rounds in slow mode (default: --rounds, at most 3)
# --slow-entries N  entries of the slow mode's tree (default 20000)
# --delay-us N      the slow mirror's delay per request (default 300)
# --baseline REF    also builds the Ferrovan of an older commit in a
#                   temporary worktree and times it beside FERROVAN_THREADS=1
# --quick           a trial: 20,000 entries, 2,000 in slow mode, one round,
#                   FERROVAN_THREADS 1, 2 and 8 (later options still apply)
#
# Everything it runs comes from this checkout or from Debian packages that
# scripts/setup.sh installs. Trees are made once in --work (default
# build/bench-work, shared with bench/run.sh); the tools run in turn within
# each round, so that the machine's mood at any moment falls on all of them.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
me=bench/parallel.sh
. bench/maketree.sh

rounds=5
size=1000000
modes="warm cold slow"
threads="1 2 4 8 16 32 64"
floorThreads=32
allTools="floor floor-j ferrovan gdu ncdu du find baseline"
tools=$allTools
slowTools="floor floor-j ferrovan gdu baseline"
slowRounds=""
slowEntries=20000
delayUs=300
baseline=""
work=build/bench-work
usage="usage: bench/parallel.sh [--quick] [--rounds N] [--size N] [--modes LIST] [--threads LIST]
       [--floor-threads LIST] [--tools LIST] [--slow-tools LIST] [--slow-rounds N]
       [--slow-entries N] [--delay-us N] [--baseline REF] [--work DIR]"
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) size=20000; slowEntries=2000; rounds=1; threads="1 2 8"; shift ;;
    --rounds | --size | --modes | --threads | --floor-threads | --tools | --slow-tools | --slow-rounds | \
      --slow-entries | --delay-us | --baseline | --work)
      [ $# -ge 2 ] || { echo "$usage" >&2; exit 2; }
      case "$1" in
        --rounds) rounds=$2 ;;
        --size) size=$2 ;;
        --modes) modes=$2 ;;
        --threads) threads=$2 ;;
        --floor-threads) floorThreads=$2 ;;
        --tools) tools=$2 ;;
        --slow-tools) slowTools=$2 ;;
        --slow-rounds) slowRounds=$2 ;;
        --slow-entries) slowEntries=$2 ;;
        --delay-us) delayUs=$2 ;;
        --baseline) baseline=$2 ;;
        --work) work=$2 ;;
      esac
      shift 2 ;;
    *) echo "$usage" >&2; exit 2 ;;
  esac
done
bad() { echo "$me: $*" >&2; exit 2; }
positive() { [[ "$1" =~ ^[1-9][0-9]*$ ]]; }
positive "$rounds" || bad "--rounds takes a positive number"
positive "$size" || bad "--size takes a number of entries"
positive "$slowEntries" || bad "--slow-entries takes a number of entries"
[[ "$delayUs" =~ ^[0-9]+$ ]] || bad "--delay-us takes a number of microseconds"
[ -z "$slowRounds" ] || positive "$slowRounds" || bad "--slow-rounds takes a positive number"
[ -n "$slowRounds" ] || slowRounds=$((rounds < 3 ? rounds : 3))
for m in $modes; do
  case "$m" in warm | cold | slow) ;; *) bad "--modes takes warm, cold and slow, not '$m'" ;; esac
done
for n in $threads $floorThreads; do
  positive "$n" && [ "$n" -le 1024 ] || bad "thread counts run from 1 to 1024, not '$n'"
done
[ -n "$floorThreads" ] || bad "--floor-threads takes at least one count"
for t in $tools $slowTools; do
  [[ " $allTools " = *" $t "* ]] || bad "the tools are $allTools, not '$t'"
done
# FERROVAN_THREADS=1 is the run every detail file is compared with.
[[ " $threads " = *" 1 "* ]] || threads="1 $threads"
if [ -n "$baseline" ]; then
  git rev-parse -q --verify "$baseline^{commit}" >/dev/null || bad "--baseline $baseline is not a commit of this repository"
fi
# The default is what the program chooses with the variable unset.
unset FERROVAN_THREADS

prepare ncdu gdu time gcc python3 fuse3 libfuse3-dev pkg-config
cc -O2 -o "$work/floor" bench/floor.c
cc -O2 -o "$work/slowfs" bench/slowfs.c $(pkg-config --cflags --libs fuse3)
ferrovan=$top/build/release/Ferrovan

# However the script ends (an error, a difference, ^C): the mirror is
# unmounted and the temporary worktree removed.
mnt=$work/slow-mnt
slowPid=""
baseSrc=$work/parallel-baseline-src
unmount_slow() {
  [ -n "$slowPid" ] || return 0
  if mountpoint -q "$mnt"; then fusermount3 -u -z "$mnt" 2>/dev/null || umount -l "$mnt" 2>/dev/null || true; fi
  # Unmounted, the mirror prints how many requests it answered and ends.
  for _ in $(seq 50); do kill -0 "$slowPid" 2>/dev/null || break; sleep 0.1; done
  kill "$slowPid" 2>/dev/null || true
  wait "$slowPid" 2>/dev/null || true
  slowPid=""
}
cleanup() {
  unmount_slow
  [ -z "$baseline" ] || git -C "$top" worktree remove --force "$baseSrc" >/dev/null 2>&1 || true
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

if [ -n "$baseline" ]; then
  build_baseline "$baseline" "$baseSrc"
  baseBin=$baseSrc/build/release/Ferrovan
fi

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'),"\
  "$(free -g | awk '/Mem:/ {print $2}') GiB, Linux $(uname -r), $(stat -f -c %T "$work") at $work"
echo "$(gdu --version | awk '/Version/ {print "gdu", $2}'), $(ncdu -v), $(du --version | head -1), $(find --version | head -1), libfuse $(pkg-config --modversion fuse3)"
echo "Ferrovan $(git describe --always --dirty)${baseline:+, baseline $baseline ($(git rev-parse --short "$baseline"))}"
echo "uptime at start: $(uptime)"

# Cold mode drops the page cache, dentries and inodes before every timed run.
drop_caches() {
  sync
  echo 3 >/proc/sys/vm/drop_caches
}

# Every floor's count must be the one-thread floor's on the same tree.
counted() {
  local tool=$1 want=$2
  [ "$(cat "$work/count.txt")" = "$want" ] || {
    echo "$me: DIFFERENT: $tool counted '$(cat "$work/count.txt")', the one-thread floor '$want'" >&2
    exit 1; }
}

# Times the chosen tools on SCAN (the tree, or the mirror of TREE) for N
# rounds, checks every run, and prints the medians.
bench_mode() {
  local mode=$1 tree=$2 scan=$3 n=$4 chosen=" $5 "
  results=$work/parallel-$mode.txt
  : >"$results"
  local out=$work/parallel-out-$mode
  rm -rf "$out"; mkdir -p "$out"
  # Listing a directory or reading a link sets its access time once after it
  # changed (or a day after the last time), and the detail file records
  # access times: one untimed scan first, of the tree itself (in slow mode
  # too, since the mirror reads the same directories and links), which also
  # warms the cache.
  local want
  want=$("$work/floor" "$tree")
  "$ferrovan" "$tree" -f -dtl "$out/warm-up.dtl" >/dev/null
  local entries=${want%% *}
  local ref="" files k f
  for r in $(seq 1 "$n"); do
    if [[ "$chosen" = *" floor "* ]]; then
      timed_out=$work/count.txt timed floor "$work/floor" "$scan"
      counted floor "$want"
    fi
    if [[ "$chosen" = *" floor-j "* ]]; then
      for k in $floorThreads; do
        timed_out=$work/count.txt timed "floor-j$k" "$work/floor" -j "$k" "$scan"
        counted "floor -j $k" "$want"
      done
    fi
    files=()
    if [[ "$chosen" = *" ferrovan "* ]]; then
      timed ferrovan "$ferrovan" "$scan" -f -dtl "$out/default-$r.dtl"
      files+=("$out/default-$r.dtl")
      for k in $threads; do
        FERROVAN_THREADS=$k timed "ferrovan-t$k" "$ferrovan" "$scan" -f -dtl "$out/t$k-$r.dtl"
        files+=("$out/t$k-$r.dtl")
      done
    fi
    [[ "$chosen" != *" gdu "* ]] || timed gdu gdu -n -p "$scan"
    [[ "$chosen" != *" ncdu "* ]] || timed ncdu ncdu -0 -x -o "$out/ncdu.out" "$scan"
    [[ "$chosen" != *" du "* ]] || timed du du -a "$scan"
    [[ "$chosen" != *" find "* ]] || timed find find "$scan" -printf '%u %g %i %m %A@ %T@ %C@ %s %n %p\n'
    if [ -n "$baseline" ] && [[ "$chosen" = *" baseline "* ]]; then
      timed baseline "$baseBin" "$scan" -f -dtl "$out/base-$r.dtl"
      files+=("$out/base-$r.dtl")
    fi
    # Every detail file of the round against the first FERROVAN_THREADS=1
    # one; the others go once compared, since a million entries make tens
    # of megabytes each.
    if [ ${#files[@]} -gt 0 ]; then
      mask "${files[@]}"
      if [ -z "$ref" ]; then
        ref=$out/reference.dtl
        if [ -f "$out/t1-$r.dtl" ]; then cp "$out/t1-$r.dtl" "$ref"; else cp "${files[0]}" "$ref"; fi
      fi
      for f in "${files[@]}"; do
        same "$mode: $(basename "$f" .dtl) against FERROVAN_THREADS=1" "$ref" "$f"
        rm -f "$f"
      done
    fi
  done

  echo
  echo "$mode: $(sed -n 2p "$tree.made")"
  [ "$mode" != slow ] || echo "  scanned through $mnt, every request answered after $delayUs us"
  python3 - "$mode" "$results" "$entries" "$n" "${floorThreads%% *}" "$summary" <<'EOF'
import sys
mode, path, entries, rounds, pj, summary = sys.argv[1:]
entries, pfloor = int(entries), f"floor-j{pj}"
sys.path.insert(0, "bench")
import results
runs = results.read(path)
med, peak = runs.med, runs.peak
ratio = lambda tool, to: f"{med(tool) / med(to):.2f}" if to in runs else "-"
print(f"{mode}: {entries} entries, {rounds} rounds (medians of wall-clock, user and system seconds;"
      f" ratios of the medians)")
print(f"{'tool':14} {'wall s':>8} {'/' + pfloor:>10} {'/floor':>7} {'/gdu':>6} {'user s':>7} {'sys s':>7} {'peak MiB':>9}")
for tool in runs:
    print(f"{tool:14} {med(tool):8.3f} {ratio(tool, pfloor):>10} {ratio(tool, 'floor'):>7} {ratio(tool, 'gdu'):>6}"
          f" {med(tool, 1):7.2f} {med(tool, 2):7.2f} {peak(tool):9.1f}")

# The bars the read-ahead walk is held to, where this run measured both sides.
def bar(text, tool, to, most=None, least=None):
    if tool in runs and to in runs:
        r = med(tool) / med(to)
        met = (most is None or r <= most) and (least is None or r >= least)
        limit = f"at most {most}" if most is not None else f"at least {least}"
        print(f"  {text}: {r:.2f} ({limit}): {'met' if met else 'NOT met'}")
print("bars:")
if mode == "warm":
    bar("ferrovan / parallel floor", "ferrovan", pfloor, most=1.2)
if mode == "cold":
    bar("ferrovan / parallel floor", "ferrovan", pfloor, most=1.25)
    bar("ferrovan / one-thread floor", "ferrovan", "floor", most=0.4)
    bar("ferrovan / gdu", "ferrovan", "gdu", most=0.5)
if mode == "slow":
    bar("ferrovan-t1 / ferrovan", "ferrovan-t1", "ferrovan", least=7)
    bar("ferrovan / parallel floor", "ferrovan", pfloor, most=1.25)
bar("ferrovan-t1 / baseline", "ferrovan-t1", "baseline", most=1.03)
if mode in ("warm", "cold") and "ferrovan" in runs and entries >= 1000000:
    p = peak("ferrovan")
    print(f"  ferrovan peak memory: {p:.1f} MiB (at most 32): {'met' if p <= 32 else 'NOT met'}")
with open(summary, "a") as s:
    for tool in runs:
        s.write(f"{mode} {tool} {med(tool):.4f} {peak(tool):.1f}\n")
EOF
  [ -z "$ref" ] || echo "detail files identical to FERROVAN_THREADS=1's in every run (cmp, run time and free space masked)"
  echo "floors' counts identical to the one-thread floor's: $want"
}

summary=$work/parallel-summary.txt
: >"$summary"
for mode in $modes; do
  case $mode in
    warm)
      make_tree "$work/tree-$size" --entries "$size" --seed 7
      bench_mode warm "$work/tree-$size" "$work/tree-$size" "$rounds" "$tools"
      ;;
    cold)
      if [ "$(id -u)" != 0 ] || ! (echo 3 >/proc/sys/vm/drop_caches) 2>/dev/null; then
        echo
        echo "cold: skipped: the caches cannot be dropped here (echo 3 >/proc/sys/vm/drop_caches needs root)"
        continue
      fi
      make_tree "$work/tree-$size" --entries "$size" --seed 7
      before_each=drop_caches bench_mode cold "$work/tree-$size" "$work/tree-$size" "$rounds" "$tools"
      ;;
    slow)
      tree=$work/tree-$slowEntries
      make_tree "$tree" --entries "$slowEntries" --seed 7
      # A mirror left mounted by a run that was killed outright goes first.
      mkdir -p "$mnt"
      if mountpoint -q "$mnt"; then fusermount3 -u -z "$mnt" 2>/dev/null || umount -l "$mnt"; fi
      "$work/slowfs" --delay-us "$delayUs" "$tree" "$mnt" 2>"$work/slowfs.log" &
      slowPid=$!
      for _ in $(seq 100); do mountpoint -q "$mnt" && break; kill -0 $slowPid 2>/dev/null || break; sleep 0.1; done
      if ! mountpoint -q "$mnt"; then
        unmount_slow
        echo
        echo "slow: skipped: slowfs could not mount $mnt (FUSE needs /dev/fuse and, here, root): $(cat "$work/slowfs.log")"
        continue
      fi
      bench_mode slow "$tree" "$mnt" "$slowRounds" "$slowTools"
      unmount_slow
      cat "$work/slowfs.log"
      ;;
  esac
done

# Each tool's medians in every mode side by side.
python3 - "$summary" "${floorThreads%% *}" <<'EOF'
import sys
med, peaks, modes = {}, {}, []
for line in open(sys.argv[1]):
    mode, tool, secs, peak = line.split()
    if mode not in modes:
        modes.append(mode)
    med.setdefault(tool, {})[mode] = float(secs)
    peaks.setdefault(tool, {})[mode] = float(peak)
if len(modes) > 1:
    pfloor = f"floor-j{sys.argv[2]}"
    print("\nmedian wall seconds (ratio to the parallel floor) and peak MiB, by mode")
    print(f"{'tool':14}" + "".join(f" {m:>25}" for m in modes))
    for tool in med:
        cells = []
        for m in modes:
            if m not in med[tool]:
                cells.append(f" {'-':>25}")
                continue
            r = f"({med[tool][m] / med[pfloor][m]:.2f})" if m in med.get(pfloor, {}) else ""
            cells.append(f" {med[tool][m]:9.3f} {r:>7} {peaks[tool][m]:6.1f} MiB")
        print(f"{tool:14}" + "".join(cells))
EOF
echo
echo "uptime at end: $(uptime)"
exit 0
