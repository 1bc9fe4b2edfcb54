#!/usr/bin/env bash
# The bash completions of Ferrovan and dtldump as a shell uses them: each
# case puts the words of a command line into COMP_WORDS, calls the
# completion function and compares the offered words.
# Usage: check_completion.sh SOURCE_DIR
set -uo pipefail

source "$1/packaging/completion/Ferrovan"
source "$1/packaging/completion/dtldump"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work" && mkdir -p scans/old && touch a.dtl b.dtl notes.txt scans/c.dtl

failed=0
# expect "OFFERED WORDS" FUNCTION WORD...: the line's last word is completed.
expect() {
  local want=$1 function=$2
  shift 2
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1))
  COMPREPLY=()
  "$function"
  local got
  got=$(printf '%s\n' "${COMPREPLY[@]}" | sed 's/ $//' | sort | tr '\n' ' ' | sed 's/ $//')
  if [ "$got" != "$want" ]; then
    echo "FAIL: $* offers '$got', expected '$want'"
    failed=$((failed + 1))
  fi
}

expect "top trend types" _dtldump dtldump t
expect "a.dtl age b.dtl diff export html owners scans/ top trend types" _dtldump dtldump ""
expect "--help --json --summary" _dtldump dtldump --
expect "--by --depth --help --json --partial" _dtldump dtldump top a.dtl --
expect "--format --help --partial --scan-columns" _dtldump dtldump export --
expect "--depth --help --json --partial" _dtldump dtldump trend --
expect "--history" _dtldump dtldump html a.dtl --hi
expect "csv ndjson" _dtldump dtldump export --format ""
expect "entries size" _dtldump dtldump diff --by ""
expect "age top" _dtldump dtldump html --colour ""
expect "" _dtldump dtldump top -n ""
expect "a.dtl b.dtl scans/" _dtldump dtldump owners ""
expect "scans/c.dtl scans/old/" _dtldump dtldump trend a.dtl scans/
expect "notes.txt" _dtldump dtldump top notes
expect "-dtl" _Ferrovan Ferrovan -d
expect "-? -?V -cfg -dtl -err -f -log -p -tag -tmod -touch -zip" _Ferrovan Ferrovan -
expect "a.dtl b.dtl scans" _Ferrovan Ferrovan /srv -dtl ""
expect "notes.txt" _Ferrovan Ferrovan /srv -log no
expect "scans" _Ferrovan Ferrovan ""
expect "" _Ferrovan Ferrovan /srv -tag ""

[ $failed -eq 0 ] || exit 1
echo "bash completion: every case offers what it should"
