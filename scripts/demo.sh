#!/usr/bin/env bash
# Builds the library and runs the demo host. Arguments go to the demo
# (for instance -regionprotectall); the persistent region lives in
# build/default/lumdemo-data/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target lumdemo
exec build/default/examples/lumdemo "$@" build/default/lumdemo-data/
