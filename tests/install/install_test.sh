#!/bin/sh
# Installs klvlockd and runs what was installed: the daemon through
# klvlockd-service, lockinfo against it, and with "client" klvlockctl and a C
# program built against the installed library through pkg-config (with the
# compiler flags given).
#   prefix   cmake --install of a build into a temporary prefix; the C program
#            finds the library there through the rpath of the pkg-config file.
#   package  builds the Debian packages, fails on any lintian error, unpacks
#            them into a temporary root and runs them from there (the library
#            found through LD_LIBRARY_PATH, as the packaged programs carry no
#            rpath); also checks the manual-page links and the bash
#            completion. With KLV_TEST_SYSTEM_INSTALL=1 (CI, as root) it also
#            installs the packages on the system and purges them again.
# Every daemon is stopped by its pid, also when the test fails.
# Usage: install_test.sh prefix <build directory> <cmake program> [client [<cflags>]]
#        install_test.sh package <source directory>
set -eu
tmp=$(mktemp -d)
pid=
. "$(dirname "$0")/../support/stop_pids.sh"
cleanup() {
  stop_pids "$pid" "$(cat "$tmp/run/klvlockd.pid" 2>/dev/null)"
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 1' INT TERM
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

mode=$1
shift
if [ "$mode" = prefix ]; then
  prefix=$tmp/usr
  "$2" --install "$1" --prefix "$prefix" >/dev/null
  client=${3:-}
  cflags=${4:-}
  runtime_libs=
  unit=$prefix/lib/systemd/system/klvlockd.service
else
  "$1/scripts/build-packages.sh" "$tmp/debs" >/dev/null
  lintian --fail-on error --pedantic "$tmp"/debs/*.deb >"$tmp/lintian" 2>&1 ||
    fail "lintian: $(cat "$tmp/lintian")"
  for deb in "$tmp"/debs/*.deb; do
    case $deb in *-dbgsym_*) ;; *) dpkg-deb -x "$deb" "$tmp/root" ;; esac
  done
  prefix=$tmp/root/usr
  client=client
  cflags=
  runtime_libs=$(dirname "$(find "$prefix/lib" -name 'libklvlock.so.1')")
  unit=$tmp/root/lib/systemd/system/klvlockd.service
  export PKG_CONFIG_SYSROOT_DIR="$tmp/root"
  version=$(dpkg-deb -f "$tmp"/debs/klvlockd_*.deb Version)
  for tool in bin/lockinfo bin/klvlockctl; do
    case $(LD_LIBRARY_PATH=$runtime_libs "$prefix/$tool" --version | head -n 1) in
      *" $version") ;;
      *) fail "$tool --version does not print the package's version $version" ;;
    esac
  done
fi

for file in sbin/klvlockd sbin/klvlockd-service bin/lockinfo share/man/man8/klvlockd.8 \
  share/man/man8/klvlockd-service.8 share/man/man1/lockinfo.1 \
  share/bash-completion/completions/lockinfo share/bash-completion/completions/klvlockctl; do
  [ -f "$prefix/$file" ] || [ -f "$prefix/$file.gz" ] || fail "$file was not installed"
done
grep -qx "ExecStart=$(echo "$prefix" | sed "s|^$tmp/root||")/sbin/klvlockd-service start" "$unit" ||
  fail "the systemd unit does not name the installed klvlockd-service"

export KLVLOCKD_LOGDIR="$tmp/logs" KLVLOCKD_RUNDIR="$tmp/run" KLVLOCKD_STDERR="$tmp/stderr.log"
service=$prefix/sbin/klvlockd-service
status=0
"$service" status >/dev/null || status=$?
[ "$status" -eq 3 ] || fail "klvlockd-service status before the start exited $status, not 3"
line=$("$service" start) || fail "klvlockd-service start: $(cat "$tmp/stderr.log")"
pid=$(cat "$tmp/run/klvlockd.pid")
echo "$line" | grep -Eqx '_klvlockd_port=[0-9]+ ; _klvlockd_pid=[0-9]+ ; _klvlockd_status=[0-9]+; export _klvlockd_port _klvlockd_pid _klvlockd_status' ||
  fail "status line: $line"
eval "$line"
[ "$_klvlockd_pid" = "$pid" ] || fail "pid file $pid, status line $_klvlockd_pid"
[ "$(cat "$tmp/run/klvlockd.env")" = "$line" ] || fail "the env file does not hold the status line"
if "$service" start >/dev/null 2>&1; then fail "a second start was not refused"; fi
[ "$("$service" status)" = "klvlockd runs as process $pid: $line" ] || fail "klvlockd-service status"

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

if [ "$client" = client ]; then
  printf 'open fid=1 file=10:20 access=readwrite path=/srv/ctl\nversion\n' |
    LD_LIBRARY_PATH=$runtime_libs "$prefix/bin/klvlockctl" --name ctl --strict >"$tmp/ctl" ||
    fail "klvlockctl: $(cat "$tmp/ctl")"
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
  cc $cflags -o "$tmp/use" "$tmp/use.c" $(pkg-config --cflags --libs klvlock) ||
    fail "the C program did not build against the installed library"
  LD_LIBRARY_PATH=$runtime_libs "$tmp/use" "$_klvlockd_port" >"$tmp/use.out" ||
    fail "the C program: $(cat "$tmp/use.out")"
  "$lockinfo" --json >"$tmp/json"
  for name in ctl c-program; do
    grep -q "\"name\": \"$name\"" "$tmp/json" || fail "lockinfo does not list $name: $(cat "$tmp/json")"
  done
fi

"$service" restart >"$tmp/restart" || fail "klvlockd-service restart: $(cat "$tmp/restart")"
old_pid=$pid
pid=$(cat "$tmp/run/klvlockd.pid")
eval "$(cat "$tmp/run/klvlockd.env")"
[ "$pid" != "$old_pid" ] && ! pid_runs "$old_pid" || fail "restart kept process $old_pid"
"$lockinfo" >/dev/null || fail "lockinfo on the restarted daemon exited $?"
"$service" stop >/dev/null || fail "klvlockd-service stop"
! pid_runs "$pid" || fail "klvlockd still runs after klvlockd-service stop"
pid=
grep -q 'locking/process/stop' "$tmp/logs/journal.log" || fail "no stop event in the event log"
status=0
"$lockinfo" --metrics "$_klvlockd_status" >"$tmp/down" 2>/dev/null || status=$?
[ "$status" -eq 12 ] && grep -qx 'klvlockd_up 0' "$tmp/down" || fail "lockinfo on a stopped daemon"
# A pid file left behind by a daemon that ended is told apart from none.
echo "$old_pid" >"$tmp/run/klvlockd.pid"
status=0
"$service" status >/dev/null || status=$?
[ "$status" -eq 1 ] || fail "klvlockd-service status with a stale pid file exited $status, not 1"
rm "$tmp/run/klvlockd.pid"
# A status line that names no process of its own is refused, never signalled.
printf '#!/bin/sh\necho "_klvlockd_port=1 ; _klvlockd_pid=0 ; _klvlockd_status=2; export _klvlockd_port _klvlockd_pid _klvlockd_status"\n' >"$tmp/pid0"
chmod +x "$tmp/pid0"
status=0
KLVLOCKD=$tmp/pid0 "$service" start >/dev/null 2>"$tmp/pid0.err" || status=$?
[ "$status" -eq 1 ] && grep -q "names no process" "$tmp/pid0.err" || fail "a status line with pid 0 was taken"

[ "$mode" = package ] || {
  echo "the installed programs${client:+ and library} work"
  exit 0
}

# "man klvlock_open" finds klvlock(3): a link for every function of the header.
functions=$(grep '^KLVLOCK_API ' "$prefix/include/klvlock.h" | grep -o 'klvlock_[a-z_]*(' | tr -d '(')
[ -n "$functions" ] || fail "no functions found in klvlock.h"
for function in $functions; do
  [ "$(readlink "$prefix/share/man/man3/$function.3.gz")" = klvlock.3.gz ] ||
    fail "no manual page link $function.3.gz to klvlock.3.gz"
done

# bash-completion loads the installed completions by command name.
completions() { # completions CURRENT COMMAND WORD...: the candidates for CURRENT
  XDG_DATA_DIRS=$prefix/share _klvlockd_status=4242 _klvlockd_port=4343 bash -c '
    . /usr/share/bash-completion/bash_completion
    current=$1
    shift
    __load_completion "$1" || exit 1
    COMP_WORDS=("$@" "$current") COMP_CWORD=$# COMP_LINE="$* $current" COMP_POINT=${#COMP_LINE}
    "$(complete -p "$1" | sed "s/.*-F \([^ ]*\) .*/\1/")" "$1" "$current" "${@: -1}"
    echo "${COMPREPLY[*]}"' completions "$@"
}
while IFS='|' read -r words current expected; do
  # shellcheck disable=SC2086
  got=$(cd "$tmp" && completions "$current" $words) || fail "no completion loaded for $words"
  [ "$got" = "$expected" ] || fail "completion of '$words $current': '$got', not '$expected'"
