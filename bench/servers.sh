# Starting and stopping the servers under test; sourced by smoke.sh and
# compare.sh. Every server started here is recorded in server_pids and stopped
# by its pid in stop_servers, which the caller runs from an EXIT trap. Every
# wait is bounded. Needs $work (a scratch directory) to be set.

server_pids=()
source "$(dirname "${BASH_SOURCE[0]}")/../tests/support/stop_pids.sh"

stop_servers() {
  stop_pids "${server_pids[@]}"
  server_pids=()
}

# start_daemon NAME KLVLOCKD [CPU]: starts klvlockd (pinned to CPU when given)
# and sets NAME_port, NAME_pid and NAME_status.
start_daemon() {
  local name=$1 binary=$2 cpu=${3:-} pin=()
  [ -n "$cpu" ] && pin=(taskset -c "$cpu")
  mkdir -p "$work/$name"
  local line
  line=$("${pin[@]}" "$binary" 30 "$work/$name" 2>>"$work/$name/stderr.log")
  eval "$line"
  [ "${_klvlockd_pid:-0}" -gt 1 ] 2>/dev/null || { echo "no process in the status line: $line" >&2; return 1; }
  server_pids+=("$_klvlockd_pid")
  printf -v "${name}_port" %s "$_klvlockd_port"
  printf -v "${name}_pid" %s "$_klvlockd_pid"
  printf -v "${name}_status" %s "$_klvlockd_status"
}

# start_echo NAME KLV_ECHO SHAPE [CPU]: starts an echo server of SHAPE
# (minimal or loop) for at most an hour and sets NAME_port and NAME_pid. Like
# the daemon, which detaches, it runs in a session of its own, so that the
# scheduler weighs it as it weighs the daemon (one task group per session).
start_echo() {
  local name=$1 binary=$2 shape=$3 cpu=${4:-} pin=()
  [ -n "$cpu" ] && pin=(taskset -c "$cpu")
  # A file left by an earlier server of the same name would name that one.
  rm -f "$work/$name.out"
  setsid "${pin[@]}" "$binary" "$shape" 3600 >"$work/$name.out" &
  # setsid runs the server in its own process (a background job leads no
  # process group), so it is stopped by this pid even if it never reports.
  server_pids+=("$!")
  for _ in $(seq 100); do [ -s "$work/$name.out" ] && break; sleep 0.05; done
  eval "$(head -n 1 "$work/$name.out")"
  printf -v "${name}_port" %s "$_echo_port"
  printf -v "${name}_pid" %s "$_echo_pid"
}

# start_redis NAME [CPU]: starts redis-server on a free port of 127.0.0.1,
# without persistence, in a session of its own like the daemon and for at
# most an hour, and sets NAME_port and NAME_pid (that of the timeout that
# bounds it, which passes the stop on). Fails when redis-server is not
# installed or does not answer.
start_redis() {
  local name=$1 cpu=${2:-} pin=()
  command -v redis-server >/dev/null || return 1
  [ -n "$cpu" ] && pin=(taskset -c "$cpu")
  local port=$((20000 + RANDOM % 20000))
  setsid "${pin[@]}" timeout 3600 redis-server --bind 127.0.0.1 --port "$port" --save '' \
    --appendonly no --daemonize no --dir "$work" --logfile "$work/$name.log" &
  local bound=$!
  server_pids+=("$bound")
  printf -v "${name}_port" %s "$port"
  for _ in $(seq 100); do
    if (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
      printf -v "${name}_pid" %s "$(pgrep -P "$bound" redis-server)"
      return 0
    fi
    sleep 0.05
  done
  return 1
}
