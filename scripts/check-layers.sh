#!/usr/bin/env bash
# Fails when a source file includes a header from a layer above its own, or
# from another module of the same layer. The layers, top to bottom:
#
#   driver/  reader/        the program and the reader tools, side by side
#   scan/                   the walk
#   detail/                 the detail-file writer, format and compression
#   btree/   config/        the paged B-tree; configuration, roots, templates
#   support/                memory, strings, byte order, small helpers
#   log/                    log and error output, the fatal-exit routines
#
# Tests, benchmarks and fuzz targets may include anything.
set -euo pipefail
cd "$(dirname "$0")/.."

rank() {
  case $1 in
    log) echo 0 ;;
    support) echo 1 ;;
    btree | config) echo 2 ;;
    detail) echo 3 ;;
    scan) echo 4 ;;
    driver | reader) echo 5 ;;
    *) echo -1 ;;
  esac
}

bad=0
while IFS= read -r file; do
  from=${file%%/*}
  mine=$(rank "$from")
  [ "$mine" -ge 0 ] || continue
  while IFS= read -r target; do
    to=${target%%/*}
    [ "$to" = "$from" ] && continue
    theirs=$(rank "$to")
    if [ "$theirs" -lt 0 ] || [ "$theirs" -ge "$mine" ]; then
      echo "$file includes \"$target\": $to/ is not below $from/" >&2
      bad=1
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(git ls-files -co --exclude-standard -- '*.cpp' '*.h' '*.h.in')

[ "$bad" = 0 ] && echo "layers: every include looks down"
exit "$bad"
