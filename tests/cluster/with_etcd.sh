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

# shellcheck source=tests/support/etcd_member.sh
. "$(dirname "$0")/../support/etcd_member.sh"
if start_etcd "$etcd" "$directory"; then
  KLV_ETCD_ENDPOINT="http://127.0.0.1:$etcd_client" KLV_ETCD_PID=$etcd_pid "$@"
  exit $?
fi
echo "with_etcd.sh: etcd did not come up; its log:" >&2
cat "$directory/etcd.log" >&2
exit 2
