#!/usr/bin/env bash
# The kill test at any length: kills a writer N times (default 10000) at
# random moments, one in four after a failed write, and checks that every
# region comes back with its last commit. Further arguments go to
# lumregion-torture (--seed S, --dir D).
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target lumregion-torture
exec build/default/tools/lumregion-torture --kills "${1:-10000}" --faults "${@:2}"
