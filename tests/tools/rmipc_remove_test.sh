#!/usr/bin/env bash
# What rmipc removes, when it asks, and what it leaves.
# One case per function; the build registers each as rmipc.<Case>.
#
# usage: rmipc_remove_test.sh <rmipc> <Case> <completion script> <host>
# shellcheck source-path=SCRIPTDIR source=rmipc.sh
. "$(dirname "$0")/rmipc.sh"

everything=(sync:fileSem sync:growSem enter segment:10000 segment:20 queue:first queue:second
    write:100)

expect_nothing_left() {
    state "$work/now"
    [ ! -s "$work/now" ] || fail "left: $(cat "$work/now")"
}

expect_unchanged() {
    state "$work/now"
    cmp -s "$work/before" "$work/now" || fail "changed: $(diff "$work/before" "$work/now")"
}

# left_by_a_server: a killed one, with everything.
left_by_a_server() {
    leave '' "${everything[@]}"
    state "$work/before"
    [ "$(wc -l <"$work/before")" -eq 8 ] || fail "it has not left what it should"
}

# ---- asking

RemovesLeftoversAfterAYes() {
    left_by_a_server
    on_terminal 'y\n' remove ./
    expect_status 0
    expect_line '^To be removed:$'
    expect_line '^  semaphore set [0-9]+$'
    expect_line '^  segment [0-9]+ of slot 1$'
    expect_line '^  queue [0-9]+ of slot 0$'
    expect_line '^  token file \./\.ZNT\.RM\.QUEUE$'
    expect_line '^Remove 1 semaphore set, 2 segments, 2 queues and 3 token files\? \[y/N\] '
    expect_line 'Removed: 1 semaphore set, 2 segments, 2 queues and 3 token files\.$'
    expect_nothing_left
    [ -z "$(ls -A)" ] || fail "files: $(ls -A)"
}

AnyOtherAnswerLeavesEverything() {
    left_by_a_server
    local keys
    for keys in 'n\n' '\n' 'yess\n' ' y\n' 'no\n' 'remove\n'; do
        on_terminal "$keys" remove ./
        expect_status 1
        expect_line 'rmipc: nothing was removed$'
        expect_unchanged
    done
}

YesIsAYesTooInAnyUsualForm() {
    local keys
    for keys in 'Y\n' 'yes\n' 'YES\n'; do
        left_by_a_server
        on_terminal "$keys" remove ./
        expect_status 0
        expect_nothing_left
    done
}

TheEndOfInputIsNoAnswer() {
    left_by_a_server
    on_terminal '' remove ./
    expect_status 1
    expect_line 'nothing was removed'
    expect_unchanged
}

WithoutATerminalNobodyIsAsked() {
    left_by_a_server
    run remove ./
    expect_status 2
    expect_err '^rmipc: nothing was removed: standard input is no terminal; --yes does it without asking$'
    expect_unchanged
    status=0
    echo y | "$rmipc" remove ./ >"$work/out" 2>"$work/err" || status=$?
    expect_status 2
    expect_unchanged
}

YesAsksNobody() {
    left_by_a_server
    run remove --yes ./
    expect_status 0
    expect_no_err
    expect_no_line '\[y/N\]'
    expect_nothing_left
}

DryRunShowsAndChangesNothing() {
    left_by_a_server
    run remove --dry-run ./
    expect_status 0
    expect_no_err
    expect_line '^Would be removed:$'
    expect_line '^  segment [0-9]+ of slot 0$'
    expect_unchanged
    run remove --dry-run --yes ./
    expect_status 0
    expect_unchanged
    run remove --dry-run --json ./
    expect_json 'j["dryRun"] and len(j["removed"]) == 8 and j["left"] == []'
    expect_unchanged
}

WhereNothingIsNothingIsAsked() {
    run remove ./
    expect_status 0
    expect_no_err
    expect_line '^There is nothing to remove\.$'
}

