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
# Runs example $1 three times over a fresh data directory $2.
run_three_times() {
    cmake --build --preset default --target "$1"
    rm -rf "build/default/$2/"
    for run in 1 2 3; do
        "build/default/examples/$1" "build/default/$2/"
    done
}
if [[ "${1:-}" == directory ]]; then
    run_three_times lumdirectorydemo lumdirectory-data
    exit 0
fi
if [[ "${1:-}" == cxx ]]; then
    run_three_times lumcxxdemo lumcxx-data
    exit 0
fi
cmake --build --preset default --target lumdemo
exec build/default/examples/lumdemo "$@" build/default/lumdemo-data/
