#!/usr/bin/env bash
# Builds the fuzz targets (the fuzz preset: clang with ASan and UBSan) and
# runs each one for SECONDS seconds, starting from its seed corpus in
# fuzz/corpus/<target>/. A crash, leak, timeout or sanitizer report fails the
# script; the input that caused it is kept under build/fuzz/artifacts/.
# Inputs the fuzzer finds on the way go to a temporary directory, so the seed
# corpus stays as it is.
set -euo pipefail

seconds=${1:-}
if ! [[ "$seconds" =~ ^[1-9][0-9]*$ ]]; then
  echo "usage: fuzz/run.sh SECONDS" >&2
  exit 2
fi
cd "$(dirname "$0")/.."

cmake --preset fuzz
cmake --build --preset fuzz

artifacts=build/fuzz/artifacts
mkdir -p "$artifacts"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

for target in config_reader template_match dtl_reader dtl_report; do
  echo "== fuzz_$target for $seconds s"
  mkdir "$work/$target"
  # Logical configuration lines reach 512 bytes only through several physical
  # lines, so inputs may be up to 2 KiB. Detail files need room for a few
  # directories of records after 300 bytes of headers, and a compressed one
  # for its stream: 16 KiB.
  max_len=2048
  case $target in dtl_*) max_len=16384 ;; esac
  build/fuzz/fuzz/fuzz_$target -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len="$max_len" \
    -print_final_stats=1 -artifact_prefix="$artifacts/$target-" "$work/$target" "fuzz/corpus/$target"
done
echo "fuzzing passed"
