#!/usr/bin/env bash
# Replays the same request mixes to the daemons of two builds and compares all
# that the clients received and the reports, which must be identical.
#   bench/replay_diff.sh BUILD_A BUILD_B [SEEDS] [REQUESTS] [OFFSETS] [FILES]
# e.g. bench/replay_diff.sh build/before build/release "1 2 3" 3000 100000
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
first=$1 second=$2 seeds=${3:-"1 2 3"} requests=${4:-3000} offsets=${5:-200} files=${6:-12}
work=$(mktemp -d)
source "$root/bench/servers.sh"
trap 'stop_servers; rm -rf "$work"' EXIT
status=0
for seed in $seeds; do
  for side in first second; do
    build=${!side}
    start_daemon "$side" "$build/daemon/klvlockd"
    port_var="${side}_port" status_var="${side}_status"
    "$root/build/release/bench/klv_replay" "${!port_var}" "${!status_var}" "$seed" "$requests" "$offsets" "$files" \
      >"$work/$side-$seed.txt"
    stop_servers
  done
  if cmp -s "$work/first-$seed.txt" "$work/second-$seed.txt"; then
    echo "seed $seed: identical ($(wc -l <"$work/first-$seed.txt") lines)"
  else
    echo "seed $seed: DIFFERENT"
    diff "$work/first-$seed.txt" "$work/second-$seed.txt" | head -20
    status=1
  fi
done
exit $status