QuietSaysNothing() {
    left_by_a_server
    run remove --quiet --yes ./
    expect_status 0
    expect_no_out
    expect_no_err
    expect_nothing_left
}

JsonTellsWhatWent() {
    left_by_a_server
    run remove --json --yes ./
    expect_status 0
    expect_json 'sorted(j) == ["dryRun", "left", "removed"] and not j["dryRun"]'
    expect_json 'sorted(j["removed"][0]) == ["id", "kind", "path", "slot"]'
    expect_json '[o["kind"] for o in j["removed"]] == ["semaphore set"] + 2 * ["segment"] + 2 * ["queue"] + 3 * ["token file"]'
    expect_nothing_left
}

# ---- what is in use

WhatALivingServerUsesIsLeft() {
    start '' "${everything[@]}"
    state "$work/before"
    run remove --yes ./
    expect_status 1
    expect_no_err
    expect_line '^Left, unless with --force:$'
    expect_line "^  semaphore set [0-9]+: of those who used it last $server rmipc_host lives$"
    expect_line "^  token file \./\.ZNT\.RM\.SEM: open in $server rmipc_host$"
    expect_line '^There is nothing else to remove\.$'
    expect_unchanged
    kill -0 "$server" || fail "the server has ended"
    stop
    run remove --yes ./
    expect_status 0
    expect_nothing_left
}

TheLeftoversOfAnEarlierServerGoBesideALivingOne() {
    # The living one has the first segment, which both make.
    leave '' segment:10 segment:20 segment:30
    start '' segment:10
    run --json
    expect_status 1
    expect_json '[s["verdict"] for s in j["prefixes"][0]["segments"]] == ["used", "left", "left"]'
    run remove --yes ./
    expect_status 1
    expect_line '^Removed: 2 segments\.$'
    run --json
    expect_status 0
    expect_json '[s["slot"] for s in j["prefixes"][0]["segments"]] == [0]'
    [ -e .ZNT.RM.MEM ] || fail "the token file of a living server has gone"
    stop
}

ForceAsksTwice() {
    start '' "${everything[@]}"
    state "$work/before"
    on_terminal 'y\nn\n' remove --force ./
    expect_status 1
    expect_line 'Of these, 8 are in use or may be, and the processes that use them will fail\.$'
    expect_line '^Remove them all the same\? \[y/N\] '
    expect_unchanged
    on_terminal 'n\ny\n' remove --force ./
    expect_status 1
    expect_unchanged
    on_terminal 'y\ny\n' remove --force ./
    expect_status 0
    run
    expect_line 'Nothing belongs to it'
    # Segments that are attached go with their process.
    stop
    expect_nothing_left
}

ForceTakesNoYes() {
    start '' sync:a
    run remove --force --yes ./
    expect_status 2
    expect_err '^rmipc: --force asks, and --yes does not answer it; see rmipc --help$'
    run remove --force ./
    expect_status 2
    expect_err 'nothing was removed: --force asks, and standard input is no terminal'
    run
    expect_status 0
    expect_line '^Semaphores: set '
    stop
}

ForceShowsInADryRun() {
    start '' sync:a
    run remove --force --dry-run ./
    expect_status 0
    expect_line '^  semaphore set [0-9]+$'
    run
    expect_line '^Semaphores: set '
    stop
}

WhatComesIntoUseWhileTheQuestionStandsIsLeft() {
    left_by_a_server
    mkfifo "$work/keys.pipe"
    script -qec "$rmipc remove ./" /dev/null <"$work/keys.pipe" >"$work/out" 2>&1 &
    local asking=$!
    exec 3>"$work/keys.pipe"
    until_true grep -q '\[y/N\]' "$work/out"
    start '' sync:a segment:10000
    printf 'y\n' >&3
    status=0
    wait "$asking" || status=$?
    exec 3>&-
    sed -i 's/\r$//' "$work/out"
    expect_status 1
    expect_line "semaphore set [0-9]+ was left: .*$server rmipc_host"
    expect_line "segment [0-9]+ of slot 0 was left: attached by $server rmipc_host"
    expect_line '^Removed: 1 segment\.$'
    [ -e .ZNT.RM.SEM ] || fail "the token file of a living server has gone"
    run
    expect_line '^Semaphores: set '
    stop
}

