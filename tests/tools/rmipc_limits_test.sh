#!/usr/bin/env bash
# What rmipc makes of the limits of a machine, and of its command line.
# One case per function; the build registers each as rmipc.<Case>.
#
# usage: rmipc_limits_test.sh <rmipc> <Case> <completion script> <host>
# shellcheck source-path=SCRIPTDIR source=rmipc.sh
. "$(dirname "$0")/rmipc.sh"

# machine: a /proc of a machine with the usual limits and nothing in use.
machine() {
    mkdir -p proc/sys/kernel proc/sysvipc
    printf '32000\t1024000000\t500\t32000\n' >proc/sys/kernel/sem
    echo 18446744073692774399 >proc/sys/kernel/shmmax
    echo 18446744073692774399 >proc/sys/kernel/shmall
    echo 4096 >proc/sys/kernel/shmmni
    echo 65536 >proc/sys/kernel/msgmax
    echo 65536 >proc/sys/kernel/msgmnb
    echo 32000 >proc/sys/kernel/msgmni
    echo '       key      semid perms      nsems   uid' >proc/sysvipc/sem
    echo '       key      shmid perms                  size  cpid' >proc/sysvipc/shm
    echo '       key      msqid perms      cbytes       qnum lspid' >proc/sysvipc/msg
}

LimitsThatAreHighEnoughAreSaidToBe() {
    machine
    run limits --proc=proc
    expect_status 0
    expect_no_err
    expect_row 'SEMMSL semaphores of a set 32,000 - 20 enough'
    expect_row 'SEMMNI sets 32,000 0 1 enough'
    expect_row 'shmmax bytes of a segment no limit - 65,536 enough'
    expect_row 'msgmax bytes of a message 65,536 - 32,776 enough'
    expect_line '^The longest message that a queue takes here has 32,767 bytes of data\.$'
    expect_no_line 'sysctl|TOO LOW'
}

TheUsualLimitOfMessagesIsTooLow() {
    machine
    echo 8192 >proc/sys/kernel/msgmax
    echo 16384 >proc/sys/kernel/msgmnb
    run limits --proc=proc
    expect_status 1
    expect_row 'msgmax bytes of a message 8,192 - 32,776 TOO LOW'
    expect_line '^The longest message that a queue takes here has 8,183 bytes of data\.$'
    expect_line '^msgmax: a message has at most 8,183 bytes of data \(msgmax less 9\); a longer rm_queueWrite\(\) is fatal'
    expect_line '^  sysctl -w kernel\.msgmax=32776$'
    expect_line '^  sysctl -w kernel\.msgmnb=32776$'
    run limits --proc=proc --message=8183
    expect_status 0
    run limits --proc=proc -m 8184
    expect_status 1
    expect_line '^  sysctl -w kernel\.msgmax=8193$'
    run limits -qp proc
    expect_status 1
    expect_no_out
}

TheLongestMessageIsWhatTheLibraryCanWrite() {
    # On this machine, whatever its limits are.
    run limits --json
    local longest
    longest=$(python3 -c 'import json,sys; print(json.load(sys.stdin)["longestWrite"])' <"$work/out")
    [ "$longest" -gt 0 ] || fail "no message at all"
    "$host" '' queue:q "write:$longest" read say:written >"$work/out" 2>"$work/err"
    expect_line '^written$'
    [ "$longest" -eq 32767 ] || {
        "$host" '' queue:q "write:$((longest + 1))" say:written >"$work/out" 2>"$work/err" || true
        expect_no_line '^written$'
        expect_err 'msgsnd\(\) failure'
    }
}

