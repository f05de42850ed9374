#!/usr/bin/env bash
# The settings of the catalogue: where they come from, which are refused, what they do, and what
# becomes of new ones while it runs. One case per function.
# shellcheck source=tests/multiprocess/catalogue_support.sh
source "$(dirname "$0")/catalogue_support.sh"

# print <argument...>: the settings in effect, in $work/out.
print() {
    run --print-config "$@"
    expect_status 0
    expect_no_err
}

# expect_setting <key=value> <origin>
expect_setting() {
    expect_out "^$1\$"
    grep -B2 -- "^$1\$" "$work/out" | grep -q -- "^; ${1%%=*}, $2\$" || fail "$1 is not $2"
}

# refuses <what standard error says>: with the present settings, before anything is made.
refuses() {
    run "$work/input"
    expect_status 2
    expect_err "^catalogue: $1"
    [ ! -s "$work/out" ] || fail "it went on"
    expect_nothing_left
    [ "$(ls -A "$home")" = corvane.ini ] || fail "it made something"
}

# ---- where they come from

TakesItsSettingsFromItsFile() {
    records 40
    settings <<'END'
[catalogue]
Buckets=5
Workers=2
Operations=500
END
    run "$work/input"
    expect_status 0
    expect_no_err
    expect_out '^  loaded +into 5 bucket files '
    expect_out '^  worker 2 '
    ! grep -q '^  worker 3 ' "$work/out" || fail "a third worker"
    [ $(($(figure lookups) + $(figure updates))) -eq 500 ] || fail "not 500 operations"
    expect_nothing_left
}

FindsItsFileInTheDirectoryThatCatpathNames() {
    mkdir "$work/elsewhere"
    printf '[catalogue]\nWorkers=3\n' >"$work/elsewhere/corvane.ini"
    CATPATH=$work/elsewhere print
    expect_setting Workers=3 'from the file'
    # Counted from where it was started, although the run is in a directory of its own.
    CATPATH=../elsewhere print
    expect_setting Workers=3 'from the file'
}

RefusesACatpathThatIsNoDirectory() {
    status=0
    CATPATH=$work/missing "$catalogue" >"$work/out" 2>"$work/err" || status=$?
    expect_status 2
    expect_err "^catalogue: the directory $work/missing, which CATPATH names: No such file"
}

LetsTheCommandLineWinOverTheFileAndTheFileOverTheDefaults() {
    settings <<'END'
[catalogue]
Workers=3
Buckets=7
END
    print --workers 5
    expect_setting Workers=5 'from the command line'
    expect_setting Buckets=7 'from the file'
    expect_setting Operations=250000 'the default'
}

RunsOnDefaultsWithoutAFileAndLogsThat() {
    records 10
    run --operations 100 --log-level 1 "$work/input"
    expect_status 0
    expect_err "  parent: settings: there is no $home/corvane\\.ini; these are the defaults$"
    expect_err '  parent: settings: \[server\] FileCommit=1 MemoryLimit=none HandleLimit=8 FreeSpace=0$'
}

TakesAnotherFileThatIsNamed() {
    printf '[catalogue]\nWorkers=3\n' >"$home/other.conf"
    printf '[catalogue]\nWorkers=2\n' | settings
    print --config other.conf
    expect_setting Workers=3 'from the file'
}

ReadsNoFurtherThanItsSection() {
    # The library finds a single key in a section that follows without an empty line, too.
    settings <<'END'
[log]
[others]
Level=2
END
    print
    expect_setting Level=0 'the default'
}

LeavesSectionsForOthersAlone() {
    records 10
    settings <<'END'
[log]
Level=1

[others]
Level=x

anything
END
    run --operations 100 "$work/input"
    expect_status 0
    expect_err 'settings: sections for others are left alone: \[others\]$'
}

TakesAFileWithCarriageReturnsAndKeysInAnyCase() {
    printf '[CATALOGUE]\r\nworkers=3\r\n\r\n[Log]\r\nLEVEL=1\r\n' | settings
    print
    expect_setting Workers=3 'from the file'
    expect_setting Level=1 'from the file'
}

