# Sourced by the shell tests and the bench scripts (POSIX sh).
# pid_runs PID: true while the process runs. A zombie does not count: under a
# subreaper that reaps late (the mutation tool is one) an ended daemon stays
# one for a while.
pid_runs() {
  kill -0 "$1" 2>/dev/null && ! grep -q '^State:[[:space:]]*Z' "/proc/$1/status" 2>/dev/null
}
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
    for _ in $(seq 50); do pid_runs "$stop_pid" || break; sleep 0.1; done
    pid_runs "$stop_pid" && kill -9 "$stop_pid" 2>/dev/null || :
  done
  return 0
}
