#!/usr/bin/env bash
# Installs the Debian packages the build needs when they are missing.
# Usage: scripts/setup.sh [--browser] [--duckdb] [extra package ...]
#
# --browser also installs headless Chromium (and a font for its pages) for
# the HTML report's browser test and benchmark. --duckdb installs Node.js
# and, with npm ci from the committed lock file, DuckDB's package into
# tests/duckdb/node_modules for the test that loads the export into it. The
# build needs neither: when one cannot be installed this says why and
# succeeds, and the test reports itself skipped with the same reason.
set -euo pipefail
cd "$(dirname "$0")/.."

browser=0 duckdb=0
while [ $# -gt 0 ]; do
  case $1 in
    --browser) browser=1 ;;
    --duckdb) duckdb=1 ;;
    *) break ;;
  esac
  shift
done

# dpkg-dev (dpkg-shlibdeps) and file let cpack find the Debian package's
# dependencies; lintian checks the package as Debian's archive would.
# libncurses-dev draws dtldump's browser; tmux runs it in the browser's tests.
packages=(g++ cmake ninja-build libgtest-dev libgmock-dev zlib1g-dev libdeflate-dev libncurses-dev tmux python3
  dpkg-dev file lintian "$@")

missing() {
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || echo "$p"
  done
}

sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
updated=0
install() {
  echo "Installing: $*"
  if [ $updated = 0 ]; then
    "${sudo[@]}" apt-get update -qq
    updated=1
  fi
  "${sudo[@]}" apt-get install -y -qq --no-install-recommends "$@"
}

mapfile -t need < <(missing "${packages[@]}")
[ ${#need[@]} -eq 0 ] || install "${need[@]}"

if [ $browser = 1 ]; then
  mapfile -t need < <(missing chromium fonts-dejavu-core)
  if [ ${#need[@]} -gt 0 ] && ! install "${need[@]}"; then
    echo "scripts/setup.sh: could not install ${need[*]}: the HTML report's browser test will be skipped" >&2
  fi
fi
if [ $duckdb = 1 ]; then
  need=()
  command -v node >/dev/null || need+=(nodejs)
  command -v npm >/dev/null || need+=(npm)
  if [ ${#need[@]} -gt 0 ] && ! install "${need[@]}"; then
    echo "scripts/setup.sh: could not install ${need[*]}: the DuckDB test will be skipped" >&2
  elif ! (cd tests/duckdb && npm ci --no-audit --no-fund --loglevel=error); then
    echo "scripts/setup.sh: npm ci of DuckDB's package failed: the DuckDB test will be skipped" >&2
  fi
fi
exit 0
