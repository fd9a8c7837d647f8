#!/usr/bin/env bash
# scripts/cluster-demo.sh start and stop: etcd and three nodes come up, a
# deny-write open on node a refuses a write open on node b, and stop ends
# every process that start began.
# Usage: cluster_demo_test.sh BUILD_DIRECTORY
set -u
root=$(cd "$(dirname "$0")/../.." && pwd)
export KLV_BUILD=$1 KLV_DEMO_DIR
KLV_DEMO_DIR=$(mktemp -d)
demo=$root/scripts/cluster-demo.sh
source "$root/tests/support/stop_pids.sh"
# The pids that start recorded, read while they are there.
pids() { cat "$KLV_DEMO_DIR"/etcd.pid "$KLV_DEMO_DIR"/*/klvlockd.pid 2>/dev/null; }
cleanup() {
  local left
  left=$(pids)
  "$demo" stop >/dev/null 2>&1
  # shellcheck disable=SC2086
  stop_pids $left
  rm -rf "$KLV_DEMO_DIR"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  cat "$KLV_DEMO_DIR"/out "$KLV_DEMO_DIR"/*/stderr.log 2>/dev/null
  exit 1
}

"$demo" start >"$KLV_DEMO_DIR/out" 2>&1 || fail "start failed"
started=$(pids)
[ "$(echo "$started" | wc -w)" -eq 4 ] || fail "start left $(echo "$started" | wc -w) pids, not 4"
grep -q "^  node b: _klvlockd_port=[0-9]* ; _klvlockd_pid=" "$KLV_DEMO_DIR/out" ||
  fail "no status line of node b printed"
"$KLV_BUILD/tools/lockinfo/lockinfo" --cluster "$KLV_DEMO_DIR/a/cluster.conf" |
  grep -qx "Nodes: 3 Files: 0" || fail "lockinfo --cluster does not see three nodes"

# A session on node a holds its open while node b tries.
(
  . "$KLV_DEMO_DIR/a/klvlockd.env"
  printf 'open fid=1 file=10:20 access=readwrite deny=write path=/share/report.doc\nwait 30\n' |
    "$KLV_BUILD/tools/klvlockctl/klvlockctl" --name alice --session 1 >"$KLV_DEMO_DIR/alice" 2>&1
) &
alice=$!
for _ in $(seq 50); do grep -qs "granted" "$KLV_DEMO_DIR/alice" && break; sleep 0.1; done
grep -qx "open fid=1: granted oplock=0" "$KLV_DEMO_DIR/alice" || { stop_pids "$alice"; fail "no grant on a"; }
bob=$(
  . "$KLV_DEMO_DIR/b/klvlockd.env"
  echo 'open fid=1 file=10:20 access=write path=/share/report.doc' |
    "$KLV_BUILD/tools/klvlockctl/klvlockctl" --name bob --session 2 2>&1
)
stop_pids "$alice"
[ "$bob" = "open fid=1: conflict
end: done" ] || fail "node b answered: $bob"

"$demo" stop >/dev/null 2>&1 || fail "stop failed"
for pid in $started; do
  pid_runs "$pid" && fail "process $pid still runs after stop"
done
[ -e "$KLV_DEMO_DIR/etcd.pid" ] && fail "stop left etcd.pid"
echo "cluster_demo_test: passed"
