#!/usr/bin/env bash
# Sets up what is missing, builds the release programs and scans a real
# directory (read only) into a temporary detail file, then checks that file.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release

# The system's documentation tree when there is one, else these sources.
target=/usr/share/doc
[ -d "$target" ] || target=$PWD

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
echo
echo "== build/release/Ferrovan -? (the usage text, first lines)"
build/release/Ferrovan -? | head -n 6 || true
echo
echo "== build/release/Ferrovan $target -dtl demo.dtl -tag demo (the execution log)"
(cd "$out" && "$OLDPWD/build/release/Ferrovan" "$target" -dtl demo.dtl -tag demo)
echo
echo "== build/release/dtldump --summary demo.dtl (the detail file, read back and checked)"
build/release/dtldump --summary "$out/demo.dtl"
echo
echo "== build/release/dtldump top -n 8 demo.dtl (the largest directories, from the same file)"
build/release/dtldump top -n 8 "$out/demo.dtl"
echo
echo "Next: build/release/dtldump browse FILE (in a terminal), or owners|age|types|export|diff|trend|html FILE (see docs/dtldump.1)"
