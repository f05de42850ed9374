#!/usr/bin/env bash
# What becomes of the catalogue when its processes are killed: nothing that was acknowledged is lost,
# nothing is left behind. The verification at the end of every run is what says so; the cases see to
# it that it has something to say. One case per function.
# shellcheck source=tests/multiprocess/catalogue_support.sh
source "$(dirname "$0")/catalogue_support.sh"

kill_holder=${CATALOGUE_KILL_HOLDER-}

# The figures of the line on what was replaced: workers, locks, jobs, updates.
replaced() {
    sed -nE 's/^  replaced +([0-9,]+) workers .*: ([0-9,]+) locks freed, ([0-9,]+) jobs put back, ([0-9,]+) updates redone$/\1 \2 \3 \4/p' \
        "$work/out" | tr -d ,
}

expect_verified() {
    expect_status "${1:-0}"
    expect_out '^Every record matches the input and the updates made to it\.$'
    expect_nothing_left
}

# kills <milliseconds> <n> <argument...>: a run in which n workers are killed, one every so many
# milliseconds, and which is then interrupted.
kills() {
    local every=$1 deaths=$2
    shift 2
    records 60
    CATALOGUE_UPDATE_ONE_IN=2 start --kill-every "$every" "$@" "$work/input"
    await_line 'was killed by signal 9' "$work/err" "$deaths"
    kill -INT "$pid"
    finish
    expect_verified 130
    [ "$(replaced | cut -d ' ' -f 1)" -ge "$deaths" ] || fail "the summary does not count them"
    ! grep -qvE '  WARNING: lock [0-9]+ freed, its holder [0-9]+ is gone$|was killed by signal 9|^catalogue: ended by signal 2' "$work/err" ||
        fail "there is more on standard error"
}

# with_deaths <times> <variable=value...>: workers of what follows die so many times, as
# kill_holder.c says.
with_deaths() {
    export LD_PRELOAD=$kill_holder ASAN_OPTIONS=${ASAN_OPTIONS:-}:verify_asan_link_order=0
    export KILL_FILE=$work/deaths KILL_TIMES=$1 "${@:2}"
}

without_deaths() {
    unset LD_PRELOAD
    [ "$(stat -c %s "$work/deaths")" = "$KILL_TIMES" ] || fail "not every death has come"
}

# holds <n of semaphore>: a worker dies twice as soon as it holds this lock.
holds() {
    records 60
    with_deaths 2 "KILL_SEM=$1"
    run --operations 6000 --log-level 2 "${@:2}" "$work/input"
    without_deaths
    expect_verified
    local number
    read -r number _ < <(replaced)
    [ "$number" = 2 ] || fail "$number workers were replaced"
    [ "$(grep -cE "  WARNING: lock $1 freed, its holder [0-9]+ is gone$" "$work/err")" = 2 ] ||
        fail "lock $1 was not freed twice"
}

# ---- killed from outside

LosesNothingWhenAWorkerIsKilledEveryFiftyMilliseconds() {
    kills 50 12
}

LosesNothingWhenAWorkerIsKilledEveryTwentyMilliseconds() {
    kills 20 40
}

LosesNothingWhenAWorkerIsKilledEveryTenMilliseconds() {
    kills 10 80 --workers 6
}

LosesNothingWhenAWorkerIsKilledEveryFiveMilliseconds() {
    kills 5 120
}

LosesNothingWhenTheOnlyWorkerIsKilledAgainAndAgain() {
    kills 40 20 --workers 1
}

LosesNothingOfOneRecordThatEverybodyUpdates() {
    records 1
    CATALOGUE_UPDATE_ONE_IN=1 start --kill-every 10 "$work/input"
    await_line 'was killed by signal 9' "$work/err" 60
    kill -INT "$pid"
    finish
    expect_verified 130
}

LosesNothingWhileFilesAreBackedUp() {
    records 60
    settings </dev/null
    start --kill-every 10 --rotate 1 --log-level 1 "$work/input"
    await 'serving:'
    local i
    for i in {1..5}; do
        hang_up
        await_line "desk: reload $i: nothing changes$" "$work/err"
    done
    await_line 'desk: rotation 4: ' "$work/err"
    kill -INT "$pid"
    finish
    expect_verified 130
    [ "$(replaced | cut -d ' ' -f 1)" -gt 10 ] || fail "hardly a worker was killed"
}