done <<'EOF_TABLE'
lockinfo|--m|--metrics --max-bytes
lockinfo|--w|--watch
lockinfo|--ti|--timeout
lockinfo --json|--cl|--cluster
lockinfo --json||4242
lockinfo --timeout||
lockinfo --cluster|ro|root
klvlockctl|--k|--keep-session
klvlockctl --name x|--st|--strict
klvlockctl --port||4343
klvlockctl --name||
EOF_TABLE

if [ "${KLV_TEST_SYSTEM_INSTALL:-}" = 1 ]; then
  ! dpkg-query -W klvlockd >/dev/null 2>&1 || fail "klvlockd is installed already"
  dpkg -i "$tmp"/debs/klvlockd_*.deb "$tmp"/debs/libklvlock1_*.deb "$tmp"/debs/libklvlock-dev_*.deb \
    >"$tmp/dpkg.log" 2>&1 || fail "dpkg -i: $(cat "$tmp/dpkg.log")"
  [ "$(stat -c '%U %G %a' /var/log/klvlockd)" = "klvlockd klvlockd 750" ] ||
    fail "/var/log/klvlockd: $(stat -c '%U %G %a' /var/log/klvlockd)"
  getent passwd klvlockd | grep -q ':/nonexistent:/usr/sbin/nologin$' || fail "no system user klvlockd"
  dpkg --purge klvlockd libklvlock-dev libklvlock1 >"$tmp/dpkg.log" 2>&1 ||
    fail "dpkg --purge: $(cat "$tmp/dpkg.log")"
  ! getent passwd klvlockd && ! getent group klvlockd && [ ! -e /var/log/klvlockd ] ||
    fail "the purge left the user, the group or /var/log/klvlockd"
fi
echo "the packages pass lintian and their programs and library work"
