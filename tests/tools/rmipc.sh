# Sourced by the tests of rmipc: hosts that leave something, what runs the tool, and what looks at
# what its user sees.
# shellcheck shell=bash
set -euo pipefail

# As root a case has the machine's objects for itself: the key of another's may be the same.
if [ -z "${RMIPC_ALONE-}" ] && unshare --ipc true 2>/dev/null; then
    RMIPC_ALONE=1 exec unshare --ipc "$0" "$@"
fi

rmipc=$(realpath "$1")
case_name=$2
# shellcheck disable=SC2034 # one of the tests uses it
completion=$(realpath "$3")
host=$(realpath "$4")

work=$(mktemp -d)
mkdir "$work/files" # the files of a case; what is written about it stands beside
cd "$work/files"
: >"$work/out"
: >"$work/err"
: >"$work/ids"
export LC_ALL=C.UTF-8 COLUMNS=1000 # no message is broken
servers=()

# Removes what the hosts of this case have made. By their numbers: a key may belong to another case
# by now, since the system gives the numbers of files again.
clean_up() {
    local pid
    for pid in "${servers[@]}"; do
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    sort -u "$work/ids" | while read -r kind id; do
        ipcrm "-$kind" "$id" 2>/dev/null || true
    done
    rm -rf "$work"
}
trap clean_up EXIT

fail() {
    printf 'FAILED: %s\n' "$*"
    for file in "$work"/out "$work"/err; do
        sed "s/^/${file##*\/}: /" "$file" | head -n 60
    done
    exit 1
}

# ---- hosts

# bases: the part of the keys that all slots have, of the token files that are there now.
bases() {
    local number device
    find . -name '*.ZNT.RM.*' ! -type l -exec stat -c '%i %d' {} + | while read -r number device; do
        echo $(((device & 255) << 16 | (number & 65535)))
    done
}

# Notes the objects to which the token files lead that are there now.
note_objects() {
    local bases
    bases=$(bases)
    awk -v bases="$bases" '
        BEGIN { n = split(bases, base, "\n") }
        FNR == 1 { kind = $2 == "semid" ? "s" : $2 == "shmid" ? "m" : "q"; next }
        { for (i = 1; i <= n; i++) if ($1 % 16777216 == base[i] && $1 < 352321536) print kind, $2 }
    ' /proc/sysvipc/sem /proc/sysvipc/shm /proc/sysvipc/msg >>"$work/ids"
}

# token <path>: makes a token file that leads to nothing. The system gives the numbers of files
# again, also that of a file whose objects somebody has left.
token() {
    [ ! -e "$1" ] || return 0
    : >"$1"
    while leads_to_something "$1"; do
        mv "$1" "$work/$RANDOM.taken" # its number is not given again meanwhile
        : >"$1"
    done
}

leads_to_something() {
    local number device base
    read -r number device < <(stat -c '%i %d' "$1")
    base=$(((device & 255) << 16 | (number & 65535)))
    # A removed segment has no key any more, but is mapped under the one that it had.
    awk -v base="$base" '
        FNR > 1 && $1 % 16777216 == base { found = 1 }
        END { exit !found }
    ' /proc/sysvipc/sem /proc/sysvipc/shm /proc/sysvipc/msg ||
        grep -qsE "SYSV..$(printf '%06x' "$base") " /proc/[0-9]*/maps
}

# tokens_for <prefix> <step...>: those that a host will need; of a prefix it keeps 31 bytes.
tokens_for() {
    local prefix=${1:0:31} step
    shift
    for step; do
        case $step in
        sync:*) token "$prefix.ZNT.RM.SEM" ;;
        segment:* | bag:*) token "$prefix.ZNT.RM.MEM" ;;
        queue:*) token "$prefix.ZNT.RM.QUEUE" ;;
        esac
    done
}

