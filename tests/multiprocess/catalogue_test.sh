#!/usr/bin/env bash
# Runs the catalogue as its user does and looks at what that user sees: exit status, output, and
# what is left behind. One case per function.
# shellcheck source=tests/multiprocess/catalogue_support.sh
source "$(dirname "$0")/catalogue_support.sh"

# ---- a good run

ServesASmallInputAndVerifiesIt() {
    records 40
    run --operations 4000 "$work/input"
    expect_status 0
    expect_no_err
    expect_out '^Every record matches the input and the updates made to it\.$'
    [ "$(figure records)" = 40 ] || fail "not 40 records"
    [ $(($(figure lookups) + $(figure updates))) -eq 4000 ] || fail "not 4000 operations"
    [ "$(figure updates)" -gt 0 ] || fail "no updates"
    expect_nothing_left
}

ServesThePackageDatabaseOfTheMachine() {
    run --operations 20000
    expect_status 0
    expect_out "^  input +/var/lib/dpkg/status$"
    local packages
    packages=$(grep -c '^Package:' /var/lib/dpkg/status)
    [ "$(figure records)" = "$packages" ] || fail "not $packages records"
    expect_nothing_left
}

ServesSeveralFilesWithRepeatedNames() {
    records 10
    cp "$work/input" "$work/second"
    run --operations 1000 "$work/input" "$work/second"
    expect_status 0
    [ "$(figure records)" = 20 ] || fail "not 20 records"
    expect_nothing_left
}

TakesALastRecordWithoutANewline() {
    printf 'A: 1\n\nB: 2' >"$work/input"
    run --operations 100 "$work/input"
    expect_status 0
    [ "$(figure records)" = 2 ] || fail "not 2 records"
}

ServesThirtyTwoFilesWithinEighteenDescriptors() {
    records 200
    ulimit -n 18
    run --operations 2000 "$work/input"
    expect_status 0
    expect_out '^  parent +8 +24 '
    expect_out '^  worker 4 +8 +24 '
    expect_nothing_left
}

GrowsTheFilesWhenUpdatesMoveRecords() {
    records 2000
    run --operations 8000 "$work/input"
    expect_status 0
    local loaded now
    loaded=$(sed -n 's/^  loaded .* files of \([0-9.]*\) MiB.*/\1/p' "$work/out")
    now=$(sed -n 's/^  files *\([0-9.]*\) MiB.*/\1/p' "$work/out")
    awk -v a="$loaded" -v b="$now" 'BEGIN { exit !(b > a) }' || fail "$loaded MiB, then $now"
}

ServesWithOneWorkerWithoutAWait() {
    records 40
    run --operations 1000 --workers 1 "$work/input"
    expect_status 0
    expect_out '^  worker 1 .* 1,032 +0 +0\.00 '
    expect_nothing_left
}

ServesWithSixteenWorkers() {
    records 40
    run --operations 3201 --workers 16 "$work/input"
    expect_status 0
    expect_out '^  worker 16 '
    [ $(($(figure lookups) + $(figure updates))) -eq 3201 ] || fail "not 3201 operations"
    expect_nothing_left
}

RunsTwiceAtOnceInOneDirectory() {
    records 40
    start "$work/input"
    await 'serving:'
    local running
    running=$(ls -A "$runs")
    "$catalogue" --dir "$runs" --operations 1000 "$work/input" >"$work/second" 2>&1 ||
        fail "the second run failed: $(cat "$work/second")"
    [ "$(ls -A "$runs")" = "$running" ] || fail "the second run touched the first"
    kill -INT "$pid"
    finish
    expect_status 130
    expect_nothing_left
}

MakesItsRunDirectoryInTmpdirByDefault() {
    records 10
    status=0
    TMPDIR=$runs "$catalogue" --operations 100 "$work/input" >"$work/out" 2>"$work/err" || status=$?
    expect_status 0
    expect_out "files in $runs/catalogue-run\\."
    expect_nothing_left
}

TakesAnotherTokenFileWhenItsKeyIsInUse() {
    records 10
    export LD_PRELOAD=$taken_key ASAN_OPTIONS=${ASAN_OPTIONS:-}:verify_asan_link_order=0
    run --operations 100 "$work/input"
    unset LD_PRELOAD
    expect_status 0
    [ "$(grep -c '^key taken$' "$work/err")" = 2 ] || fail "no key was taken"
    expect_nothing_left
}

# ---- what it shows

ShowsPlainLinesWhereThereIsNoTerminal() {
    records 40
    run --operations 1000 "$work/input"
    expect_out '^loading: 40 of 40 \(100 %\)$'
    expect_out '^serving: 1,000 of 1,000 \(100 %\)$'
    expect_out '^verifying: 40 of 40 \(100 %\)$'
    ! grep -q $'[\r\033]' "$work/out" || fail "control characters in a file"
}

