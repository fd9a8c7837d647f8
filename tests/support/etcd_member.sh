# Sourced by tests/cluster/with_etcd.sh and scripts/cluster-demo.sh (bash).

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

# True once the member whose client port on 127.0.0.1 is `$1` answers its
# health check (it has a leader).
etcd_healthy() {
  timeout 2 bash -c 'exec 3<>"/dev/tcp/127.0.0.1/$0" &&
    printf "GET /health HTTP/1.0\r\n\r\n" >&3 && grep -q "\"health\":\"true\"" <&3' "$1" \
    2>/dev/null
}

# start_etcd ETCD DIRECTORY: starts one member with its data in
# DIRECTORY/data and its log in DIRECTORY/etcd.log on two free loopback
# ports, and waits (bounded) until it is healthy. Sets etcd_pid and
# etcd_client (the client port). Another program may take a port between the
# check and etcd's bind: then etcd exits, and a new pair of ports is tried.
# Fails, with the member stopped, when it did not come up. `setsid` before
# ETCD (as in "start_etcd 'setsid etcd' DIR") keeps it out of the caller's
# session.
start_etcd() {
  local peer
  for _ in 1 2 3; do
    etcd_client=$(free_port) && peer=$(free_port) || return 1
    rm -rf "$2/data"
    $1 --name klv --data-dir "$2/data" \
      --listen-client-urls "http://127.0.0.1:$etcd_client" \
      --advertise-client-urls "http://127.0.0.1:$etcd_client" \
      --listen-peer-urls "http://127.0.0.1:$peer" \
      --initial-advertise-peer-urls "http://127.0.0.1:$peer" \
      --initial-cluster "klv=http://127.0.0.1:$peer" >"$2/etcd.log" 2>&1 </dev/null &
    etcd_pid=$!
    for _ in $(seq 100); do
      kill -0 "$etcd_pid" 2>/dev/null || break
      etcd_healthy "$etcd_client" && return 0
      sleep 0.1
    done
    stop_pids "$etcd_pid"
    etcd_pid=
  done
  return 1
}
