#!/usr/bin/env bash
# Installs a build into a temporary prefix, then builds and runs a C++ host
# found through find_package and a C host through pkg-config.
#   consumers.sh BUILD_DIR LIBDIR GENERATOR C_COMPILER CXX_COMPILER [FLAGS]
# FLAGS: the build's sanitizer flags, as a sanitized library needs its runtime.
set -euo pipefail
build=$1 libdir=$2 generator=$3 cc=$4 cxx=$5 flags=${6:-}
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d "$build/package.XXXXXX")
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >"$work/install.log"

cmake -S "$here/cmake_consumer" -B "$work/cmake" -G "$generator" -DCMAKE_CXX_COMPILER="$cxx" \
    -DCMAKE_CXX_FLAGS="$flags" -DCMAKE_PREFIX_PATH="$prefix" >"$work/configure.log"
cmake --build "$work/cmake" >"$work/build.log"
"$work/cmake/cmake_consumer"

export PKG_CONFIG_PATH=$prefix/$libdir/pkgconfig
# shellcheck disable=SC2046,SC2086 # pkg-config's output and the flags are word lists
"$cc" $flags "$here/consumer.c" -o "$work/pkgconfig_consumer" $(pkg-config --cflags --libs lumregion) \
    -Wl,-rpath,"$(pkg-config --variable=libdir lumregion)"
"$work/pkgconfig_consumer"
echo "both consumers ran against $prefix"
