#!/usr/bin/env bash
# Measures klvlockd against its references in interleaved rounds (A B A B ...),
# each server pinned to CPU 0 and the load generator to CPU 1, and prints the
# median of each figure over the rounds and the ratios that matter.
#
#   bench/compare.sh [base|scale|memory|report|sizes|cluster] [--rounds=3] [--seconds=3]
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
#   cluster one etcd (Debian's etcd-server), three daemons in cluster mode
#           (nodes a, b, c) and a standalone daemon: no-op and open/close of
#           a class that the node has published (--hold-opens) on node a
#           against the standalone daemon; lock/unlock on the three nodes at
#           once, each on files of its own, against etcd's own transaction
#           rate at the same concurrency (klv_store_ops, a node's transaction
#           as the daemon makes it); latency of open (a new class each time),
#           lock and unlock on node a at 1 client; and, once, the time from a
#           node's death (SIGKILL) to the release of its lock as another node
#           sees it, with the default lease_ttl and fence_delay. etcd runs on
#           CPU 0 with the daemons
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
    base | scale | memory | report | sizes | cluster) mode=$argument ;;
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
store_ops="$build/bench/klv_store_ops" klvlockctl="$build/tools/klvlockctl/klvlockctl"
binaries=("$klvlockd" "$loadgen" "$echo_server")
[ "$mode" = cluster ] && binaries+=("$store_ops" "$klvlockctl")
for binary in "${binaries[@]}"; do
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

# start_node NAME [SETTING...]: a daemon in cluster mode on CPU 0, node NAME
# of cluster bench, with the extra setting lines given.
start_node() {
  local name=$1
  shift
  printf 'endpoints = http://127.0.0.1:%s\ncluster = bench\nnode = %s\n' "$etcd_client" "$name" \
    >"$work/$name.conf"
  printf '%s\n' "$@" >>"$work/$name.conf"
  KLVLOCKD_CLUSTER="$work/$name.conf" start_daemon "$name" "$klvlockd" 0
}

# etcd_rate ROUND COUNT: etcd's own rate of a node's transaction with COUNT
# in flight, recorded as a result line labelled etcd_txn.
etcd_rate() {
  local line
  line=$(KLV_ETCD_ENDPOINT="http://127.0.0.1:$etcd_client" KLV_ETCD_PID=$etcd_pid \
    timeout 600 taskset -c 1 "$store_ops" "$seconds" "$2" | tail -n 1) || true
  echo "# klv_store_ops: $line" >>"$out"
  echo "$line" | sed -n "s|^in flight *\([0-9]*\): .* \([0-9][0-9]*\) txn/s, latency p50 \([0-9.]*\) ms, p99 \([0-9.]*\) ms.*|round=$1 result label=etcd_txn clients=\1 rps=\2 p50_us=\3e3 p99_us=\4e3|p" |
    tee -a "$out"
}

# The time from a node's SIGKILL to the moment that node a is granted the
# byte range that the dead node held; polled every tenth of a second.
measure_death() {
  start_node d
  printf 'open fid=1 file=99:1 access=readwrite path=/bench/death\nlock fid=1 file=99:1 offset=0 length=10\nwait 600\n' |
    "$klvlockctl" --port="$d_port" --name holder --session 7 >"$work/holder.out" 2>&1 &
  local holder=$!
  disown "$holder"  # no job notice when it is killed below
  server_pids+=("$holder")
  local probe=(--port="$a_port" --name prober --strict)
  local lock='lock fid=1 file=99:1 offset=0 length=10'
  for _ in $(seq 50); do
    grep -q 'lock fid=1: granted' "$work/holder.out" && break
    sleep 0.1
  done
  if echo "$lock" | "$klvlockctl" "${probe[@]}" >/dev/null 2>&1; then
    echo "# death: node a was granted the range that node d holds; not measured" | tee -a "$out"
    return
  fi
  local start end
  kill -KILL "$d_pid" "$holder"
  start=$(date +%s.%N)
  for _ in $(seq 600); do
    if echo "$lock" | "$klvlockctl" "${probe[@]}" >/dev/null 2>&1; then
      end=$(date +%s.%N)
      echo "death lease_ttl=10 fence_delay=5 release_seconds=$(awk "BEGIN { print $end - $start }")" |
        tee -a "$out"
      return
    fi
    sleep 0.1
  done
  echo "# death: the range was not released within a minute" | tee -a "$out"
}

run_cluster() {
  source "$root/tests/support/etcd_member.sh"
  mkdir -p "$work/etcd"
  start_etcd "setsid taskset -c 0 /usr/bin/etcd" "$work/etcd" || { echo "etcd did not start" >&2; exit 1; }
  server_pids+=("$etcd_pid")
  start_daemon standalone "$klvlockd" 0
  for node in a b c; do start_node "$node"; done
  local ports="$a_port,$b_port,$c_port"
  for round in $(seq "$rounds"); do
    for count in $clients; do
      local common=(--clients="$count" --seconds="$seconds" --files="$base_files")
      load_pair standalone_noop standalone cluster_noop a "${common[@]}" --workload=noop
      load_pair standalone_open standalone cluster_open a "${common[@]}" --workload=open --hold-opens
      load cluster3_lock a "${common[@]}" --workload=lock --ports="$ports"
      etcd_rate "$round" "$count"
    done
    local single=(--clients=1 --seconds="$seconds" --files="$base_files" --first-file=100000)
    load latency_open a "${single[@]}" --workload=open
    load latency_lock a "${single[@]}" --workload=lock
  done
  measure_death
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
