#!/usr/bin/env bash
# Builds the library and runs the demo host. Arguments go to the demo
# (for instance -regionprotectall); the persistent region lives in
# build/default/lumdemo-data/. "scripts/demo.sh crash" runs the crash demo
# instead: a host killed after its commits, then its second run.
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
cmake --build --preset default --target lumdemo
exec build/default/examples/lumdemo "$@" build/default/lumdemo-data/
