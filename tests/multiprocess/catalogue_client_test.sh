#!/usr/bin/env bash
# The clients of the catalogue, get, put, list and stats, as their users see them: what they print
# and how they end, and that nothing of the run is changed by them. Most cases talk to a server that
# is no real one, and misbehaves as it is told to.
# shellcheck source=tests/multiprocess/catalogue_client_support.sh
source "$(dirname "$0")/catalogue_client_support.sh"

# ---- what is asked, and what is printed

PrintsARecordWithItsVersion() {
    fake honest
    ask get item7
    expect_text "$item7"
}

WritesANoteAndPrintsTheNewVersion() {
    fake honest
    ask put item7 'one ~ two'
    expect_text 'version 2'
    ask get item7
    expect_text "${item7/version  1/version  2}"$'\n  note     one ~ two'
}

ListsAllNamesThoughTheyTakeSeveralAnswers() {
    fake honest
    ask list
    expect_status 0
    [ "$(grep -c '^item[0-9]*$' "$work/out")" = 1500 ] || fail "not 1500 items"
    [ "$(sort -u "$work/out" | wc -l)" = 1505 ] || fail "not every name once"
    [ "$(grep -c '^request 3 ' "$work/server")" -gt 2 ] || fail "one answer was enough"
}

ListsTheNamesWithAPrefix() {
    fake honest
    ask list item149
    expect_text "$(printf 'item%d\n' 149 1490 1491 1492 1493 1494 1495 1496 1497 1498 1499)"
}

ListsNothingForAPrefixOfNoName() {
    fake honest
    ask list nobody
    expect 1 '^catalogue: there is no record whose name begins with "nobody"\.$'
}

SaysThatThereIsNoSuchRecord() {
    fake honest
    ask get nobody
    expect 1 '^catalogue: there is no record "nobody"\.$'
    ask put nobody text
    expect 1 '^catalogue: there is no record "nobody"\.$'
}

GetsARecordLargerThanAMessage() {
    fake honest
    ask get large
    expect_status 0
    [ "$(grep -cE '^ ?(Text: )?line [0-9]+ of a large record$' "$work/out")" = 5000 ] ||
        fail "not 5000 lines"
    expect_out '^ the end$'
    [ "$(grep -c '^request 1 ' "$work/server")" -gt 30 ] || fail "few messages were enough"
}

StartsAgainWhenARecordChangesBetweenItsParts() {
    fake changing 7
    ask get large
    expect_status 0
    expect_out '^  note     note of version 8$'
    expect_out '^  version  8$'
    [ "$(grep -c 'of a large record$' "$work/out")" = 5000 ] || fail "not 5000 lines"
    [ "$(grep -c '^Name' "$work/out")" = 1 ] || fail "a part stands there twice"
}

GivesUpOnARecordThatChangesForEver() {
    fake changing 1000000000
    ask get large --timeout 1
    expect 3 'within 1 s\.$'
}

ShowsWhatATerminalWouldObey() {
    fake honest
    ask get $'tab\there'
    expect_status 0
    expect_out '^Text: escape \\x1B\[31m and bell \\x07$'
    ask list tab
    expect_text 'tab\x09here'
    ask get $'esc\033here'
    expect 1 '"esc\\x1Bhere"'
}

TakesANameThatBeginsWithADash() {
    fake honest
    status=0
    "$catalogue" get --run "$runs" -- -dash >"$work/out" 2>"$work/err" || status=$?
    expect_text $'Name: -dash\nText: begins with a dash\n\n  version  1'
}

TakesNameAndTextAtTheirLimits() {
    fake honest
    local name text
    name=$(printf 'n%.0s' {1..255})
    text=$(printf 't%.0s' {1..63})
    ask put "$name" "$text"
    expect_text 'version 2'
    ask get "$name"
    expect_out "^  note     $text\$"
    ask list "$name"
    expect_text "$name"
    ask get 'two words'
    expect_status 0
}

