# shellcheck shell=bash
# What the cases of the catalogue stand on. A script sources it with its own arguments, defines its
# cases, one function each, and ends with run_case; the build registers each as catalogue.<Case>.
#
# arguments: <catalogue> <Case> [<module that makes keys look taken> <module that tells of syncs>
#            <root of the sources> <object file...>]
set -euo pipefail

# As root a case has the objects of its server for itself: the key of another's may be the same.
if [ -z "${CATALOGUE_ALONE-}" ] && unshare --ipc true 2>/dev/null; then
    CATALOGUE_ALONE=1 exec unshare --ipc "$0" "$@"
fi

catalogue=$(realpath "$1")
case_name=$2
# The cases use these.
# shellcheck disable=SC2034
{
    taken_key=${3:+$(realpath "$3")}
    count_syncs=${4:+$(realpath "$4")}
    sources=${5:+$(realpath "$5")}
    objects=("${@:6}")
    shipped=$(dirname "$catalogue")/modules
    odd_module=${CATALOGUE_ODD_MODULE-}
    unresolved_module=${CATALOGUE_UNRESOLVED_MODULE-}
    rmheap=${CATALOGUE_RMHEAP-}
}

work=$(mktemp -d)
runs=$work/runs # where the run directories are made; everything else of a case is beside it
home=$work/home # where it is started: corvane.ini is looked for here, and the log is written here
mkdir "$runs" "$home"
cd "$home"
unset CATPATH CATALOGUE_UPDATE_ONE_IN
: >"$work/out"
begun=$EPOCHSECONDS
pid=
stopped= # a worker that a case has stopped: it must be able to notice that its parent has gone
# noted <word>: the ids behind that word in the owner files of the runs that there are.
noted() { sed -sn "s/^$1 //p" "$runs"/*/owner 2>/dev/null | tr ' ' '\n'; }
cleanup() {
    [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null || true
    [ -z "$stopped" ] || kill -CONT "$stopped" 2>/dev/null || true
    # A case that failed in the middle of a run leaves what processes share.
    noted set | xargs -r -n 1 ipcrm -s 2>/dev/null || true
    noted memory | xargs -r -n 1 ipcrm -m 2>/dev/null || true
    noted queues | xargs -r -n 1 ipcrm -q 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT

fail() {
    printf 'FAILED: %s\n' "$*"
    for file in "$work"/out "$work"/err "$home"/*; do
        [ ! -f "$file" ] || sed "s/^/${file##*\/}: /" "$file"
    done
    exit 1
}

# ---- running it

# run <argument...>: to the end; leaves $status, $work/out and $work/err.
run() {
    status=0
    "$catalogue" --dir "$runs" "$@" >"$work/out" 2>"$work/err" || status=$?
}

# start <argument...>: in the background, with far more operations than a case lasts. It says soon
# that it serves.
start() {
    mkfifo "$work/pipe"
    "$catalogue" --dir "$runs" --progress 100 --operations 1000000000 "$@" \
        >"$work/pipe" 2>"$work/err" &
    pid=$!
    exec 3<"$work/pipe"
}

# await <start of a line>: reads the background run's output as far as that line.
await() {
    local line
    while IFS= read -r line <&3; do
        printf '%s\n' "$line" >>"$work/out"
        [[ $line != "$1"* ]] || return 0
    done
    fail "the output ended before a line \"$1...\""
}

# finish: waits for the background run; leaves $status.
finish() {
    cat <&3 >>"$work/out"
    status=0
    wait "$pid" || status=$?
    pid=
}

# settings: corvane.ini with what standard input holds. It changes as a whole, as under an editor.
settings() {
    cat >"$home/new"
    mv "$home/new" "$home/corvane.ini"
}

# hang_up: asks for the settings to be read again.
hang_up() { kill -HUP "$pid"; }

# children <pattern>: the process ids of the background run's children whose names match. Other
# processes come and go while their files are read: that is not an error.
children() {
    { grep -lx "PPid:[[:space:]]$pid" /proc/[0-9]*/status | xargs grep -lEx "Name:[[:space:]]$1" ||
        true; } 2>/dev/null | tr -dc '0-9\n'
}

workers() { children 'worker [0-9]+'; }

# interrupt: ends the background run in order.
interrupt() {
    kill -INT "$pid"
    finish
    expect_status 130
    expect_nothing_left
}

# records <n>: an input of n records.
records() {
    local i
    for ((i = 1; i <= $1; i++)); do
        printf 'Name: item%d\nWeight: %d\nText: first line\n and a second one\n\n' "$i" $((i * i))
    done >"$work/input"
}

# ---- looking at it

expect_status() { [ "$status" -eq "$1" ] || fail "exit status $status instead of $1"; }
expect_out() { grep -qE -- "$1" "$work/out" || fail "standard output lacks: $1"; }
expect_err() { grep -qE -- "$1" "$work/err" || fail "standard error lacks: $1"; }
expect_log() { grep -qE -- "$1" "$home/catalogue.log" || fail "the log lacks: $1"; }
expect_no_log() { [ ! -e "$home/catalogue.log" ] || fail "there is a log file"; }
expect_no_err() { [ ! -s "$work/err" ] || fail "standard error is not empty"; }

set_id() { sed -n 's/^catalogue: process .*, semaphore set \([0-9]*\),.*/\1/p' "$work/out"; }
set_exists() { awk -v id="$1" '$2 == id { found = 1 } END { exit !found }' /proc/sysvipc/sem; }

# Whether a process waits, for a fifth of a second on end, for one of the run's semaphores to be left.
somebody_waits() {
    local id look
    id=$(set_id)
    for look in 1 2 3 4; do
        ipcs -s -i "$id" | awk '$3 > 0 && $1 ~ /^[0-9]+$/ { found = 1 } END { exit !found }' ||
            return 1
        [ "$look" = 4 ] || sleep 0.05
    done
}

# await_line <pattern> <file> [<n>]: waits until n lines that match, 1 if it is not said, stand in a
# file that grows.
await_line() {
    local found
    found=$(grep -cEm "${3:-1}" -- "$1" <(timeout 30 tail --pid=$$ -n +1 -F "$2" 2>/dev/null)) || true
    [ "$found" = "${3:-1}" ] || fail "no line \"$1\" came into ${2##*/}, or too few: $found"
}

await_log() { await_line "$1" "$home/catalogue.log" "${2:-1}"; }
await_err() { await_line "$1" "$work/err"; }

expect_nothing_left() {
    local left id
    left=$(ls -A "$runs")
    [ -z "$left" ] || fail "left behind: $left"
    for id in $(set_id); do
        ! set_exists "$id" || fail "semaphore set $id is left behind"
    done
    for id in $(main_pid); do
        # By its maker and the time at which it was made: numbers of processes are used again.
        ! awk -v pid="$id" -v begun="$begun" '$5 == pid && $14 >= begun { found = 1 }
            END { exit !found }' /proc/sysvipc/shm ||
            fail "a segment of process $id is left behind"
    done
}

main_pid() { sed -n 's/^catalogue: process \([0-9]*\),.*/\1/p' "$work/out"; }

# The figure before "<word>" in a row of the summary, without its commas.
figure() { sed -n "s/^  $1 *\\([0-9,]*\\)[ ,].*/\\1/p" "$work/out" | tr -d ,; }

# run_case: the one that the command line names.
run_case() {
    [ "$(type -t "$case_name")" = function ] || fail "there is no case $case_name"
    "$case_name"
}
