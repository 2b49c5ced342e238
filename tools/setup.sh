#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
#
# Installs the Debian packages that a build needs, if they aren't there yet. With all of them there it needs neither
# root nor the network.
#
#   tools/setup.sh demo   for the library and the example
#   tools/setup.sh test   for the tests and benchmarks too
#   tools/setup.sh bench  for all that the benchmarks compare with
#   tools/setup.sh proof  for the checks that take long, besides what the tests need
set -eu

case "${1-}" in
  demo) needed="g++ cmake libcsv-dev robin-map-dev sqlite3 libsqlite3-dev" ;;
  test) needed="g++ cmake libcsv-dev robin-map-dev sqlite3 libsqlite3-dev libgtest-dev libbenchmark-dev liblz4-dev wamerican
               binutils pkg-config valgrind qemu-user" ;;
  bench) needed="g++ cmake libcsv-dev robin-map-dev libbenchmark-dev liblz4-dev libabsl-dev libboost1.81-dev libxxhash-dev" ;;
  proof) needed="clang llvm libclang-rt-14-dev python3" ;;
  *)
    echo "usage: $0 demo|test|bench|proof" >&2
    exit 2
    ;;
esac

if ! command -v dpkg-query >/dev/null; then
  echo "This is no Debian system: please see to it that there is what these packages hold: $needed" >&2
  exit 0
fi

is_installed() {
  dpkg-query -W -f='${db:Status-Status}\n' "$1" 2>/dev/null | grep -qx installed
}

missing=
for package in $needed; do
  is_installed "$package" || missing="$missing $package"
done
is_installed make || is_installed ninja-build || missing="$missing make"
[ -n "$missing" ] || exit 0

as_root=
if [ "$(id -u)" -ne 0 ]; then
  as_root=sudo
  if ! command -v sudo >/dev/null; then
    echo "Please run this as root: apt-get install$missing" >&2
    exit 1
  fi
fi
echo "Installing with apt-get:$missing"
$as_root apt-get -q update
$as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y --no-install-recommends install $missing
