#!/usr/bin/env bash
# Measures klvlockd against its references in interleaved rounds (A B A B ...),
# each server pinned to CPU 0 and the load generator to CPU 1, and prints the
# median of each figure over the rounds and the ratios that matter.
#
#   bench/compare.sh [base|scale|memory|report|sizes] [--rounds=3] [--seconds=3]
#                    [--clients="1 8 64"] [--files=1000000] [--locks=10000000]
#                    [--ranges=10000] [--sizes="1000 ... 10000000"] [--base-files=1000]
#                    [--build=build/release] [--against=BUILD] [--out=FILE]
#
#   base    echo (minimal), echo (the daemon's loop shape), the daemon with
#           no-op, lock/unlock and open/close, and Redis SET NX/DEL when
#           redis-server is installed; at each client count, spread over
#           --base-files files (1000; the one-file cases are in scale)
#   scale   64 clients: lock/unlock and open/close on an empty daemon against
#           one preloaded with --locks ranges over --files files, and
#           lock/unlock on one file against one holding --ranges ranges
#   memory  a fresh daemon: --files files touched, --locks ranges taken, all
#           released; resident size after each step
#   report  a daemon preloaded as in scale: the time of single reports, then
#           lock/unlock latency idle against while reports are read back to back
#   sizes   for each of --sizes: a fresh daemon with that many ranges over a
#           tenth as many files; its resident size, then 64-client lock/unlock
#           over those files (the data of the plot in docs/performance.md);
#           with --against=BUILD a daemon of that build too, in alternation
#
# Every server is stopped by its pid on exit; raw result lines are appended to
# --out (default: compare-MODE-TIME.txt in the build directory).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mode=base rounds=3 seconds=3 clients="1 8 64" files=1000000 locks=10000000 ranges=10000
sizes="1000 10000 100000 1000000 10000000" base_files=1000
build="$root/build/release" out="" against=""
for argument in "$@"; do
  case "$argument" in
    base | scale | memory | report | sizes) mode=$argument ;;
    --rounds=*) rounds=${argument#*=} ;;
    --seconds=*) seconds=${argument#*=} ;;
    --clients=*) clients=${argument#*=} ;;
    --files=*) files=${argument#*=} ;;
    --locks=*) locks=${argument#*=} ;;
    --ranges=*) ranges=${argument#*=} ;;
    --sizes=*) sizes=${argument#*=} ;;
    --base-files=*) base_files=${argument#*=} ;;
    --build=*) build=${argument#*=} ;;
    --out=*) out=${argument#*=} ;;
    --against=*) against=${argument#*=} ;;
    *) echo "unknown argument: $argument" >&2; exit 2 ;;
  esac
done
klvlockd="$build/daemon/klvlockd" loadgen="$build/bench/klv_loadgen" echo_server="$build/bench/klv_echo"
for binary in "$klvlockd" "$loadgen" "$echo_server"; do
  [ -x "$binary" ] || { echo "missing $binary: build the release preset first" >&2; exit 2; }
done
work=$(mktemp -d)
out=${out:-$build/compare-$mode-$(date +%Y%m%d-%H%M%S).txt}
source "$root/bench/servers.sh"
trap 'stop_servers; rm -rf "$work"' EXIT

{
  echo "# compare.sh $mode rounds=$rounds seconds=$seconds $(date -u +%FT%TZ)"
  echo "# revision $(git -C "$root" describe --always --dirty 2>/dev/null || echo unknown)," \
    "load average $(cut -d' ' -f1-3 /proc/loadavg), $(nproc) CPUs"
} | tee -a "$out"

# load TARGET SERVER [loadgen arguments...]: one loadgen run on CPU 1 against
# the server whose port and pid variables start with SERVER.
load() {
  local target=$1 server=$2
  shift 2
  local port_var="${server}_port" pid_var="${server}_pid"
  local line
  line=$(timeout 1800 taskset -c 1 "$loadgen" --port="${!port_var}" --pid="${!pid_var}" \
    --label="$target" "$@" | tail -n 1) || true
  echo "round=$round $line" | tee -a "$out"
}

