#!/usr/bin/env bash
# What rmipc lists: what belongs to a prefix, who uses it, and what belongs to none.
# One case per function; the build registers each as rmipc.<Case>.
#
# usage: rmipc_test.sh <rmipc> <Case> <completion script> <host>
# shellcheck source-path=SCRIPTDIR source=rmipc.sh
. "$(dirname "$0")/rmipc.sh"

everything=(sync:fileSem sync:growSem enter segment:10000 segment:20 queue:first queue:second
    write:100 write:20)

# ---- what a killed server has left

AKilledServersObjectsHaveNoLivingOwner() {
    leave '' "${everything[@]}"
    run
    expect_status 1
    expect_no_err
    expect_line '^The current directory$'
    expect_line '^Semaphores: set [0-9]+, key 0x01[0-9a-f]{6}, owner .*, used (just now|[0-9]+ second)'
    expect_row "0 1 0 $gone (gone) a free lock; or an event, not signalled"
    expect_row "1 0 0 $gone (gone) held by $gone (gone), or signalled"
    expect_line '^  18 more are not in use$'
    expect_line '^  no living owner: of those who used it last nobody lives$'
    expect_line '^Shared memory: 2 segments$'
    expect_line "^ +0 +[0-9]+ +10,000 +0  $gone \(gone\)  $gone \(gone\)$"
    expect_line '^  slots 0-1: no living owner: nobody has it attached \(owner '
    expect_line '^Message queues: 2 queues$'
    expect_line "^ +1 +[0-9]+ +2 +138 +[0-9,]+  $gone \(gone\) +-$"
    expect_line '^  slot 0: nothing sent, nothing read; no living owner: nobody has used it yet'
    expect_line '^To remove what is left over: rmipc remove \./$'
}

ListingChangesNothing() {
    mkdir db
    leave db/ "${everything[@]}" read
    state "$work/before"
    run db
    run --all --json db/
    run orphans
    run remove --dry-run db/
    state "$work/after"
    cmp -s "$work/before" "$work/after" || fail "changed: $(diff "$work/before" "$work/after")"
}

LookingMakesNothingWhereNothingIs() {
    mkdir db
    token db/.ZNT.RM.SEM
    token db/.ZNT.RM.MEM
    token db/.ZNT.RM.QUEUE
    note_objects
    state "$work/before"
    [ "$(wc -l <"$work/before")" -eq 3 ] || fail "there are objects already"
    run db/
    expect_status 1
    expect_line '^Semaphores: none$'
    expect_line '^  token file db/\.ZNT\.RM\.MEM, left over: nothing belongs to it'
    state "$work/after"
    cmp -s "$work/before" "$work/after" || fail "changed"
}

ItAgreesWithTheSystemsOwnTables() {
    leave '' "${everything[@]}"
    run --json
    expect_status 1
    python3 -c '
import json, sys
place = json.load(open(sys.argv[1]))["prefixes"][0]
def rows(name):
    lines = open("/proc/sysvipc/" + name).read().splitlines()
    return [dict(zip(lines[0].split(), line.split())) for line in lines[1:]]
def check(object, row, *pairs):
    assert int(object["key"], 16) == int(row["key"]) & 0xffffffff
    for mine, theirs in pairs:
        value = object[mine]
        value = value["pid"] if isinstance(value, dict) else value or 0
        assert value == int(row[theirs]), (mine, value, row)
find = lambda table, column, id: [row for row in rows(table) if int(row[column]) == id][0]
set = place["semaphores"]
check(set, find("sem", "semid", set["id"]), ("size", "nsems"), ("used", "otime"), ("uid", "uid"))
for segment in place["segments"]:
    check(segment, find("shm", "shmid", segment["id"]), ("bytes", "size"), ("attached", "nattch"),
          ("creator", "cpid"), ("last", "lpid"), ("attachedAt", "atime"), ("detachedAt", "dtime"))
for queue in place["queues"]:
    check(queue, find("msg", "msqid", queue["id"]), ("messages", "qnum"), ("bytes", "cbytes"),
          ("sender", "lspid"), ("reader", "lrpid"), ("sent", "stime"), ("received", "rtime"))
assert len(place["segments"]) == 2 and len(place["queues"]) == 2
' "$work/out" 2>>"$work/err" || fail "it does not agree"
}

