#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need,
# when any of them is missing. Safe to run again: it installs nothing when
# everything is there. With --peers it also installs the stores that the
# peer comparison (bench/peers/) measures this library against.
set -euo pipefail

packages=(cmake ninja-build g++ clang libgtest-dev libbenchmark-dev binutils pkgconf spin
    libcli11-dev nlohmann-json3-dev)
if [ "${1:-}" = "--peers" ]; then
    packages+=(liblmdb-dev librocksdb-dev libleveldb-dev libsqlite3-dev libpmemobj-dev)
fi
missing=()
for package in "${packages[@]}"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" ||
        missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
