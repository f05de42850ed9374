#!/usr/bin/env bash
# The log and the statistics of the catalogue. One case per function.
# shellcheck source=tests/multiprocess/catalogue_support.sh
source "$(dirname "$0")/catalogue_support.sh"

# counted <name> <column: 1 parent, 2 desk, 3 all workers>
counted() {
    sed -nE "s/^    $1 +([0-9,]+) +([0-9,]+) +([0-9,]+)\$/\\$2/p" "$work/out" | tr -d ,
}

# ---- the log

KeepsQuietByDefault() {
    records 10
    run --operations 100 "$work/input"
    expect_status 0
    expect_no_err
    [ -z "$(ls -A "$home")" ] || fail "it left something"
}

LogsToStandardErrorAtLevelOne() {
    records 10
    run --operations 100 --log-level 1 "$work/input"
    expect_status 0
    expect_err '^\[[0-3][0-9]-[A-Z][a-z]{2}-[0-9]{2} [0-9:]{8}\]  parent: start: process [0-9]+, semaphore set '
    expect_err '  parent: end: every record matches, after '
    expect_no_log
}

LogsIntoItsFileAtLevelTwo() {
    records 40
    run --operations 4000 --log-level 2 "$work/input"
    expect_status 0
    expect_log '  parent: start: process '
    expect_log '  parent: settings: \[catalogue\] Buckets=32 Workers=4 Operations=4000 Progress=1000$'
    expect_log '  parent: formats: csv, fields, ini, from /.*/modules$'
    expect_log '  parent: input: 40 records of [0-9,]+ bytes$'
    expect_log '  parent: loaded 40 records into 32 files, [0-9,]+ bytes, in '
    local i
    for i in 1 2 3 4; do
        expect_log "  worker $i: start: process [0-9]+$"
        expect_log "  worker $i: end: [0-9,]+ lookups, [0-9,]+ updates, in [0-9,]+ bytes of memory$"
    done
    expect_log '  parent: verified 40 records in '
    expect_log '  parent: counted: [0-9,]+ lookups, '
    [[ $(tail -n 1 "$home/catalogue.log") == *'  parent: end: every record matches, after '* ]] ||
        fail "the last line is not the end"
    diff <(sort "$home/catalogue.log") <(sort "$work/err") || fail "standard error says something else"
    ! grep -qvE '^\[[^]]{18}\]  (parent|desk|worker [1-4]): ' "$home/catalogue.log" || fail "a broken line"
}

KeepsTheLogOfTheRunBefore() {
    records 10
    run --operations 100 --log-level 2 "$work/input"
    cp "$home/catalogue.log" "$work/first"
    run --operations 100 --log-level 2 "$work/input"
    cmp "$home/catalogue.bak" "$work/first" || fail "the first log was not kept"
    cp "$home/catalogue.log" "$work/second"
    run --operations 100 --log-level 2 "$work/input"
    cmp "$home/catalogue.bak" "$work/second" || fail "the second log was not kept"
    [ "$(grep -c 'start: process .* semaphore' "$home/catalogue.log")" = 1 ] || fail "more than one run"
}

WritesItsLogWhereItIsTold() {
    records 10
    mkdir "$work/logs"
    run --operations 100 --log-level 2 --log "$work/logs/server.txt" "$work/input"
    expect_status 0
    grep -q 'end: every record matches' "$work/logs/server.txt" || fail "no log there"
    expect_no_log
}

LosesNoLineAmongSixteenWorkersThatParkTheirFiles() {
    # With 4 descriptors for 32 files and the log everything is parked all the time.
    records 200
    run --operations 16000 --workers 16 --handle-limit 4 --log-level 2 "$work/input"
    expect_status 0
    local i
    for ((i = 1; i <= 16; i++)); do
        [ "$(grep -c "  worker $i: start: " "$home/catalogue.log")" = 1 ] || fail "start of worker $i"
        [ "$(grep -c "  worker $i: end: " "$home/catalogue.log")" = 1 ] || fail "end of worker $i"
    done
    diff <(sort "$home/catalogue.log") <(sort "$work/err") || fail "the two differ"
}