TakesTheExampleFile() {
    cp "$sources/examples/catalogue/corvane.ini" "$home"
    records 10
    run --operations 100 "$work/input"
    expect_status 0
    expect_log 'settings: \[log\] Level=2 Path=catalogue.log$'
    # It says what the defaults are, but for the log.
    print
    grep -v '^[;]' "$work/out" >"$work/example"
    rm "$home/corvane.ini"
    print --log-level 2
    grep -v '^[;]' "$work/out" | sed '$ a CATALOGUE_UPDATE_ONE_IN=4\nSEG_ALLOC=0' |
        diff - "$work/example" || fail "the example file differs from the defaults"
}

# ---- printing them

PrintsSettingsThatItReadsBack() {
    printf '[ENVIRONMENT]\nCATALOGUE_UPDATE_ONE_IN=9\nOther=a=b c\n\n[server]\nFileCommit=0\n' | settings
    print --workers 5 --operations 77 --buckets 6 --handle-limit 20 --memory-limit 3M \
        --free-space 1025 --progress 250 --rotate 7 --log-level 1 --log other.log --modules "$shipped" \
        --format csv --key Name --report
    cp "$work/out" "$work/first"
    settings <"$work/first"
    print
    diff <(grep -v '^;' "$work/first") <(grep -v '^;' "$work/out") || fail "not the same"
    [ "$(grep -c ', from the file$' "$work/out")" = 15 ] || fail "not every setting was read"
    expect_out '^MemoryLimit=3M$'
    expect_out '^Other=a=b c$'
}

PrintsSettingsAndStartsNothing() {
    print --log-level 2
    expect_nothing_left
    [ -z "$(ls -A "$home")" ] || fail "it made something"
    ! grep -q '^catalogue:' "$work/out" || fail "it ran"
}

# ---- what is refused

RefusesAValueThatIsNoNumber() {
    printf '[log]\nLevel=high\n' | settings
    refuses 'corvane\.ini: \[log\] Level: "high" is not valid; allowed is a number from 0 to 2$'
}

RefusesANumberOutOfItsRange() {
    printf '[catalogue]\nWorkers=17\n' | settings
    refuses 'corvane\.ini: \[catalogue\] Workers: "17" is not valid; allowed is a number from 1 to 16$'
    printf '[server]\nHandleLimit=3\n' | settings
    refuses 'corvane\.ini: \[server\] HandleLimit: "3" .* from 4 to 9999$'
    printf '[server]\nFileCommit=2\n' | settings
    refuses 'corvane\.ini: \[server\] FileCommit: "2" .* from 0 to 1$'
    printf '[catalogue]\nOperations=99999999999999999999\n' | settings
    refuses 'corvane\.ini: \[catalogue\] Operations: '
}

RefusesBytesInAnotherUnit() {
    printf '[server]\nFreeSpace=12X\n' | settings
    refuses 'corvane\.ini: \[server\] FreeSpace: "12X" is not valid; allowed is a number of bytes .* K, M or G may follow$'
    printf '[server]\nMemoryLimit=9999999999G\n' | settings
    refuses 'corvane\.ini: \[server\] MemoryLimit: .* or none$'
}

RefusesAnEmptyValue() {
    printf '[catalogue]\nWorkers=\n' | settings
    refuses 'corvane\.ini: \[catalogue\] Workers: "" is not valid; '
    printf '[log]\nPath=\n' | settings
    refuses 'corvane\.ini: \[log\] Path: "" is not valid; allowed is the path of a file'
}

RefusesAnUnknownKey() {
    printf '[catalogue]\nWorker=2\n' | settings
    refuses 'corvane\.ini: \[catalogue\] Worker: there is no such key; allowed are Buckets, Workers, Operations, Progress$'
}