EverySlotIsFound() {
    local steps=() i
    for i in {0..19}; do steps+=("sync:s$i" "segment:$((i + 1))"); done
    for i in {0..4}; do steps+=("queue:q$i" "write:$i"); done
    leave '' "${steps[@]}"
    run --json
    expect_json 'all(s["value"] == 1 for s in j["prefixes"][0]["semaphores"]["semaphores"])'
    expect_json '[s["bytes"] for s in j["prefixes"][0]["segments"]] == [i + 1 for i in sorted(s["slot"] for s in j["prefixes"][0]["segments"])]'
    expect_json 'len(j["prefixes"][0]["segments"]) == 20'
    expect_json '[q["bytes"] for q in j["prefixes"][0]["queues"]] == [9, 10, 11, 12, 13]'
    run
    expect_row "19 1 0 $gone (gone) a free lock; or an event, not signalled"
    expect_no_line 'not in use'
    expect_line '^  slots 0-19: no living owner'
}

AllShowsUnusedSemaphoresToo() {
    leave '' sync:one
    run
    expect_no_line '^ +19 +0'
    run --all
    expect_row '19 0 0 - not in use'
    expect_no_line 'more are not'
}

TheValuesOfEventsAreTold() {
    leave '' sync:a start sync:b resume sync:c leave
    run
    expect_row "0 1 0 $gone (gone) a free lock; or an event, not signalled"
    expect_row "1 0 0 $gone (gone) held by $gone (gone), or signalled"
    expect_row "2 2 0 $gone (gone) an event that woke several; a lock left twice"
}

ABagIsSeenWhenAskedFor() {
    leave '' bag:10:24:3 segment:256
    run
    expect_no_line 'FF bag'
    run --bags
    expect_line '^  slot 0: looks like an FF bag: 3 of 10 elements of 24 bytes$'
    expect_no_line '^  slots? .*1.*: looks like'
    run -bj
    expect_json 'j["prefixes"][0]["segments"][0]["looksLikeBag"] == {"capacity": 10, "count": 3, "elementSize": 24}'
    expect_json 'j["prefixes"][0]["segments"][1]["looksLikeBag"] is None'
}

# ---- a server that lives

ALivingServerUsesItsObjects() {
    start '' "${everything[@]}"
    run
    expect_status 0
    expect_line "^  token file \.ZNT\.RM\.SEM, open in $server rmipc_host$"
    expect_row "1 0 0 $server rmipc_host held by $server, or signalled"
    expect_line "^  in use: of those who used it last $server rmipc_host lives$"
    expect_line "^  slots 0-1: in use: attached by $server rmipc_host \(owner"
    expect_line "^  slot 1: last sent .*, nothing read; in use: of those who used it last $server rmipc_host lives"
    expect_line "^  slot 0: nothing sent, nothing read; in use: $server rmipc_host has its token file open"
    expect_line '^Nothing is left over\.$'
    stop
    run
    expect_status 1
    expect_line 'no living owner'
    expect_no_line 'in use:'
}

ProcessesThatWaitAreCounted() {
    start '' sync:lock enter waiting:enter waiting:enter sync:event waiting:wait
    until_true shows "0 0 2 $server rmipc_host held by $server; 2 wait to enter" \
        "1 1 1 $server rmipc_host an event, not signalled; 1 waits for it"
    expect_line '^  in use: 3 processes wait in it$'
    run --json
    expect_json '[s["state"] for s in j["prefixes"][0]["semaphores"]["semaphores"][:3]] == ["held", "event", "unused"]'
    expect_json 'j["prefixes"][0]["semaphores"]["semaphores"][0]["toEnter"] == 2'
    stop
}

AChildThatHasUsedNothingIsFoundByItsTokenFile() {
    # It waits in an empty queue, which no table shows.
    start '' queue:jobs fork join
    local child
    child=$(pgrep -P "$server")
    run
    expect_status 0
    expect_line "^  token file \.ZNT\.RM\.QUEUE, open in $server rmipc_host, $child rmipc_host$"
    expect_line "^  slot 0: .* in use: $server rmipc_host, $child rmipc_host have its token file open"
    stop
}

