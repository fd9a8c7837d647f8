#!/usr/bin/env bash
# Stops the klvlockd that scripts/start.sh started, by its process id in
# logs/klvlockd.pid, and waits (up to 10 seconds) for it to end. Says so when
# none runs.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
KLVLOCKD_LOGDIR="$root/logs" KLVLOCKD_RUNDIR="$root/logs" exec "$root/contrib/klvlockd-service" stop