NamesTheSectionThatHasAKey() {
    printf '[server]\nworkers=2\n' | settings
    refuses 'corvane\.ini: \[server\] workers: there is no such key; \[catalogue\] has it; allowed are FileCommit, MemoryLimit, HandleLimit, FreeSpace$'
}

RefusesBlanksAroundTheEqualsSign() {
    printf '[catalogue]\nWorkers = 2\n' | settings
    refuses 'corvane\.ini: \[catalogue\] Workers : there is no such key, for the blank beside it counts; '
}

RefusesALineThatIsNoEntry() {
    printf '[catalogue]\nWorkers\n' | settings
    refuses 'corvane\.ini: \[catalogue\] Workers: not an entry; allowed are key=value, '
}

RefusesAKeyThatStandsTwice() {
    printf '[catalogue]\nWorkers=2\nWORKERS=3\n' | settings
    refuses 'corvane\.ini: \[catalogue\] Workers: stands twice; allowed is once$'
}

RefusesASectionThatStandsTwice() {
    printf '[catalogue]\nWorkers=2\n\n[Catalogue]\nBuckets=3\n' | settings
    refuses 'corvane\.ini: line 4: \[Catalogue\] stands here a second time; only the first is read$'
}

RefusesEntriesBehindAnEmptyLine() {
    printf '[catalogue]\nWorkers=2\n\nBuckets=3\n' | settings
    refuses 'corvane\.ini: line 4: "Buckets=3" belongs to no section, and is not read; an empty line ends one$'
    printf 'Workers=2\n[catalogue]\n' | settings
    refuses 'corvane\.ini: line 1: "Workers=2" belongs to no section, and is not read: it stands before the first \[section\]$'
    printf '\nWorkers=2\n\n[catalogue]\n' | settings
    refuses 'corvane\.ini: line 2: "Workers=2" .*: it stands before the first \[section\]$'
}

RefusesALastLineWithoutANewline() {
    printf '[catalogue]\nWorkers=2' | settings
    refuses 'corvane\.ini: the last line does not end with a newline, and would not be read$'
}

RefusesAFileThatIsNoText() {
    printf '[catalogue]\nWork\0ers=2\n' | settings
    refuses 'corvane\.ini: holds a NUL byte, so it is not a text$'
}

RefusesAFileAndASectionThatAreTooLarge() {
    {
        printf '[ENVIRONMENT]\n'
        for i in {1000..1999}; do printf 'V%s=something\n' "$i"; done
    } | settings
    refuses 'corvane\.ini: \[ENVIRONMENT\] holds more than 8192 bytes$'
    head -c 70000 /dev/zero | tr '\0' '\n' | settings
    refuses 'corvane\.ini: is larger than 65536 bytes$'
}

RefusesADirectoryInPlaceOfItsFile() {
    mkdir "$home/corvane.ini"
    refuses 'corvane\.ini: is no regular file$'
}

RefusesToTakeAnInterruptedChangeForNoFile() {
    printf '[catalogue]\nWorkers=2\n' >"$home/_temp_.ini"
    run "$work/input"
    expect_status 2
    expect_err "^catalogue: there is no corvane\\.ini, but an interrupted change has left $home/_temp_\\.ini: rename that to corvane\\.ini, or remove it$"
    expect_nothing_left
}

RefusesANamedFileThatIsMissing() {
    run --config "$home/missing" "$work/input"
    expect_status 2
    expect_err "^catalogue: $home/missing: cannot be read: No such file or directory; --config names an INI file$"
    expect_nothing_left
}

RefusesALogThatCannotBeWritten() {
    printf '[log]\nLevel=2\nPath=/proc/missing/x.log\n' | settings
    refuses 'corvane\.ini: \[log\] Path: /proc/missing/x\.log cannot be written \(No such file or directory\); allowed is '
    run --log "$work" "$work/input"
    expect_status 2
    expect_err "^catalogue: --log: \\[log\\] Path: $work cannot be written \\(Is a directory\\); "
}

