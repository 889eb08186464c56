#!/usr/bin/env bash
# Builds the library and runs the benchmarks (each beside its physical
# reference). Arguments go to Google Benchmark.
#
# scripts/bench.sh peers [--large] [--rounds N] [--dir D] [--items N]
# runs the comparison with the other stores instead (bench/peers/): every
# store's program once per round, the stores interleaved within each round,
# five rounds by default; then it prints the medians with min-max and each
# store's ratio to this library, and the load average before and after.
set -euo pipefail
cd "$(dirname "$0")/.."

run_peers() {
    local rounds=5 arguments=()
    while [ $# -gt 0 ]; do
        case "$1" in
        --rounds) rounds="$2"; shift 2 ;;
        --large) arguments+=(--large); shift ;;
        --dir | --items) arguments+=("$1" "$2"); shift 2 ;;
        *) echo "usage: scripts/bench.sh peers [--large] [--rounds N] [--dir D] [--items N]" >&2
           exit 2 ;;
        esac
    done
    scripts/install-deps.sh --peers
    cmake --preset default >/dev/null
    local stores=() targets=()
    for store in lumregion lmdb rocksdb leveldb sqlite pmemobj; do
        # The build skips the program of a store whose package is missing.
        if cmake --build --preset default --target help | grep -q "^${store}_peer:"; then
            stores+=("$store")
            targets+=("${store}_peer")
        else
            echo "peer benchmark: $store skipped, not built"
        fi
    done
    cmake --build --preset default --target "${targets[@]}"

    local output=build/default/bench/peers/results
    rm -rf "$output"
    mkdir -p "$output"
    local load_before failed=0
    load_before=$(cut -d' ' -f1-3 /proc/loadavg)
    for round in $(seq 1 "$rounds"); do
        for store in "${stores[@]}"; do
            echo "round $round: $store" >&2
            if ! "build/default/bench/peers/${store}_peer" "${arguments[@]}" \
                >>"$output/$store.txt" 2>>"$output/$store.log"; then
                echo "peer benchmark: $store failed in round $round, see $output/$store.log" >&2
                failed=1
            fi
        done
    done
    echo
    echo "$(nproc) cores, $(uname -r); ${rounds} rounds; figures are medians (min-max)" \
        "and each store's median over this library's (above 1: this library is ahead)"
    scripts/peers_table.py "$output"/*.txt
    echo
    echo "load average before: $load_before; after: $(cut -d' ' -f1-3 /proc/loadavg)"
    return $failed
}

if [ "${1:-}" = "peers" ]; then
    shift
    run_peers "$@"
    exit
fi

scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default --target durability_bench
exec build/default/bench/durability_bench "$@"