ShowsOneProgressLineOnATerminal() {
    records 40
    status=0
    script -qec "'$catalogue' --dir '$runs' --operations 4000 '$work/input'" /dev/null \
        >"$work/out" 2>"$work/err" </dev/null || status=$?
    expect_status 0
    expect_out $'\r\033\\[Kserving +\\[[#.]*\\] +[0-9]+ %'
    ! grep -q '^serving:' "$work/out" || fail "plain lines on a terminal"
    ! grep -q ', 0/s' "$work/out" || fail "a rate before there is one"
    tr '\r' '\n' <"$work/out" | grep -q '^Every record matches' || fail "no summary"
    expect_nothing_left
}

PrintsItsOptions() {
    run --help
    expect_status 0
    expect_out '^usage: catalogue '
    expect_out '--kill-worker N'
    cp "$work/out" "$work/long"
    run -h
    expect_status 0
    cmp "$work/out" "$work/long" || fail "-h is something else"
}

# ---- bad input

RefusesAMissingInput() {
    run "$work/missing"
    expect_status 1
    expect_err "^catalogue: cannot open $work/missing: No such file or directory$"
    expect_err '^  Without a file, /var/lib/dpkg/status is taken\.$'
    expect_nothing_left
}

RefusesADirectoryAsInput() {
    run "$work"
    expect_status 1
    expect_err "^catalogue: cannot read $work: Is a directory$"
    expect_nothing_left
}

RefusesALineThatIsNoField() {
    printf 'Name: a\nText: b\n\nName: c\nno field here\n' >"$work/input"
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input:5: neither a field nor a continuation: \"no field here\"$"
    expect_nothing_left
}

RefusesAContinuationWithoutAField() {
    printf 'Name: a\n\n continued\n' >"$work/input"
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input:3: a continuation without a field before it: "
    expect_nothing_left
}

RefusesARecordWithoutAName() {
    printf 'Name:\nText: b\n' >"$work/input"
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input:1: the first field names the record "
    expect_nothing_left
}

RefusesAnInputThatIsNoText() {
    printf 'Name: a\0b\n' >"$work/input"
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input:1: a NUL byte, so this is not a text: \"Name: a\\?b\"$"
    expect_nothing_left
}

RefusesARecordOfMoreThanOneMebibyte() {
    {
        printf 'Name: a\n '
        head -c 1100000 /dev/zero | tr '\0' x
    } >"$work/input"
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input:[0-9]+: the record is longer than 1 MiB"
    expect_nothing_left
}

RefusesAnInputWithoutARecord() {
    printf '\n \n\n' >"$work/input"
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input holds no record\\.$"
    expect_nothing_left
}

RefusesAWrongCommandLine() {
    local arguments
    for arguments in '--workers 0' '--workers 17' '--workers x' '--operations' '--nonsense 1' \
        '--nonsense' '--kill-worker 5' '--damage-record 11'; do
        records 10
        # shellcheck disable=SC2086
        run "$work/input" $arguments
        expect_status 2
        expect_err "^catalogue: .*${arguments%% *}"
        expect_nothing_left
    done
}

SaysHowAnOptionIsGivenItsValue() {
    local option
    records 10
    for option in --workers --dir --config --kill-worker; do
        run "$work/input" "$option"
        expect_status 2
        expect_err "^catalogue: $option lacks its value$"
        run "$option=2" "$work/input"
        expect_status 2
        expect_err "^catalogue: \"$option=2\": write $option 2$"
    done
    for option in --nonsense --nonsense=2; do
        run "$work/input" "$option"
        expect_status 2
        expect_err '^catalogue: "--nonsense" is not an option; see catalogue --help$'
    done
    expect_nothing_left
}

# ---- bad surroundings

RefusesADirectoryThatCannotBeWritten() {
    records 10
    : >"$work/file"
    runs_before=$runs
    for runs in /proc "$work/file/below" "$work/missing"; do
        run "$work/input"
        expect_status 1
        expect_err "^catalogue: cannot (use|make a directory in|use the directory) .*$runs: "
        expect_err 'with --dir\.$'
        [ -z "$(set_id)" ] || fail "it went on"
    done
    runs=$runs_before
    expect_nothing_left
}

EndsInOrderWhenAFileMayNotGrow() {
    records 2000
    ulimit -f 12 # KiB: less than one growth step
    run "$work/input"
    expect_status 1
    expect_err 'Error expanding file bucket-[0-9]+\.dat$'
    expect_err '^catalogue: the library met an error that cannot be mended'
    expect_nothing_left
}

FailsWhenItsOutputCannotBeWritten() {
    records 10
    status=0
    "$catalogue" --dir "$runs" --operations 100 "$work/input" >/dev/full 2>"$work/err" || status=$?
    expect_status 1
    expect_err '^catalogue: standard output could not be written\.$'
    expect_nothing_left
}

# ---- ends before the end

GivesUpALockWhoseHolderDoesNotAnswer() {
    # With one record there is one lock. A worker that is stopped holds it or does not; it does when
    # the other one comes to wait, so it is let go and stopped again until that is so.
    records 1
    start --workers 2 "$work/input"
    await 'serving:'
    stopped=$(workers | sed -n 1p)
    [ -n "$stopped" ] || fail "there is no worker"
    kill -STOP "$stopped"
    until somebody_waits; do
        kill -CONT "$stopped"
        kill -STOP "$stopped"
    done
    finish
    expect_status 1
    expect_err '^catalogue: the lock "(buckets [0-9]+|buffers|turn|jobs)" was not free within 10 s'
    expect_err '^catalogue: (worker [12]|the desk) ended with status 10; '
    expect_nothing_left
}

