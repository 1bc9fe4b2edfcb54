#!/usr/bin/env bash
# Installs the Debian packages the build needs when they are missing.
# Usage: scripts/setup.sh [extra package ...]
set -euo pipefail

# dpkg-dev (dpkg-shlibdeps) and file let cpack find the Debian package's dependencies.
packages=(g++ cmake ninja-build libgtest-dev libgmock-dev zlib1g-dev libdeflate-dev python3 dpkg-dev file "$@")
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo=()
[ "$(id -u)" -eq 0 ] || sudo=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -qq
"${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
