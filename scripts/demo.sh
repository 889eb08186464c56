#!/usr/bin/env bash
# Builds the library and runs the demo host. Arguments go to the demo
# (for instance -regionprotectall); the persistent region lives in
# build/default/lumdemo-data/. "scripts/demo.sh crash" runs the crash demo
# instead: a host killed after its commits, then its second run;
# "scripts/demo.sh directory" runs the directory demo three times: a
# two-key hash table and a journal list kept across runs; "scripts/demo.sh
# cxx" runs the C++ ledger demo three times.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
if [[ "${1:-}" == crash ]]; then
    cmake --build --preset default --target lumcrashdemo
    rm -rf build/default/lumcrash-data/
    build/default/examples/lumcrashdemo build/default/lumcrash-data/ || true # dies by SIGKILL
    exec build/default/examples/lumcrashdemo build/default/lumcrash-data/
fi
if [[ "${1:-}" == directory ]]; then
    cmake --build --preset default --target lumdirectorydemo
    rm -rf build/default/lumdirectory-data/
    for run in 1 2 3; do
        build/default/examples/lumdirectorydemo build/default/lumdirectory-data/
    done
    exit 0
fi
if [[ "${1:-}" == cxx ]]; then
    cmake --build --preset default --target lumcxxdemo
    rm -rf build/default/lumcxx-data/
    for run in 1 2 3; do
        build/default/examples/lumcxxdemo build/default/lumcxx-data/
    done
    exit 0
fi
cmake --build --preset default --target lumdemo
exec build/default/examples/lumdemo "$@" build/default/lumdemo-data/
