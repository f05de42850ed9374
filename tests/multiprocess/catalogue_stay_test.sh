#!/usr/bin/env bash
# The catalogue as a server that stays: its clients, its ends, its backups. One case per function.
# shellcheck source=tests/multiprocess/catalogue_support.sh
source "$(dirname "$0")/catalogue_support.sh"

# stay <argument...>: a server whose few operations are done.
stay() {
    start --stay --operations 200 "$@" "$work/input"
    await 'staying:'
    run_directory=$(ls -d "$runs"/*)
}

# ask <argument...>: a client.
ask() {
    status=0
    "$catalogue" "$@" --run "$run_directory" >"$work/answer" 2>&1 || status=$?
}

# ends: interrupts the server that stays, which is its normal end.
ends() {
    kill -INT "$pid"
    finish
    expect_status 0
    expect_out '^Every record matches the input and the updates made to it\.$'
    expect_nothing_left
}

expect_answer() { grep -qE -- "$1" "$work/answer" || fail "the answer lacks: $1: $(cat "$work/answer")"; }

# expect_rotations <n>: from the board.
expect_rotations() {
    SECONDS=0
    until "$catalogue" stats --json --run "$run_directory" | grep -q "\"rotations\": *$1\b"; do
        [ "$SECONDS" -lt 20 ] || fail "not $1 rotations"
        sleep 0.05
    done
}

# ---- ends

EndsWellWhenItIsInterruptedWhileItStays() {
    records 20
    stay
    ends
    expect_no_err
}

EndsWellWhenItIsTerminatedWhileItStays() {
    records 20
    stay
    kill -TERM "$pid"
    finish
    expect_status 0
    expect_nothing_left
}

EndsWellWhenItIsInterruptedBeforeItsOperationsAreDone() {
    records 20
    start --stay "$work/input"
    await 'serving:'
    ends
}

VerifiesWhatWasDoneBeforeAnInterrupt() {
    records 40
    start --log-level 2 "$work/input"
    await 'serving:'
    interrupt
    expect_out '^Every record matches'
    expect_err '^catalogue: ended by signal 2 \(Interrupt\) after [0-9,]+ operations; what was done is verified\.$'
    expect_log '  parent: verified 40 records in '
    [[ $(tail -n 1 "$home/catalogue.log") == *'  parent: end: interrupted by signal 2 (Interrupt)' ]] ||
        fail "the last line is not the end"
}

EndsAtOnceOnASecondInterrupt() {
    # A worker that does not run cannot finish what it has begun.
    records 40
    start "$work/input"
    await 'serving:'
    stopped=$(workers | sed -n 1p)
    kill -STOP "$stopped"
    kill -INT "$pid"
    SECONDS=0
    until [ ! -e "$(ls -d "$runs"/*)/channel.1" ]; do # it has heard of the first one
        [ "$SECONDS" -lt 20 ] || fail "it goes on"
        sleep 0.02
    done
    kill -INT "$pid"
    finish
    expect_status 130
    expect_err 'operations; nothing is verified\.$'
    expect_nothing_left
}

# ---- clients

AnswersItsClients() {
    records 20
    stay
    ask get item7
    [ "$status" = 0 ] || fail "get ended with $status: $(cat "$work/answer")"
    expect_answer 'Weight: *49$'
    ask put item7 'a note of mine'
    [ "$status" = 0 ] || fail "put ended with $status: $(cat "$work/answer")"
    expect_answer '^version [0-9]+$'
    ask get item7
    expect_answer 'a note of mine$'
    ask list item1
    [ "$(wc -l <"$work/answer")" = 11 ] || fail "not eleven names: $(cat "$work/answer")"
    ask stats
    expect_answer '20'
    ends
    expect_out '^  clients +4 requests: 2 get, 1 put, 1 list$'
}

AnswersItsClientsWhileItWorks() {
    records 20
    start "$work/input"
    await 'serving:'
    run_directory=$(ls -d "$runs"/*)
    ask put item3 'in between'
    [ "$status" = 0 ] || fail "put ended with $status: $(cat "$work/answer")"
    interrupt
    expect_out '^  clients +1 requests: 0 get, 1 put, 0 list$'
}

AnswersThatThereIsNoSuchRecord() {
    records 20
    stay
    ask get item99
    [ "$status" = 1 ] || fail "get ended with $status: $(cat "$work/answer")"
    ask put item99 text
    [ "$status" = 1 ] || fail "put ended with $status: $(cat "$work/answer")"
    ends
}

GivesARecordOfManyParts() {
    {
        printf 'Name: large\n'
        for ((i = 0; i < 2000; i++)); do printf ' line %d of a long text\n' "$i"; done
    } >"$work/input"
    stay
    ask get large
    [ "$status" = 0 ] || fail "get ended with $status"
    [ "$(grep -c 'line [0-9]* of a long text' "$work/answer")" = 2000 ] || fail "not every line"
    ends
}

ListsManyNames() {
    records 2000
    stay
    ask list
    [ "$(sort -u "$work/answer" | wc -l)" = 2000 ] || fail "not every name"
    ends
}

AnswersMoreClientsAtOnceThanItHasChannels() {
    records 20
    stay
    local i clients=()
    for i in {1..10}; do
        "$catalogue" put "item$i" "from client $i" --run "$run_directory" --timeout 30 \
            >"$work/client.$i" 2>&1 &
        clients+=($!)
    done
    for i in {1..10}; do
        wait "${clients[i - 1]}" || fail "client $i: $(cat "$work/client.$i")"
    done
    for i in {1..10}; do
        ask get "item$i"
        expect_answer "from client $i$"
    done
    ends
}

GivesShortNotesRoomToGrow() {
    # A note of one byte may find room where the record stands; a longer one moves it.
    records 8
    stay --workers 2
    local round i
    for round in x 'a text of exactly sixty-three bytes, which is as long as it gets' y; do
        for i in {1..8}; do
            ask put "item$i" "${round:0:63}"
            [ "$status" = 0 ] || fail "put ended with $status: $(cat "$work/answer")"
        done
    done
    ask get item5
    expect_answer 'y$'
    ends
}

DropsMessagesThatAreNoRequests() {
    records 20
    stay
    local queue
    queue=$(noted queues | sed -n 1p)
    # A foreign message, one without anything, one whose lengths are not those that came, and one of
    # a channel that does not exist.
    perl -e 'my $queue = shift;
        my $head = sub { pack "LlQLSSSSSS", 0x01544143, 1, 1, 0, @_, 0, 0, 0 };
        for my $data ("x" x 50, "", $head->(1, 200, 100), $head->(9, 0, 0), $head->(0, 0, 0)) {
            msgsnd $queue, pack("q", 1) . pack("SS", 1, length $data) . $data . "\0" x 5, 0 or die "msgsnd: $!";
        }' "$queue" || fail "no message was sent"
    ask get item1
    [ "$status" = 0 ] || fail "get ended with $status: $(cat "$work/answer")"
    "$catalogue" stats --json --run "$run_directory" | grep -q '"dropped": *5\b' ||
        fail "not five messages were dropped: $("$catalogue" stats --json --run "$run_directory")"
    ends
}

DropsAnswersThatNobodyTakes() {
    records 20
    stay
    local queue
    queue=$(noted queues | sed -n 1p)
    # Lists in the name of a client that does not read: more than its queue holds.
    perl -e 'my $queue = shift;
        for my $sequence (1 .. 150) {
            my $data = pack "LlQLSSSSSS", 0x01544143, 1, $sequence, 0, 1, 0, 0, 0, 0, 0;
            msgsnd $queue, pack("q", 1) . pack("SS", 3, length $data) . $data . "\0" x 5, 0 or die "msgsnd: $!";
            select undef, undef, undef, 0.004;
        }' "$queue" || fail "no message was sent"
    ask list
    [ "$(wc -l <"$work/answer")" = 20 ] || fail "not every name: $(cat "$work/answer")"
    ends
    expect_no_err
}

# ---- backups

BacksUpWhatItHasLoaded() {
    records 40
    CATALOGUE_UPDATE_ONE_IN=1000 stay
    local file
    for file in "$run_directory"/bucket-*.dat; do
        [ "$(stat -c %s "$file")" = "$(stat -c %s "${file%.dat}.bak")" ] || fail "$file has none"
    done
    [ -z "$(find "$run_directory" -name '*.old' -o -name '*.new')" ] || fail "there are older ones"
    ends
}

BacksUpAgainAtEachReload() {
    records 40
    settings </dev/null
    stay
    sha256sum "$run_directory"/*.bak | sed 's/\.bak$/.old/' >"$work/sums"
    ask put item1 'after the first backup'
    hang_up
    expect_rotations 2
    sha256sum --quiet -c "$work/sums" || fail "the backups before are not kept"
    grep -qa 'after the first backup' "$run_directory"/*.bak || fail "the new ones are not new"
    ! grep -qa 'after the first backup' "$run_directory"/*.old || fail "the old ones are not old"
    ends
    expect_out '^  backups +2 of each file, the last ones whole$'
}

BacksUpEverySecondWhenItIsToldTo() {
    records 40
    start --rotate 1 --log-level 1 "$work/input"
    await_err 'desk: rotation 2: every file has a new backup$'
    await_err 'desk: rotation 3: every file has a new backup$'
    interrupt
}

TakesANewTimeBetweenBackupsWhileItServes() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start "$work/input"
    await 'serving:'
    printf '[log]\nLevel=1\n[store]\nRotate=1\n' | settings
    hang_up
    await_err 'desk: reload 1: \[store\] Rotate: 1, was 0$'
    await_err 'desk: rotation 3: ' # the second one is that of the reload
    interrupt
}

FindsABackupThatIsNotWhole() {
    records 40
    stay
    # In the text of a slot.
    perl -e 'for (@ARGV) {
            open my $file, "+<", $_ or die "$_: $!";
            read $file, my $head, 8;
            next if (unpack "LL", $head)[1] == 0;
            seek $file, 16 + 48 + 3, 0;
            print $file "\x7f";
            exit 0;
        }
        die "no backup has a record"' "$run_directory"/*.bak || fail "no damage"
    kill -INT "$pid"
    finish
    expect_status 1
    expect_err '^catalogue: bucket-[0-9]+\.bak, offset 16: the checksum of the slot does not match\.$'
    expect_err '^catalogue: 1 of the backups are not whole\.$'
    expect_nothing_left
}

KeepsTheBackupWhenANewOneCannotBeMade() {
    records 40
    settings </dev/null
    stay
    mkdir -p "$run_directory/bucket-03.new/full"
    sha256sum "$run_directory/bucket-03.bak" >"$work/sums"
    hang_up
    await_err 'desk: warning: bucket-03\.dat could not be copied to bucket-03\.new; the backup before stays$'
    expect_rotations 2
    sha256sum --quiet -c "$work/sums" || fail "the backup before is gone"
    rm -r "$run_directory/bucket-03.new"
    ends
}

# ---- the demonstration

DemonstratesTheWholeScene() {
    local i
    for ((i = 1; i <= 30; i++)); do
        printf 'Package: lib%d\nVersion: %d\nStatus: installed\nText: one\n\n' "$i" "$i"
    done >"$work/input"
    local tools
    tools=$(dirname "$catalogue")/../../tools
    mkdir "$work/scene"
    status=0
    (cd "$work/scene" && exec "$sources/examples/demo.sh" "$tools" "$catalogue" "$work/map.svg" \
        "$work/kept.log" "$work/input" 20000) >"$work/out" 2>"$work/err" || status=$?
    expect_status 0
    expect_no_err
    [ "$(grep -c '^--- [1-9]\. ' "$work/out")" = 9 ] || fail "not nine steps"
    expect_out '^      version [0-9]+$'
    expect_out 'worker 2, process [0-9]+, was killed by signal 9'
    expect_out 'desk: reload 1: settings 2 are in effect$'
    expect_out '^      30 updates acknowledged'
    expect_out '^      exit status 0$'
    expect_out '^    Every record matches the input and the updates made to it\.$'
    expect_out "^The map is in $work/map\\.svg$"
    expect_out '^      Removed: 1 semaphore set, 2 segments, 5 queues and 3 token files\.$'
    [ -z "$(find "$work/scene" -name 'catalogue-run.*')" ] || fail "a run directory is left"
}

run_case
