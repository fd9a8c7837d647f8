# Sourced by the shell tests and the bench scripts (POSIX sh).
# stop_pids PID...: SIGTERM to each pid, then SIGKILL to any that still lives
# 5 s later. A pid that names no single process (empty, not a number, 0, -1
# or 1) is passed over: kill would signal a whole group, or init. A pid that
# has already ended is no failure, also under set -e.
stop_pids() {
  for stop_pid in "$@"; do
    [ "$stop_pid" -gt 1 ] 2>/dev/null && kill "$stop_pid" 2>/dev/null || :
  done
  for stop_pid in "$@"; do
    [ "$stop_pid" -gt 1 ] 2>/dev/null || continue
    for _ in $(seq 50); do kill -0 "$stop_pid" 2>/dev/null || break; sleep 0.1; done
    kill -0 "$stop_pid" 2>/dev/null && kill -9 "$stop_pid" 2>/dev/null || :
  done
  return 0
}
