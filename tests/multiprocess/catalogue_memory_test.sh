#!/usr/bin/env bash
# The memory of the catalogue: its reports, and the pool of its buffers. One case per function.
# shellcheck source=tests/multiprocess/catalogue_support.sh
source "$(dirname "$0")/catalogue_support.sh"

# reports <file>: how many whole ones it holds.
reports() { grep -c '^\[[^]]*\]  MEMORY REPORT DONE$' "$1" || true; }

# ---- the report

WritesNoReportUnlessItIsAskedTo() {
    records 10
    run --operations 100 --log-level 2 "$work/input"
    expect_status 0
    [ "$(reports "$home/catalogue.log")" = 0 ] || fail "there is a report"
}

WritesAReportIntoALogFileThatIsThereForIt() {
    records 40
    run --operations 400 --report "$work/input"
    expect_status 0
    expect_no_err
    expect_out '^Every record matches'
    [ "$(reports "$home/catalogue.log")" = 1 ] || fail "not one report"
    expect_log '  --------VIRLO MEMORY REPORT--------$'
    expect_log '  parent of process [0-9]+, before its files are closed$'
    ! grep -q 'parent: ' "$home/catalogue.log" || fail "there is more than the report"
    expect_nothing_left
}

NamesItsTagsInTheReport() {
    records 40
    run --operations 400 --report "$work/input"
    expect_status 0
    expect_log '  TAG 2\(   buffers\): limit=-1, allocated=[1-9][0-9]*$'
    expect_log '  TAG 3\(    verify\): limit=[0-9]+, allocated=[1-9][0-9]*$'
    expect_log '  TAG 4\(dynamic array tag\): limit=-1, allocated=[1-9][0-9]*$'
    # Every block of every kind, and the table.
    expect_log '  SEGMENT @ 0x[0-9a-f]+   size=[0-9]+$'
    expect_log '      0x[0-9a-f]+ +[0-9]+ \(3\)$'
    expect_log '      0x[0-9a-f]+ +[0-9]+ \(3\) free$'
    expect_log '  TAG  3\(    verify\): +[0-9]+/ +[0-9]+ : +[0-9]+/ +[0-9]+ : +[0-9]+$'
    ! grep -q WARNING "$home/catalogue.log" || fail "the heap is damaged"
}

WritesAReportAmongTheLinesOfTheLog() {
    records 40
    printf '[log]\nLevel=2\n[memory]\nReport=1\n' | settings
    run --operations 400 "$work/input"
    expect_status 0
    [ "$(reports "$home/catalogue.log")" = 1 ] || fail "not one report"
    [[ $(tail -n 1 "$home/catalogue.log") == *'  parent: end: every record matches, after '* ]] ||
        fail "the last line is not the end"
    # It is long: standard error is spared.
    ! grep -q 'MEMORY REPORT' "$work/err" || fail "the report is on standard error too"
    diff <(grep -E '  (parent|desk|worker [1-4]): ' "$home/catalogue.log" | sort) <(sort "$work/err") ||
        fail "standard error lacks something else"
}

WritesAReportThatRmheapReads() {
    records 40
    run --operations 400 --report "$work/input"
    expect_status 0
    "$rmheap" --svg="$work/heap.svg" "$home/catalogue.log" >"$work/table" || fail "rmheap: $?"
    local tag
    for tag in buffers verify 'dynamic array'; do
        grep -q "$tag" "$work/table" || fail "no tag $tag in the table"
        grep -q "$tag" "$work/heap.svg" || fail "no tag $tag on the map"
    done
}

KeepsTheLogBeforeItsReport() {
    records 10
    printf 'mine\n' >"$home/catalogue.log"
    run --operations 100 --report "$work/input"
    expect_status 0
    [ "$(cat "$home/catalogue.bak")" = mine ] || fail "what stood there was not kept"
}

ReportsWhenASignalAsksForIt() {
    records 40
    start --report "$work/input"
    await 'serving:'
    kill -USR1 "$pid"
    await_log 'MEMORY REPORT DONE$'
    expect_log '  desk of process [0-9]+, as it was asked for$'
    kill -USR1 "$pid"
    # The second goes behind the first.
    await_log 'MEMORY REPORT DONE$' 2
    interrupt
    # And the last one, of the parent, at the end.
    [ "$(reports "$home/catalogue.log")" = 3 ] || fail "not three reports"
    ! grep -q REPORT "$work/err" || fail "a report is on standard error"
}

ReportsOnStandardErrorWithoutALogFile() {
    records 40
    start "$work/input"
    await 'serving:'
    kill -USR1 "$pid"
    await_err 'MEMORY REPORT DONE$'
    expect_no_log
    interrupt
}

TakesAReportFromItsSettingsWhileItServes() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start --workers 1 "$work/input"
    await 'serving:'
    printf '[log]\nLevel=1\n[memory]\nReport=1\n' | settings
    hang_up
    await_err 'desk: reload 1: \[memory\] Report: 1, was 0$'
    await_err 'desk: reload 1: settings 2 are in effect$'
    kill -USR1 "$pid"
    await_log 'MEMORY REPORT DONE$'
    interrupt
    ! grep -q REPORT "$work/err" || fail "the report is on standard error"
    expect_err 'parent: end: interrupted by signal 2 ' # the level is what it was
}

SurvivesASignalForAReportToAWorker() {
    records 40
    start --workers 2 "$work/input"
    await 'serving:'
    workers | xargs kill -USR1
    await 'serving:'
    [ "$(workers | wc -l)" = 2 ] || fail "a worker is gone"
    interrupt
}

RefusesAReportThatCannotBeWritten() {
    records 10
    run --report --log /proc/missing/x.log "$work/input"
    expect_status 2
    expect_err '^catalogue: --log: \[log\] Path: /proc/missing/x\.log cannot be written '
    run --report=1 "$work/input"
    expect_status 2
    expect_err '^catalogue: "--report=1": write --report alone$'
    expect_nothing_left
}

EndsWellWhenTheDiskIsFullAtTheReport() {
    records 10
    run --operations 100 --report --log /dev/full "$work/input"
    expect_status 0
    expect_out '^Every record matches'
    expect_nothing_left
}

# ---- the pool

# The semaphore of the pool stands behind the two of the file layer and 14 of buckets.
pool_lock=16

GivesUpAPoolWhoseLockIsNeverLeft() {
    records 40
    start "$work/input"
    await 'serving:'
    # Entered by nobody who could leave it. A worker that is in it when this is set leaves it once
    # more, so it is set until everybody waits.
    local waiting=0
    SECONDS=0
    until [ "$waiting" = 4 ]; do
        [ "$SECONDS" -lt 30 ] || fail "not every worker waits for the pool"
        perl -e 'semctl($ARGV[0], $ARGV[1], 16, 0) or die "semctl: $!"' "$(set_id)" "$pool_lock"
        waiting=$(ipcs -s -i "$(set_id)" | awk -v n="$pool_lock" '$1 == n { print $3 }')
    done
    finish
    expect_status 1
    expect_err '^catalogue: the lock "buffers" was not free within 10 s: its holder does not answer\.$'
    expect_err '^catalogue: worker [1-4] ended with status 10; '
    expect_nothing_left
}

run_case
