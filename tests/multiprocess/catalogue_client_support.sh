# shellcheck shell=bash
# What the cases of the clients stand on, beside what all cases of the catalogue do. A script
# sources it with its own arguments.
# shellcheck source=tests/multiprocess/catalogue_support.sh
source "$(dirname "${BASH_SOURCE[0]}")/catalogue_support.sh"

# The scripts use these, and those that the functions below leave.
# shellcheck disable=SC2034
{
    fake_server=${CATALOGUE_FAKE_SERVER-}
    run_ends_first=${CATALOGUE_RUN_ENDS_FIRST-}
    client=
    item7=$'Name: item7\nText: text of 7\n\n  version  1' # what the fake server has under that name
}
: >"$work/server"
: >"$work/err"
fakes=() # process ids of the fake servers
earlier=0

# numbers <word>: of the queues, or the segment, of all fake servers of the case.
numbers() { sed -n "s/^$1 //p" "$work"/server* | tr ' ' '\n'; }

# What a fake server that was killed has left.
remove_objects() {
    numbers queues | xargs -r -n 1 ipcrm -q 2>/dev/null || true
    numbers segment | xargs -r -n 1 ipcrm -m 2>/dev/null || true
}

end_fakes() {
    local fake
    for fake in "${fakes[@]}"; do
        kill -TERM "$fake" 2>/dev/null || true
    done
    for fake in "${fakes[@]}"; do
        wait "$fake" 2>/dev/null || true
    done
    fakes=()
}

end_clients() {
    jobs -p | xargs -r kill -KILL 2>/dev/null || true
}

trap 'end_fakes; end_clients; remove_objects; cleanup' EXIT

# fake <mode> [<number>]: a fake server in the background; leaves $fake and $run. Its output goes
# into $work/server; that of the one before it is in server.1 then, and so on.
fake() {
    [ ! -s "$work/server" ] || mv "$work/server" "$work/server.$((++earlier))"
    : >"$work/server"
    "$fake_server" "$runs" "$@" >"$work/server" 2>&1 &
    fake=$!
    fakes+=("$fake")
    await_line '^serves$' "$work/server"
    run=$(sed -n 's/^ready //p' "$work/server")
}

# ask <argument...>: a client, to its end; leaves $status, $work/out and $work/err.
ask() {
    status=0
    "$catalogue" "$@" --run "$runs" >"$work/out" 2>"$work/err" || status=$?
}

# asking <n> <argument...>: one in the background, with out and err of its own; leaves $client.
asking() {
    "$catalogue" "${@:2}" --run "$runs" >"$work/out$1" 2>"$work/err$1" &
    # shellcheck disable=SC2034
    client=$!
}

# await_request <n>: until the fake server has taken n requests in all.
await_request() { await_line '^request ' "$work/server" "$1"; }

# ended <pid>: waits for it; leaves $status.
ended() {
    status=0
    wait "$1" || status=$?
}

expect() { # <status> [<pattern of standard error>]: that, and nothing on standard output
    expect_status "$1"
    [ ! -s "$work/out" ] || fail "standard output is not empty"
    [ -z "${2-}" ] || expect_err "$2"
}

expect_text() { # <text>: all of standard output, and nothing else
    expect_status 0
    expect_no_err
    [ "$(cat "$work/out")" = "$1" ] || fail "standard output is not: $1"
}

# release <n>: has the fake server answer a request that it holds, the n-th that it answers.
release() {
    kill -USR1 "$fake"
    await_line '^answered$' "$work/server" "$1"
}

# objects <kind> <field>: number, and field, of the objects whose keys are made from files in $run.
objects() {
    stat -c '%d %i' "$run"/.ZNT* | awk -v field="$2" '
        NR == FNR { mine[$1 % 256 * 65536 + $2 % 65536] = 1; next }
        FNR > 1 {
            key = ($1 < 0 ? $1 + 4294967296 : $1) % 16777216
            if (key in mine) print $2, $field
        }' - /proc/sysvipc/"$1" | sed "s/^/$1 /" | sort
}

# The files of a run with their numbers, sizes and modes, its objects with the messages in them and
# the processes that are attached, and the values of its semaphores.
state_of_run() {
    local id
    objects sem 4
    objects msg 5
    objects shm 7
    while read -r _ id _; do
        ipcs -s -i "$id" | awk '$1 ~ /^[0-9]+$/ { print "value", $1, $2 }'
    done < <(objects sem 4)
    stat -c '%n %i %s %a' "$run"/.ZNT* "$run"/channel.*
    ls -A "$run"
}

# queue_exists <number>
queue_exists() { awk -v id="$1" '$2 == id { found = 1 } END { exit !found }' /proc/sysvipc/msg; }

# expect_gone <number...>: of queues.
expect_gone() {
    local id
    for id in "$@"; do
        ! queue_exists "$id" || fail "queue $id is left"
    done
}