RefusesVariablesThatTheLibraryWouldMixUp() {
    printf '[ENVIRONMENT]\nPATHLIST=1\nPath=2\n' | settings
    refuses 'corvane\.ini: \[ENVIRONMENT\] Path: one name begins with another; '
    printf '[ENVIRONMENT]\nA=1\nA=2\n' | settings
    refuses 'corvane\.ini: \[ENVIRONMENT\] A: one name begins with another; '
    printf '[ENVIRONMENT]\n=2\n' | settings
    refuses 'corvane\.ini: \[ENVIRONMENT\] : the name is empty or too long; '
    printf '[ENVIRONMENT]\nA\n' | settings
    refuses 'corvane\.ini: \[ENVIRONMENT\] A: not an entry; '
    printf '[ENVIRONMENT]\nCatpath=/tmp\n' | settings
    refuses 'corvane\.ini: \[ENVIRONMENT\] Catpath: this decides where the file itself is found; '
    printf '[ENVIRONMENT]\nCATALOGUE_UPDATE_ONE_IN=0\n' | settings
    refuses 'corvane\.ini: \[ENVIRONMENT\] CATALOGUE_UPDATE_ONE_IN: not valid; allowed is a number from 1 to 1000$'
}

NamesEveryFaultOfAFile() {
    printf '[catalogue]\nWorkers=0\nNonsense=1\n[log]\nLevel=9\n' | settings
    refuses 'corvane\.ini: \[catalogue\] Workers: '
    expect_err '^catalogue: corvane\.ini: \[catalogue\] Nonsense: '
    expect_err '^catalogue: corvane\.ini: \[log\] Level: '
}

# ---- what they do

HoldsAsManyDescriptorsAsTheFileAllows() {
    records 200
    printf '[server]\nHandleLimit=12\n' | settings
    run --operations 1000 "$work/input"
    expect_status 0
    expect_out '^  parent +12 +20 '
    expect_out '^  worker 4 +12 +20 '
}

# syncs: how often a run waits for the disk.
syncs() {
    LD_PRELOAD=$count_syncs ASAN_OPTIONS=${ASAN_OPTIONS:-}:verify_asan_link_order=0 \
        run --operations 100 "$@" "$work/input"
    expect_status 0
    grep -c '^fsync$' "$work/err" || true
}

WaitsForTheDiskUnlessFileCommitIsZero() {
    records 10
    [ "$(syncs)" = 32 ] || fail "not every file was brought to the disk"
    printf '[server]\nFileCommit=0\n' | settings
    [ "$(syncs)" = 0 ] || fail "the disk was waited for"
    # A file that is named is not the one that the library reads by itself.
    mv "$home/corvane.ini" "$home/other.ini"
    [ "$(syncs --config other.ini)" = 0 ] || fail "the disk was waited for, with --config"
    printf '[server]\nFileCommit=0\n' | settings
    : >"$home/other.ini"
    [ "$(syncs --config other.ini)" = 32 ] || fail "corvane.ini counted beside the file that was named"
}

WarnsWhenTheDiskHasLessFreeThanTheMinimum() {
    records 2000
    printf '[server]\nFreeSpace=1048576G\n' | settings
    run --operations 1000 "$work/input"
    expect_status 0
    expect_err '  extending file bucket-[0-9]+\.dat exceeded min threshold by '
    expect_err '  parent: warning: the disk has less free than \[server\] FreeSpace; '
    [ "$(grep -c 'warning:' "$work/err")" = 1 ] || fail "more than one warning"
    expect_out '^    warnings +1 '
}

WarnsWhenAProcessPassesItsMemoryLimit() {
    records 2000
    printf '[server]\nMemoryLimit=64K\n' | settings
    run --operations 100 --workers 1 "$work/input"
    expect_status 0
    expect_out '^  worker 1 .* of 64$'
    expect_err '  worker 1: warning: its memory passes the limit of 65536 bytes by [0-9]+$'
}