LogsALineOfALibraryFailure() {
    records 2000
    ulimit -f 12 # KiB: less than one growth step
    run --log-level 2 "$work/input"
    expect_status 1
    expect_log '  Error expanding file bucket-[0-9]+\.dat$'
    expect_nothing_left
}

LogsAWorkerThatWasKilled() {
    records 40
    run --operations 4000 --kill-worker 3 --log-level 2 "$work/input"
    expect_status 0
    expect_log '  desk: warning: worker 3, process [0-9]+, was killed by signal 9 \(Killed\) in the middle of an update of "item[0-9]+" in bucket-[0-9]+\.dat; another takes its place$'
    expect_log '  worker 3: start: process [0-9]+, in the place of one that died$'
    [[ $(tail -n 1 "$home/catalogue.log") == *'  parent: end: every record matches, after '* ]] ||
        fail "the last line is not the end"
    # What the parent says meanwhile must not wait for a lock: it is on standard error alone.
    expect_err '  WARNING: lock [0-9]+ freed, its holder [0-9]+ is gone$'
    ! grep -q 'WARNING: lock' "$home/catalogue.log" || fail "the parent wrote into the log file"
    expect_nothing_left
}

LogsAnInterrupt() {
    records 40
    start --log-level 2 "$work/input"
    await 'serving:'
    interrupt
    expect_log '  parent: end: interrupted by signal 2 \(Interrupt\)$'
}

LogsADifference() {
    records 40
    run --operations 1000 --damage-record 7 --log-level 2 "$work/input"
    expect_status 1
    expect_log '  parent: end: failed, the files do not match the input$'
}

GoesOnWhenItsLogCannotBeWritten() {
    records 40
    run --operations 1000 --log-level 2 --log /dev/full "$work/input"
    expect_status 0
    expect_out '^Every record matches'
    expect_err '  parent: end: every record matches, after '
    expect_nothing_left
}

# ---- the statistics

AddsUpWhatItsWorkersCounted() {
    records 40
    run --operations 4000 "$work/input"
    expect_status 0
    [ $(($(counted lookups 3) + $(counted updates 3))) -eq 4000 ] || fail "not 4000 operations"
    [ "$(counted lookups 3)" = "$(figure lookups)" ] || fail "another number of lookups above"
    [ "$(counted updates 3)" = "$(figure updates)" ] || fail "another number of updates above"
    [ "$(counted misses 3)" -gt 0 ] || fail "no misses"
    [ "$(counted misses 3)" -lt "$(counted lookups 3)" ] || fail "nothing but misses"
    # One for each operation, and each worker reads every bucket once.
    [ "$(counted 'bucket locks' 3)" -eq $((4000 + 4 * 32)) ] || fail "not as many locks"
    # The first update of a record moves it, and no other does.
    [ "$(counted 'records moved' 3)" -le 40 ] || fail "more moves than records"
    [ "$(counted lookups 1)" = 0 ] || fail "the parent looked something up"
    [ "$(counted 'file syncs' 1)" = 32 ] || fail "not every file was brought to the disk"
    [ "$(counted 'file syncs' 3)" = 0 ] || fail "the workers began with the counters of the parent"
}

CountsABufferForEveryRequestAndEveryVerifiedRecord() {
    records 40
    run --operations 4000 "$work/input"
    expect_status 0
    [ "$(counted buffers 3)" = 4000 ] || fail "not one for each request"
    [ "$(counted buffers 1)" = 40 ] || fail "not one for each record"
}

