#!/usr/bin/env bash
# A cluster of three klvlockd nodes on this machine: one etcd (Debian's
# etcd-server, its data in a temporary directory, on free loopback ports) and
# three daemons in cluster mode, nodes a, b and c, each with its own log
# directory and setting file under logs/cluster-demo/ of this checkout.
#
#   scripts/cluster-demo.sh [run]   start it all, print how to reach each node,
#                                   and stop it all on Ctrl-C (or SIGTERM)
#   scripts/cluster-demo.sh start   the same, but leave it running
#   scripts/cluster-demo.sh stop    stop what "start" left running
#
# Everything is stopped by its process id: the daemons by the pid files that
# klvlockd-service writes, etcd by the pid in logs/cluster-demo/etcd.pid; the
# etcd data goes with it. Builds the optimised programs first, as
# scripts/start.sh does, unless KLV_BUILD names a build tree to take them from.
# KLV_DEMO_DIR replaces logs/cluster-demo.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
demo=${KLV_DEMO_DIR:-$root/logs/cluster-demo}
nodes="a b c"
# shellcheck source=tests/support/stop_pids.sh
source "$root/tests/support/stop_pids.sh"
# shellcheck source=tests/support/etcd_member.sh
source "$root/tests/support/etcd_member.sh"

service() {
  KLVLOCKD_LOGDIR="$demo/$1" KLVLOCKD_RUNDIR="$demo/$1" "$root/contrib/klvlockd-service" "${@:2}"
}

# Stops every daemon, then etcd, each by its pid, and removes etcd's data.
stop_all() {
  for node in $nodes; do
    [ -e "$demo/$node/klvlockd.pid" ] && service "$node" stop >/dev/null || true
    # A daemon that did not end within the script's 10 seconds.
    [ -e "$demo/$node/klvlockd.pid" ] && stop_pids "$(cat "$demo/$node/klvlockd.pid")"
    rm -f "$demo/$node/klvlockd.pid" "$demo/$node/klvlockd.env"
  done
  if [ -e "$demo/etcd.pid" ]; then
    stop_pids "$(cat "$demo/etcd.pid")"
    rm -rf "$(cat "$demo/etcd.dir")"
    rm -f "$demo/etcd.pid" "$demo/etcd.dir"
  fi
}

# Starts etcd and the three daemons; on a failure stops what was started.
start_all() {
  if [ -e "$demo/etcd.pid" ]; then
    echo "cluster-demo: a demo runs already ($demo/etcd.pid): scripts/cluster-demo.sh stop" >&2
    exit 1
  fi
  "$root/scripts/need-packages.sh" cluster
  local build=${KLV_BUILD:-}
  if [ -z "$build" ]; then
    build=$root/build/release
    (cd "$root" && { [ -f build/release/CMakeCache.txt ] ||
      cmake --preset release -DBUILD_TESTING=OFF -DKLV_WERROR=OFF; } &&
      cmake --build --preset release --target klvlockd lockinfo klvlockctl) >&2
  fi
  mkdir -p "$demo"
  trap 'stop_all' EXIT
  local data
  data=$(mktemp -d)
  echo "$data" >"$demo/etcd.dir"
  if ! start_etcd "setsid /usr/bin/etcd" "$data"; then
    echo "cluster-demo: etcd did not come up; its log:" >&2
    cat "$data/etcd.log" >&2
    exit 1
  fi
  echo "$etcd_pid" >"$demo/etcd.pid"
  for node in $nodes; do
    mkdir -p "$demo/$node"
    printf 'endpoints = http://127.0.0.1:%s\ncluster = demo\nnode = %s\n' "$etcd_client" "$node" \
      >"$demo/$node/cluster.conf"
    if ! KLVLOCKD="$build/daemon/klvlockd" KLVLOCKD_CLUSTER="$demo/$node/cluster.conf" \
      KLVLOCKD_STDERR="$demo/$node/stderr.log" service "$node" start >/dev/null; then
      echo "cluster-demo: node $node did not start; its standard error:" >&2
      cat "$demo/$node/stderr.log" >&2
      exit 1
    fi
  done
  trap - EXIT
  tell "$build"
}

# Prints how to reach each node.
tell() {
  local shown=$demo
  [ "${demo#"$PWD"/}" != "$demo" ] && shown=${demo#"$PWD"/}
  echo "etcd (process $(cat "$demo/etcd.pid")) serves http://127.0.0.1:$etcd_client;" \
    "cluster demo, nodes $nodes:"
  for node in $nodes; do
    echo "  node $node: $(cat "$demo/$node/klvlockd.env")"
  done
  echo
  echo "In a terminal per node, take that node's status line, then run klvlockctl:"
  echo "  . $shown/a/klvlockd.env"
  echo "  $1/tools/klvlockctl/klvlockctl --name alice --session 1"
  echo "What the cluster holds:  $1/tools/lockinfo/lockinfo --cluster $shown/a/cluster.conf"
  echo "Logs: $shown/NODE/ (journal.log, errlock.log, stderr.log)"
}

case ${1:-run} in
  run)
    start_all
    trap 'stop_all; echo "cluster-demo: stopped"' EXIT
    trap 'exit 0' INT TERM
    echo "Ctrl-C stops etcd and the three daemons."
    # Bounded: a day at most.
    for _ in $(seq 86400); do sleep 1; done
    ;;
  start)
    start_all
    echo "scripts/cluster-demo.sh stop stops etcd and the three daemons."
    ;;
  stop)
    stop_all
    echo "cluster-demo: stopped"
    ;;
  *)
    echo "usage: $0 [run | start | stop]   (run: until Ctrl-C; start: until stop)" >&2
    exit 2
    ;;
esac