# Each client says which version its note has become; the record has it, or a later one, afterwards.
LosesNoUpdateThatAClientWasTold() {
    records 8
    start --stay --kill-every 15 --workers 3 "$work/input"
    await 'serving:'
    local run round client wrote
    run=$(ls -d "$runs"/*)
    putter() {
        for round in {1..12}; do
            "$catalogue" put "item$1" "note $1 of round $round" --run "$run" --timeout 60 \
                >>"$work/put.$1" 2>&1 || fail "put: $(cat "$work/put.$1")"
        done
    }
    local putters=()
    for client in 1 2 3 4; do
        putter "$client" &
        putters+=($!)
    done
    for client in "${putters[@]}"; do
        wait "$client" || fail "a client failed: $(cat "$work"/put.*)"
    done
    for client in 1 2 3 4; do
        wrote=$(grep -c '^version [0-9]*$' "$work/put.$client")
        [ "$wrote" = 12 ] || fail "client $client was told $wrote versions"
        # No version was given to two of its updates.
        sort -u -V "$work/put.$client" | cmp - "$work/put.$client" || fail "versions go back"
    done
    kill -INT "$pid"
    finish
    expect_verified
    # An answer is given, and counted, a second time when its worker is killed just behind it.
    expect_out '^  clients +(4[89]|5[0-9]) requests: 0 get, (4[89]|5[0-9]) put, 0 list$'
    [ "$(replaced | cut -d ' ' -f 1)" -gt 10 ] || fail "hardly a worker was killed"
}

# ---- killed where it hurts

RedoesAnUpdateThatWasHalfWritten() {
    records 40
    run --operations 4000 --kill-worker 3 "$work/input"
    expect_verified
    expect_err '  desk: warning: worker 3, process [0-9]+, was killed by signal 9 \(Killed\) in the middle of an update of "item[0-9]+" in bucket-[0-9]+\.dat; another takes its place$'
    [[ $(replaced) =~ ^1\ [1-9][0-9]*\ [0-9]+\ 1$ ]] || fail "replaced: $(replaced)"
}

RedoesTheOnlyRecordForWorkersThatWaitForIt() {
    # One record means one lock: everybody waits for it at once.
    records 1
    SECONDS=0
    run --operations 4000 --kill-worker 1 "$work/input"
    [ "$SECONDS" -le 10 ] || fail "it took $SECONDS s"
    expect_verified
    [[ $(replaced) == *' 1' ]] || fail "replaced: $(replaced)"
}

FreesTheFileTableOfADeadWorker() {
    holds 0
}

FreesTheLockOfABucketOfADeadWorker() {
    holds 5
}

FreesThePoolOfADeadWorker() {
    holds 16
}

FreesTheJobsOfADeadWorker() {
    holds 17
}

FreesTheTurnOfADeadWorker() {
    holds 18
}

FreesTheLockOfGrowthOfADeadWorker() {
    # Records that move to the end of one file: that grows.
    local i
    for ((i = 1; i <= 60; i++)); do
        printf 'Name: item%d\nText: %01000d\n\n' "$i" "$i"
    done >"$work/input"
    with_deaths 1 KILL_SEM=1
    CATALOGUE_UPDATE_ONE_IN=1 run --operations 4000 --buckets 1 "$work/input"
    without_deaths
    expect_verified
    expect_err '  WARNING: lock 1 freed, its holder [0-9]+ is gone$'
}

LosesNothingWhereverWorkersDie() {
    records 20
    with_deaths 60 KILL_CALLS=2500
    CATALOGUE_UPDATE_ONE_IN=2 run --operations 40000 --buckets 8 "$work/input"
    without_deaths
    expect_verified
    [ "$(replaced | cut -d ' ' -f 1)" = 60 ] || fail "replaced: $(replaced)"
}

LosesNothingWhereverTheOnlyWorkerDies() {
    records 20
    with_deaths 60 KILL_CALLS=1500
    CATALOGUE_UPDATE_ONE_IN=1 run --operations 10000 --workers 1 --buckets 3 "$work/input"
    without_deaths
    expect_verified
    [ "$(replaced | cut -d ' ' -f 1)" = 60 ] || fail "replaced: $(replaced)"
}

EndsWhenWorkersDieAndDoNothingElse() {
    records 20
    with_deaths 1000 KILL_SEM=17
    run --operations 1000 "$work/input"
    unset LD_PRELOAD
    expect_status 1
    expect_err '^catalogue: workers were killed 20 times in a row, and no job was done in between\.$'
    expect_nothing_left
}

EndsInOrderWhenTheDeskIsKilled() {
    records 40
    start "$work/input"
    await 'serving:'
    children desk | xargs kill -KILL
    finish
    expect_status 1
    expect_err '^catalogue: the desk was killed by signal 9 \(Killed\)\.$'
    expect_err 'nothing is verified'
    expect_nothing_left
}

RemovesWhatARunLeftWhoseProcessesWereAllKilled() {
    records 40
    start --stay "$work/input"
    await 'serving:'
    local objects
    objects=$(noted memory; noted queues)
    [ "$(wc -l <<<"$objects")" = 7 ] || fail "not seven objects: $objects"
    kill -STOP "$pid"
    children '.*' | xargs kill -KILL
    kill -KILL "$pid"
    finish
    run --operations 1000 "$work/input"
    expect_status 0
    expect_out '^removed what run [0-9]+ left behind when it died: '
    expect_nothing_left
    local id
    for id in $objects; do
        ! awk -v id="$id" '$2 == id { found = 1 } END { exit !found }' /proc/sysvipc/shm \
            /proc/sysvipc/msg || fail "object $id is left behind"
    done
}

run_case