TakesTheEnvironmentFromTheFile() {
    records 40
    printf '[ENVIRONMENT]\nCATALOGUE_UPDATE_ONE_IN=1\n' | settings
    CATALOGUE_UPDATE_ONE_IN=1000 run --operations 1000 "$work/input"
    expect_status 0
    [ "$(figure updates)" = 1000 ] || fail "not every request was an update"
}

TakesWhatTheFileLacksFromTheEnvironmentOfTheProcess() {
    records 40
    CATALOGUE_UPDATE_ONE_IN=1 run --operations 1000 "$work/input"
    expect_status 0
    [ "$(figure updates)" = 1000 ] || fail "not every request was an update"
    CATALOGUE_UPDATE_ONE_IN=often run --operations 1000 --workers 1 "$work/input"
    expect_status 0
    expect_err 'desk: warning: CATALOGUE_UPDATE_ONE_IN=often in the environment is no number '
}

# memory_of_worker: bytes that it got from the platform.
memory_of_worker() { sed -n 's/.* worker 1: end: .* in \([0-9,]*\) bytes of memory$/\1/p' "$work/err"; }

HandsSegAllocOnToTheLibrary() {
    records 40
    local whole
    printf '[ENVIRONMENT]\nSEG_ALLOC=0\n' | settings
    run --operations 100 --log-level 1 "$work/input"
    whole=$(memory_of_worker)
    printf '[ENVIRONMENT]\nSEG_ALLOC=1\n' | settings
    run --operations 100 --log-level 1 "$work/input"
    expect_status 0
    [ -n "$whole" ] || fail "no figure"
    [ "$(memory_of_worker)" != "$whole" ] || fail "the segments are as before: $whole"
}

# ---- new ones while it runs

# await_descriptors <n>: waits until the first worker holds that many bucket files open. It opens and
# parks all the time; while it is stopped the count holds still.
await_descriptors() {
    stopped=$(workers | sed -n 1p)
    SECONDS=0
    kill -STOP "$stopped"
    until [ "$(find "/proc/$stopped/fd" -lname '*/bucket-*' | wc -l)" -eq "$1" ]; do
        kill -CONT "$stopped"
        [ "$SECONDS" -lt 30 ] || fail "the worker does not hold $1 files open"
        kill -STOP "$stopped"
    done
    kill -CONT "$stopped"
}

TakesANewLogLevelWhileItServes() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start "$work/input"
    await 'serving:'
    expect_no_log
    printf '[log]\nLevel=2\n' | settings
    hang_up
    await_log '  worker 4: settings 2 are in effect$'
    expect_log '  desk: reload 1: settings 2 are in effect$'
    expect_err '  desk: reload 1: \[log\] Level: 2, was 1$'
    interrupt
}

SilencesTheLogWhileItServes() {
    records 40
    printf '[log]\nLevel=2\n' | settings
    start --workers 1 "$work/input"
    await_log 'worker 1: start: '
    printf '[log]\nLevel=0\n[server]\nHandleLimit=15\n' | settings
    hang_up
    await_err 'reload 1: \[log\] Level: 0, was 2$'
    await_descriptors 14 # and the log
    local lines
    printf '[log]\nLevel=x\n' | settings
    hang_up
    await_err 'warning: reload 2: ' # warnings come through at every level
    lines=$(wc -l <"$home/catalogue.log")
    interrupt
    [ "$(wc -l <"$home/catalogue.log")" = "$lines" ] || fail "the log goes on"
    ! grep -q 'end: ' "$work/err" || fail "standard error goes on"
}

RaisesTheHandleLimitWhileItServes() {
    records 200
    printf '[log]\nLevel=1\n' | settings
    start --workers 2 "$work/input"
    await 'serving:'
    printf '[log]\nLevel=1\n[server]\nHandleLimit=16\n' | settings
    hang_up
    await_err '  worker 2: settings 2 are in effect$'
    await_descriptors 16
    interrupt
}

