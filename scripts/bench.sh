#!/usr/bin/env bash
# Builds the library and runs the benchmarks (each beside its physical
# reference). Arguments go to Google Benchmark.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target durability_bench
exec build/default/bench/durability_bench "$@"