FindsADamagedRecord() {
    records 40
    run --operations 1000 --damage-record 7 "$work/input"
    expect_status 1
    expect_err '^catalogue: bucket-[0-9]+\.dat, offset [0-9]+: the checksum of the slot does not match\.$'
    expect_err '^catalogue: the files do not match the input: 1 wrong, 40 stored of 40 read\.$'
    expect_nothing_left
}

# damage_bucket <offset> <value>: serves one record, and puts 32 bits into the head of its bucket or
# of its first slot when the only worker has ended: the next to read them is the verification.
damage_bucket() {
    local worker
    records 1
    start --workers 1 --operations 50000 "$work/input"
    await 'serving:'
    kill -STOP "$pid"
    worker=$(workers)
    [ -n "$worker" ] || fail "there is no worker"
    SECONDS=0
    until grep -q '^State:[[:space:]]*Z' "/proc/$worker/status"; do
        [ "$SECONDS" -lt 60 ] || fail "the worker does not end"
        sleep 0.05
    done
    # shellcheck disable=SC2016
    perl -e 'my ($offset, $value) = splice @ARGV, 0, 2;
        for (@ARGV) {
            open my $file, "+<", $_ or die "$_: $!";
            read $file, my $head, 8;
            next if (unpack "LL", $head)[1] != 1;
            seek $file, $offset, 0;
            print $file pack "L", $value;
            exit 0;
        }
        die "no bucket has the record"' "$1" "$2" "$runs"/*/bucket-*.dat || fail "no damage"
    kill -CONT "$pid"
    finish
    expect_status 1
    expect_nothing_left
}

FindsADamagedSizeOfASlot() {
    # With the head's own 48 bytes it adds up to nothing: whoever believes it never gets on. The
    # record has moved on from there, so it is not looked up there any more.
    damage_bucket 36 $((0x100000000 - 48))
    expect_err '^catalogue: bucket-[0-9]+\.dat, offset 16: a slot larger than any record\.$'
}

FindsADamagedCountOfRecords() {
    damage_bucket 4 $((0x80000000))
    expect_err '^catalogue: bucket-[0-9]+\.dat, offset 0: not the head of a bucket\.$'
}

FindsADamagedEndOfABucket() {
    damage_bucket 8 $((16 + 48 + 1))
    expect_err "^catalogue: bucket-[0-9]+\\.dat, offset 16: a slot that goes on behind the last one's end\\.$"
}

EndsInOrderOnAnInterrupt() {
    records 40
    start "$work/input"
    await 'serving:'
    kill -INT "$pid"
    finish
    expect_status 130
    expect_err '^catalogue: ended by signal 2 \(Interrupt\) after [0-9,]+ operations; what was done is verified\.$'
    expect_out '^Every record matches'
    expect_nothing_left
}

EndsInOrderOnATermination() {
    records 40
    start "$work/input"
    await 'serving:'
    kill -TERM "$pid"
    finish
    expect_status 143
    expect_err '^catalogue: ended by signal 15 '
    expect_nothing_left
}

EndsInOrderWhenItsSemaphoresAreTakenAway() {
    records 40
    start "$work/input"
    await 'serving:'
    ipcrm -s "$(set_id)"
    finish
    expect_status 1
    expect_err '\*\*\*\* rm_sync[A-Za-z]+\(\) sem(op|ctl)\(\) failure, errno='
    expect_err '^catalogue: (worker [1-4]|the desk) ended with status 11; '
    expect_nothing_left
}

RemovesWhatACrashedRunLeft() {
    records 40
    start "$work/input"
    await 'serving:'
    local crashed left
    crashed=$(set_id)
    left=$(ls -A "$runs")
    kill -KILL "$pid"
    finish
    # The workers hold the lock until they notice that the parent has gone.
    flock -w 20 "$runs/$left/owner" true || fail "workers outlive the parent"
    set_exists "$crashed" || fail "the crash left no semaphore set, so this case shows nothing"
    [ -e "$runs/$left/bucket-00.dat" ] || fail "the crash left no files"

    run --operations 1000 "$work/input"
    expect_status 0
    expect_out "^removed what run [0-9]+ left behind when it died: $runs/$left$"
    ! set_exists "$crashed" || fail "semaphore set $crashed is left behind"
    expect_nothing_left
}

LeavesFilesOfOthersInACrashedRunAlone() {
    records 10
    mkdir "$runs/catalogue-run.abcdef"
    printf 'pid 1\n' >"$runs/catalogue-run.abcdef/owner"
    : >"$runs/catalogue-run.abcdef/precious"
    run --operations 100 "$work/input"
    expect_status 0
    expect_err '^catalogue: cannot remove all that run 1 left in '
    [ -e "$runs/catalogue-run.abcdef/precious" ] || fail "it is gone"
}

run_case