NamesWhatNeedsARestart() {
    records 40
    printf '[log]\nLevel=1\n[server]\nHandleLimit=10\n' | settings
    start --workers 2 "$work/input"
    await 'serving:'
    printf '[log]\nLevel=1\n[server]\nHandleLimit=9\nFileCommit=0\n[catalogue]\nBuckets=3\n' | settings
    hang_up
    await_err 'reload 1: \[server\] HandleLimit: 9, was 10; to lower it needs a restart$'
    await_err 'reload 1: \[server\] FileCommit: 0, was 1; needs a restart$'
    await_err 'reload 1: \[catalogue\] Buckets: 3, was 32; needs a restart$'
    await_err 'reload 1: nothing changes$'
    [ "$(workers | wc -l)" = 2 ] || fail "not two workers"
    interrupt
}

KeepsItsSettingsWhenTheNewOnesAreBad() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start "$work/input"
    await 'serving:'
    printf '[log]\nLevel=2\n[server]\nHandleLimit=many\n' | settings
    hang_up
    await_err 'desk: warning: reload 1: corvane\.ini: \[server\] HandleLimit: "many" is not valid; '
    await_err 'desk: reload 1: the settings stay as they were$'
    expect_no_log
    # The next file is compared with what is in effect, not with the one that was refused.
    printf '[log]\nLevel=1\n[server]\nHandleLimit=9\n' | settings
    hang_up
    await_err 'desk: reload 2: \[server\] HandleLimit: 9, was 8$'
    ! grep -q 'reload 2: \[log\]' "$work/err" || fail "half of the bad file was taken"
    interrupt
}

KeepsItsSettingsWhenTheNewLogCannotBeWritten() {
    records 40
    printf '[log]\nLevel=2\n' | settings
    start "$work/input"
    await 'serving:'
    printf '[log]\nLevel=2\nPath=/proc/missing/x.log\n' | settings
    hang_up
    await_log 'warning: reload 1: corvane\.ini: \[log\] Path: /proc/missing/x\.log cannot be written '
    interrupt
    expect_log 'end: interrupted by signal 2 '
}

KeepsItsSettingsWhenTheFileHasGone() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start "$work/input"
    await 'serving:'
    rm "$home/corvane.ini"
    hang_up
    await_err "warning: reload 1: $home/corvane\\.ini has gone; the settings stay as they were$"
    interrupt
}

TakesAFileThatWasNotThereBefore() {
    records 40
    start --log-level 1 "$work/input"
    await 'serving:'
    hang_up
    await_err "desk: reload 1: there is no $home/corvane\\.ini to read$"
    printf '[server]\nFreeSpace=1K\n[log]\nLevel=0\n' | settings
    hang_up
    await_err 'desk: reload 2: \[server\] FreeSpace: 1K, was 0$'
    await_err 'worker 1: settings 2 are in effect$' # the command line's level stands
    interrupt
}

MovesItsLogWhileItServes() {
    records 40
    printf '[log]\nLevel=2\n' | settings
    start --workers 2 "$work/input"
    await_log 'worker 2: start: '
    printf 'old\n' >"$home/second.log"
    printf '[log]\nLevel=2\nPath=second.log\n' | settings
    hang_up
    await_line 'worker 1: settings 2 are in effect$' "$home/second.log"
    await_line 'worker 2: settings 2 are in effect$' "$home/second.log"
    expect_log "desk: the log goes on in $home/second\\.log$"
    [ "$(cat "$home/second.bak")" = old ] || fail "what stood there was not kept"
    # And back, while a process may not yet have followed: the first part is the predecessor.
    printf '[log]\nLevel=2\n' | settings
    hang_up
    await_log 'worker 1: settings 3 are in effect$'
    grep -q 'the log goes on in .*second' "$home/catalogue.bak" || fail "the first part is lost"
    interrupt
    expect_log 'end: interrupted by signal 2 '
}

