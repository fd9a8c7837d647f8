#!/usr/bin/env bash
# lockinfo against the real daemon: hostile client names and paths in every
# output form, the command line and its exit statuses, and --watch ended by
# SIGINT or SIGTERM, also in mid-fetch. Usage: lockinfo_test.sh KLVLOCKD LOCKINFO
set -u
export LC_ALL=C
klvlockd=$1
lockinfo=$2
dir=$(mktemp -d)
pids=()
source "$(dirname "$0")/../support/stop_pids.sh"
source "$(dirname "$0")/../support/expect_output.sh"
cleanup() {
  stop_pids "${pids[@]}"
  rm -rf "$dir"
}
trap cleanup EXIT

mkdir "$dir/logs"
status_line=$("$klvlockd" 30 "$dir/logs" 2>"$dir/stderr") || fail "klvlockd did not start"
eval "$status_line"
pids+=("$_klvlockd_pid")
port=$_klvlockd_status

# word N: N as four little-endian bytes in printf's escapes.
word() {
  printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255))
}
# open_request SESSION FID HI LO NAME PATH: one REQ_OPEN (access read, deny
# none) from a socket of its own. NAME and PATH are in printf's escapes.
# printf writes in pieces, cat in one write: one datagram.
open_request() {
  local name pad=""
  printf -v name "$5"
  for ((i = ${#name}; i < 16; i++)); do pad+='\x00'; done
  printf "$(word 1)$(word 1)$(word "$1")$(word "$2")$(word "$3")$(word "$4")$(word 0)$(word 64)$(word 0)$5$pad$6\\x00" \
    >"$dir/datagram"
  cat "$dir/datagram" >/dev/udp/127.0.0.1/"$_klvlockd_port"
}
# Waits (bounded) until the daemon reports `$1` opens.
wait_for_opens() {
  for _ in $(seq 50); do
    "$lockinfo" --metrics "$port" 2>/dev/null | grep -qx "klvlockd_open_locks $1" && return 0
    sleep 0.1
  done
  fail "the daemon never reported $1 opens"
}
# expect STATUS PATTERN COUNT ARGUMENT...: lockinfo ARGUMENT... ends with
# STATUS, and COUNT lines of its output and errors hold the fixed string PATTERN.
expect() { expect_output -F "$1" "$2" "$3" "$lockinfo" "${@:4}"; }

# A daemon without clients leaves the client table out of its report.
expect 0 "klvlockd_up 1" 1 --metrics "$port"

# A name with a line break and a terminal escape, and a path with a line break,
# a tilde (printable) and a DEL (a control).
open_request 1 1 10 20 'alice' '/real'
open_request 6 2 50 60 'ev\nil\x1b[2J' 'a\nb~\x7f'
wait_for_opens 2
while IFS='|' read -r status pattern count arguments; do
  # shellcheck disable=SC2086
  expect "$status" "$pattern" "$count" $arguments "$port"
done <<'TABLE'
0|  ev\nil\x1b[2J     OK     6    127.0.0.1:|1|
0|[50,60] a\nb~\x7f|1|
0|"path": "a\u000ab~\u007f"|1|--json
0|"name": "ev\u000ail\u001b[2J"|1|--json
0|klvlockd_up 1|1|--metrics
TABLE
expect 0 $'\x1b' 0 "$port"

# A path that copies a section heading and lock rows of a listed client.
open_request 5 3 30 40 'mallory' '/v\n  Open locks: [clientfid type]\n    alice           9 OPEN_READ|DENY_NONE\n\n[1,2] /forged\n\n== Client information\n  forged'
wait_for_opens 3
while IFS='|' read -r status pattern count arguments; do
  # shellcheck disable=SC2086
  expect "$status" "$pattern" "$count" $arguments "$port"
done <<'TABLE'
14|can be read in more than one way|1|
14|"ambiguous": [|1|--json
14|"clientfid": 9|0|--json
14|"path": "/forged|0|--json
0|klvlockd_clients{state="ok"} 3|1|--metrics
0|klvlockd_files_used 3|1|--metrics
0|klvlockd_open_locks 3|1|--metrics
TABLE
expect 14 "? [1,2] /forged" 1 "$port"
[ "$(grep -c -e '^== Client information$' -e '^\[1,2\]' "$dir/out")" -eq 1 ] ||
  fail "a forged section or file was shown as real"

# The command line; the report is read whole when it is exactly --max-bytes long.
size=$("$klvlockd" "$port" | wc -c)
while IFS='|' read -r status pattern arguments; do
  # shellcheck disable=SC2086
  expect "$status" "$pattern" 1 $arguments
done <<TABLE
2|bad value for --timeout: 0|--timeout 0 $port
2|bad value for --timeout: 86401|--timeout=86401 $port
2|bad value for --timeout|--timeout
2|bad value for --max-bytes: 0|--max-bytes 0 $port
2|bad value for --max-bytes: 9x|--max-bytes 9x $port
2|bad value for --watch: -1|--watch -1 $port
2|give --json or --metrics once|--json --metrics $port
2|unknown option --bogus|--bogus $port
2|unknown option --timeoutx|--timeoutx 5 $port
2|more than one port given|$port $port
10|"65536" is not a valid port number|65536
10|"0" is not a valid port number|0
13|more than $((size - 1)) bytes (--max-bytes)|--max-bytes $((size - 1)) $port
0|klvlockd_up 1|--timeout 86400 --max-bytes $size --metrics $port
0|klvlockd_up 1|--timeout 0.5 --max-bytes 0999999 --metrics $port
0|klvlockd_up 1|--timeout=9 --max-bytes=9999999 --metrics 0$port
2|bad value for --timeout: +5|--timeout +5 $port
2|bad value for --timeout: 1x|--timeout 1x $port
2|bad value for --max-bytes: -1|--max-bytes -1 $port
10|"-" is not a valid port number|-
12|cannot contact klvlockd at 127.0.0.1:9: connect: Connection refused|9
0|Usage: lockinfo [--json|--help
TABLE
(unset _klvlockd_status; expect 2 "logs/klvlockd.env" 1) || exit 1
[ "$(wc -l <"$dir/err")" -eq 1 ] || fail "the hint is not one line"
_klvlockd_status=$port expect 0 "klvlockd_up 1" 1 --metrics

# --watch: a round every 0.1 s until SIGINT, which ends it with status 0.
"$lockinfo" --watch 0.1 --metrics "$port" >"$dir/out" 2>"$dir/err" &
watcher=$!
pids+=("$watcher")
for _ in $(seq 100); do [ "$(grep -c 'klvlockd_up 1' "$dir/out")" -ge 3 ] && break; sleep 0.1; done
[ "$(grep -c 'klvlockd_up 1' "$dir/out")" -ge 3 ] || fail "--watch did not redraw"
kill -INT "$watcher"
for _ in $(seq 50); do pid_runs "$watcher" || break; sleep 0.1; done
wait "$watcher" || fail "--watch ended with status $? on SIGINT"
# A long --watch: one round, then the wait for the next that SIGTERM ends.
"$lockinfo" --watch 60 --metrics "$port" >"$dir/out" 2>"$dir/err" &
watcher=$!
pids+=("$watcher")
for _ in $(seq 100); do grep -q 'klvlockd_up 1' "$dir/out" && break; sleep 0.1; done
sleep 0.3
kill -TERM "$watcher"
for _ in $(seq 50); do pid_runs "$watcher" || break; sleep 0.1; done
wait "$watcher" || fail "--watch ended with status $? on SIGTERM"
[ "$(grep -c 'klvlockd_up 1' "$dir/out")" -eq 1 ] || fail "--watch 60 did not wait between rounds"
# A stopped daemon takes the connection but sends nothing: SIGTERM ends
# --watch in the middle of its first fetch, with status 0 and nothing written.
kill -STOP "$_klvlockd_pid"
"$lockinfo" --watch 60 --timeout 60 "$port" >"$dir/out" 2>"$dir/err" &
reader=$!
pids+=("$reader")
for _ in $(seq 100); do  # lockinfo's end of the connection, established
  awk -v to="$(printf ':%04X' "$port")" '$3 ~ to "$" && $4 == "01"' /proc/net/tcp | grep -q . && break
  sleep 0.1
done
kill -TERM "$reader"
for _ in $(seq 50); do pid_runs "$reader" || break; sleep 0.1; done
kill -CONT "$_klvlockd_pid"
pid_runs "$reader" && fail "SIGTERM did not end the fetch"
wait "$reader"
status=$?
[ "$status" -eq 0 ] || fail "an interrupted fetch ended with status $status"
[ ! -s "$dir/out" ] && [ ! -s "$dir/err" ] || fail "an interrupted fetch wrote: $(cat "$dir/out" "$dir/err")"
# A daemon that has ended: no contact, and down in the metrics.
kill "$_klvlockd_pid"
for _ in $(seq 100); do pid_runs "$_klvlockd_pid" || break; sleep 0.1; done
expect 12 "cannot contact klvlockd at 127.0.0.1:$port" 1 "$port"
[ ! -s "$dir/out" ] || fail "a failed fetch wrote to standard output"
expect 12 "klvlockd_up 0" 1 --metrics "$port"
echo PASS