# leave <prefix> <step...>: a host that does this and is killed; its number is in $gone.
leave() {
    tokens_for "$@"
    "$host" "$@" kill &
    gone=$!
    wait "$gone" 2>/dev/null || [ $? -eq 137 ] || fail "the host was not killed: $*"
    note_objects
}

# start <prefix> <step...>: a host that does this and goes on living; its number is in $server.
start() {
    tokens_for "$@"
    mkfifo "$work/ready"
    "$host" "$@" say:ready pause >"$work/ready" &
    server=$!
    servers+=("$server")
    read -r _ <"$work/ready" || fail "the host did not start: $*"
    rm "$work/ready"
    note_objects
}

# stop: kills the last host, and waits until all that it has made have ended.
stop() {
    kill -KILL "$server"
    wait "$server" 2>/dev/null || true
    until_true none_holds
}

none_holds() {
    ! find /proc/[0-9]*/fd -lname "$work/files/*.ZNT.RM.*" 2>/dev/null | grep -q .
}

# is_gone <process>: it has ended, though perhaps nobody has waited for it.
is_gone() { [ ! -e "/proc/$1" ] || grep -q '^State:.Z' "/proc/$1/status"; }

# until_true <command...>: for what the system tells and does not announce.
until_true() {
    local i
    for ((i = 0; i < 500; i++)); do
        if "$@"; then
            return
        fi
        sleep 0.02
    done
    fail "this does not come true: $*"
}

# ---- running it

# run <argument...>: to the end; leaves $status, $work/out and $work/err.
run() {
    status=0
    "$rmipc" "$@" >"$work/out" 2>"$work/err" </dev/null || status=$?
}

# on_terminal <keys> <argument...>: the same, with a terminal on which the keys are typed. What is
# printed and what is said are in $work/out.
on_terminal() {
    local keys=$1 command
    shift
    printf -v command '%q ' "$rmipc" "$@"
    status=0
    printf '%b' "$keys" | script -qec "$command" /dev/null >"$work/out" 2>"$work/err" || status=$?
    sed -i 's/\r$//' "$work/out"
}

# shows <row...>: runs the tool on the current directory; true when it prints all these rows.
shows() {
    local row
    run ''
    for row; do
        tr -s ' ' <"$work/out" | grep -qxF -- " $row" || return
    done
}

# state <file>: writes the objects of this case and its token files there, with all that the system
# tells of them.
state() {
    {
        sort -u "$work/ids" | while read -r kind id; do
            awk -v id="$id" -v kind="$kind" 'FNR > 1 && $2 == id { print kind, $0 }' \
                "/proc/sysvipc/$(case $kind in s) echo sem ;; m) echo shm ;; q) echo msg ;; esac)"
        done
        find . -name '*.ZNT.RM.*' -printf '%p %i %s %T@ %C@\n' | sort
    } >"$1"
}

# ---- looking at it

expect_status() { [ "$status" -eq "$1" ] || fail "exit status $status instead of $1"; }
expect_line() { grep -qE -- "$1" "$work/out" || fail "standard output lacks: $1"; }
expect_no_line() { ! grep -qE -- "$1" "$work/out" || fail "standard output has: $1"; }
expect_err() { grep -qE -- "$1" "$work/err" || fail "standard error lacks: $1"; }
expect_no_err() { [ ! -s "$work/err" ] || fail "standard error is not empty"; }
expect_no_out() { [ ! -s "$work/out" ] || fail "standard output is not empty"; }

# expect_row <text>: a row of a table, its cells divided by one blank each.
expect_row() {
    tr -s ' ' <"$work/out" | sed -e 's/^ //' | grep -qxF -- "$1" || fail "there is no row: $1"
}

# expect_json <filter>: that standard output is JSON, for which the filter is true.
expect_json() {
    python3 -c '
import json, sys
value = json.load(open(sys.argv[1]))
if not eval(sys.argv[2], {"j": value, "len": len, "any": any, "all": all, "sorted": sorted}):
    sys.exit("not true")
' "$work/out" "$1" 2>>"$work/err" || fail "not true of the JSON: $1"
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
