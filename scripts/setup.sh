#!/usr/bin/env bash
# Installs the Debian packages the build needs when they are missing.
# Usage: scripts/setup.sh [--browser] [extra package ...]
#
# --browser also installs headless Chromium (and a font for its pages) for
# the HTML report's browser test and benchmark. The build does not need it:
# when it cannot be installed this says why and succeeds, and the browser
# test reports itself skipped with the same reason.
set -euo pipefail

browser=0
if [ "${1:-}" = --browser ]; then
  browser=1
  shift
fi

# dpkg-dev (dpkg-shlibdeps) and file let cpack find the Debian package's dependencies.
# libncurses-dev draws dtldump's browser; tmux runs it in the browser's tests.
packages=(g++ cmake ninja-build libgtest-dev libgmock-dev zlib1g-dev libdeflate-dev libncurses-dev tmux python3
  dpkg-dev file "$@")

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
exit 0
