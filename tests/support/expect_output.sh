# Sourced by the shell tests of the tools. Needs $dir (a scratch directory).
# fail MESSAGE: says what failed, shows the last command's output and errors
# (visible control characters), and ends the test.
fail() {
  echo "FAIL: $*"
  for f in "$dir"/out "$dir"/err; do echo "--- $f"; cat -A "$f"; done
  exit 1
}
# expect_output GREP_MODE STATUS PATTERN COUNT COMMAND...: COMMAND ends with
# STATUS, and COUNT lines of its output and errors match PATTERN, read by
# grep as GREP_MODE says (-F a fixed string, -E an extended expression).
expect_output() {
  local mode=$1 status=$2 pattern=$3 count=$4
  shift 4
  "$@" >"$dir/out" 2>"$dir/err"
  local got=$?
  [ "$got" -eq "$status" ] || fail "${*##*/} ended with $got, not $status"
  got=$(cat "$dir/out" "$dir/err" | grep -c "$mode" -- "$pattern")
  [ "$got" -eq "$count" ] || fail "${*##*/}: $got lines match \"$pattern\", not $count"
}
