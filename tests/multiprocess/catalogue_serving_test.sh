#!/usr/bin/env bash
# Clients of a catalogue that works: what they write is there and verified, and whatever happens to
# them or to the server, none of the two harms the other.
# shellcheck source=tests/multiprocess/catalogue_client_support.sh
source "$(dirname "$0")/catalogue_client_support.sh"

# staying <option...>: a server with $work/input, which has done its own operations and serves
# clients now; leaves $pid and $run. Its output goes into $work/server.
staying() {
    "$catalogue" --dir "$runs" --operations 200 --stay "$@" "$work/input" \
        >"$work/server" 2>"$work/server.err" &
    pid=$!
    await_line '^staying: ' "$work/server"
    run=$(echo "$runs"/catalogue-run.*)
    mapfile -t queues < <(noted queues)
}

# served: ends the server in order, and everything is as it must be.
served() {
    kill -INT "$pid"
    status=0
    wait "$pid" || status=$?
    pid=
    cp "$work/server" "$work/out"
    cp "$work/server.err" "$work/err"
    expect_status 0
    expect_out '^Every record matches the input and the updates made to it\.$'
    expect_nothing_left
    expect_gone "${queues[@]}"
}

# version_of <name>
version_of() { "$catalogue" get "$1" --run "$run" | sed -n 's/^  version  //p'; }

# The state of the run once nobody does anything: that of before, or else a failure.
expect_state() {
    local i
    for ((i = 0; i < 100; i++)); do
        [ "$(state_of_run)" != "$1" ] || return 0
        sleep 0.05
    done
    fail "the state is $(state_of_run), and was $1"
}

AnswersClientsAndVerifiesWhatTheyWrote() {
    records 40
    staying
    local version
    version=$(version_of item7)
    ask put item7 'a note: "quoted", 100 % ~'
    expect_text "version $((version + 1))"
    ask get item7
    expect_text "Name: item7
Weight: 49
Text: first line
 and a second one

  version  $((version + 1))
  note     a note: \"quoted\", 100 % ~"
    ask put item8 "$(printf 't%.0s' {1..63})"
    expect_status 0
    ask get nobody
    expect 1 'no record "nobody"'
    ask put nobody text
    expect 1 'no record "nobody"'
    ask list item3
    expect_text "$(printf 'item%d\n' 3 {30..39})"
    ask list nobody
    expect 1
    ask stats
    expect_out "^  process $pid, staying, since "
    expect_out "^  clients' gets +3\$"
    served
    expect_out '^  clients +8 requests: 3 get, 3 put, 2 list$'
}

AnswersWithARecordOfManyMessages() {
    { printf 'Name: big\nText: ' && head -c 300000 /dev/zero | tr '\0' 'x' && printf '\n'; } \
        >"$work/input"
    staying --operations 8
    ask put big 'a note at the end'
    expect_status 0
    ask get big
    expect_status 0
    [ "$(sed -n 's/^Text: //p' "$work/out" | tr -d '\n' | wc -c)" = 300000 ] || fail "not 300000"
    [ "$(sed -n 's/^Text: //p' "$work/out" | tr -d 'x\n' | wc -c)" = 0 ] || fail "not only x"
    expect_out '^  note     a note at the end$'
    served
}

ListsEveryNameInTheOrderOfTheInput() {
    records 2000
    staying
    ask list
    expect_status 0
    sed -n 's/^Name: //p' "$work/input" | cmp - "$work/out" || fail "not the names of the input"
    served
}

ChangesNothingOfItWithAThousandClients() {
    records 40
    staying
    local before i loop loops=()
    ask get item1
    before=$(state_of_run)
    for loop in 1 2 3 4; do
        for ((i = 1; i <= 62; i++)); do
            "$catalogue" get "item$((i % 40 + 1))" --run "$run" >/dev/null || exit 1
            "$catalogue" put "item$((i % 40 + 1))" "$loop $i" --run "$run" >/dev/null || exit 1
            "$catalogue" stats --run "$run" >/dev/null || exit 1
            "$catalogue" list "item$((i % 10))" --run "$run" >/dev/null || [ $? = 1 ] || exit 1
        done &
        loops+=($!)
    done
    for loop in "${loops[@]}"; do
        ended "$loop"
        expect_status 0
    done
    expect_state "$before"
    served
}

