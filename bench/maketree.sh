# Helpers the benchmark scripts share, sourced by them; they run from the top
# of the checkout and set $me (the script's name, for messages) and $work.

# prepare PACKAGE...: installs what the benchmark needs (scripts/setup.sh
# arguments), builds the release programs, and makes $work and sets it to
# its absolute path.
prepare() {
  scripts/setup.sh "$@"
  cmake --preset release >/dev/null
  cmake --build --preset release >/dev/null
  mkdir -p "$work"
  work=$(cd "$work" && pwd)
}

# make_tree DIR ARGS...: makes DIR with bench/mktree.py ARGS unless the tree
# there was made by the same maker with the same arguments (the summary line
# of the maker is kept in DIR.made), so that the scripts share one tree.
make_tree() {
  local dir=$1; shift
  local want
  want="$(sha256sum bench/mktree.py | cut -c1-16) $*"
  [ -d "$dir" ] && [ "$(head -1 "$dir.made" 2>/dev/null)" = "$want" ] && return
  echo "making $dir ..."
  rm -rf "$dir" "$dir.made"
  local line
  line=$(python3 bench/mktree.py "$dir" "$@")
  printf '%s\n%s\n' "$want" "$line" >"$dir.made"
}

# mask FILE...: the run time (bytes 8 to 11) and the volume's free space
# (bytes 192 to 199) differ from run to run; everything else in a detail
# file must be the same. Zeroes them in place, so that the files can be
# compared with cmp.
mask() {
  python3 - "$@" <<'PY'
import sys
for path in sys.argv[1:]:
    with open(path, "r+b") as f:
        f.seek(8); f.write(bytes(4))      # runTime
        f.seek(192); f.write(bytes(8))    # availableSpace
PY
}

# same WHAT A B: stops the script unless two masked detail files are the
# same bytes, naming both and the first byte that differs.
same() {
  local what=$1 a=$2 b=$3
  cmp "$a" "$b" >"$work/cmp.txt" 2>&1 || {
    echo "$me: DIFFERENT: $what" >&2
    echo "  $(cat "$work/cmp.txt")" >&2
    exit 1; }
}

# timed TOOL COMMAND...: one timed run; appends "tool seconds user system
# maxKiB" to $results. Wall time comes from bash's microsecond clock around
# the run, because time(1) gives it in hundredths (5 % of a 100,000-entry
# scan); user and system time and peak memory come from time(1). The
# command's output goes to $timed_out (default /dev/null); $before_each, when
# set, runs first, outside the clock (dropping the caches, for one).
timed() {
  local tool=$1; shift
  [ -z "${before_each:-}" ] || $before_each
  local start=$EPOCHREALTIME
  /usr/bin/time -f "%U %S %M" -o "$work/time.txt" "$@" >"${timed_out:-/dev/null}" 2>"$work/stderr.txt" || {
    echo "$me: $tool failed:" >&2; cat "$work/stderr.txt" >&2; exit 1; }
  local us=$(( ${EPOCHREALTIME//[.,]/} - ${start//[.,]/} ))  # the point is the locale's
  printf '%s %d.%06d %s\n' "$tool" $((us / 1000000)) $((us % 1000000)) "$(cat "$work/time.txt")" >>"$results"
}

# build_baseline REF DIR: builds the Ferrovan of an older commit in a
# temporary worktree DIR, as DIR/build/release/Ferrovan; the caller removes
# the worktree however it ends (git worktree remove --force DIR).
build_baseline() {
  local ref=$1 dir=$2
  rm -rf "$dir"
  git worktree add -f --detach "$dir" "$ref" >/dev/null
  (cd "$dir" && cmake --preset release >/dev/null && cmake --build --preset release --target Ferrovan >/dev/null)
}
