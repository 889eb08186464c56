#!/usr/bin/env bash
# Checks the model of the durability protocol (model/protocol.pml) with
# spin: every interleaving of the host's commits and the checkpoint thread,
# with recovery run at every step as a death of the process there, with
# and without failed log writes and failed checkpoints. Prints the states
# explored per configuration; exits non-zero at the first violation, after
# printing its trail.
#   scripts/model.sh            the configurations CI runs
#   scripts/model.sh --long     larger bounds as well
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cp "$root/model/protocol.pml" "$work/"
cd "$work"

configs=("" "-DCHK_FAILURES=1" "-DLOG_FAILURES=1" "-DLOG_FAILURES=1 -DCHK_FAILURES=1")
if [ "${1:-}" = "--long" ]; then
    configs+=("-DCOMMITS=6 -DCHECKPOINTS=4 -DCHK_FAILURES=2"
              "-DCOMMITS=5 -DLOG_FAILURES=2 -DCHK_FAILURES=1")
fi
for config in "${configs[@]}"; do
    # shellcheck disable=SC2086
    spin -a $config protocol.pml >/dev/null
    cc -O2 -DSAFETY -DMEMLIM=2048 -o pan pan.c
    result=$(./pan -m2000000)
    states=$(sed -n 's/^ *\([0-9]*\) states, stored.*/\1/p' <<<"$result")
    errors=$(sed -n 's/.*errors: \([0-9]*\).*/\1/p' <<<"$result")
    echo "model ${config:-(no failures)}: $states states, $errors errors"
    if [ "$errors" != 0 ]; then
        # shellcheck disable=SC2086
        spin -t -p -g $config protocol.pml | tail -60
        exit 1
    fi
done