# load_pair TARGET_A SERVER_A TARGET_B SERVER_B [loadgen arguments...]: both
# loads, A first in odd rounds and B first in even ones, so that a drift of
# the machine within a round does not favour either side of the ratio.
load_pair() {
  local target_a=$1 server_a=$2 target_b=$3 server_b=$4
  shift 4
  if ((round % 2 == 1)); then
    load "$target_a" "$server_a" "$@"
    load "$target_b" "$server_b" "$@"
  else
    load "$target_b" "$server_b" "$@"
    load "$target_a" "$server_a" "$@"
  fi
}

# preload SERVER LOCKS FILES [PREFIX]: takes LOCKS ranges spread over FILES
# files; PREFIX goes before the "preload" of the line recorded.
preload() {
  local port_var="${1}_port" pid_var="${1}_pid" prefix=${4:-}
  timeout 1800 taskset -c 1 "$loadgen" --port="${!port_var}" --pid="${!pid_var}" \
    --preload="$2" --preload-files="$3" | sed "s/^preload /${prefix}preload /" |
    tee -a "$out" || true
}

run_base() {
  start_daemon daemon "$klvlockd" 0
  start_echo minimal "$echo_server" minimal 0
  start_echo shape "$echo_server" loop 0
  local have_redis=0
  if start_redis redis 0; then have_redis=1; else echo "# redis-server absent: skipped" | tee -a "$out"; fi
  for round in $(seq "$rounds"); do
    for count in $clients; do
      local common=(--clients="$count" --seconds="$seconds" --files="$base_files")
      load echo_minimal minimal "${common[@]}" --workload=lock
      load_pair echo_shape_lock shape daemon_lock daemon "${common[@]}" --workload=lock
      load_pair echo_shape_open shape daemon_open daemon "${common[@]}" --workload=open
      load daemon_noop daemon "${common[@]}" --workload=noop
      if [ "$have_redis" = 1 ]; then load redis_lock redis "${common[@]}" --workload=lock --protocol=redis; fi
    done
  done
}

run_scale() {
  start_daemon empty "$klvlockd" 0
  start_daemon loaded "$klvlockd" 0
  start_daemon onefile "$klvlockd" 0
  preload loaded "$locks" "$files"
  preload onefile "$ranges" 1
  for round in $(seq "$rounds"); do
    local common=(--clients=64 --seconds="$seconds")
    load_pair empty_lock empty loaded_lock loaded "${common[@]}" --workload=lock --files="$files"
    load_pair empty_open empty loaded_open loaded "${common[@]}" --workload=open --files="$files"
    load_pair empty_onefile_lock empty onefile_lock onefile "${common[@]}" --workload=lock --files=1
  done
}

run_memory() {
  start_daemon fresh "$klvlockd" 0
  timeout 3600 taskset -c 1 "$loadgen" --port="$fresh_port" --pid="$fresh_pid" --memory \
    --preload="$locks" --preload-files="$files" | tee -a "$out" || true
}

run_report() {
  start_daemon loaded "$klvlockd" 0
  preload loaded "$locks" "$files"
  timeout 1800 taskset -c 1 "$loadgen" --port="$loaded_port" --status-port="$loaded_status" \
    --report-once=3 | tee -a "$out" || true
  for round in $(seq "$rounds"); do
    local common=(--clients=64 --seconds="$seconds" --workload=lock --files="$files")
    local reading=("${common[@]}" --status-port="$loaded_status" --reports=1000)
    if ((round % 2 == 1)); then
      load idle loaded "${common[@]}"
      load reports loaded "${reading[@]}"
    else
      load reports loaded "${reading[@]}"
      load idle loaded "${common[@]}"
    fi
  done
}

run_sizes() {
  for size in $sizes; do
    start_daemon sized "$klvlockd" 0
    preload sized "$size" $((size / 10))
    if [ -n "$against" ]; then
      start_daemon other "$against/daemon/klvlockd" 0
      echo "# against $against" >>"$out"
      preload other "$size" $((size / 10)) against_
    fi
    for round in $(seq "$rounds"); do
      local common=(--clients=64 --seconds="$seconds" --workload=lock --files=$((size / 10)))
      load "size_$size" sized "${common[@]}"
      if [ -n "$against" ]; then load "against_size_$size" other "${common[@]}"; fi
    done
    stop_servers
  done
}

"run_$mode"
echo "# raw results: $out"
python3 "$root/bench/summarize.py" "$mode" "$out"
