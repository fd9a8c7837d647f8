#!/usr/bin/env bash
# Three daemons on one etcd (with_etcd.sh runs this script): start failures,
# a share conflict and a range conflict across nodes, a client's end, a
# killed node whose holdings block the others until its lease and the fence
# delay have passed, a node stopped in order that ends its lease, and a node
# stopped past its lease that fences itself once continued (its exit status,
# 20, is checked by fencing_test, which can wait for it).
# Usage: with_etcd.sh cluster_test.sh KLVLOCKD KLVLOCKCTL
set -u
klvlockd=$1
klvlockctl=$2
dir=$(mktemp -d)
pids=()
source "$(dirname "$0")/../support/stop_pids.sh"
cleanup() {
  exec 3>&- 4>&- 5>&-
  stop_pids "${pids[@]}"
  rm -rf "$dir"
}
trap cleanup EXIT
fail() {
  echo "FAIL: $*"
  for f in "$dir"/*.out "$dir"/*/stderr; do echo "--- $f"; cat "$f"; done
  exit 1
}
# Waits up to 10 s for file $1 to hold the line $2.
expect() {
  for _ in $(seq 100); do grep -qxF -- "$2" "$1" && return 0; sleep 0.1; done
  fail "$1 lacks the line \"$2\""
}
setting() {  # node [extra line]
  printf 'endpoints = %s\ncluster = c%s\nnode = %s\nlease_ttl = 2\nfence_delay = 1\n%s\n' \
    "$KLV_ETCD_ENDPOINT" "$$" "$1" "${2:-}" >"$dir/$1.conf"
}
# Starts node $1; its status line goes to $dir/$1/status.
start() {
  mkdir -p "$dir/$1"
  KLVLOCKD_CLUSTER="$dir/$1.conf" "$klvlockd" 30 "$dir/$1" >"$dir/$1/status" 2>"$dir/$1/stderr"
}

# A bad setting, or a node name taken, is a start failure with no status line.
setting bad "colour = blue"
start bad && fail "a bad setting started"
[ -s "$dir/bad/status" ] && fail "a bad setting printed a status line"
grep -qxF "FATAL ERROR: The Kelvane server will not start." "$dir/bad/stderr" || fail "no fatal line"
for node in a b c; do
  setting "$node"
  start "$node" || fail "node $node did not start"
  eval "$(cat "$dir/$node/status")"
  pids+=("$_klvlockd_pid")
  eval "port_$node=$_klvlockd_port pid_$node=$_klvlockd_pid"
done
mkdir -p "$dir/again"
KLVLOCKD_CLUSTER="$dir/a.conf" "$klvlockd" 30 "$dir/again" >"$dir/again/status" 2>"$dir/again/stderr" &&
  fail "a second daemon started under node name a"
[ -s "$dir/again/status" ] && fail "the second daemon printed a status line"
grep -qF "another daemon runs under the node name a" "$dir/again/stderr" || fail "no reason given"

# One client session per node, at the prompt.
session() {  # node fd
  mkfifo "$dir/$1.in"
  "$klvlockctl" --port "$(eval echo "\$port_$1")" --session 1 --name "on-$1" --keep-session \
    <"$dir/$1.in" >"$dir/$1.out" 2>&1 &
  pids+=($!)
}
session a
exec 3>"$dir/a.in"
session b
exec 4>"$dir/b.in"
session c
exec 5>"$dir/c.in"

echo "open fid=1 file=1:1 access=read deny=write" >&3
expect "$dir/a.out" "open fid=1: granted oplock=0"
echo "open fid=2 file=1:1 access=write deny=none" >&4
expect "$dir/b.out" "open fid=2: conflict"
echo "close fid=1 file=1:1" >&3
expect "$dir/a.out" "close fid=1: done"
echo "open fid=3 file=1:1 access=write deny=none oplock" >&4
expect "$dir/b.out" "open fid=3: granted oplock=0"

