#!/usr/bin/env bash
# Fuzzes the log scan and replay, a whole open of a file set,
# verification, and the hash table's walks on any image, each under
# AddressSanitizer and UndefinedBehaviorSanitizer.
#   scripts/fuzz.sh [SECONDS]   builds the fuzz preset and runs every target
#                               SECONDS (default 3600) on a copy of its seed
#                               corpus, one target per core at a time
#   scripts/fuzz.sh --run PROGRAM CORPUS SECONDS
#                               one target, as CTest runs it
# A crash leaves its input as crash-* in the current directory and fails.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

run_one() { # program corpus seconds
    local work rc=0
    work=$(mktemp -d)
    trap 'rm -rf "$work"' RETURN
    cp -r "$2/." "$work/corpus"
    "$1" -max_total_time="$3" -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
        "$work/corpus" >"$work/output" 2>&1 || rc=$?
    grep -E "^(stat::number_of_executed_units|stat::new_units_added)|ERROR|SUMMARY" "$work/output" || true
    [ "$rc" -eq 0 ] || tail -40 "$work/output"
    return "$rc"
}

if [ "${1:-}" = "--run" ]; then
    run_one "$2" "$3" "$4"
    exit
fi
seconds=${1:-3600}
"$root/scripts/install-deps.sh"
cmake --preset fuzz -DLUM_WERROR="${LUM_WERROR:-OFF}" >/dev/null
cmake --build --preset fuzz
for target in log_replay open verify containers; do
    echo "== $target, $seconds s"
    run_one "$root/build/fuzz/fuzz/${target}_fuzz" "$root/fuzz/corpus/$target" "$seconds"
done
