#!/usr/bin/env bash
# A quick run of the load generator against the real daemon (each workload,
# a preload and reports during load) and against both echo servers. Fails on
# any wrong or missing reply. Usage: smoke.sh KLVLOCKD KLV_LOADGEN KLV_ECHO
set -euo pipefail
klvlockd=$1 loadgen=$2 echo_server=$3
work=$(mktemp -d)
source "$(dirname "$0")/servers.sh"
trap 'stop_servers; rm -rf "$work"' EXIT

start_daemon daemon "$klvlockd"
run=(--port="$daemon_port" --pid="$daemon_pid" --clients=8 --seconds=0.3 --warmup=0.1)
"$loadgen" "${run[@]}" --workload=lock --files=4 --preload=1000
"$loadgen" "${run[@]}" --workload=open --files=4
"$loadgen" "${run[@]}" --workload=noop --status-port="$daemon_status" --reports=3
start_daemon fresh "$klvlockd"
"$loadgen" --port="$fresh_port" --pid="$fresh_pid" --memory --preload=2000 --preload-files=100 \
  --quiet-ms=200

for shape in minimal loop; do
  start_echo echo "$echo_server" "$shape"
  "$loadgen" --port="$echo_port" --pid="$echo_pid" --clients=8 --seconds=0.3 --warmup=0.1 \
    --workload=lock
done
