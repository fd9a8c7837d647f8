#!/usr/bin/env bash
# klvlockctl against the real daemon: two sessions meet on one file (oplock
# grant after a probe, break, wait, retry notice, share and range conflicts,
# all while idle at the prompt), the end of a session at the end of input,
# then the exit statuses of --strict and of bad lines.
# Usage: klvlockctl_test.sh KLVLOCKD KLVLOCKCTL
set -u
klvlockd=$1
klvlockctl=$2
dir=$(mktemp -d)
pids=()
source "$(dirname "$0")/../support/stop_pids.sh"
cleanup() {
  exec 3>&- 4>&-
  stop_pids "${pids[@]}"
  rm -rf "$dir"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  for f in "$dir"/*.out; do echo "--- $f"; cat "$f"; done
  exit 1
}
# Waits up to 10 s for file $1 to hold the line $2.
expect() {
  for _ in $(seq 100); do grep -qxF -- "$2" "$1" && return 0; sleep 0.1; done
  fail "$1 lacks the line \"$2\""
}

mkdir "$dir/logs"
status_line=$("$klvlockd" 30 "$dir/logs" 2>"$dir/stderr") || fail "klvlockd did not start"
eval "$status_line"
[ "$_klvlockd_pid" -gt 1 ] 2>/dev/null || fail "no process in the status line: $status_line"
pids+=("$_klvlockd_pid")
export _klvlockd_port

mkfifo "$dir/holder.in" "$dir/waiter.in"
"$klvlockctl" --session 1 --name holder <"$dir/holder.in" >"$dir/holder.out" 2>&1 &
pids+=($!)
exec 3>"$dir/holder.in"
"$klvlockctl" --session 2 --name waiter --keep-session <"$dir/waiter.in" >"$dir/waiter.out" 2>&1 &
pids+=($!)
exec 4>"$dir/waiter.in"

echo "open fid=1 file=10:20 access=read deny=write oplock path=/share/a.txt" >&3
expect "$dir/holder.out" "probe answered"
expect "$dir/holder.out" "open fid=1: granted oplock=1"
echo "open fid=2 file=10:20 access=read deny=none" >&4
expect "$dir/waiter.out" "open fid=2: wait id=1"
expect "$dir/holder.out" "break file=10:20 fid=1 session=1"
echo "release fid=1 file=10:20" >&3
expect "$dir/holder.out" "release fid=1: done"
expect "$dir/waiter.out" "retry id=1 session=2"
echo "open fid=2 file=10:20 access=write deny=none wait=1" >&4
expect "$dir/waiter.out" "open fid=2: conflict"
printf '# a range\nlock fid=2 file=10:20 offset=0 length=10\n' >&4
expect "$dir/waiter.out" "lock fid=2: granted"
expect "$dir/waiter.out" "klvlockctl: line 4: warning: fid=2 file=10:20 has no open in this session; the daemon never releases such a lock on its own"
echo "lock fid=1 file=10:20 offset=5 length=10 shared" >&3
expect "$dir/holder.out" "lock fid=1: conflict"
exec 3>&- 4>&-
wait "${pids[1]}" || fail "holder ended with status $?"
wait "${pids[2]}" || fail "waiter ended with status $?"
expect "$dir/holder.out" "end: done"
grep -qxF "end: done" "$dir/waiter.out" && fail "--keep-session sent an end"
grep -F "warning" "$dir/holder.out" && fail "a lock on a fid opened in the session was warned about"

# --strict: a refusal is status 1, a syntax error 2, an unreachable daemon 3.
strict() { printf '%b\n' "$@" | "$klvlockctl" --strict --session 9 >"$dir/strict.out" 2>&1; }
# The holder's open (deny=write) went with its end; the waiter's range stayed.
strict "open fid=9 file=10:20 access=write" "lock fid=9 file=10:20 offset=9 length=1" "noop"
[ $? -eq 1 ] || fail "a refusal under --strict did not end with status 1"
grep -qxF "open fid=9: granted oplock=0" "$dir/strict.out" || fail "the holder's open outlived it"
grep -qxF "lock fid=9: conflict" "$dir/strict.out" || fail "no conflict line"
[ "$(grep -c 'noop: done' "$dir/strict.out")" -eq 0 ] || fail "went on after the refusal"
grep -qxF "end: done" "$dir/strict.out" || fail "--strict stopped without an end"
long=$(printf '%04095d' 0)
while IFS='|' read -r line message; do
  strict "noop" "$line"
  [ $? -eq 2 ] || fail "\"$line\" under --strict did not end with status 2"
  grep -qF "line 2: $message" "$dir/strict.out" || fail "no line \"$message\" for \"$line\""
done <<TABLE
lock fid=9 file=1:2 length=1 offset=x|bad value in "offset=x"
open fid=9 file=1:2 access=all|bad value in "access=all"
open fid=9 file=1:2 deny=some|bad value in "deny=some"
open fid=1 fid=2 file=1:2|"fid" given twice
lock fid=1 file=1:2 offset=0 length=1 shared shared|"shared" given twice
open fid=1 file=1:2 path=/a\x00b|NUL byte at column 28
open fid=1 file=1:2 path=/$long|path longer than 4095 bytes
text x$long|text longer than 4095 bytes
frob fid=1|unknown request "frob"
close fid=1|close needs file=
lock fid=1 file=1:2 offset=0 length=1 oplock|"oplock" is not a flag of lock
wait 86401|bad number of seconds "86401"
wait 1x|bad number of seconds "1x"
open fid=+5 file=1:2|bad value in "fid=+5"
open fid=1x file=1:2|bad value in "fid=1x"
close fid=1 file=12|bad value in "file=12"
open fid=1 file=1:2 path=|bad value in "path="
TABLE
# Lines that are taken, and all they print (numbers in hex are shown in decimal).
while IFS='|' read -r lines expected; do
  strict "$lines"
  [ $? -eq 0 ] && [ "$(cat "$dir/strict.out")" = "$(printf '%b' "$expected")" ] || fail "\"$lines\" printed the above"
done <<'TABLE'
lock fid=100 file=0x10:0XA offset=0 length=1\nunlock fid=100 file=16:10 offset=0 length=1|klvlockctl: line 1: warning: fid=100 file=16:10 has no open in this session; the daemon never releases such a lock on its own\nlock fid=100: granted\nklvlockctl: line 2: warning: fid=100 file=16:10 has no open in this session; the daemon never releases such a lock on its own\nunlock fid=100: done\nend: done
open fid=4294967295 file=1:3\nclose fid=4294967295 file=1:3|open fid=4294967295: granted oplock=0\nclose fid=4294967295: done\nend: done
wait 0\nwait 0.1\nnoop|noop: done\nend: done
TABLE
[ "$(printf noop | "$klvlockctl")" = "$(printf 'noop: done\nend: done')" ] || fail "a last line without a newline was not run"
printf 'wait 86400\n' | timeout 1 "$klvlockctl"
[ $? -eq 124 ] || fail "a wait of a day was not taken"
strict "open fid=1 file=1:2 path=${long:1}" "text ${long}"
[ $? -eq 0 ] || fail "a path or text of 4095 bytes was refused"
timeout 10 "$klvlockctl" <&- >"$dir/closed.out" 2>&1
[ $? -eq 0 ] || fail "klvlockctl with standard input closed did not end with status 0"
timeout 10 "$klvlockctl" <"$dir" >"$dir/unreadable.out" 2>&1
[ $? -eq 4 ] && [ "$(cat "$dir/unreadable.out")" = "klvlockctl: cannot read standard input: Is a directory" ] ||
  fail "a directory as standard input did not end with status 4"
[ -z "$(script -qec "$klvlockctl </dev/null" /dev/null </dev/null)" ] || fail "a prompt with no terminal to type on"
(unset _klvlockd_port; "$klvlockctl" </dev/null >"$dir/noport.out" 2>&1)
[ $? -eq 2 ] || fail "no port did not end with status 2"
[ "$(grep -c 'logs/klvlockd.env' "$dir/noport.out")" -eq 1 ] && [ "$(wc -l <"$dir/noport.out")" -eq 1 ] ||
  fail "no one-line hint at the env file"
while IFS='|' read -r option message; do
  # shellcheck disable=SC2086
  "$klvlockctl" $option </dev/null >"$dir/option.out" 2>&1
  [ $? -eq 2 ] && [ "$(head -1 "$dir/option.out")" = "klvlockctl: $message" ] || fail "klvlockctl $option"
done <<'TABLE'
--portx 1|unknown option --portx
--names x|unknown option --names
--session x|bad value for --session: x
--session +5|bad value for --session: +5
--session 4294967296|bad value for --session: 4294967296
--timeout 0|bad value for --timeout: 0
--timeout 3600001|bad value for --timeout: 3600001
--port 65536|bad value for --port: 65536
--name|bad value for --name
TABLE
"$klvlockctl" --session=0 </dev/null >/dev/null 2>&1 || fail "--session=0 was refused"
"$klvlockctl" --name SIXTEEN-CHARS-XY </dev/null >/dev/null 2>&1 || fail "a 16-byte name was refused"
"$klvlockctl" --name SEVENTEEN-CHARS-X </dev/null >/dev/null 2>&1
[ $? -eq 2 ] || fail "a 17-byte name was taken"
printf 'noop\n' | "$klvlockctl" --port 65535 --timeout 100 >/dev/null 2>&1
[ $? -eq 3 ] || fail "port 65535 was not taken"
# A daemon that has stopped answering: no reply, status 3.
kill -STOP "$_klvlockd_pid"
printf 'noop\n' | "$klvlockctl" --timeout 100 >"$dir/stopped.out" 2>&1
status=$?
kill -CONT "$_klvlockd_pid"
[ $status -eq 3 ] && grep -qxF "noop: no reply" "$dir/stopped.out" || fail "a silent daemon was not status 3"
kill "$_klvlockd_pid"
for _ in $(seq 100); do pid_runs "$_klvlockd_pid" || break; sleep 0.1; done
printf 'noop\n' | "$klvlockctl" >"$dir/none.out" 2>&1
[ $? -eq 3 ] || fail "a stopped daemon did not end klvlockctl with status 3"
echo PASS
