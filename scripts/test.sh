#!/usr/bin/env bash
# Builds and runs the whole test suite: the plain build, then under
# AddressSanitizer + UndefinedBehaviorSanitizer, then under ThreadSanitizer,
# then the fuzz targets (clang) for 30 seconds each.
# Set LUM_WERROR=ON to treat warnings as errors (CI does), or
# LUM_PRESETS="default" to run fewer builds.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
for preset in ${LUM_PRESETS:-default asan tsan fuzz}; do
    echo "== $preset =="
    cmake --preset "$preset" -DLUM_WERROR="${LUM_WERROR:-OFF}" >/dev/null
    cmake --build --preset "$preset"
    ctest --preset "$preset" -j "$(nproc)"
done
