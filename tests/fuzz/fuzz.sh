#!/usr/bin/env bash
# fuzz.sh search SECONDS JOBS TARGET...
# fuzz.sh minimize TARGET...
#
# Runs the fuzz targets that stand built in build/fuzz. A search goes on from tests/fuzz/corpus and
# from build/fuzz/corpus, where what it finds interesting is kept; inputs that break something go to
# build/fuzz/finds. It prints a line a target and fails when something was found. Minimizing takes
# over those inputs of build/fuzz/corpus that reach code which no other of the repository's reaches,
# and drops those of the repository's that others make superfluous. Inputs with a name, not a hash,
# are there for what they show: they stay.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/../.."

build=build/fuzz
programs=$build/tests/fuzz
max_length=4096 # bytes of an input; some blocks of a text stream

# Files of the targets go where they cost no disk, and away in the end.
scratch=$(mktemp -d -p /dev/shm 2>/dev/null || mktemp -d)
children=()
cleanup() {
    [ ${#children[@]} -eq 0 ] || kill "${children[@]}" 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT TERM
export TMPDIR=$scratch

# search_one TARGET SECONDS: its output to build/fuzz/TARGET.log, its status to TARGET.status, and the
# time that it and its children had a processor to TARGET.times
search_one() {
    local target=$1 seconds=$2 status=0 options=() dictionary program
    dictionary=tests/fuzz/dictionaries/${target%%_*}.dict
    [ ! -f "$dictionary" ] || options=(-dict="$dictionary")
    mkdir -p "$build/corpus/$target"
    "$programs/fuzz_$target" "${options[@]}" -max_total_time="$seconds" -max_len="$max_length" \
        -len_control=10 -timeout=10 -print_final_stats=1 -artifact_prefix="$build/finds/$target-" \
        "$build/corpus/$target" "tests/fuzz/corpus/$target" >"$build/$target.log" 2>&1 &
    program=$!
    trap 'kill "$program"' TERM
    wait "$program" || status=$?
    echo "$status" >"$build/$target.status"
    times >"$build/$target.times"
}

# last_number TARGET PATTERN: the last number in the log that follows the pattern, or -
last_number() {
    local found
    found=$(grep -aoE "$2 *[0-9]+" "$build/$1.log" | tail -n 1 | grep -oE '[0-9]+$' || true)
    echo "${found:--}"
}

# processor_seconds TARGET: of "1m2.5s 0m3.1s", which the shell has written for its children
processor_seconds() {
    tr 'ms' '  ' <"$build/$1.times" | awk 'END { printf "%.0f", $1 * 60 + $2 + $3 * 60 + $4 }'
}

# report TARGET: its line of the summary; fails when something was found
report() {
    local target=$1 status find
    status=$(cat "$build/$target.status")
    find=$(grep -aoE 'Test unit written to .*' "$build/$target.log" | tail -n 1 || true)
    find=${find#Test unit written to }
    printf '%-13s %4s s of processor, %10s executions, corpus %4s, %5s edges, %s finds\n' "$target" \
        "$(processor_seconds "$target")" \
        "$(last_number "$target" 'stat::number_of_executed_units:')" \
        "$(last_number "$target" 'corp:')" "$(last_number "$target" 'cov:')" \
        "$([ "$status" -eq 0 ] && echo 0 || echo 1)"
    [ "$status" -ne 0 ] || return 0
    grep -aE 'does not hold|assertion failed|ERROR: |runtime error|SUMMARY' "$build/$target.log" |
        sed 's/^/    /' || true
    if [ -n "$find" ]; then
        printf '    input:  %s\n    repeat: %s/fuzz_%s %s\n' "$find" "$programs" "$target" "$find"
    else
        tail -n 5 "$build/$target.log" | sed 's/^/    /'
    fi
    printf '    output: %s\n' "$build/$target.log"
    return 1
}

search() {
    local seconds=$1 jobs=$2 target failed=0 running=0
    shift 2
    mkdir -p "$build/finds"
    for target; do
        rm -f "$build/$target.log" "$build/$target.status"
        if [ "$running" -eq "$jobs" ]; then
            wait -n || true
            running=$((running - 1))
        fi
        search_one "$target" "$seconds" &
        children+=("$!")
        running=$((running + 1))
    done
    wait
    children=()
    for target; do
        report "$target" || failed=1
    done
    return "$failed"
}

# merge TARGET: into a copy first, so that nothing is lost when it fails
merge() {
    local target=$1 corpus=tests/fuzz/corpus/$1 merged=$scratch/$1 before
    before=$(find "$corpus" -type f | wc -l)
    mkdir -p "$build/corpus/$target" "$merged"
    find "$corpus" -type f -regextype posix-extended ! -regex '.*/[0-9a-f]{40}' \
        -exec cp -t "$merged" {} +
    # Counts of how often an edge is passed would keep hundreds of inputs that differ in nothing else.
    "$programs/fuzz_$target" -merge=1 -use_counters=0 -max_len="$max_length" -timeout=10 \
        "$merged" "$corpus" "$build/corpus/$target" >"$build/$target.log" 2>&1 || {
        tail -n 20 "$build/$target.log" >&2
        echo "fuzz_$target could not merge; tests/fuzz/corpus/$target is as it was" >&2
        return 1
    }
    find "$corpus" -type f -delete
    cp -t "$corpus" "$merged"/*
    printf '%-13s %4s inputs, were %4s, %7s bytes\n' "$target" "$(find "$corpus" -type f | wc -l)" \
        "$before" "$(cat "$corpus"/* | wc -c)"
}

case ${1-} in
search)
    shift
    search "$@"
    ;;
minimize)
    shift
    for target; do
        merge "$target"
    done
    ;;
*)
    echo "usage: tests/fuzz/fuzz.sh search SECONDS JOBS TARGET... | minimize TARGET..." >&2
    exit 2
    ;;
esac
