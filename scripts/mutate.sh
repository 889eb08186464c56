#!/usr/bin/env bash
# Mutation pass: applies each mutant of scripts/mutants.txt in turn to a
# private copy of the tree, rebuilds the test programs, runs the suite and
# records whether the suite noticed (killed) or not (survived).
#
#   scripts/mutate.sh [--rev REV | --tree DIR] [--only ID,...] [--out FILE]
#                     [--exclude REGEX] [--quick]
#
#   --rev REV   a detached worktree of REV (default HEAD) in a temporary
#               directory, removed at the end
#   --tree DIR  an existing checkout, mutated in place and restored
#   --only IDS  only these mutants, by id, separated by commas
#   --out FILE  the results (default build-mutate/results.txt); FILE.tests
#               gets every test that killed each mutant, to show which tests
#               are the only ones to kill some mutant
#   --exclude REGEX  leaves out the ctest tests that match (the long loops)
#   --quick     runs the unit test programs (region_test, startup_test)
#               directly instead of ctest: the kills of the unit tests alone,
#               in a fraction of the time
#
# The mutants always come from this script's own checkout, so that one list
# measures any revision. The build (Debug, no sanitizers, no benchmarks)
# goes to DIR/build-mutate. A mutant whose text is not in its file exactly
# once is "not found"; one that does not build is "build failed". The suite
# runs under a deadline (MUTATE_TEST_SECONDS, default 180) that caps every
# test's time, so a mutant that hangs a test counts as killed. No mutant
# stays applied, also when the pass is interrupted. Run it with nice -n 10
# on a shared machine.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
mutants=$root/scripts/mutants.txt
rev=HEAD tree='' only='' out=$root/build-mutate/results.txt exclude=() quick=0
test_seconds=${MUTATE_TEST_SECONDS:-180}

usage() {
    echo "usage: $0 [--rev REV | --tree DIR] [--only ID,...] [--out FILE] [--exclude REGEX] [--quick]" >&2
    exit 2
}

while (($#)); do
    case $1 in
    --rev) rev=${2:?}; shift 2 ;;
    --tree) tree=$(cd "${2:?}" && pwd); shift 2 ;;
    --only) only=,${2:?},; shift 2 ;;
    --out) out=$(realpath -m "${2:?}"); shift 2 ;;
    --exclude) exclude=(-E "${2:?}"); shift 2 ;;
    --quick) quick=1; shift ;;
    *) usage ;;
    esac
done

# What must be undone on every way out: the file that holds a mutant now,
# and a worktree made for this pass.
applied='' made_worktree='' backup=$(mktemp)
cleanup() {
    if [[ -n $applied ]]; then cp "$backup" "$applied"; fi
    if [[ -n $made_worktree ]]; then git -C "$root" worktree remove --force "$tree"; fi
    rm -f "$backup"
}
trap cleanup EXIT
trap 'exit 130' INT TERM HUP

if [[ -z $tree ]]; then
    tree=$(mktemp -d "${TMPDIR:-/tmp}/mutate.XXXXXX")
    made_worktree=1
    git -C "$root" worktree add --detach --quiet "$tree" "$rev"
fi
build=$tree/build-mutate
mkdir -p "$build" "$(dirname "$out")"
: >"$out"
: >"$out.tests"

unit_programs=(region_test startup_test)

rebuild() {
    local targets=("${unit_programs[@]}")
    ((quick)) || targets+=(lumregion-torture)
    cmake --build "$build" --target "${targets[@]}" >"$build/build.log" 2>&1
}

# Runs the whole suite (or with --quick the unit test programs, each under
# the deadline); true when every test passed in time.
run_suite() {
    if ((quick)); then
        local program passed=0
        : >"$build/test.log"
        for program in "${unit_programs[@]}"; do
            timeout "$test_seconds" "$build/tests/$program" >>"$build/test.log" 2>&1 ||
                { echo "exited: $program" >>"$build/test.log"; passed=1; }
        done
        return $passed
    fi
    local deadline
    deadline=$(date -d "+$test_seconds sec" +%H:%M:%S)
    (cd "$build" && ctest -j2 --no-tests=error --stop-time "$deadline" "${exclude[@]}") >"$build/test.log" 2>&1
}

