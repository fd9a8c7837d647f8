#!/bin/sh
# The systemd unit, made as at installation with the script in the given
# directory, passes systemd-analyze verify, and its exposure as rated by
# systemd-analyze security is at most the given threshold (in tenths: 20 is
# 2.0). Exits 77 (skipped) where systemd-analyze is missing.
# Usage: unit_test.sh <contrib directory> <threshold>
set -eu
if ! command -v systemd-analyze >/dev/null 2>&1; then
  echo "no systemd-analyze here: the unit is not checked"
  exit 77
fi
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
sed "s|@SBINDIR@|$1|" "$1/klvlockd.service.in" >"$tmp/klvlockd.service"
systemd-analyze verify --man=no "$tmp/klvlockd.service"
status=0
systemd-analyze security --offline=true --threshold="$2" --no-pager "$tmp/klvlockd.service" \
  >"$tmp/security" 2>&1 || status=$?
tail -n 1 "$tmp/security"
if [ "$status" -ne 0 ]; then
  grep -v '^✓' "$tmp/security" >&2
  exit 1
fi