SetsInUseCount() {
    machine
    printf '32000 60 500 3\n' >proc/sys/kernel/sem
    printf ' %s %s 777 20 0\n' 1 2 3 4 >>proc/sysvipc/sem
    run limits --proc=proc
    expect_status 0
    expect_row 'SEMMNS semaphores of all 60 40 60 enough'
    expect_row 'SEMMNI sets 3 2 3 enough'
    printf ' 5 6 777 1 0\n' >>proc/sysvipc/sem
    run limits --proc=proc
    expect_status 1
    expect_row 'SEMMNS semaphores of all 60 41 61 TOO LOW'
    expect_row 'SEMMNI sets 3 3 4 TOO LOW'
    expect_line '^  sysctl -w kernel\.sem="32000 61 500 4"$'
}

SegmentsInUseCountInPages() {
    machine
    local page
    page=$(getconf PAGESIZE)
    echo 27 >proc/sys/kernel/shmmni
    echo 48 >proc/sys/kernel/shmall
    printf ' %s %s 777 '"$((page + 1))"' 0\n' 1 2 3 4 5 6 7 8 >>proc/sysvipc/shm
    run limits --proc=proc --segment="$((page + 1))"
    expect_status 0
    expect_row "shmall pages of all 48 8 48 enough"
    expect_row 'shmmni segments 27 4 24 enough'
    run limits --proc=proc --segment="$((2 * page + 1))"
    expect_status 1
    expect_line '^  sysctl -w kernel\.shmall=68$'
    echo 23 >proc/sys/kernel/shmmni
    run limits --proc=proc --segment=1
    expect_status 1
    expect_line '^shmmni: another server cannot make 20 segments'
}

SizesHaveUnits() {
    machine
    echo 2097152 >proc/sys/kernel/shmmax
    run limits --proc=proc --segment=2M
    expect_status 0
    run limits --proc=proc --segment=2049K
    expect_status 1
    expect_line '^  sysctl -w kernel\.shmmax=2098176$'
}

QueuesInUseCount() {
    machine
    echo 7 >proc/sys/kernel/msgmni
    printf ' 1 2 777 0 0\n 2 3 777 0 0\n' >>proc/sysvipc/msg
    run limits --proc=proc
    expect_status 0
    printf ' 3 4 777 0 0\n' >>proc/sysvipc/msg
    run limits --proc=proc
    expect_status 1
    expect_row 'msgmni queues 7 3 8 TOO LOW'
}

WhatCannotBeReadIsNotKnown() {
    machine
    rm proc/sys/kernel/msgmni
    echo nonsense >proc/sys/kernel/shmmni
    echo '1 2 3' >proc/sys/kernel/sem
    rm proc/sysvipc/msg
    run limits --proc=proc
    expect_status 2
    expect_err '^rmipc: cannot read proc/sys/kernel/msgmni: No such file or directory$'
    expect_err '^rmipc: proc/sys/kernel/shmmni does not hold the numbers that it should$'
    expect_err '^rmipc: proc/sys/kernel/sem does not hold the numbers that it should$'
    expect_row 'msgmni queues ? - 5 not known'
    run limits --json --proc=proc
    expect_status 2
    expect_json '[l["value"] for l in j["limits"] if l["name"] == "msgmni"] == [None]'
    expect_json 'not j["enough"]'
    run limits --proc=nowhere
    expect_status 2
}

HugeNumbersDoNotOverflow() {
    machine
    printf ' 1 2 777 18446744073709551615 0\n 2 3 777 18446744073709551615 0\n' >>proc/sysvipc/shm
    echo 99999999999999999999999999 >proc/sys/kernel/msgmax
    run limits --proc=proc
    expect_status 2
    expect_err 'msgmax does not hold the numbers that it should'
    expect_line '^shmall +pages of all +no limit +'
    expect_no_line 'shmall.*TOO LOW'
    printf ' 1 2 777 18446744073709551615 0\n 2 3 777 18446744073709551615 0\n' >>proc/sysvipc/sem
    run limits --proc=proc
    expect_line '^SEMMNS .*TOO LOW$'
}

