#!/usr/bin/env bash
# dtldump over many scans: `trend` over 10 successive scans of the
# million-entry synthetic tree against `--summary` of the same 10 files (one
# run per file, times added up), and the reports over 10 scans of different
# machines (the same files, each given another node name) against the same
# report of one: wall-clock and CPU time, and peak memory, which must follow
# the largest scan, not the number of scans.
#
#   bench/multiscan.sh [--rounds N] [--scans N] [--work DIR]
#
# Between scans a few files are added and grown in the tree (in a folder of
# its own, removed at the end), so the scans differ; each scan's start time
# is then set a day after the last, as nightly scans would be.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
. bench/maketree.sh

rounds=5
scans=10
work=build/bench-work
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds=$2; shift 2 ;;
    --scans) scans=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    *) echo "usage: bench/multiscan.sh [--rounds N] [--scans N] [--work DIR]" >&2; exit 2 ;;
  esac
done

prepare python3
tree=$work/tree-1000000
make_tree "$tree" --entries 1000000 --seed 7
out=$work/multiscan
rm -rf "$out"; mkdir -p "$out"
changing=$tree/.multiscan-bench
trap 'rm -rf "$changing"' EXIT
mkdir -p "$changing"
for i in $(seq 0 $((scans - 1))); do
  for j in $(seq 0 "$i"); do truncate -s $(((i + 1) * 1048576)) "$changing/grown-$j"; done
  "$top/build/release/Ferrovan" "$tree" -f -dtl "$out/scan-$i.dtl" >/dev/null
done

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'),"\
  "$(free -g | awk '/Mem:/ {print $2}') GiB, Linux $(uname -r); uptime:$(uptime)"

python3 - "$top/build/release/dtldump" "$out" "$scans" "$rounds" <<'EOF'
import glob, os, shutil, statistics, struct, subprocess, sys
dtldump, out, scans, rounds = sys.argv[1], sys.argv[2], int(sys.argv[3]), int(sys.argv[4])
trend = [f"{out}/scan-{i}.dtl" for i in range(scans)]

def patch(path, runtime=None, node=None):
    with open(path, "r+b") as f:
        if runtime is not None:
            f.seek(8)
            f.write(struct.pack("<I", runtime))
        if node is not None:  # the same length, so that the header strings stay in place
            f.seek(284)
            length = struct.unpack("<H", f.read(2))[0] // 2 - 1
            name = node.ljust(length, "x")[:length]
            f.write(b"".join(struct.pack("<H", ord(c)) for c in name))

start = struct.unpack("<I", open(trend[0], "rb").read(12)[8:12])[0]
servers = []
for i, path in enumerate(trend):
    patch(path, runtime=start + i * 86400)
    copy = f"{out}/server-{i}.dtl"
    shutil.copyfile(path, copy)
    patch(copy, node=f"s{i}")
    servers.append(copy)

def run(argv):
    import time
    begin = time.perf_counter()
    child = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(child.pid, 0)
    wall = time.perf_counter() - begin
    if status:
        sys.exit(f"bench/multiscan.sh: {' '.join(argv)} failed: {child.stderr.read().decode()}")
    return wall, usage.ru_utime + usage.ru_stime, usage.ru_maxrss

# Each case: its runs, one after the other; times add up, memory is the largest.
cases = {
    f"--summary x{scans} (one run each)": [[dtldump, "--summary", f] for f in trend],
    f"trend of {scans} scans": [[dtldump, "trend", *trend]],
    f"trend --depth 2 of {scans}": [[dtldump, "trend", "--depth", "2", *trend]],
    "top of 1 scan": [[dtldump, "top", servers[0]]],
    f"top of {scans} servers": [[dtldump, "top", *servers]],
    "owners of 1 scan": [[dtldump, "owners", servers[0]]],
    f"owners of {scans} servers": [[dtldump, "owners", *servers]],
    "age of 1 scan": [[dtldump, "age", servers[0]]],
    f"age of {scans} servers": [[dtldump, "age", *servers]],
    "types of 1 scan": [[dtldump, "types", servers[0]]],
    f"types of {scans} servers": [[dtldump, "types", *servers]],
}
for argv in cases.values():  # the files in the page cache
    for a in argv: run(a)
results = {name: [] for name in cases}
for _ in range(rounds):
    for name, argvs in cases.items():
        runs = [run(a) for a in argvs]
        results[name].append((sum(r[0] for r in runs), sum(r[1] for r in runs), max(r[2] for r in runs)))
med = lambda name, i: statistics.median(r[i] for r in results[name])
summary = next(iter(cases))
size = os.path.getsize(trend[0])
print(f"\n{scans} scans of {size / 1e6:.1f} MB each; {rounds} rounds, medians; ratio: wall time to --summary of the same files")
print(f"{'case':32} {'wall s':>7} {'ratio':>6} {'cpu s':>7} {'peak MiB':>9}")
for name in cases:
    files = sum(a.endswith(".dtl") for argv in cases[name] for a in argv)
    print(f"{name:32} {med(name, 0):7.3f} {med(name, 0) / (med(summary, 0) * files / scans):6.2f}"
          f" {med(name, 1):7.3f} {max(r[2] for r in results[name]) / 1024:9.1f}")
EOF
