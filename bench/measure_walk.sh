#!/bin/sh
# Measures the walk: scans a tree several times with the release program (the
# first run warms the cache) and prints the best wall time and the entries
# per second, with the user and system time of that run. Not built by CMake.
#
# Usage: bench/measure_walk.sh TREE [runs]   (default: 5 runs)
# Needs the release build (cmake --preset release && cmake --build --preset release).
set -eu
here=$(cd "$(dirname "$0")" && pwd)
top=$(dirname "$here")
tree=$1
runs=${2:-5}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM

best=""
i=0
while [ "$i" -lt "$runs" ]; do
    /usr/bin/time -f "%e %U %S %M" -o "$work/time" \
        "$top/build/release/Ferrovan" "$tree" -dtl "$work/walk.dtl" -f >/dev/null
    read -r wall user sys rss <"$work/time"
    if [ -z "$best" ] || [ "$(echo "$wall < $best" | bc)" = 1 ]; then
        best=$wall
        line="user ${user}s, system ${sys}s, peak ${rss} KB"
    fi
    i=$((i + 1))
done
entries=$("$top/build/release/dtldump" --summary "$work/walk.dtl" | awk '/entry records/ {print $3}')
echo "$tree: $entries entries, best of $runs runs ${best}s ($(echo "$entries / $best" | bc) entries/s; $line)"
