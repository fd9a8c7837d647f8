#!/usr/bin/env bash
# Builds the optimised klvlockd, lockinfo and klvlockctl and starts the daemon in the
# background, with its logs in logs/ of this checkout; works from any
# directory. Refuses while the daemon that it started before still runs
# (logs/klvlockd.pid), and reports success only once the new daemon lives and
# its status port answers; otherwise it prints what the daemon wrote to its
# standard error (logs/stderr.log) and exits non-zero. scripts/stop.sh stops it.
# Usage: scripts/start.sh [timeout]   (the timeout argument defaults to 30)
set -euo pipefail
here="$(pwd)"
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
scripts/need-packages.sh build

# A first build here needs no GoogleTest; scripts/test.sh turns the tests on.
if [ ! -f build/release/CMakeCache.txt ]; then cmake --preset release -DBUILD_TESTING=OFF -DKLV_WERROR=OFF; fi
cmake --build --preset release --target klvlockd lockinfo klvlockctl
mkdir -p logs
touch logs/stderr.log
stderr_before=$(wc -c <logs/stderr.log)

# contrib/klvlockd-service runs the daemon, evaluates its status line, waits
# until it serves and writes logs/klvlockd.pid and logs/klvlockd.env (the
# status line). The daemon's standard error, which carries the error records
# and the notices of clients that stopped responding, goes to logs/stderr.log,
# so that nothing holds this terminal or a pipe open.
if ! status_line=$(KLVLOCKD="$root/build/release/daemon/klvlockd" KLVLOCKD_TIMEOUT="${1:-30}" \
  KLVLOCKD_LOGDIR="$root/logs" KLVLOCKD_RUNDIR="$root/logs" \
  KLVLOCKD_STDERR="$root/logs/stderr.log" contrib/klvlockd-service start); then
  added=$(tail -c +$((stderr_before + 1)) logs/stderr.log)
  if [ -n "$added" ]; then
    echo "klvlockd's standard error ($root/logs/stderr.log):" >&2
    echo "$added" >&2
  fi
  exit 1
fi
echo "$status_line"
eval "$status_line"

shown="$root"
if [ "$here" = "$root" ]; then shown="."; fi
echo
echo "klvlockd is running as process $_klvlockd_pid on 127.0.0.1:"
echo "  lock requests on UDP port $_klvlockd_port, status reports on TCP port $_klvlockd_status"
echo "  logs: $shown/logs/journal.log, $shown/logs/errlock.log and $shown/logs/stderr.log"
echo "Status report: $shown/build/release/tools/lockinfo/lockinfo $_klvlockd_status"
echo "               (add --json or --metrics; . $shown/logs/klvlockd.env sets the port for it)"
echo "Stop it:       $shown/scripts/stop.sh"