# Ranges: across nodes they conflict, side by side they do not.
echo "lock fid=1 file=2:2 offset=0 length=10" >&3
expect "$dir/a.out" "lock fid=1: granted"
echo "lock fid=2 file=2:2 offset=5 length=10 shared" >&4
expect "$dir/b.out" "lock fid=2: conflict"
echo "lock fid=3 file=2:2 offset=10 length=10" >&4
expect "$dir/b.out" "lock fid=3: granted"
echo "unlock fid=1 file=2:2 offset=0 length=10" >&3
expect "$dir/a.out" "unlock fid=1: done"
echo "lock fid=4 file=2:2 offset=5 length=5" >&4
expect "$dir/b.out" "lock fid=4: granted"

# A client's end takes its opens and ranges out of the store too.
printf 'open fid=1 file=5:5 access=read deny=write\nlock fid=2 file=6:6 offset=0 length=10\n' |
  "$klvlockctl" --port "$port_a" --session 2 --name ended >"$dir/ended.out" 2>&1 ||
  fail "the ended session failed: $(cat "$dir/ended.out")"
echo "open fid=8 file=5:5 access=write deny=none" >&4
expect "$dir/b.out" "open fid=8: granted oplock=0"
echo "lock fid=9 file=6:6 offset=0 length=10" >&4
expect "$dir/b.out" "lock fid=9: granted"

# A killed node's open and range block the others for lease_ttl (less the
# time since its last keep-alive) plus fence_delay, then no more.
echo "open fid=5 file=3:3 access=read deny=readwrite" >&5
expect "$dir/c.out" "open fid=5: granted oplock=0"
echo "lock fid=5 file=3:3 offset=0 length=1" >&5
expect "$dir/c.out" "lock fid=5: granted"
kill -9 "$pid_c"
killed=$(date +%s%N)
sleep 1
echo "open fid=6 file=3:3 access=read deny=none" >&3
echo "lock fid=6 file=3:3 offset=0 length=1" >&3
expect "$dir/a.out" "open fid=6: conflict"
expect "$dir/a.out" "lock fid=6: conflict"
# Waits up to 10 s for file $1 to hold a line starting with $2.
answer() {
  for _ in $(seq 100); do grep -q -- "^$2" "$1" && return 0; sleep 0.1; done
  fail "$1 has no answer \"$2\""
}
for try in $(seq 40); do
  echo "open fid=$((10 + try)) file=3:3 access=read deny=none" >&4
  answer "$dir/b.out" "open fid=$((10 + try)): "
  grep -q "^open fid=$((10 + try)): granted" "$dir/b.out" && break
  sleep 0.2
done
released=$((($(date +%s%N) - killed) / 1000000))
grep -q "^open fid=$((10 + try)): granted" "$dir/b.out" || fail "the killed node's open stayed"
[ "$released" -ge 2300 ] || fail "the killed node's open went after ${released} ms"
echo "lock fid=7 file=3:3 offset=0 length=1" >&3
expect "$dir/a.out" "lock fid=7: granted"
echo "released ${released} ms after the kill"

# An orderly stop ends the node's lease at once, not when it runs out.
kill -TERM "$pid_b"
for _ in $(seq 50); do pid_runs "$pid_b" || break; sleep 0.1; done
pid_runs "$pid_b" && fail "node b did not stop"
[ -z "$(ETCDCTL_API=3 etcdctl --endpoints="$KLV_ETCD_ENDPOINT" get --prefix --keys-only \
  "/klvlockd/c$$/nodes/b")" ] || fail "node b's registration outlived it"

# A node stopped past its lease decides nothing once continued: it fences.
kill -STOP "$pid_a"
echo "open fid=30 file=4:4 access=read deny=none" >&3
sleep 3
kill -CONT "$pid_a"
for _ in $(seq 50); do pid_runs "$pid_a" || break; sleep 0.1; done
pid_runs "$pid_a" && fail "the stopped node still runs"
grep -qF "locking/cluster/fenced" "$dir/a/errlock.log" || fail "no fenced record"
answer "$dir/a.out" "open fid=30: "
grep -q "^open fid=30: granted" "$dir/a.out" && fail "the fenced node granted an open"
echo PASS
