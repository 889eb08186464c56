#!/usr/bin/env bash
# The fault loops at length, under AddressSanitizer and LeakSanitizer (the
# asan preset): every file call of the workload failed in each way, every
# lum_malloc failed, and damaged file sets opened: every cut of each file
# and N seeded changes (default 100000), in the program itself, where a
# crash ends the run. Prints each mode's summary lines;
# exits non-zero when any mode found a crash, a hang, a leak, a lost commit
# or an image that does not verify. Further arguments go to each run
# (--seed S, --dir D).
set -uo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset asan >/dev/null
cmake --build --preset asan --target lumregion-faults || exit 1
tool=build/asan/tools/lumregion-faults
dir=/tmp
[ -d /dev/shm ] && dir=/dev/shm # forcing to disk costs nothing there
status=0
run() {
    local log
    log=$(mktemp)
    "$tool" --dir "$dir" "$@" >"$log" 2>"$log.err" || status=1
    cat "$log"
    # the cases that failed, without the library's perror lines of the
    # close(2) calls the loop fails on purpose
    grep -v '^Input/output error$' "$log.err" | tail -n 20 >&2
    rm -f "$log" "$log.err"
}
run --io "${@:2}"
run --malloc "${@:2}"
run --damage --cases "${1:-100000}" --in-process "${@:2}" # minutes, not an hour
exit $status
