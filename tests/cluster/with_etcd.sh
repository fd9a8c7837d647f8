#!/usr/bin/env bash
# Runs a command beside a fresh etcd: one member on free loopback ports, its
# data in a temporary directory. The command finds the member's client
# address in KLV_ETCD_ENDPOINT and its pid in KLV_ETCD_PID. However the
# command ends, etcd is stopped by its pid and the directory removed; the
# script exits with the command's status (2 when etcd did not come up).
# Usage: with_etcd.sh COMMAND [ARGUMENTS...]
set -u
# shellcheck source=tests/support/stop_pids.sh
. "$(dirname "$0")/../support/stop_pids.sh"
etcd=${KLV_ETCD:-/usr/bin/etcd}
if [ ! -x "$etcd" ]; then
  echo "with_etcd.sh: $etcd is missing: run scripts/need-packages.sh cluster" >&2
  exit 2
fi
directory=$(mktemp -d)
etcd_pid=
trap 'stop_pids "$etcd_pid"; rm -rf "$directory"' EXIT
trap 'exit 1' INT TERM

# A loopback port that nothing listens on, below the ephemeral range.
free_port() {
  local port
  for _ in $(seq 50); do
    port=$((20000 + RANDOM % 12000))
    if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      echo "$port"
      return 0
    fi
  done
  return 1
}

# True once the member answers its health check (it has a leader).
healthy() {
  timeout 2 bash -c 'exec 3<>"/dev/tcp/127.0.0.1/$0" &&
    printf "GET /health HTTP/1.0\r\n\r\n" >&3 && grep -q "\"health\":\"true\"" <&3' "$1" \
    2>/dev/null
}

# Another program may take a port between the check and etcd's bind: then
# etcd exits, and a new pair of ports is tried.
for _ in 1 2 3; do
  client=$(free_port) && peer=$(free_port) || break
  rm -rf "$directory/data"
  "$etcd" --name klv --data-dir "$directory/data" \
    --listen-client-urls "http://127.0.0.1:$client" \
    --advertise-client-urls "http://127.0.0.1:$client" \
    --listen-peer-urls "http://127.0.0.1:$peer" \
    --initial-advertise-peer-urls "http://127.0.0.1:$peer" \
    --initial-cluster "klv=http://127.0.0.1:$peer" >"$directory/etcd.log" 2>&1 &
  etcd_pid=$!
  for _ in $(seq 100); do
    kill -0 "$etcd_pid" 2>/dev/null || break
    if healthy "$client"; then
      KLV_ETCD_ENDPOINT="http://127.0.0.1:$client" KLV_ETCD_PID=$etcd_pid "$@"
      exit $?
    fi
    sleep 0.1
  done
  stop_pids "$etcd_pid"
done
echo "with_etcd.sh: etcd did not come up; its log:" >&2
cat "$directory/etcd.log" >&2
exit 2
