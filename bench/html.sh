#!/usr/bin/env bash
# The HTML report of a large scan: how long `dtldump html` takes beside
# `dtldump --summary` (which reads and checks the same file), how large the
# page is, and how long a browser takes to open it, for a few bounds
# (--min-share). The browser is headless Chromium (tests/support/chromium.py),
# a fresh one for each load so that nothing is cached; the times are from the
# start of the navigation to the treemap drawn (the page's own mark) and to
# the load event. Medians of the rounds.
#
#   bench/html.sh [--rounds N] [--tree DIR | --file FILE] [--work DIR]
#                 [--shares "0.1 0.01 0"]
#
# --tree DIR   scan this tree (default: the million-entry synthetic tree in
#              --work, made with mktree.py when missing)
# --file FILE  use this detail file instead of scanning
# --work DIR   scratch folder for the tree, the detail file and the pages
#              (default: build/bench-work, where bench/run.sh keeps its trees)
set -euo pipefail
cd "$(dirname "$0")/.."
top=$PWD
. bench/maketree.sh

rounds=5
tree=""
file=""
work=build/bench-work
shares="0.1 0.01 0"
while [ $# -gt 0 ]; do
  case "$1" in
    --rounds) rounds=$2; shift 2 ;;
    --tree) tree=$2; shift 2 ;;
    --file) file=$2; shift 2 ;;
    --work) work=$2; shift 2 ;;
    --shares) shares=$2; shift 2 ;;
    *) echo "usage: bench/html.sh [--rounds N] [--tree DIR | --file FILE] [--work DIR] [--shares LIST]" >&2
       exit 2 ;;
  esac
done

prepare --browser python3
dtldump=$top/build/release/dtldump

if [ -z "$file" ]; then
  [ -n "$tree" ] || tree=$work/tree-1000000
  [ "$tree" != "$work/tree-1000000" ] || make_tree "$tree" --entries 1000000 --seed 7
  file=$work/html-scan.dtl
  "$top/build/release/Ferrovan" "$tree" -f -dtl "$file" >/dev/null
fi

echo "machine: $(nproc) cores, $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'),"\
  "$(free -g | awk '/Mem:/ {print $2}') GiB, Linux $(uname -r); $(chromium --version 2>/dev/null || echo 'no chromium')"
echo "$file: $(stat -c %s "$file") bytes, $("$dtldump" --summary "$file" | awk '/entry records/ {print $3}') entry records,"\
  "$("$dtldump" --summary "$file" | awk '/directory records/ {print $3}') directories"

python3 - "$dtldump" "$file" "$work" "$rounds" "$top/tests/support" $shares <<'EOF'
import json, os, statistics, subprocess, sys, time
dtldump, dtl, work, rounds, support, shares = sys.argv[1], sys.argv[2], sys.argv[3], int(sys.argv[4]), sys.argv[5], sys.argv[6:]
sys.path.insert(0, support)
import chromium

def timed(argv):
    start = time.perf_counter()
    subprocess.run(argv, check=True, stdout=subprocess.DEVNULL)
    return time.perf_counter() - start

subprocess.run([dtldump, "--summary", dtl], check=True, stdout=subprocess.DEVNULL)  # in the page cache
summary = statistics.median(timed([dtldump, "--summary", dtl]) for _ in range(rounds))
print(f"\n--summary {summary:.3f} s; medians of {rounds} rounds")
print(f"{'--min-share':>11} {'cells':>6} {'page MB':>8} {'html s':>7} {'ratio':>6} {'drawn s':>8} {'loaded s':>9}")
binary = chromium.find_chromium()
for share in shares:
    page = os.path.join(work, f"report-{share}.html")
    made = statistics.median(timed([dtldump, "html", dtl, "-o", page, "--min-share", share]) for _ in range(rounds))
    text = open(page, encoding="utf-8").read()
    data = text.split('<script type="application/json" id="data">', 1)[1].split("</script>", 1)[0]
    cells = len(json.loads(data)["cells"]["name"])
    drawn, loaded = [], []
    for _ in range(rounds if binary else 0):
        with chromium.Browser(binary, 1280, 900) as b:
            d, l = chromium.load_time(b, page)
            drawn.append(d)
            loaded.append(l)
    browser = f"{statistics.median(drawn):8.3f} {statistics.median(loaded):9.3f}" if binary else "   (no chromium)"
    print(f"{share:>11} {cells:6} {os.path.getsize(page) / 1e6:8.2f} {made:7.3f} {made / summary:6.2f} {browser}")
EOF