AccountsForEverySession() {
    records 40
    run --operations 4000 --log-level 1 "$work/input"
    expect_status 0
    local opened ended evicted left all=0
    for i in 1 2 3 4; do
        read -r opened ended evicted left < <(sed -nE \
            "s/.*  worker $i: sessions: ([0-9,]+) opened, ([0-9,]+) ended, ([0-9,]+) made way while idle, ([0-9]+) were left\$/\1 \2 \3 \4/p" "$work/err" | tr -d ,)
        [ "$opened" -gt 16 ] || fail "worker $i opened $opened sessions"
        [ $((opened - ended - evicted)) = "$left" ] || fail "worker $i lost a session"
        [ "$left" -le 16 ] || fail "worker $i had $left sessions at once"
        [ "$ended" -gt 0 ] || fail "no client of worker $i has gone"
        [ "$evicted" -gt 0 ] || fail "no session of worker $i made way"
        all=$((all + opened))
    done
    [ "$(counted sessions 3)" = "$all" ] || fail "$(counted sessions 3) counted, $all logged"
}

CountsEveryMoveOfARecordOnce() {
    records 40
    CATALOGUE_UPDATE_ONE_IN=1 run --operations 4000 "$work/input"
    expect_status 0
    [ "$(counted updates 3)" = 4000 ] || fail "not 4000 updates"
    [ "$(counted 'records moved' 3)" = 40 ] || fail "not 40 moves"
}

CountsTheStepsByWhichFilesGrow() {
    records 2000
    run --operations 100 --buckets 1 "$work/input"
    expect_status 0
    local steps
    steps=$(sed -n 's/^  loaded .* files of \([0-9.]*\) MiB.*/\1/p' "$work/out" |
        awk '{ printf "%d", $1 * 1024 / 16 }')
    local difference=$(($(counted 'growth steps' 1) - steps))
    # The figure above is rounded to a tenth of a MiB.
    [ "${difference#-}" -le 4 ] || fail "$(counted 'growth steps' 1) steps, about $steps expected"
}

CountsReloadsOfEveryProcess() {
    records 40
    local operations
    # The machine may let this script notice late that the server serves: then a longer run shows it.
    for operations in 60000 240000 960000; do
        printf '[log]\nLevel=1\n' | settings
        rm -f "$work/err"
        "$catalogue" --dir "$runs" --operations "$operations" --workers 2 "$work/input" \
            >"$work/out" 2>"$work/err" &
        pid=$!
        await_err 'worker 2: start: '
        printf '[log]\nLevel=1\n[server]\nHandleLimit=9\n' | settings
        hang_up 2>/dev/null || true
        status=0
        wait "$pid" || status=$?
        pid=
        expect_status 0
        [ "$(counted reloads 2)/$(counted reloads 3)" != 1/2 ] || break
    done
    [ "$(counted reloads 2)" = 1 ] || fail "not one reload"
    [ "$(counted reloads 3)" = 2 ] || fail "not one for each worker"
}

LogsTheSameFiguresAsItPrints() {
    records 40
    run --operations 4000 --log-level 2 "$work/input"
    expect_status 0
    local name sum
    for name in lookups updates misses 'records moved' 'growth steps' 'file syncs' 'bucket locks' \
        'lock waits' 'lock time-outs' sessions buffers 'file copies' reloads warnings; do
        sum=$(($(counted "$name" 1) + $(counted "$name" 2) + $(counted "$name" 3)))
        grep '  parent: counted: ' "$home/catalogue.log" | tr -d , | grep -qE "(: | )$sum $name( |$)" ||
            fail "the log does not say $sum $name"
    done
}

# ---- its frames

HasNoDestructorsWhereTheLibraryMayJump() {
    # The compiler makes a table of what is to be destroyed on the way out of a frame. main.cpp has
    # its own for what it constructs before main, the others hold nothing of the kind.
    local object found=0
    for object in "${objects[@]}"; do
        case $object in
        *.cpp.o) ;;
        *) continue ;;
        esac
        found=$((found + 1))
        ! readelf -SW "$object" | grep -q gcc_except_table || fail "${object##*/} has a destructor to run"
    done
    [ "$found" -eq 25 ] || fail "not the objects of 25 sources: $found"
}

run_case
