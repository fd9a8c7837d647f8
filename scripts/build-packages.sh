#!/usr/bin/env bash
# Builds the Debian packages klvlockd, libklvlock1 and libklvlock-dev (and
# their -dbgsym packages of detached debugging symbols) from this checkout
# with dpkg-buildpackage, in a copy of the tree so that the checkout stays
# clean, and puts them into DIR.
# Usage: scripts/build-packages.sh DIR
set -euo pipefail
if [ $# -ne 1 ]; then
  echo "usage: $0 DIR" >&2
  exit 2
fi
root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/need-packages.sh" package
mkdir -p "$1"
out="$(cd "$1" && pwd)"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/klvlockd"
tar -C "$root" --exclude=./build --exclude=./logs --exclude=./.git -cf - . |
  tar -C "$work/klvlockd" -xf -
(cd "$work/klvlockd" &&
  DEB_BUILD_OPTIONS="parallel=$(nproc) ${DEB_BUILD_OPTIONS:-}" \
    dpkg-buildpackage --build=binary --no-sign >"$work/build.log" 2>&1) || {
  tail -n 60 "$work/build.log" >&2
  echo "dpkg-buildpackage failed; the lines above end its log" >&2
  exit 1
}
cp "$work"/*.deb "$out"/
ls "$out"/*.deb