TakesAHangupWhileItLoads() {
    # It waits for its input; what comes meanwhile is seen with the first record.
    mkfifo "$work/slow"
    records 40
    printf '[log]\nLevel=1\n' | settings
    start "$work/slow"
    exec 4>"$work/slow" # both ends are open now: it has read its settings
    printf '[log]\nLevel=1\n[server]\nHandleLimit=9\n' | settings
    hang_up
    cat "$work/input" >&4
    exec 4>&-
    await 'serving:'
    interrupt
    local lines
    lines=$(grep -oE 'reload 1: settings 2|loaded 40 records|worker . start|worker .: settings' "$work/err" | sed -n '1,2p')
    [ "$lines" = $'reload 1: settings 2\nloaded 40 records' ] || fail "not while it loaded: $lines"
    ! grep -q 'worker .: settings' "$work/err" || fail "workers begin with the settings of the fork"
}

TakesManyHangupsInARow() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start "$work/input"
    await 'serving:'
    local i
    for ((i = 1; i <= 60; i++)); do
        printf '[log]\nLevel=1\n[server]\nHandleLimit=%d\n' $((8 + i)) | settings
        hang_up
    done
    await_err 'desk: reload [0-9]+: \[server\] HandleLimit: 68, was '
    await_err 'worker 1: settings [0-9]+ are in effect$'
    interrupt
    ! grep -q 'warning' "$work/err" || fail "a half-written file was read"
}

BringsEveryWorkerToTheLastSettings() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start --workers 3 "$work/input"
    await 'serving:'
    local i
    for i in 1 2 3 4 5; do
        printf '[log]\nLevel=1\n[ENVIRONMENT]\nCATALOGUE_UPDATE_ONE_IN=%d\n' "$i" | settings
        hang_up
        await_err "desk: reload $i: settings $((i + 1)) are in effect$"
    done
    for i in 1 2 3; do
        await_err "worker $i: settings 6 are in effect$"
    done
    interrupt
}

SurvivesAHangupOfAWorker() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start --workers 2 "$work/input"
    await 'serving:'
    workers | xargs kill -HUP
    # They answer on: new settings reach both.
    printf '[log]\nLevel=1\n[ENVIRONMENT]\nCATALOGUE_UPDATE_ONE_IN=2\n' | settings
    hang_up
    await_err 'worker 1: settings 2 are in effect$'
    await_err 'worker 2: settings 2 are in effect$'
    interrupt
    ! grep -q 'was killed' "$work/err" || fail "a worker was killed"
}

# updates_after <settings>: that many of the requests are updates when one in 1000 is at first, and
# the settings come to stand in the file then.
updates_after() {
    records 40
    local operations
    # The machine may let this script notice late that the server serves: then a longer run shows it.
    for operations in 40000 160000 640000 2560000; do
        printf '[log]\nLevel=1\n[ENVIRONMENT]\nCATALOGUE_UPDATE_ONE_IN=1000\nOTHER=1\n' | settings
        rm -f "$work/err"
        "$catalogue" --dir "$runs" --operations "$operations" --workers 1 "$work/input" \
            >"$work/out" 2>"$work/err" &
        pid=$!
        await_err 'worker 1: start: '
        printf '%b' "$1" | settings
        hang_up 2>/dev/null || true
        status=0
        wait "$pid" || status=$?
        pid=
        expect_status 0
        expect_nothing_left
        [ "$(figure updates)" -le $((operations / 8)) ] || break
    done
    [ "$(figure updates)" -gt $((operations / 8)) ] ||
        fail "only $(figure updates) of $operations were updates"
    expect_err 'desk: reload 1: \[ENVIRONMENT\] OTHER is gone$'
}

ChangesTheEnvironmentWhileItServes() {
    updates_after '[log]\nLevel=1\n[ENVIRONMENT]\nCATALOGUE_UPDATE_ONE_IN=1\n'
    expect_err 'desk: reload 1: \[ENVIRONMENT\] CATALOGUE_UPDATE_ONE_IN=1$'
}

TakesAVariableThatHasGoneFromTheEnvironmentOfTheProcess() {
    export CATALOGUE_UPDATE_ONE_IN=1
    updates_after '[log]\nLevel=1\n'
    expect_err 'desk: reload 1: \[ENVIRONMENT\] CATALOGUE_UPDATE_ONE_IN is gone$'
}