WhatGoesByItselfMeanwhileIsNoFailure() {
    left_by_a_server
    mkfifo "$work/keys.pipe"
    script -qec "$rmipc remove ./" /dev/null <"$work/keys.pipe" >"$work/out" 2>&1 &
    local asking=$!
    exec 3>"$work/keys.pipe"
    until_true grep -q '\[y/N\]' "$work/out"
    "$rmipc" remove --yes --quiet ./
    printf 'y\n' >&3
    status=0
    wait "$asking" || status=$?
    exec 3>&-
    sed -i 's/\r$//' "$work/out"
    expect_status 0
    expect_nothing_left
}

# ---- token files

ATokenFileWithoutObjectsGoes() {
    token .ZNT.RM.SEM
    token db.ZNT.RM.MEM
    note_objects
    run remove --yes ./
    expect_status 0
    expect_line '^Removed: 1 token file\.$'
    expect_files db.ZNT.RM.MEM
}

ALinkIsNeitherFollowedNorRemoved() {
    mkdir db
    leave db/ sync:a
    ln -s db/.ZNT.RM.SEM .ZNT.RM.SEM
    state "$work/before"
    run remove --yes ./
    expect_status 0
    expect_line '^There is nothing to remove\.$'
    expect_unchanged
    [ -L .ZNT.RM.SEM ] || fail "the link has gone"
}

OnlyThePrefixThatWasGivenIsRemoved() {
    mkdir db
    leave db/one. sync:a segment:5
    leave db/two. sync:a segment:5
    run remove --yes db/one.
    expect_status 0
    run db/one.
    expect_line 'Nothing belongs to it'
    run db/two.
    expect_line '^Semaphores: set '
    expect_line '^Shared memory: 1 segment$'
    [ "$(ls -A db)" = $'two..ZNT.RM.MEM\ntwo..ZNT.RM.SEM' ] || fail "files: $(ls -A db)"
}

SeveralPrefixesAreRemovedAtOnce() {
    leave one. sync:a
    leave two. segment:5
    run remove --yes one. two. three.
    expect_status 0
    expect_line '^Removed: 1 semaphore set, 1 segment and 2 token files\.$'
    [ -z "$(ls -A)" ] || fail "files: $(ls -A)"
}

WhatOnlyItsOwnerMayRemoveIsTrouble() {
    if [ "$(id -u)" -ne 0 ]; then
        # Root's own objects are the ones that this user may not remove; there is no way to make any.
        run remove
        expect_status 2
        return
    fi
    left_by_a_server
    chmod 755 "$work" "$work/files"
    cp "$rmipc" "$work/rmipc"
    status=0
    setpriv --reuid=65534 --regid=65534 --clear-groups "$work/rmipc" remove --yes ./ >"$work/out" \
        2>"$work/err" || status=$?
    expect_status 2
    expect_err '^rmipc: semaphore set [0-9]+ was left: only its owner, its creator and root may remove it$'
    expect_err '^rmipc: token file \./\.ZNT\.RM\.SEM was left: it leads to an object that stays$'
    expect_unchanged
}

AServerStartsAnewAfterwards() {
    left_by_a_server
    run remove --yes ./
    # Of a set that was left, the lock would be held, or have been raised to 2.
    start '' sync:fileSem sync:growSem
    run --json
    expect_json '[s["value"] for s in j["prefixes"][0]["semaphores"]["semaphores"][:3]] == [1, 1, 0]'
    stop
}

run_case
