# Sourced by the tests of rmheap: what makes logs, what runs it, and what looks at what its user
# sees.
# shellcheck shell=bash
set -euo pipefail

rmheap=$(realpath "$1")
case_name=$2
# shellcheck disable=SC2034 # two of the tests use it
completion=$(realpath "$3")
host=$(realpath "$4")
check=$(realpath "$5")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$work/files" # the files of a case; what is written about it stands beside
cd "$work/files"
: >"$work/out"
: >"$work/err"
export LC_ALL=C.UTF-8 COLUMNS=200 # wide enough for every message
unset NO_COLOR

fail() {
    printf 'FAILED: %s\n' "$*"
    for file in "$work"/out "$work"/err; do
        sed "s/^/${file##*\/}: /" "$file" | head -n 60
    done
    exit 1
}

# ---- logs

stamp='[07-Mar-96 14:05:09]  '

# log <line...>: adds lines of the library to f.log.
log() { printf "$stamp%s\n" "$@" >>f.log; }

# heading [title], closing: the lines around a report.
heading() { log '--------VIRLO MEMORY REPORT--------' "${1-}"; }
closing() { log 'MEMORY REPORT DONE'; }

# sound [title]: a report of one tag with everything in it.
sound() {
    heading "${1-}"
    log 'TAG 1(  sessions): limit=65536, allocated=72' 'SEGMENT @ 0x1000   size=200' \
        '    0x1010         0 (1) free' '    0x1018       128 (1) free' \
        '    0x1098        24 (1)' '    0x10b0        48 (1)' \
        'SEGMENT: 72 allocated bytes in 2 blocks' '         128 free bytes in 1 block' \
        'TAG: 72 allocated bytes in 2 blocks,' '     128 free bytes in 1 block' \
        '     and contains 1 segment' 'TOTAL: 72 allocated bytes in 2 blocks,' \
        '       128 free bytes in 1 block' '       System contains 1 active tag'
    closing
}

# table [title]: a report of three tags in the summary table alone.
table() {
    heading "${1-}"
    log '       allocated/blocks     freed/blocks  segs' \
        'TAG  0(          ):        0/    0 :        0/    0 :   0' \
        'TAG  1(  sessions):     4000/   50 :     4168/    3 :   1' \
        'TAG  2(     cache):     1000/    2 :     7168/    1 :   1' \
        'TOTAL :     5000/   52 :    11336/    4 :   3'
    closing
}

# segment <free lines: yes or no> <line...>: a report of tag 1 with one segment at 0x1000 of 200
# bytes, the blocks of which stand in the lines.
segment() {
    heading
    local free=$1
    shift
    log 'TAG 1(  sessions): limit=-1, allocated=72' 'SEGMENT @ 0x1000   size=200'
    [ "$free" = no ] || log '    0x1010         0 (1) free'
    log "$@"
    log 'SEGMENT: 72 allocated bytes in 2 blocks' '         128 free bytes in 1 block'
    closing
}

# ---- running it

# run <argument...>: to the end; leaves $status, $work/out and $work/err.
run() {
    status=0
    "$rmheap" "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
}

# on_terminal <argument...>: the same, with standard output a terminal.
on_terminal() {
    local command
    printf -v command '%q ' "$rmheap" "$@"
    status=0
    TERM=${TERM_OF_CASE-xterm} script -qec "$command" /dev/null </dev/null >"$work/out" 2>"$work/err" ||
        status=$?
    sed -i 's/\r$//' "$work/out"
}

# report_of <step...>: a host that does this writes f.log.
report_of() { "$host" "$@" 2>>f.log || fail "the host fails: $*"; }

# ---- looking at it

expect_status() { [ "$status" -eq "$1" ] || fail "exit status $status instead of $1"; }
expect_line() { grep -qE -- "$1" "$work/out" || fail "standard output lacks: $1"; }
expect_no_line() { ! grep -qE -- "$1" "$work/out" || fail "standard output has: $1"; }
expect_err() { grep -qE -- "$1" "$work/err" || fail "standard error lacks: $1"; }
expect_no_err() { [ ! -s "$work/err" ] || fail "standard error is not empty"; }
expect_no_out() { [ ! -s "$work/out" ] || fail "standard output is not empty"; }

# expect_row <text>: a row of a table, its cells divided by one blank each, without the bar.
expect_row() {
    tr -s ' ' <"$work/out" | sed -e 's/^ //' -e 's/ [#.]*$//' | grep -qxF -- "$1" ||
        fail "there is no row: $1"
}

# expect_json <path=value>: that standard output is JSON and has it.
expect_json() {
    "$check" json <"$work/out" >"$work/values" 2>>"$work/err" || fail "standard output is not JSON"
    grep -qxF -- "$1" "$work/values" || fail "standard output lacks: $1"
}

# expect_svg <file>: it can be opened.
expect_svg() { "$check" xml <"$1" 2>>"$work/err" || fail "$1 is not well-formed"; }

# texts <file>: writes what stands in a map to $work/texts, a line each, tooltips too.
texts() {
    sed -e 's/<title>/\n&/g' -e 's/<text/\n&/g' "$1" |
        sed -nE 's/^<(text|title)[^>]*>([^<]+).*/\2/p' >"$work/texts"
}

# expect_text <file> <text>, expect_text_like <file> <pattern>: that a map has it.
expect_text() {
    texts "$1"
    grep -qxF -- "$2" "$work/texts" || fail "$1 lacks the text: $2"
}
expect_text_like() {
    texts "$1"
    grep -qE -- "$2" "$work/texts" || fail "$1 lacks the text: $2"
}

# expect_files <name...>: the directory holds these and nothing else.
expect_files() {
    [ "$(ls -A)" = "$(printf '%s\n' "$@")" ] || fail "files: $(ls -A)"
}

# ---- a case

run_case() {
    [ "$(type -t "$case_name")" = function ] || fail "there is no case $case_name"
    "$case_name"
}