AProcessWithoutOpenFilesCountsByWhatItUsed() {
    start '' sync:lock enter segment:100 queue:jobs forget
    run
    expect_status 0
    expect_no_line 'open in'
    expect_line "^  in use: of those who used it last $server rmipc_host lives$"
    expect_line "^  slot 0: in use: attached by $server rmipc_host"
    # The queue shows nobody, but it is one of a server's that lives.
    expect_line '^  slot 0: nothing sent, nothing read; in doubt: nobody has used it yet; but others of this prefix are in use'
    expect_line '^What is in doubt is removed with --force only\.$'
    stop
}

AttachedSegmentsSpeakForTheSet() {
    # One process has the segment, another, which has ended, was the last to operate.
    start '' segment:100 fork sync:lock enter join forget
    local child
    child=$(pgrep -P "$server")
    kill -KILL "$child"
    until_true is_gone "$child"
    run
    expect_status 0
    expect_row "0 0 0 $child (gone) held by $child (gone), or signalled"
    expect_line '^  in doubt: of those who used it last nobody lives; but others of this prefix are in use$'
    stop
}

ARemovedSegmentIsShownWhileSomebodyHasIt() {
    start '' segment:100 segment:200
    local id
    run --json
    id=$(python3 -c 'import json,sys; print(json.load(sys.stdin)["prefixes"][0]["segments"][0]["id"])' <"$work/out")
    ipcrm -m "$id"
    run
    expect_line "^ +0 +$id +100 +1  $server rmipc_host"
    expect_line "^  slot 0: in use: removed, and goes with the last that has it attached by $server rmipc_host"
    run --json
    expect_json 'j["prefixes"][0]["segments"][0]["removed"] and not j["prefixes"][0]["segments"][1]["removed"]'
    stop
}

AServerThatEndsInOrderLeavesNothing() {
    "$host" '' "${everything[@]}"
    run
    expect_status 0
    expect_line 'Nothing belongs to it: there is no token file \.ZNT\.RM\.SEM'
    [ -z "$(ls -A)" ] || fail "files: $(ls -A)"
}

# ---- prefixes

APrefixIsAsTheServerGaveIt() {
    mkdir db
    leave db/one. sync:a
    leave db/two. sync:a sync:b
    run db/one.
    expect_status 1
    expect_line '^Prefix db/one\.$'
    expect_line '^  19 more are not in use$'
    run db/two. db/one.
    expect_line '^  18 more are not in use$'
    expect_line '^  19 more are not in use$'
    expect_line 'rmipc remove db/two\. db/one\.$'
    run db/
    expect_status 0
    expect_line 'Nothing belongs to it'
}

ADirectoryIsUnderstoodWithoutItsSlash() {
    mkdir db
    leave db/ sync:a
    run db
    expect_status 1
    expect_line '^Prefix db/$'
    expect_line '^  db is a directory: its token files begin with db/$'
    run "$PWD/db"
    expect_line 'Semaphores: set '
    run db/
    expect_no_line 'is a directory'
}

APrefixThatTheLibraryCutIsFound() {
    local long
    long=$(printf 'p%.0s' {1..40})
    leave "$long" sync:a
    [ -e "${long:0:31}.ZNT.RM.SEM" ] || fail "the library does not cut"
    run "$long"
    expect_status 1
    expect_line 'is too long: of a prefix the library keeps the first 31 bytes$'
    expect_line "^Prefix ${long:0:31}\$"
}

ANameLikeACommandStandsBehindListOrTheEndOfOptions() {
    mkdir remove
    leave remove/ sync:a
    run list remove
    expect_status 1
    expect_line '^Prefix remove/$'
    run -- remove
    expect_line '^Prefix remove/$'
}

ALinkIsRefusedAsTheLibraryDoes() {
    mkdir db
    leave db/ sync:a
    ln -s db/.ZNT.RM.SEM x.ZNT.RM.SEM
    run x
    expect_status 0
    expect_line '^Semaphores: not known, x\.ZNT\.RM\.SEM: a symbolic link, which the library refuses$'
    expect_no_line 'set [0-9]'
}

ATokenFileOfAnyModeIsNotRead() {
    leave '' sync:a
    chmod 0 .ZNT.RM.SEM
    run
    expect_status 1
    expect_line '^Semaphores: set '
}