JsonOfLimitsHasWhatTheManualNames() {
    machine
    echo 19 >proc/sys/kernel/msgmax
    run limits --json --proc=proc
    expect_status 1
    expect_json 'sorted(j) == ["enough", "limits", "longestWrite", "sysctl"]'
    expect_json 'sorted(j["limits"][0]) == sorted("name what value used needed enough advice".split())'
    expect_json '[l["name"] for l in j["limits"]] == "SEMMSL SEMMNS SEMOPM SEMMNI SEMVMX shmmax shmall shmmni msgmax msgmnb msgmni".split()'
    expect_json 'j["longestWrite"] == 10 and j["sysctl"] == ["kernel.msgmax=32776"]'
}

# ---- the command line

RefusesAWrongCommandLine() {
    local line
    while read -r line; do
        # shellcheck disable=SC2086
        run $line
        expect_status 2
        expect_no_out
        expect_err '^rmipc: .*; see rmipc --help$'
    done <<'LINES'
--bogus
-x
remove
limits db/
limits --message
limits --message=0
limits --message=32768
limits --message=12x
limits --message=-1
limits --segment=4G
limits --segment=K
limits --segment=99999999999999999999
limits --proc=
limits --yes
list --force
--yes
orphans --all
orphans --ids --json
remove --json ./
remove --quiet ./
remove --force --yes ./
--json=yes
LINES
}

OptionsMayStandAnywhere() {
    leave db. sync:a
    run db. --json
    expect_json 'j["prefixes"][0]["given"] == "db."'
    run -j list db.
    expect_json 'j["prefixes"][0]["given"] == "db."'
    run -- --json
    expect_status 0
    expect_line '^Prefix --json$'
}

HelpNamesEveryOptionOfTheManual() {
    local manual
    manual=$(dirname "$completion")/rmipc.1
    run --help
    expect_status 0
    expect_no_err
    ! awk 'length > 80' "$work/out" | grep . || fail "a line has more than 80 columns"
    grep -oE -- '^  -[a-zA-Z], --[a-z-]+' "$work/out" | sed 's/.*--//' | sort >"$work/help"
    grep -oE '^\.It Fl [a-zA-Z].*Fl? ?-[a-z-]+|^\.It Fl [a-zA-Z] , -[a-z-]+' "$manual" |
        grep -oE -- '-[a-z-]+$' | sed 's/^-//' | sort >"$work/manual"
    cmp "$work/help" "$work/manual" || fail "they differ: $(diff "$work/help" "$work/manual")"
    [ "$(wc -l <"$work/help")" -eq 13 ] || fail "options are missing"
    run -V
    expect_line '^rmipc [0-9]+\.[0-9]+\.[0-9]+$'
}

CompletesCommandsOptionsAndDirectories() {
    mkdir dbdir
    : >dbfile
    # shellcheck source=/dev/null
    . "$completion"
    complete_line() {
        COMP_WORDS=("$@")
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
        COMPREPLY=()
        _rmipc rmipc || true
        printf '%s\n' "${COMPREPLY[@]}" >"$work/out"
    }
    complete_line rmipc re
    expect_line '^remove$'
    complete_line rmipc remove db
    expect_line '^dbdir$'
    expect_no_line dbfile
    complete_line rmipc remove --
    expect_line '^--dry-run$'
    expect_no_line '^--ids$'
    complete_line rmipc db --a
    expect_line '^--all$'
    complete_line rmipc limits --proc = db
    expect_line '^dbdir$'
    # All options of the help, and no others.
    local command
    for command in list remove orphans limits; do
        complete_line rmipc "$command" -
        cat "$work/out"
    done | sort -u >"$work/completed"
    "$rmipc" --help | grep -oE -- '^  -[a-zA-Z], --[a-z-]+' | sed 's/.*, //' | sort -u >"$work/help"
    cmp "$work/completed" "$work/help" || fail "$(diff "$work/completed" "$work/help")"
}

run_case