RefusesNameAndTextBeyondTheirLimits() {
    ask get "$(printf 'n%.0s' {1..256})"
    expect 2 '^catalogue: the name has 256 bytes; names have at most 255$'
    ask list "$(printf 'n%.0s' {1..256})"
    expect 2 'at most 255'
    ask put item7 "$(printf 't%.0s' {1..64})"
    expect 2 '^catalogue: the text has 64 bytes; a note is 1 to 63 characters of printable ASCII$'
    ask get ''
    expect 2 'the name is empty'
    ask put item7 ''
    expect 2 'the text has 0 bytes'
}

RefusesATextThatIsNotPrintable() {
    local text
    for text in $'two\nlines' $'tab\there' $'\033[31m' $'\177' 'gr\303\274n'; do
        ask put item7 "$(printf '%b' "$text")"
        expect 2 'printable ASCII'
    done
}

RefusesACommandLineThatIsNone() {
    local line
    while IFS='|' read -r line wanted; do
        status=0
        # shellcheck disable=SC2086
        "$catalogue" $line >"$work/out" 2>"$work/err" || status=$?
        expect 2 "^catalogue: $wanted"
    done <<'LINES'
get|get takes the name of a record;
get a b|get takes the name of a record;
put a|put takes the name of a record and a text;
put a b c|put takes the name of a record and a text;
list a b|list takes nothing, or what the names begin with;
stats a|stats takes nothing;
get a --json|--json belongs to stats, not to get$
get a --run|--run lacks its value$
get a --timeout 0|--timeout takes a number from 1 to 3600, not "0"$
get a --timeout 3601|--timeout takes a number from 1 to 3600, not "3601"$
get a --timeout 1s|--timeout takes a number from 1 to 3600, not "1s"$
get a --run=x|"--run=x": write --run x$
get a --workers 2|"--workers" is not an option of catalogue get;
get -a|"-a" is not an option of catalogue get;
--run x|--run and --timeout are options of a client; one of get, put, list and stats is missing$
--run x y|--run and --timeout are options of a client;
LINES
}

PrintsItsHelp() {
    ask stats --help
    expect_status 0
    expect_out '^usage: catalogue get NAME '
    ask get -h
    expect_out '^Exit status: 0 done; 1 '
    status=0
    "$catalogue" get --run "$runs" -- -h >"$work/out" 2>"$work/err" || status=$?
    expect 3 'no catalogue runs'
}

TakesItsOptionsBeforeTheVerbToo() {
    fake honest
    status=0
    "$catalogue" --timeout 5 --run "$runs" get item7 >"$work/out" 2>"$work/err" || status=$?
    expect_text "$item7"
}

SaysWhenItsOutputCannotBeWritten() {
    fake honest
    status=0
    "$catalogue" list --run "$runs" >/dev/full 2>"$work/err" || status=$?
    expect_status 3
    expect_err '^catalogue: standard output could not be written\.$'
}

# ---- finding the run

FindsTheRunWhereverItIsNamed() {
    fake honest
    local where
    for where in "$runs" "$run" "$run/" "$runs/../runs"; do
        status=0
        "$catalogue" get item7 --run "$where" >"$work/out" 2>"$work/err" || status=$?
        expect_text "$item7"
    done
}

FindsTheRunWithoutBeingTold() {
    fake honest
    local where
    for where in "$runs" "$run"; do
        status=0
        env -u TMPDIR -C "$where" "$catalogue" get item7 >"$work/out" 2>"$work/err" || status=$?
        expect_text "$item7"
    done
    status=0
    TMPDIR=$runs "$catalogue" get item7 >"$work/out" 2>"$work/err" || status=$?
    expect_text "$item7"
}