WhatCannotBeLookedAtIsTrouble() {
    : >file
    run file/
    expect_status 2
    expect_err '^rmipc: cannot look at file/\.ZNT\.RM\.SEM: Not a directory$'
    run --json file/
    expect_status 2
    expect_json 'j["prefixes"][0]["tokens"][0]["state"] == "unknown"'
}

NamesThatCannotBePrintedDoNotReachTheTerminal() {
    local name=$'a\033[2J\xff'
    mkdir "$name"
    leave "$name/" sync:a
    run "$name"
    expect_status 1
    ! grep -q $'\033' "$work/out" || fail "an escape was printed"
    run --json "$name/"
    expect_json 'j["prefixes"][0]["leftovers"]'
    LC_ALL=C run "$name/"
    ! grep -qP '[^\x00-\x7f]' "$work/out" || fail "not ASCII"
}

# ---- others' objects

ASetOfAnotherSizeIsForeign() {
    token .ZNT.RM.SEM
    python3 -c '
import ctypes, sys
libc = ctypes.CDLL(None, use_errno=True)
if libc.semget(int(sys.argv[1]), 3, 0o1777) == -1:
    sys.exit("no set")
' $((1 << 24 | $(bases)))
    note_objects
    run
    expect_status 0
    expect_line "^  foreign: it has 3 semaphores, not 20: not the library's, though the key is the same$"
    run remove --yes ./
    expect_status 1
    on_terminal 'y\ny\n' remove --force ./
    expect_status 1
    run
    expect_line '^  foreign:'
}

WhatMayNotBeReadIsShownFromTheTables() {
    leave '' "${everything[@]}"
    local id
    run --json
    id=$(python3 -c 'import json,sys; print(json.load(sys.stdin)["prefixes"][0]["semaphores"]["id"])' <"$work/out")
    take_rights "$id"
    if [ "$(id -u)" -eq 0 ]; then
        # Root may read all, so somebody else looks.
        chmod 755 "$work" "$work/files"
        cp "$rmipc" "$work/rmipc"
        status=0
        setpriv --reuid=65534 --regid=65534 --clear-groups "$work/rmipc" >"$work/out" \
            2>"$work/err" || status=$?
        expect_line 'The files of [0-9,]+ process(es)? may not be looked at by this user|This system hides'
    else
        run
    fi
    expect_line '^Semaphores: set [0-9]+, key 0x01[0-9a-f]{6}, owner .*, mode 000'
    expect_line '^  in doubt: it may not be read by this user$'
}

# take_rights <id>: of a semaphore set, from everybody.
take_rights() {
    python3 -c '
import ctypes, os, sys
class Perm(ctypes.Structure):
    _fields_ = [("key", ctypes.c_int), ("uid", ctypes.c_uint), ("gid", ctypes.c_uint),
                ("cuid", ctypes.c_uint), ("cgid", ctypes.c_uint), ("mode", ctypes.c_uint),
                ("rest", ctypes.c_char * 256)]
libc = ctypes.CDLL(None, use_errno=True)
perm = Perm(uid=os.getuid(), gid=os.getgid(), mode=0)
if libc.semctl(int(sys.argv[1]), 0, 1, ctypes.byref(perm)) == -1:
    sys.exit("IPC_SET failed")
' "$1"
}

# ---- orphans