# ---- the demonstration

# demo <argument...>: ./run demo of a copy that has nothing to build.
demo() {
    local tree=$work/tree/build/release tool
    mkdir -p "$tree/examples/catalogue" "$tree/tools/rmheap" "$work/bin"
    cp "$sources/run" "$work/tree"
    ln -sf "$catalogue" "$tree/examples/catalogue/catalogue"
    # In place of the tool: a map of as many bytes as there are reports.
    # shellcheck disable=SC2016
    printf '%s\n' '#!/bin/bash' 'echo "a table of $*"' \
        'grep "MEMORY REPORT DONE" "$2" >"${1#--svg=}"' >"$tree/tools/rmheap/rmheap"
    chmod +x "$tree/tools/rmheap/rmheap"
    for tool in cmake apt-get dpkg-query; do
        printf '#!/bin/sh\necho installed\n' >"$work/bin/$tool"
        chmod +x "$work/bin/$tool"
    done
    status=0
    PATH=$work/bin:$PATH "$work/tree/run" demo "$@" >"$work/out" 2>"$work/err" || status=$?
}

# expect_map <log>: it was drawn from that log, and is what the demonstration ends with.
expect_map() {
    local map=$work/tree/build/demo/heap.svg
    expect_out "^a table of --svg=$map $1\$"
    [ "$(tail -n 1 "$work/out")" = "==> Map of that heap: $map" ] || fail "it does not end with the map"
    [ "$(wc -l <"$map")" = 1 ] || fail "there is no map of one report"
}

DemonstratesOnDefaultsWithoutAFile() {
    records 10
    cp "$work/input" "$home"
    demo --operations 100 --dir "$runs" input
    expect_status 0
    expect_out "^==> Default settings: there is no corvane\\.ini in $home$"
    expect_out "^==> Running the catalogue server: catalogue --operations 100 --dir $runs $home/input$"
    expect_out '^Every record matches'
    [ "$(ls -A "$home")" = input ] || fail "it left something"
    expect_map "$work/tree/build/demo/catalogue.log"
    expect_no_err
    expect_nothing_left
    # Again, with what the first has left there.
    demo --operations 100 --dir "$runs" input
    expect_status 0
    expect_map "$work/tree/build/demo/catalogue.log"
}

DrawsNoMapWhereTheServerDoesNotServe() {
    printf 'no record\n' >"$home/input"
    local arguments
    for arguments in --help --print-config '--workers 0' input; do
        # shellcheck disable=SC2086
        demo $arguments
        ! grep -q 'a table\|Map' "$work/out" || fail "a map with $arguments"
    done
    expect_status 1
    expect_err '^catalogue: /.*/input: its format is not recognised'
    [ "$(ls -A "$home")" = input ] || fail "it left something"
}

LeavesALogOfTheCallerAlone() {
    records 10
    cp "$work/input" "$home"
    printf 'mine\n' >"$home/catalogue.log"
    printf '[catalogue]\nOperations=100\n[log]\nPath=catalogue.log\n' | settings
    demo input
    expect_status 0
    expect_map "$work/tree/build/demo/catalogue.log"
    [ "$(cat "$home/catalogue.log")" = mine ] || fail "the log was written"
    [ ! -e "$home/catalogue.bak" ] || fail "the log was moved"
}

DemonstratesWithTheFileOfTheCaller() {
    records 10
    cp "$work/input" "$home"
    printf '[catalogue]\nWorkers=2\nOperations=100\n[log]\nLevel=2\n' | settings
    demo input
    expect_status 0
    expect_out "^==> Settings from $home/corvane\\.ini$"
    expect_out '^  worker 2 '
    ! grep -q '^  worker 3 ' "$work/out" || fail "a third worker"
    expect_log "parent: settings: read from $home/corvane\\.ini$"
    expect_map "$home/catalogue.log"
}

run_case