SaysThatNoCatalogueRuns() {
    ask get item7
    expect 3 "^catalogue: no catalogue runs in $runs\\.\$"
    expect_err '^  Start one there, or say with --run where it runs\.$'
    status=0
    env -u TMPDIR "$catalogue" stats >"$work/out" 2>"$work/err" || status=$?
    expect 3 '^catalogue: no catalogue runs in the current directory\.$'
    status=0
    TMPDIR=$runs "$catalogue" list >"$work/out" 2>"$work/err" || status=$?
    expect 3 "^catalogue: no catalogue runs in the current directory or in $runs\\.\$"
}

SaysThatThereIsNoSuchDirectory() {
    status=0
    "$catalogue" get item7 --run "$work/nowhere" >"$work/out" 2>"$work/err" || status=$?
    expect 3 "^catalogue: --run $work/nowhere: No such file or directory\$"
    status=0
    "$catalogue" get item7 --run "$work/err" >"$work/out" 2>"$work/err2" || status=$?
    mv "$work/err2" "$work/err"
    expect 3 'Not a directory$'
}

AsksWhichOfTwoRunsIsMeant() {
    fake honest
    local first=$run
    fake honest
    ask get item7
    expect 3 "^catalogue: 2 catalogues run in $runs; say with --run which one is meant:\$"
    expect_err "^  $first\$"
    expect_err "^  $run\$"
    status=0
    "$catalogue" get item7 --run "$first" >"$work/out" 2>"$work/err" || status=$?
    expect_text "$item7"
}

SaysThatARunHasDied() {
    fake honest
    kill -KILL "$fake"
    wait "$fake" || true
    ask get item7
    expect 3 "^  $run is what a run left that died\\.\$"
    status=0
    "$catalogue" stats --run "$run" >"$work/out" 2>"$work/err" || status=$?
    expect 3 "^catalogue: the catalogue in $run has died; the next one that starts there cleans up\\.\$"
}

TakesTheLivingRunBesideADeadOne() {
    fake honest
    kill -KILL "$fake"
    wait "$fake" || true
    fake honest
    ask get item7
    expect_text "$item7"
}

DoesNotGetInTheWayOfARunThatStarts() {
    # A client holds the lock of a directory for a moment, and a server waits for it.
    local i
    (
        for ((i = 0; i < 200; i++)); do
            "$catalogue" stats --run "$runs" >/dev/null 2>&1 || true
        done
    ) &
    records 3
    for ((i = 0; i < 5; i++)); do
        run --operations 10 --workers 1 "$work/input"
        expect_status 0
    done
    wait
    expect_nothing_left
}

# ---- a server that is no good

GivesUpWhenNobodyAnswers() {
    fake silent
    ask get item7 --timeout 1
    expect 3 "^catalogue: no answer from $run within 1 s\\.\$"
    ask put item7 text --timeout 1
    expect 3 '^  Whether the note was written is not known\.$'
}

SaysThatTheServerWasKilledWhileItWaited() {
    fake dies
    ask get item7 --timeout 60
    expect 3 "^catalogue: the catalogue in $run has ended without an answer\\.\$"
}

SaysThatTheRunEndedWhileItWaited() {
    local queues
    fake ends
    ask get item7 --timeout 60
    expect 3 '^catalogue: the catalogue in .* ended without an answer\.$'
    ! grep -q msgrcv "$work/err" || fail "the library had to notice"
    [ -z "$(ls -A "$runs")" ] || fail "left behind: $(ls -A "$runs")"
    mapfile -t queues < <(numbers queues)
    expect_gone "${queues[@]}"
}

SaysWhatTheServerSaysOfARequest() {
    local number
    for number in 3 4 5; do
        fake status $number
        ask put item7 text
        case $number in
            3) expect 3 'does not take this name or text\.$' ;;
            4) expect 3 ' ends; the request was not done\.$' ;;
            5) expect 3 ' met an error; its log says which\.$' ;;
        esac
        end_fakes
    done
}