ObjectsWithoutATokenFileAreOrphans() {
    leave '' sync:a segment:77 queue:q write:1
    run --json
    expect_status 1
    cp "$work/out" "$work/listed"
    run orphans --json
    not_listed() {
        python3 -c '
import json, sys
place = json.load(open(sys.argv[1]))["prefixes"][0]
mine = {("semaphore set", place["semaphores"]["id"]), ("segment", place["segments"][0]["id"]),
        ("queue", place["queues"][0]["id"])}
found = {(o["kind"], o["id"]): o for o in json.load(open(sys.argv[2]))["orphans"]}
there = [key in found for key in mine]
wanted = sys.argv[3] == "there"
if any(there) != wanted or all(there) != wanted:
    sys.exit(1)
if wanted and not all(found[key]["verdict"] == "left" and found[key]["slot"] == 0 for key in mine):
    sys.exit(1)
' "$work/listed" "$work/out" "$1"
    }
    not_listed absent || fail "what has a token file is an orphan"
    # Not removed: the system would give their numbers to others, and with them the objects.
    local name
    for name in SEM MEM QUEUE; do mv ".ZNT.RM.$name" "$work/$name"; done
    run orphans --json
    expect_status 1
    not_listed there || fail "what has none is no orphan"
    run orphans
    expect_line '^  segment +[0-9]+  0x01[0-9a-f]{6} +0  77 bytes$'
    expect_line 'no living owner: nobody has it attached$'
    local set segment queue
    read -r set segment queue < <(python3 -c '
import json, sys
place = json.load(open(sys.argv[1]))["prefixes"][0]
print(place["semaphores"]["id"], place["segments"][0]["id"], place["queues"][0]["id"])' "$work/listed")
    run orphans --ids
    expect_line "^-s $set\$"
    expect_line "^-m $segment\$"
    expect_line "^-q $queue\$"
    # As the manual has it, for those of this case.
    grep -xE -- "-s $set|-m $segment|-q $queue" "$work/out" | xargs ipcrm
    run orphans --json
    not_listed absent || fail "they are still there"
}

AServerWhoseTokenFileIsGoneIsKnownByItsOpenFile() {
    start '' queue:q
    local id
    run --json
    id=$(python3 -c 'import json,sys; print(json.load(sys.stdin)["prefixes"][0]["queues"][0]["id"])' <"$work/out")
    rm .ZNT.RM.QUEUE
    run orphans
    expect_status 1
    expect_line "^  queue +$id  0x01"
    expect_line "in use: of $work/files/\.ZNT\.RM\.QUEUE \(deleted\), open in $server rmipc_host"
    run orphans --ids
    expect_no_line "^-q $id\$"
    stop
}

# ---- the page

TextFitsTheTerminal() {
    leave '' "${everything[@]}"
    unset COLUMNS
    run
    ! awk 'length > 80' "$work/out" | grep . || fail "a line has more than 80 columns"
    start here sync:a segment:1 queue:q
    run here
    ! awk 'length > 80' "$work/out" | grep . || fail "a line has more than 80 columns"
    stop
    run limits
    ! awk 'length > 80' "$work/out" | grep . || fail "a line has more than 80 columns"
}

JsonHasEverythingThatTheManualNames() {
    leave '' sync:a bag:3:4:1 queue:q write:5 read
    run --json --bags
    expect_json 'sorted(j) == ["prefixes"]'
    expect_json 'sorted(j["prefixes"][0]) == sorted("given prefix note leftovers unseen tokens semaphores segments queues".split())'
    expect_json 'sorted(j["prefixes"][0]["tokens"][0]) == sorted("family path state trouble verdict openIn".split())'
    expect_json 'sorted(j["prefixes"][0]["semaphores"]) == sorted("slot id key uid mode verdict reason size used changed semaphores".split())'
    expect_json 'sorted(j["prefixes"][0]["semaphores"]["semaphores"][0]) == sorted("slot value toEnter toPass last state words".split())'
    expect_json 'sorted(j["prefixes"][0]["segments"][0]) == sorted("slot id key uid mode verdict reason bytes attached users creator last attachedAt detachedAt changed removed looksLikeBag".split())'
    expect_json 'sorted(j["prefixes"][0]["queues"][0]) == sorted("slot id key uid mode verdict reason messages bytes limit sender sent reader received changed".split())'
    expect_json 'sorted(j["prefixes"][0]["queues"][0]["reader"]) == ["lives", "name", "pid"]'
    expect_json 'j["prefixes"][0]["queues"][0]["mode"] == "777"'
}

QuietTellsByItsStatus() {
    run --quiet
    expect_status 0
    leave '' sync:a
    run --quiet
    expect_status 1
    expect_no_out
    expect_no_err
}

OutputThatCannotBeWrittenIsAnError() {
    status=0
    "$rmipc" >/dev/full 2>"$work/err" || status=$?
    expect_status 2
    expect_err '^rmipc: standard output could not be written: No space left on device$'
    status=0
    "$rmipc" limits >&- 2>"$work/err" || status=$?
    expect_status 2
}

run_case
