#!/usr/bin/env bash
# Builds the Debian package with cpack into a scratch directory and checks
# what administrators get: its control fields, its exact files (manual pages
# and completions equal to the sources), no error from lintian, and installed
# programs that answer as the built ones do and read back their own scan.
# Usage: check_deb.sh CPACK BUILD_DIR SOURCE_DIR VERSION STATIC_RUNTIME
set -euo pipefail

cpack=$1 build=$2 source=$3 version=$4 static=$5
if [ "$static" != ON ]; then
  # Sanitizer builds link their runtimes dynamically: their programs are not
  # what the package ships, and dpkg-shlibdeps would name those runtimes.
  echo "skipped: the package is made from a build with the static runtime (this one has FERROVAN_STATIC_RUNTIME=$static)"
  exit 77
fi

fail() {
  echo "check_deb: $*" >&2
  exit 1
}

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$cpack" --config "$build/CPackConfig.cmake" -G DEB -B "$work/out" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack failed"; }
arch=$(dpkg --print-architecture)
deb=$work/out/ferrovan_${version}_${arch}.deb
[ -f "$deb" ] || fail "no $deb; cpack made: $(ls "$work/out")"

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = ferrovan ] || fail "Package is '$(field Package)'"
[ "$(field Version)" = "$version" ] || fail "Version is '$(field Version)', expected $version"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture is '$(field Architecture)', expected $arch"
[[ "$(field Depends)" =~ ^libc6\ \(\>=\ [0-9][0-9.]*\)$ ]] || fail "Depends is '$(field Depends)', expected libc6 only"
contact=$(sed -n 's/^set(FERROVAN_CONTACT "\(.*\)")$/\1/p' "$source/CMakeLists.txt")
[ -n "$contact" ] && [ "$(field Maintainer)" = "$contact" ] ||
  fail "Maintainer is '$(field Maintainer)', not the project's contact '$contact'"
[ "$(field Description | wc -l)" -gt 1 ] || fail "no long description"

# Exactly the two programs, their compressed manual pages, their bash
# completions, the copyright file, the changelog and lintian's overrides.
files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ { print $1, $2, $6 }' | sort)
expected="-rw-r--r-- root/root ./usr/share/bash-completion/completions/Ferrovan
-rw-r--r-- root/root ./usr/share/bash-completion/completions/dtldump
-rw-r--r-- root/root ./usr/share/doc/ferrovan/changelog.gz
-rw-r--r-- root/root ./usr/share/doc/ferrovan/copyright
-rw-r--r-- root/root ./usr/share/lintian/overrides/ferrovan
-rw-r--r-- root/root ./usr/share/man/man1/Ferrovan.1.gz
-rw-r--r-- root/root ./usr/share/man/man1/dtldump.1.gz
-rwxr-xr-x root/root ./usr/bin/Ferrovan
-rwxr-xr-x root/root ./usr/bin/dtldump"
[ "$files" = "$expected" ] || fail "the package holds:
$files
expected:
$expected"

root=$work/root
dpkg-deb -x "$deb" "$root"
for program in Ferrovan dtldump; do
  gzip -dc "$root/usr/share/man/man1/$program.1.gz" | cmp -s - "$source/docs/$program.1" ||
    fail "the manual page $program.1.gz is not docs/$program.1"
  cmp -s "$root/usr/share/bash-completion/completions/$program" "$source/packaging/completion/$program" ||
    fail "the bash completion of $program is not packaging/completion/$program"
  deps=$(ldd "$root/usr/bin/$program" | awk '{ print $1 }' | grep -Ev '^(linux-vdso\.so|/lib64/ld-linux|libc\.so)' || true)
  [ -z "$deps" ] || fail "$program needs more than the C library: $deps"
done
grep -q "Copyright 20[0-9][0-9] $contact" "$root/usr/share/doc/ferrovan/copyright" ||
  fail "the copyright file does not name $contact"
gzip -dc "$root/usr/share/doc/ferrovan/changelog.gz" | head -n 1 | grep -q "^ferrovan ($version) " ||
  fail "the changelog does not begin with version $version"

# Debian's own checker: no error (tags that the package overrides, with
# its reasons, are not errors).
command -v lintian >/dev/null || fail "no lintian here (scripts/setup.sh installs it)"
status=0
lintian --fail-on error "$deb" >"$work/lintian.log" 2>&1 || status=$?
if [ $status -ne 0 ] || grep -q '^E:' "$work/lintian.log"; then
  cat "$work/lintian.log" >&2
  fail "lintian reports errors"
fi

# The installed programs answer as the built ones do (run under the same
# name, since the version text names the program as it was called).
same_output() {
  local program=$1
  shift
  local got want
  got=$(cd "$root/usr/bin" && "./$program" "$@") || fail "installed $program $* failed"
  want=$(cd "$build" && "./$program" "$@") || fail "built $program $* failed"
  [ "$got" = "$want" ] || fail "installed $program $* differs from the built one"
  [ -n "$got" ] || fail "$program $* printed nothing"
}
same_output Ferrovan '-?V'
same_output dtldump --help
(cd "$root/usr/bin" && ./Ferrovan '-?V') | head -n 1 | grep -q "^Version $version " ||
  fail "Ferrovan -?V does not name version $version"

# A scan by the installed program, read back by the installed reader.
mkdir -p "$work/tree/d"
echo data >"$work/tree/d/f"
(cd "$work" && "$root/usr/bin/Ferrovan" "$work/tree" -dtl scan.dtl -f -zip >/dev/null) || fail "installed Ferrovan could not scan"
summary=$("$root/usr/bin/dtldump" --summary "$work/scan.dtl") || fail "installed dtldump rejects the scan: $summary"
grep -q "Structure: sound" <<<"$summary" || fail "installed dtldump: $summary"
echo "ferrovan_${version}_${arch}.deb: $(field Depends); $(echo "$files" | wc -l) files; lintian:" \
  "$(grep -c '^[WI]:' "$work/lintian.log" || true) warnings and notes, no error; installed programs run"