# Every test that the last run failed, one a line, without its number
# and verdict. A unit test program that dies names the test it was in.
all_failed_tests() {
    awk '/The following tests FAILED:/ { listed = 1; next }
         listed && / - / { sub(/^[ \t]*[0-9]+ - /, ""); sub(/ \(.*$/, ""); print }
         /^\[ RUN      \]/ { running = $4 }
         /^\[       OK \]/ { running = "" }
         /^\[  FAILED  \] [A-Za-z]/ { running = ""; failed = 1; name = $4; sub(/,$/, "", name)
                                    if (!seen[name]++) print name }
         /^exited: / { if (running != "" || !failed) print (running != "" ? running : $2)
                       running = ""; failed = 0 }' "$build/test.log"
}

# The tests that the last run failed: the first of them and how many more.
failed_tests() {
    all_failed_tests | awk '!n++ { first = $0 }
        END { if (n) printf "%s%s", first, (n > 1 ? " +" (n - 1) " more" : "") }'
}

# Replaces the one occurrence of $2 in file $1 by $3 (\n: a line break).
# Fails, saying how often the text occurs, unless it occurs exactly once.
apply_mutant() {
    python3 - "$@" <<'PY'
import sys
path, find, replace = (sys.argv[1], *(s.replace("\\n", "\n") for s in sys.argv[2:]))
text = open(path).read()
if (count := text.count(find)) != 1:
    sys.exit(f"the text occurs {count} times")
open(path, "w").write(text.replace(find, replace))
PY
}

report() {
    printf '%-5s %-13s %s\n' "$@" | tee -a "$out"
}

echo "building $tree ..." >&2
cmake -S "$tree" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLUM_BUILD_BENCH=OFF \
    -DLUM_SANITIZE= >"$build/configure.log" 2>&1 || { cat "$build/configure.log" >&2; exit 1; }
cmake --build "$build" >"$build/build.log" 2>&1 || { tail -30 "$build/build.log" >&2; exit 1; }
if ! run_suite; then
    echo "the unmutated suite fails: $(failed_tests)" >&2
    exit 1
fi

declare -A tally=([killed]=0 [survived]=0 ["not found"]=0 ["build failed"]=0)
total=0 seen=,
while IFS= read -r line; do
    [[ -z $line || $line == \#* ]] && continue
    IFS=$'\x1f' read -r id path find replace what <<<"${line//$'\t'/$'\x1f'}"
    [[ -n $only && $only != *",$id,"* ]] && continue
    seen+="$id,"
    file=$tree/libs/liblumregion/$path
    if [[ ! -f $file ]]; then
        status="not found" detail="no file $path"
    else
        cp "$file" "$backup"
        applied=$file
        if ! detail=$(apply_mutant "$file" "$find" "$replace" 2>&1); then
            status="not found"
        elif ! rebuild; then
            status="build failed" detail=$(grep -m1 'error' "$build/build.log" || true)
        elif run_suite; then
            status=survived detail=$what
        else
            status=killed detail="by $(failed_tests)"
            echo "$id $(all_failed_tests | tr '\n' ' ')" >>"$out.tests"
        fi
        # A fresh modification time, so that the next build undoes this mutant.
        cp "$backup" "$file"
        applied=''
    fi
    report "$id" "$status" "$path: $detail"
    tally[$status]=$((${tally[$status]} + 1))
    total=$((total + 1))
done <"$mutants"
for id in ${only//,/ }; do
    [[ $seen == *",$id,"* ]] || echo "no mutant $id in $mutants" >&2
done

printf 'mutants: %d, killed %d, survived %d, not found %d, build failed %d\n' "$total" \
    "${tally[killed]}" "${tally[survived]}" "${tally[not found]}" "${tally[build failed]}" |
    tee -a "$out"