IgnoresEverythingThatIsNoAnswer() {
    fake liar
    ask get item7
    expect_text "$item7"
    ask get large
    [ "$(grep -c 'of a large record$' "$work/out")" = 5000 ] || fail "not 5000 lines"
    ask put item7 text
    expect_text 'version 2'
    ask list item149
    [ "$(wc -l <"$work/out")" = 11 ] || fail "not 11 names"
    expect_no_err
    ask get nobody
    expect 1
}

GivesUpWhenNothingThatComesIsAnAnswer() {
    fake lies
    local verb
    for verb in get put list; do
        # The operand of list is a prefix, and a text is for put alone.
        # shellcheck disable=SC2046
        ask $verb item7 $([ $verb != put ] || echo text) --timeout 1
        expect 3 '^catalogue: no answer from .* within 1 s, but [12][0-9] messages that were none\.$'
    done
}

IgnoresAnAnswerThatComesTwice() {
    fake twice
    ask list
    expect_status 0
    [ "$(wc -l <"$work/out")" = 1505 ] || fail "not 1505 names"
    ask get item7
    expect_text "$item7"
}

EmptiesAQueueThatIsFullOfWhatOthersLeft() {
    fake stuffed
    local i
    for ((i = 0; i < 8; i++)); do
        ask get item7
        expect_text "$item7"
    done
}

WaitsForRoomInTheQueueOfRequests() {
    CHANNELS=1 fake full
    asking 1 get item7 --timeout 60
    while answer_waits; do # what others left, which it takes out before it sends anything
        kill -0 "$client" || fail "it did not wait"
    done
    kill -USR1 "$fake"
    ended "$client"
    expect_status 0
    grep -q '^Text: text of 7$' "$work/out1" || fail "no record"
}

GivesUpWhenTheQueueOfRequestsStaysFull() {
    fake full
    ask get item7 --timeout 1
    expect 3 "^catalogue: the queue of requests of $run is full; the request was not sent\\.\$"
    ! grep -q msgsnd "$work/err" || fail "the library had to notice"
}

# ---- the beginning and the end of a run

WaitsUntilARunServes() {
    fake loading
    asking 1 get item7
    kill -USR1 "$fake"
    ended "$client"
    expect_status 0
}

SaysThatARunServesNobody() {
    fake loading
    ask get item7 --timeout 1
    expect 3 "^catalogue: the catalogue in $run serves no clients now: it loads still, or ends\\.\$"
    ask stats
    expect_status 0
}

# ends_under <moment> <argument...>: a client whose run ends at that moment.
ends_under() {
    status=0
    env LD_PRELOAD="$run_ends_first" RUN_ENDS="$1" RUN_PID="$fake" ASAN_OPTIONS=verify_asan_link_order=0 \
        "$catalogue" "${@:2}" --run "$runs" >"$work/out" 2>"$work/err" || status=$?
}

# expect_ended_cleanly: the client says so, and no queue that it made or joined is left.
expect_ended_cleanly() {
    local made
    expect_status 3
    expect_err "^catalogue: the catalogue in $run has ended"
    mapfile -t made < <(sed -n 's/^made \([0-9]*\)$/\1/p' "$work/err")
    expect_gone "${made[@]}"
    fakes=()
}

LeavesNothingWhenTheRunEndsWhileItJoins() {
    local moment verb
    for moment in looked joined; do
        for verb in list stats; do
            fake honest
            ends_under "$moment" "$verb"
            wait "$fake" || true
            expect_ended_cleanly
            [ -z "$(ls -A "$runs")" ] || fail "left behind: $(ls -A "$runs")"
        done
    done
}

LeavesNothingThoughTheDirectoryStays() {
    local moment verb
    for moment in looked joined; do
        for verb in list stats; do
            fake honest
            : >"$run/keep"
            ends_under "$moment" "$verb"
            wait "$fake" || true
            expect_ended_cleanly
            [ "$(ls -A "$run")" = keep ] || fail "left behind: $(ls -A "$run")"
            rm -r "$run"
        done
    done
}

