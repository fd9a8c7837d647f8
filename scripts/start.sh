#!/usr/bin/env bash
# Builds the optimised klvlockd and starts it in the background, with its logs
# in logs/ of this checkout. Works from any directory.
# Usage: scripts/start.sh [timeout]   (the timeout argument defaults to 30)
set -euo pipefail
here="$(pwd)"
root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"

cmake --preset release
cmake --build --preset release
mkdir -p logs

binary="build/release/daemon/klvlockd"
if [ "$here" != "$root" ]; then binary="$root/$binary"; fi

# The daemon answers with one line of shell assignments: its UDP port, its
# process id and its status (TCP) port. Its standard error, which carries the
# error records and the notices of clients that stopped responding, is kept
# in logs/stderr.log, so that nothing holds this terminal or a pipe open.
status_line="$("$root/build/release/daemon/klvlockd" "${1:-30}" "$root/logs" 2>>"$root/logs/stderr.log")"
echo "$status_line"
eval "$status_line"

echo
echo "klvlockd is running as process $_klvlockd_pid on 127.0.0.1:"
echo "  lock requests on UDP port $_klvlockd_port, status reports on TCP port $_klvlockd_status"
echo "  logs: $root/logs/journal.log, $root/logs/errlock.log and $root/logs/stderr.log"
echo "Status report: $binary $_klvlockd_status"
echo "Stop it:       kill $_klvlockd_pid"
