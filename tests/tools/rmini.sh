# Sourced by the tests of rmini: what runs it, and what looks at what its user sees.
# shellcheck shell=bash
set -euo pipefail

rmini=$(realpath "$1")
case_name=$2
# shellcheck disable=SC2034 # two of the tests use it
completion=$(realpath "$3")
faults=$(realpath "$4")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/files" # the files of a case; what is written about it stands beside
cd "$work/files"
: >"$work/out"
: >"$work/err"

fail() {
    printf 'FAILED: %s\n' "$*"
    for file in "$work"/out "$work"/err f.ini; do
        [ ! -f "$file" ] || sed "s/^/${file##*\/}: /" "$file"
    done
    exit 1
}

# ---- running it

# run <argument...>: to the end; leaves $status, $work/out and $work/err.
run() {
    status=0
    "$rmini" "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
}

# run_with <fault> <argument...>: with calls that fail as rmini_faults.c says.
run_with() {
    local fault=$1
    shift
    export LD_PRELOAD=$faults RMINI_FAULT=$fault
    export ASAN_OPTIONS=${ASAN_OPTIONS:-}:verify_asan_link_order=0
    run "$@"
    unset LD_PRELOAD
}

# file <line...>: f.ini, from lines in the notation of printf.
file() {
    : >f.ini
    local line
    for line; do
        # shellcheck disable=SC2059
        printf "$line\\n" >>f.ini
    done
    cp f.ini "$work/before"
}

# ---- looking at it

expect_status() { [ "$status" -eq "$1" ] || fail "exit status $status instead of $1"; }
expect_err() { grep -qE -- "$1" "$work/err" || fail "standard error lacks: $1"; }
expect_no_err() { [ ! -s "$work/err" ] || fail "standard error is not empty"; }
expect_no_out() { [ ! -s "$work/out" ] || fail "standard output is not empty"; }

# expect_out <line...>: exactly these lines.
expect_out() {
    printf '%s\n' "$@" | cmp -s - "$work/out" || fail "standard output is not: $*"
}

# expect_file <line...>: f.ini holds exactly these, in the notation of printf.
expect_file() {
    local line
    for line; do
        # shellcheck disable=SC2059
        printf "$line\\n"
    done | cmp -s - f.ini || fail "the file is not: $*"
}

expect_unchanged() { cmp -s "$work/before" f.ini || fail "the file was changed"; }

# expect_files <name...>: the directory holds these and nothing else.
expect_files() {
    [ "$(ls -A)" = "$(printf '%s\n' "$@")" ] || fail "files: $(ls -A)"
}

# expect_refused <pattern...>: with status 4, the patterns, and nothing written.
expect_refused() {
    local pattern
    expect_status 4
    for pattern; do
        expect_err "$pattern"
    done
    expect_no_out
    expect_unchanged
    expect_files f.ini
}

# expect_finding <kind> <line> <text>: check reports this one of the kind, and no other.
expect_finding() {
    expect_status 6
    expect_no_err
    grep -F "[$1]" "$work/out" >"$work/kind" || fail "no [$1]"
    [ "$(wc -l <"$work/kind")" -eq 1 ] || fail "several [$1]"
    grep -qE "^f\\.ini:$2: .*$3.* \\[$1\\]\$" "$work/kind" || fail "another [$1]: $(cat "$work/kind")"
}

# ---- a case

run_case() {
    [ "$(type -t "$case_name")" = function ] || fail "there is no case $case_name"
    "$case_name"
}