LeavesNothingWhenItsTokenFileIsLost() {
    fake honest
    local made queues queue
    ends_under lost list
    expect 3 "^catalogue: the catalogue in $run has ended"
    mapfile -t made < <(sed -n 's/^made \([0-9]*\)$/\1/p' "$work/err")
    [ "${#made[@]}" = 5 ] || fail "it has not made queues"
    expect_gone "${made[@]}"
    [ ! -e "$run/.ZNT.RM.QUEUE" ] || fail "a token file is left"
    mapfile -t queues < <(numbers queues)
    for queue in "${queues[@]}"; do
        queue_exists "$queue" || fail "a queue of the run has gone"
    done
}

# ---- several at a time

ServesFourAtOnceAndTheFifthInItsTurn() {
    fake hold
    local i pids=()
    for ((i = 1; i <= 5; i++)); do
        asking $i get "item$i" --timeout 60
        pids+=("$client")
    done
    await_request 4
    [ "$(channels_asked | sort -u | wc -l)" = 4 ] || fail "not on four channels"
    release 1
    await_request 5
    [ "$(channels_asked | head -1)" = "$(channels_asked | tail -1)" ] ||
        fail "the fifth has not the channel that became free"
    for ((i = 2; i <= 5; i++)); do
        release $i
    done
    for ((i = 1; i <= 5; i++)); do
        ended "${pids[i - 1]}"
        expect_status 0
        [ "$(sed -n 's/^Text: //p' "$work/out$i")" = "text of $i" ] || fail "not the record of $i"
    done
}

# The channels of all requests so far, in their order.
channels_asked() { sed -n 's/^request .* on channel //p' "$work/server"; }

SaysThatAllChannelsAreTaken() {
    fake hold
    local i
    for ((i = 1; i <= 4; i++)); do
        asking $i get "item$i" --timeout 60
    done
    await_request 4
    ask get item7 --timeout 1
    expect 3 "^catalogue: all 4 channels of $run were taken for 1 s;"
    [ "$(channels_asked | wc -l)" = 4 ] || fail "it asked nevertheless"
    ask stats
    expect_status 0
}

# die_asking <n> <argument...>: a client that dies once its request is read, the n-th of all.
die_asking() {
    asking 1 "${@:2}"
    await_request "$1"
    kill -KILL "$client"
    wait "$client" 2>/dev/null || true
}

# Whether a message waits in the queue of channel 1.
answer_waits() {
    awk -v id="$(numbers queues | sed -n 2p)" \
        '$2 == id && $5 > 0 { found = 1 } END { exit !found }' /proc/sysvipc/msg
}

IsNotConfusedByAnAnswerThatADeadClientLeft() {
    CHANNELS=1 fake hold
    die_asking 1 get item1
    release 1
    answer_waits || fail "no answer was left"
    asking 2 get item7 --timeout 60
    await_request 2
    ! answer_waits || fail "the answer is there still"
    release 2
    ended "$client"
    expect_status 0
    [ "$(cat "$work/out2")" = "$item7" ] || fail "not item7"
}

IsNotConfusedByAnAnswerToADeadClientThatComesLate() {
    CHANNELS=1 fake hold
    die_asking 1 put item1 'of the dead one'
    asking 2 get item7 --timeout 60
    await_request 2
    release 1 # to the dead one, while the living one waits
    while answer_waits; do
        kill -0 "$client" || fail "it took the answer of another"
    done
    kill -0 "$client" || fail "it took the answer of another"
    release 2
    ended "$client"
    expect_status 0
    [ "$(cat "$work/out2")" = "$item7" ] || fail "not item7"

    asking 3 get item1 --timeout 60
    await_request 3
    release 3
    ended "$client"
    grep -q 'of the dead one' "$work/out3" || fail "what the dead one wrote is not there"
}

