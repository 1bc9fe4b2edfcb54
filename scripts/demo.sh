#!/usr/bin/env bash
# Sets up what is missing, builds the release program and shows what it does.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup.sh
cmake --preset release >/dev/null
cmake --build --preset release

out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT
echo
echo "== build/release/Ferrovan -? (the usage text, first lines)"
build/release/Ferrovan -? | head -n 6 || true
echo
echo "== a run (its log on standard output)"
(cd "$out" && "$OLDPWD/build/release/Ferrovan")