KeepsEveryNoteThatItAcknowledgedWhileWorkersAreKilled() {
    records 4
    staying --kill-every 20
    local writer writers=()
    for writer in 1 2 3 4; do
        write_notes "$writer" 60 &
        writers+=($!)
    done
    for writer in "${writers[@]}"; do
        ended "$writer"
        expect_status 0
    done
    ask stats
    for writer in 1 2 3 4; do
        ask get "item$writer"
        expect_out '^  note     note 60$'
    done
    served
    [ "$(sed -n 's/^  replaced *\([0-9,]*\) .*/\1/p' "$work/out" | tr -d ,)" -gt 3 ] ||
        fail "hardly a worker was killed"
}

# write_notes <record> <n>: n notes, each of which must be the next version.
write_notes() {
    local i version answer
    version=$(version_of "item$1")
    for ((i = 1; i <= $2; i++)); do
        answer=$("$catalogue" put "item$1" "note $i" --run "$run" --timeout 30) || exit 1
        [ "$answer" = "version $((++version))" ] || fail "$answer instead of $version"
    done
}

IsNotHarmedByClientsThatAreKilled() {
    records 40
    staying
    local i before
    ask get item1
    before=$(state_of_run | grep -v '^msg ')
    for ((i = 1; i <= 100; i++)); do
        timeout -s KILL "0.00$((i % 10))" \
            "$catalogue" put "item$((i % 40 + 1))" "note $i" --run "$run" >/dev/null 2>&1 || true
    done
    for ((i = 1; i <= 8; i++)); do
        ask put item7 "the $i"
        expect_status 0
        ask get item7
        expect_out "^  note     the $i\$"
    done
    for ((i = 0; i < 100; i++)); do
        [ "$(state_of_run | grep -v '^msg ')" != "$before" ] || break
        sleep 0.05
    done
    [ "$i" -lt 100 ] || fail "the state is another"
    served
}

DropsForgedRequests() {
    records 40
    staying
    "$fake_server" "$run" attack 3000
    ask put item7 'still there'
    expect_status 0
    ask get item7
    expect_out '^  note     still there$'
    ask stats
    expect_out '^  messages dropped +[12],[0-9]{3}$'
    served
}

EndsInOrderWhileClientsAsk() {
    records 40
    staying
    local loop loops=()
    for loop in 1 2 3 4; do
        ask_until_it_ends "$loop" &
        loops+=($!)
    done
    until "$catalogue" stats --run "$run" --json | grep -qE '"puts": [0-9]{2}'; do :; done
    served
    for loop in "${loops[@]}"; do
        ended "$loop"
        expect_status 0
    done
    for loop in 1 2 3 4; do
        # The last one says in one of these ways that there is nobody any more.
        tail -n 2 "$work/loop$loop" | grep -qE \
            'serves no clients now|has ended|ends; the request|no catalogue runs|No such file' ||
            fail "it ended with $(cat "$work/loop$loop")"
    done
}

# ask_until_it_ends <n>: puts, one after the other, until one is not done.
ask_until_it_ends() {
    local end=0
    while [ "$end" = 0 ]; do
        "$catalogue" put "item$1" 'again and again' --run "$run" --timeout 5 \
            >/dev/null 2>"$work/loop$1" || end=$?
    done
    [ "$end" = 3 ]
}

TellsAWaitingClientThatTheServerWasKilled() {
    records 40
    staying
    local all
    mapfile -t all < <(children '.*')
    kill -STOP "${all[@]}"
    local child before
    for child in "${all[@]}"; do
        until grep -q '^State:.T' "/proc/$child/status"; do :; done
    done
    # The desk takes the request no more; before it may lie what the workers have reported.
    before=$(objects msg 5)
    asking 1 put item7 text --timeout 60
    while [ "$(objects msg 5)" = "$before" ]; do
        kill -0 "$client" || fail "it has ended"
    done
    kill -KILL "$pid" "${all[@]}"
    wait "$pid" || true
    pid=
    ended "$client"
    expect_status 3
    grep -q "^catalogue: the catalogue in $run has ended without an answer\\.\$" "$work/err1" ||
        fail "it says: $(cat "$work/err1")"
    grep -q '^  Whether the note was written is not known\.$' "$work/err1" || fail "it is sure"
    run --operations 10 "$work/input"
    expect_status 0
    expect_out '^removed what run [0-9]* left behind when it died: '
    expect_nothing_left
    expect_gone "${queues[@]}"
}

run_case