DrainsWhatAClientLeftThatDiedBeforeItsRequestWasRead() {
    CHANNELS=1 fake hold
    kill -STOP "$fake"
    asking 1 get item1
    until [ "$(objects msg 5 | awk '{ sum += $3 } END { print sum }')" = 1 ]; do
        kill -0 "$client" || fail "it has ended"
    done
    kill -KILL "$client"
    wait "$client" 2>/dev/null || true
    kill -CONT "$fake"
    asking 2 get item7 --timeout 60
    await_request 2
    release 1
    release 2
    ended "$client"
    expect_status 0
    [ "$(cat "$work/out2")" = "$item7" ] || fail "not item7"
}

LeavesItsChannelWhenItIsInterrupted() {
    CHANNELS=1 fake hold
    local signal number=0 before
    for signal in INT TERM HUP; do
        # What a shell starts in the background ignores an interrupt, unless it is told not to.
        env --default-signal=INT "$catalogue" get item1 --run "$runs" --timeout 60 \
            >"$work/out1" 2>"$work/err1" &
        client=$!
        await_request $((++number))
        before=$(state_of_run)
        kill -"$signal" "$client"
        ended "$client"
        expect_status $((128 + $(kill -l "$signal")))
        [ ! -s "$work/err1" ] || fail "it said something"
        [ "$(state_of_run)" = "$before" ] || fail "it left traces"
    done
    asking 2 get item7 --timeout 60
    await_request 4
    for number in 1 2 3 4; do
        release $number
    done
    ended "$client"
    expect_status 0
    [ "$(cat "$work/out2")" = "$item7" ] || fail "not item7"
}

# ---- the figures

PrintsTheFiguresOfTheBoard() {
    fake honest
    ask stats
    expect_status 0
    expect_out "^  process $fake, staying, since "
    expect_out '^  lookups +123,456,789,012$'
    expect_out '^       1 +4711  waiting +9,876,543,210 +0$'
    expect_out '^       2 +4712  replacing +0 +3$'
    [ "$(grep -c '^request' "$work/server" || true)" = 0 ] || fail "it asked the server"
}

PrintsTheFiguresAsJson() {
    fake honest
    ask stats --json
    expect_status 0
    [ "$(wc -l <"$work/out")" = 1 ] || fail "not one line"
    expect_out "^\\{\"pid\": $fake, \"phase\": \"staying\", \"started\": 1700000000, \"records\": 1505, "
    expect_out '"worker": \[\{"number": 1, "pid": 4711, "state": "waiting", "jobs": 9876543210, '
    expect_out '"replacements": 3\}\]\}$'
}

RefusesABoardThatItCannotRead() {
    local number
    for number in 0 1 2; do
        fake board $number
        ask stats
        case $number in
            0) expect 3 'is just starting; try again\.$' ;;
            1) expect 3 'is laid out for another version of this program\.$' ;;
            2) expect 3 'is none that this program can read\.$' ;;
        esac
        end_fakes
    done
}

PrintsTheFiguresWhileTheServerIsStopped() {
    fake honest
    kill -STOP "$fake"
    ask stats
    kill -CONT "$fake"
    expect_status 0
}

# ---- that nothing is changed

ChangesNothingOfTheRunItself() {
    fake honest
    local i before
    before=$(state_of_run)
    for ((i = 1; i <= 50; i++)); do
        "$catalogue" get "item$i" --run "$run" >/dev/null || fail "get $i"
        "$catalogue" put "item$i" "note $i" --run "$run" >/dev/null || fail "put $i"
        "$catalogue" stats --run "$run" >/dev/null || fail "stats $i"
        "$catalogue" list "item$i" --run "$run" >/dev/null || fail "list $i"
    done
    [ "$(state_of_run)" = "$before" ] || fail "before: $before, after: $(state_of_run)"
}

run_case
