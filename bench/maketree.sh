# make_tree DIR ARGS...: makes DIR with bench/mktree.py ARGS unless the tree
# there was made by the same maker with the same arguments (the summary line
# of the maker is kept in DIR.made). Sourced by the benchmark scripts, which
# run from the top of the checkout, so that they share one tree.
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
