#!/bin/sh
# Installs the build into a temporary prefix and runs what was installed: the
# daemon through klvlockd-service, lockinfo against it, and with "client"
# klvlockctl and a C program built against the installed library through
# pkg-config (with the compiler flags given). The daemon is stopped by its
# pid, also when the test fails.
# Usage: install_test.sh <build directory> <cmake program> [client [<cflags>]]
set -eu
tmp=$(mktemp -d)
pid=
. "$(dirname "$0")/../support/stop_pids.sh"
cleanup() {
  stop_pids "$pid"
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

prefix=$tmp/usr
"$2" --install "$1" --prefix "$prefix" >/dev/null
for file in sbin/klvlockd sbin/klvlockd-service bin/lockinfo share/man/man8/klvlockd.8 \
  share/man/man1/lockinfo.1 share/doc/klvlockd/examples/klvlockd.logrotate; do
  [ -f "$prefix/$file" ] || fail "$file was not installed"
done
grep -qx "ExecStart=$prefix/sbin/klvlockd-service start" "$prefix/lib/systemd/system/klvlockd.service" ||
  fail "the systemd unit does not name the installed klvlockd-service"

export KLVLOCKD_LOGDIR="$tmp/logs" KLVLOCKD_RUNDIR="$tmp/run" KLVLOCKD_STDERR="$tmp/stderr.log"
line=$("$prefix/sbin/klvlockd-service" start) || fail "klvlockd-service start: $(cat "$tmp/stderr.log")"
pid=$(cat "$tmp/run/klvlockd.pid")
echo "$line" | grep -Eqx '_klvlockd_port=[0-9]+ ; _klvlockd_pid=[0-9]+ ; _klvlockd_status=[0-9]+; export _klvlockd_port _klvlockd_pid _klvlockd_status' ||
  fail "status line: $line"
eval "$line"
[ "$_klvlockd_pid" = "$pid" ] || fail "pid file $pid, status line $_klvlockd_pid"
[ "$(cat "$tmp/run/klvlockd.env")" = "$line" ] || fail "the env file does not hold the status line"
if "$prefix/sbin/klvlockd-service" start >/dev/null 2>&1; then fail "a second start was not refused"; fi

lockinfo=$prefix/bin/lockinfo
"$lockinfo" >"$tmp/report" || fail "lockinfo exited $?"
"$prefix/sbin/klvlockd" "$_klvlockd_status" >"$tmp/probe" || fail "the probe exited $?"
[ "$(tail -n +2 "$tmp/report")" = "$(tail -n +2 "$tmp/probe")" ] ||
  fail "lockinfo and the probe differ: $(cat "$tmp/report" "$tmp/probe")"
grep -q '^Files: 0 Used: 0 OpenLocks: 0 RecordLocks: 0 OpLocks: 0$' "$tmp/report" || fail "report"
"$lockinfo" --json | grep -q '"version": "2.01.905"' || fail "lockinfo --json"
"$lockinfo" --metrics "$_klvlockd_status" | grep -qx 'klvlockd_up 1' || fail "lockinfo --metrics"
status=0
"$lockinfo" 0 2>/dev/null || status=$?
[ "$status" -eq 10 ] || fail "lockinfo 0 exited $status, not 10"
status=0
"$lockinfo" 9 2>/dev/null || status=$?
[ "$status" -eq 12 ] || fail "lockinfo 9 (nothing listens) exited $status, not 12"

if [ "${3:-}" = client ]; then
  printf 'open fid=1 file=10:20 access=readwrite path=/srv/ctl\nversion\n' |
    "$prefix/bin/klvlockctl" --name ctl --strict >"$tmp/ctl" || fail "klvlockctl: $(cat "$tmp/ctl")"
  grep -qx 'version: 201905' "$tmp/ctl" || fail "klvlockctl: $(cat "$tmp/ctl")"
  pc=$(find "$prefix" -name klvlock.pc)
  [ -n "$pc" ] || fail "klvlock.pc was not installed"
  PKG_CONFIG_PATH=$(dirname "$pc")
  export PKG_CONFIG_PATH
  cat >"$tmp/use.c" <<'EOF_C'
#include <klvlock.h>
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  klvlock_session* session = NULL;
  klvlock_reply reply = {0};
  const klvlock_file file = {10, 21};
  int error = klvlock_create((uint16_t)atoi(argv[argc - 1]), 6, "c-program", &session);
  if (error == KLVLOCK_OK) {
    error = klvlock_open(session, file, 1, KLVLOCK_OPEN_READ | KLVLOCK_DENY_NONE, 0, 0, "/srv/c",
                         2000, &reply);
  }
  printf("%s, status %u\n", klvlock_strerror(error), (unsigned)reply.status);
  klvlock_destroy(session);
  return error != KLVLOCK_OK || reply.status != KLVLOCK_STATUS_DONE;
}
EOF_C
  # shellcheck disable=SC2046,SC2086
  cc ${4:-} -o "$tmp/use" "$tmp/use.c" $(pkg-config --cflags --libs klvlock) ||
    fail "the C program did not build against the installed library"
  LD_LIBRARY_PATH=$(pkg-config --variable=libdir klvlock) "$tmp/use" "$_klvlockd_port" >"$tmp/use.out" ||
    fail "the C program: $(cat "$tmp/use.out")"
  "$lockinfo" --json >"$tmp/json"
  for name in ctl c-program; do
    grep -q "\"name\": \"$name\"" "$tmp/json" || fail "lockinfo does not list $name: $(cat "$tmp/json")"
  done
fi

"$prefix/sbin/klvlockd-service" stop >/dev/null || fail "klvlockd-service stop"
if kill -0 "$pid" 2>/dev/null && ! grep -q '^State:[[:space:]]*Z' "/proc/$pid/status"; then
  fail "klvlockd still runs after klvlockd-service stop"
fi
pid=
grep -q 'locking/process/stop' "$tmp/logs/journal.log" || fail "no stop event in the event log"
status=0
"$lockinfo" --metrics "$_klvlockd_status" >"$tmp/down" 2>/dev/null || status=$?
[ "$status" -eq 12 ] && grep -qx 'klvlockd_up 0' "$tmp/down" || fail "lockinfo on a stopped daemon"
# A status line that names no process of its own is refused, never signalled.
printf '#!/bin/sh\necho "_klvlockd_port=1 ; _klvlockd_pid=0 ; _klvlockd_status=2; export _klvlockd_port _klvlockd_pid _klvlockd_status"\n' >"$tmp/pid0"
chmod +x "$tmp/pid0"
status=0
KLVLOCKD=$tmp/pid0 "$prefix/sbin/klvlockd-service" start >/dev/null 2>"$tmp/pid0.err" || status=$?
[ "$status" -eq 1 ] && grep -q "names no process" "$tmp/pid0.err" || fail "a status line with pid 0 was taken"
echo "the installed programs${3:+ and library} work"
