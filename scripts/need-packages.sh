#!/bin/sh
# Makes sure the Debian packages of a set are installed:
#   build  what scripts/start.sh needs to build the programs
#   test   that, and what scripts/test.sh needs to build and run every test
#          (the cluster and package sets included)
#   cluster  the cluster store's libraries, and etcd (and etcdctl) for its tests
#   fuzz   what fuzz/run.sh needs: clang and its fuzzer and sanitizer runtime
#   package  what scripts/build-packages.sh and the installation test need to
#          build, check and try the Debian packages
# Missing packages are installed with apt-get when run as root; otherwise the
# command to run is printed and the exit status is 1.
# Usage: scripts/need-packages.sh build|test|cluster|fuzz|package
set -eu
build_packages="g++ cmake make"
cluster_packages="etcd-server etcd-client libcurl4-openssl-dev nlohmann-json3-dev"
package_packages="$build_packages libcurl4-openssl-dev nlohmann-json3-dev dpkg-dev debhelper lintian adduser
  bash-completion"
test_packages="$build_packages libgtest-dev groff-base pkg-config $cluster_packages $package_packages"
fuzz_packages="clang libclang-rt-14-dev"
case ${1:-} in
  build) packages=$build_packages ;;
  test) packages=$test_packages ;;
  cluster) packages=$cluster_packages ;;
  fuzz) packages=$fuzz_packages ;;
  package) packages=$package_packages ;;
  *)
    echo "usage: $0 build|test|cluster|fuzz|package" >&2
    exit 2
    ;;
esac

if ! command -v dpkg-query >/dev/null 2>&1; then
  echo "Not a Debian system: make sure these are installed: $packages" >&2
  exit 0
fi
missing=
for package in $packages; do
  dpkg-query -W -f='${Status}\n' "$package" 2>/dev/null | grep -q ' installed$' ||
    missing="$missing $package"
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -ne 0 ]; then
  echo "Missing packages:$missing. Install them as root first:" >&2
  echo "  apt-get install -y$missing" >&2
  exit 1
fi
echo "Installing$missing" >&2
export DEBIAN_FRONTEND=noninteractive
# The package lists of a fresh machine may be empty or old: update and retry.
# shellcheck disable=SC2086
apt-get install -y -q $missing || { apt-get update -q && apt-get install -y -q $missing; }
