#!/usr/bin/env bash
# rmini and the files of its user: those that cannot be used, those that others change at the same
# time, those that a change has lost, those of the machine; and its command line.
# One case per function; the build registers each as rmini.<Case>.
#
# usage: rmini_files_test.sh <rmini> <Case> <completion script> <module that makes calls fail>
# shellcheck source-path=SCRIPTDIR source=rmini.sh
. "$(dirname "$0")/rmini.sh"

# ---- files that cannot be used

SaysWhyAFileCannotBeRead() {
    mkdir directory
    mkfifo fifo
    local command
    for command in 'get FILE a k' 'set FILE a k v' 'delete FILE a' 'sections FILE' 'keys FILE a' \
        'check FILE'; do
        # shellcheck disable=SC2086
        run ${command/FILE/directory}
        expect_status 3
        expect_err '^rmini: cannot open directory: Is a directory$'
        # shellcheck disable=SC2086
        run ${command/FILE/fifo}
        expect_status 3
        expect_err '^rmini: cannot open fifo: it is no regular file$'
        # shellcheck disable=SC2086
        run ${command/FILE/directory/no.ini}
        expect_status 3
        expect_err '^rmini: cannot open directory/no\.ini: .*exist|No such file'
        # shellcheck disable=SC2086
        run ${command/FILE/fifo/no.ini}
        expect_status 3
        expect_err '^rmini: cannot open fifo/no\.ini: Not a directory$'
        # shellcheck disable=SC2086
        run ${command/FILE/no/no.ini}
        expect_status 3
        expect_no_out
    done
}

DoesNotReplaceAFileThatItsUserMayNotWrite() {
    file '[a]' 'k=1'
    run_with read-only set f.ini a k 2
    expect_status 5
    expect_err '^rmini: cannot write f\.ini: Permission denied$'
    run_with read-only delete f.ini a k
    expect_status 5
    expect_unchanged
    expect_files f.ini
}

SaysWhyAFileCannotBeReplaced() {
    file '[a]' 'k=1'
    run_with remove set f.ini a k 2
    expect_status 5
    expect_err '^rmini: f\.ini is unchanged: it could not be replaced$'
    expect_err "^  Remove $PWD/_temp_\\.ini, its changed copy\\.$"
    expect_unchanged
}

SaysWhenTheCopyCannotBeWritten() {
    file '[a]' 'k=1'
    head -c 4000 /dev/zero | tr '\0' x | "$rmini" set f.ini a long -
    cp f.ini "$work/before"
    status=0
    (ulimit -f 1 && exec "$rmini" set f.ini a k 2) >"$work/out" 2>"$work/err" || status=$?
    expect_status 5
    expect_err "^rmini: f\\.ini is unchanged: its changed copy $PWD/_temp_\\.ini could not be completed$"
    expect_err '^  The library says: rm_fileWrite: errno=[0-9]+: unable to write, file='
    ! grep -q '^\[' "$work/err" || fail "a line with the time"
    expect_unchanged
    expect_files f.ini
}

SaysWhenTheCopyCannotBeMade() {
    file '[a]' 'k=1'
    mkdir _temp_.ini
    run set f.ini a k 2
    expect_status 5
    expect_err "^rmini: f\\.ini is unchanged: cannot write $PWD/_temp_\\.ini: it is no regular file$"
    rmdir _temp_.ini
    : >other
    ln other _temp_.ini
    run set f.ini a k 2
    expect_status 5
    expect_err '_temp_\.ini: the file has another name too$'
    rm _temp_.ini
    ln -s other _temp_.ini
    run delete f.ini a k
    expect_status 5
    expect_err '_temp_\.ini: it is no regular file$'
    expect_unchanged
}

SaysWhenAnotherProgramIsAtWorkTooLong() {
    file '[a]' 'k=1'
    printf 'half' >_temp_.ini
    exec 5<_temp_.ini
    flock 5
    run_with hurry set f.ini a k 2
    expect_status 5
    expect_err "^rmini: f\\.ini: another program has been at work on $PWD/_temp_\\.ini for 14 s$"
    expect_unchanged
    run check -x no-room f.ini
    expect_status 0
    rm f.ini
    run_with hurry get f.ini a k
    expect_status 3
    expect_err 'another program has been at work on'
    run_with hurry recover f.ini
    expect_status 5
    expect_err 'another program has been at work on'
    expect_files _temp_.ini
}

GetWaitsForAFileThatIsBeingReplaced() {
    printf '[a]\nk=1\n' >_temp_.ini
    exec 5<_temp_.ini
    flock 5
    "$rmini" get f.ini a k >"$work/out" 2>"$work/err" &
    mv _temp_.ini f.ini
    exec 5<&-
    wait $! || fail "it ended with $?"
    expect_out 1
}

# ---- a change that does not last

SetsAgainWhatAnotherProgramHasUndone() {
    file '[a]' 'k=1'
    run_with forget set f.ini a k 2
    expect_status 5
    expect_err '^rmini: f\.ini: "k" was set and is not there: other programs change the file$'
    expect_files f.ini
}

SetNotesWhatAnotherProgramHasSetSince() {
    file '[a]' 'k=1'
    run_with overwrite set f.ini a k 2
    expect_status 0
    expect_err '^rmini: f\.ini: another program has changed "k" since$'
    expect_file '[a]' 'k=other'
}

# ---- what a cut-off change leaves

RecoversAFileWhoseChangeWasCutOff() {
    file '[a]' 'k=1'
    run_with 'die at rename' set f.ini a k 2
    expect_status 137
    expect_files _temp_.ini
    local command
    for command in 'get f.ini a k' 'set f.ini a k v' 'set -c f.ini a k v' 'delete f.ini a' \
        'sections f.ini' 'keys f.ini a' 'check f.ini'; do
        # shellcheck disable=SC2086
        run $command
        expect_status 3
        expect_err "^rmini: f\\.ini is gone, and $PWD/_temp_\\.ini stands in its directory$"
        expect_err '^      rmini recover f\.ini$'
        expect_files _temp_.ini
    done
    run recover f.ini
    expect_status 0
    expect_no_err
    expect_file '[a]' 'k=2'
    expect_files f.ini
}

RecoversWhatALinkLeadsTo() {
    mkdir far
    printf '[a]\nk=1\n' >far/_temp_.ini
    ln -s far/real.ini link.ini
    run get link.ini a k
    expect_status 3
    expect_err "^rmini: link\\.ini is gone, and $PWD/far/_temp_\\.ini stands in its directory$"
    run recover link.ini
    expect_status 0
    [ -L link.ini ] || fail "the link is gone"
    run get link.ini a k
    expect_out 1
}

SaysWhatStandsWhereWhenTheRenameFails() {
    file '[a]' 'k=1'
    run_with rename set f.ini a k 2
    expect_status 5
    expect_err '^rmini: f\.ini could not be put back into its place$'
    expect_err 'rmini recover f\.ini$'
    expect_files _temp_.ini
}

DoesNotOverwriteWhatIsLeftOfAnotherFile() {
    file '[a]' 'k=1'
    printf '[other]\n' >_temp_.ini
    local command
    for command in 'set f.ini a k 2' 'delete f.ini a' 'set -n f.ini a k 2' 'set -c new.ini a k 2'; do
        # shellcheck disable=SC2086
        run $command
        [ "$status" -eq 4 ] || [ "$status" -eq 3 ] || fail "status $status"
        expect_err "$PWD/_temp_\\.ini"
        [ "$(cat _temp_.ini)" = '[other]' ] || fail "it was overwritten"
    done
    expect_unchanged
    run recover f.ini
    expect_status 4
    expect_err '^rmini: f\.ini stands in its place; there is nothing to recover$'
    run recover other.ini
    expect_status 0
    expect_files f.ini other.ini
    run recover new.ini
    expect_status 3
    expect_err '^rmini: cannot recover new\.ini: there is no '
}

RefusesToChangeTheTemporaryFileItself() {
    printf '[a]\nk=1\n' >_temp_.ini
    run set _temp_.ini a k 2
    expect_status 4
    expect_err '^rmini: _temp_\.ini cannot be changed: '
    run get _temp_.ini a k
    expect_status 0
    expect_out 1
}

# ---- output and surroundings

SaysWhenItsOutputCannotBeWritten() {
    file '[a]' 'k=1'
    status=0
    "$rmini" get f.ini a k >/dev/full 2>"$work/err" || status=$?
    expect_status 5
    expect_err '^rmini: standard output could not be written: No space left on device$'
    status=0
    "$rmini" get f.ini a k >&- 2>"$work/err" || status=$?
    expect_status 5
    expect_err '^rmini: standard output could not be written: Bad file descriptor$'
    status=0
    "$rmini" --help >/dev/full 2>"$work/err" || status=$?
    expect_status 5
    "$rmini" set f.ini a k 2 >&- 2>&- <&- || fail "a set prints nothing"
    expect_file '[a]' 'k=2'
}

EndsQuietlyWhenItsReaderHasGone() {
    { echo '[a]' && seq -f 'key%.0f=1' 100000; } >f.ini
    local statuses=()
    "$rmini" keys f.ini a 2>"$work/err" | head -n 1 >"$work/out" || statuses=("${PIPESTATUS[@]}")
    expect_out key1
    [ "${statuses[*]-0}" = '5 0' ] || fail "statuses ${statuses[*]-0}"
    expect_no_err
}

MakesNoSemaphoresAndLeavesNoFiles() {
    file '[a]' 'k=1'
    local command
    for command in 'get f.ini a k' 'set f.ini a k 2' 'set f.ini b l 2' 'delete f.ini b l' \
        'delete f.ini b' 'sections f.ini' 'keys f.ini a' 'check -x no-room f.ini'; do
        # shellcheck disable=SC2086
        run_with none $command
        expect_status 0
        expect_no_err
        expect_files f.ini
    done
}

EndsWithAMessageWhenThereIsNoMemory() {
    { printf '[a]\nk=' && head -c 60000000 /dev/zero | tr '\0' x && printf '\n'; } >f.ini
    if grep -q __asan_init "$rmini"; then
        export ASAN_OPTIONS=${ASAN_OPTIONS:-}:allocator_may_return_null=1:max_allocation_size_mb=16
    else
        ulimit -v 60000
    fi
    run get f.ini a k
    expect_status 7
    expect_err '^rmini: ended by an error that cannot be mended$'
    expect_err '^  The library says: Out of memory!$'
    expect_no_out
}

TakesOptionsAnywhere() {
    file '[a]' 'k=1'
    run keys f.ini a --values -z
    printf 'k=1\0' | cmp -s - "$work/out" || fail "another list"
    run -q get f.ini --default=x a none
    expect_out x
}

RefusesAWrongCommandLine() {
    file '[a]' 'k=1'
    local line
    for line in '' 'nonsense' 'get' 'get f.ini a' 'get f.ini a k v' 'set f.ini a k' 'delete f.ini' \
        'delete f.ini a k v' 'sections' 'keys f.ini' 'check' 'recover' 'get --nonsense f.ini a k' \
        'get -y f.ini a k' 'get --create f.ini a k' 'check -z f.ini' 'get f.ini a k --default' \
        'get f.ini a k -d' 'keys --values=1 f.ini a' 'set f.ini a k --x' 'get - a k' 'check f.ini -' \
        'check --ignore'; do
        # shellcheck disable=SC2086
        run $line
        expect_status 2
        expect_err '^rmini: .*; see rmini --help$'
        expect_no_out
    done
    expect_unchanged
}

SaysHowToWriteAValueThatLooksLikeAnOption() {
    file '[a]' 'k=1'
    local advice='; before a name or value like that write --; see rmini --help$'
    local option name
    for option in -x:--ignore -xno:--ignore --ignore:--ignore -v:--values -d:--default -z:--null; do
        name=${option#*:}
        run set f.ini a k "${option%%:*}"
        expect_status 2
        expect_err "^rmini: $name is no option of rmini set$advice"
    done
    run -x no-room set f.ini a k 1
    expect_err "^rmini: --ignore is no option of rmini set$advice"
    run get f.ini --check a
    expect_err "^rmini: --check is no option of rmini get$advice"
    run get f.ini a -d
    expect_err "^rmini: --default wants a value$advice"
    run get f.ini a --default
    expect_err "^rmini: --default wants a value$advice"
    run set f.ini a k -- --nonsense
    expect_status 0
    run set f.ini a k --nonsense
    expect_err "^rmini: \"--nonsense\" is no option$advice"
    expect_file '[a]' 'k=--nonsense'
}

RefusesAFileWithoutAName() {
    local command words
    for command in 'get a k' 'set a k v' 'set -c a k v' 'delete a' 'sections' 'keys a' 'check' \
        'recover'; do
        read -ra words <<<"$command"
        run "${words[0]}" '' "${words[@]:1}"
        expect_status 2
        expect_err '^rmini: FILE is empty; see rmini --help$'
    done
    run check f.ini ''
    expect_status 2
    expect_err '^rmini: FILE is empty; '
}

PrintsHelpAndVersion() {
    run --help
    expect_status 0
    expect_no_err
    grep -q '^usage: rmini get FILE SECTION KEY ' "$work/out" || fail "no usage"
    run get -h
    expect_status 0
    run --version
    expect_status 0
    grep -qE '^rmini [0-9]+\.[0-9]+\.[0-9]+$' "$work/out" || fail "no version"
}

ConcurrentSetsLoseNothing() {
    file '[a]' 'base=1'
    ln -s f.ini link.ini
    local worker i
    local pids=()
    for worker in 1 2 3 4 5 6; do
        (
            for i in 1 2 3 4 5 6 7 8; do
                "$rmini" set f.ini a "w${worker}k$i" "$i" || exit 1
                "$rmini" set f.ini a "shared" "$worker" -q || exit 1
                [ "$("$rmini" get link.ini a "w${worker}k$i")" = "$i" ] || exit 1
            done
        ) 2>>"$work/err" &
        pids+=("$!")
    done
    for worker in "${pids[@]}"; do
        wait "$worker" || fail "a worker failed"
    done
    for worker in 1 2 3 4 5 6; do
        for i in 1 2 3 4 5 6 7 8; do
            grep -qx "w${worker}k$i=$i" f.ini || fail "w${worker}k$i is lost"
        done
    done
    [ "$(grep -c '^shared=[1-6]$' f.ini)" -eq 1 ] || fail "the shared key is not there once"
    expect_files f.ini link.ini
}

ConcurrentCreatorsMakeOneFile() {
    local worker
    local pids=()
    for worker in 1 2 3 4 5 6; do
        "$rmini" set --create f.ini a "k$worker" "$worker" 2>>"$work/err" &
        pids+=("$!")
    done
    for worker in "${pids[@]}"; do
        wait "$worker" || fail "a creator failed"
    done
    [ "$("$rmini" keys f.ini a | sort | tr '\n' ' ')" = 'k1 k2 k3 k4 k5 k6 ' ] || fail "keys are lost"
}

# ---- real files

# by_rules <file> <section>: the keys of the section, found by a second reader of the rules.
by_rules() {
    awk -v section="$2" '
        { sub(/\r.*/, "") }
        inside && ($0 == "" || /^\[/) { exit }
        inside && !/^;/ { sub(/=.*/, ""); print }
        /^\[/ { name = substr($0, 2); sub(/\].*/, "", name)
                inside = inside || tolower(name) == tolower(section) }' "$1"
}

# examine <file>: lists it, reads every value, changes one entry in a copy.
examine() {
    local sections section key value keys
    run sections "$1"
    expect_status 0
    sed -n 's/\r.*//; s/^\[\([^]]*\).*/\1/p' "$1" | cmp -s - "$work/out" || fail "$1: other sections"
    mapfile -t sections <"$work/out"
    for section in "${sections[@]:0:6}"; do
        run keys "$1" "$section"
        expect_status 0
        by_rules "$1" "$section" | cmp -s - "$work/out" || fail "$1: [$section] has other keys"
        mapfile -t keys <"$work/out"
        for key in "${keys[@]:0:6}"; do
            grep -qiF -- "$key=" "$1" || continue
            value=$("$rmini" get -q "$1" "$section" "$key") || fail "$1: [$section] lacks $key"
            grep -qF -- "=$value" "$1" || fail "$1: $value is no value"
        done
    done
    cp "$1" f.ini
    chmod u+w f.ini
    [ -z "$(tail -c 1 f.ini)" ] || echo >>f.ini
    cp f.ini "$work/before"
    "$rmini" set -i f.ini 'a section of the test' key value || fail "$1: a new section is refused"
    "$rmini" delete f.ini 'a section of the test' || fail "$1: the section cannot be deleted"
    echo | cat "$work/before" - | cmp -s - f.ini || fail "$1: other bytes were changed"
    run check "$1"
    [ "$status" -eq 0 ] || [ "$status" -eq 6 ] || fail "$1: check ends with $status"
}

WorksOnARealisticFile() {
    cat >real.ini <<'END'
;
; Settings of the accounting server.
;
[server]
FileCommit=1
listen = 0.0.0.0
; how many may wait
backlog=64

[ENVIRONMENT]
CATPATH=/srv/accounting
SEG_ALLOC=0

[log]
file=/var/log/accounting.log
level=2
END
    examine real.ini
    cp real.ini f.ini
    run get f.ini environment catpath
    expect_out /srv/accounting
    run set f.ini server FileCommit 0
    expect_status 0
    run set f.ini server timeout 30
    expect_status 4
    run set -i f.ini server timeout 30
    expect_status 0
    run keys f.ini server
    expect_out FileCommit 'listen ' backlog timeout
    run check real.ini
    expect_status 6
    grep -q '^real\.ini:6: .*"listen " \[key-blank\]$' "$work/out" || fail "listen is not reported"
}

WorksOnTheFilesOfTheMachine() {
    local files
    mapfile -t files < <(find /etc /usr/share -type f \( -name '*.ini' -o -name '*.conf' \
        -o -name '*.desktop' \) -size -64k -readable -print0 2>/dev/null |
        xargs -0 -r grep -lE -m 1 '^\[[A-Za-z][^]]*\].?$' 2>/dev/null | sort | head -n 6)
    local file
    for file in "${files[@]}"; do
        # What readers do not get is the matter of other cases.
        if ! grep -qP '\x00' "$file" && [ -z "$(tail -c 1 "$file")" ]; then
            examine "$file"
        fi
    done
}

# ---- completion

# complete_line <word...>: what bash offers for the last word, sorted, in $offered.
complete_line() {
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMPREPLY=()
    _rmini "$rmini" || true # bash does not look at it
    offered=$(printf '%s\n' "${COMPREPLY[@]}" | LC_ALL=C sort | tr '\n' ' ')
}

expect_offered() { [ "$offered" = "$1 " ] || fail "offered \"$offered\" instead of \"$1\""; }

CompletesCommandsOptionsFilesAndNames() {
    set +u # bash calls completions without it
    # shellcheck source=/dev/null
    source "$completion"
    printf '[alpha]\nport=1\nname=x y\n\n[beta two]\nk=1\n' >'my file.ini'
    complete -p rmini | grep -q -- '-F _rmini rmini' || fail "it is not registered"
    complete_line rmini ''
    expect_offered 'check delete get keys recover sections set'
    complete_line rmini se
    expect_offered 'sections set'
    complete_line rmini --
    expect_offered '--check --help --quiet --version'
    complete_line rmini set --d
    expect_offered '--diff --dry-run'
    complete_line rmini get my
    expect_offered 'my file.ini'
    complete_line rmini get 'my\ file.ini' ''
    expect_offered 'alpha beta\ two'
    complete_line rmini get '"my file.ini"' '"be'
    expect_offered 'beta two'
    complete_line rmini -q get --default 1 "'my file.ini'" AL
    expect_offered alpha
    complete_line rmini delete 'my\ file.ini' alpha ''
    expect_offered 'name port'
    complete_line rmini set 'my\ file.ini' alpha name ''
    expect_offered 'x\ y'
    complete_line rmini get 'my\ file.ini' alpha port ''
    expect_offered ''
    printf '[a]\nk=-x\nl=-1\nm=-\n-n=1\n' >f.ini
    complete_line rmini set f.ini a k ''
    expect_offered '-- -x'
    complete_line rmini set f.ini a k '"'
    expect_offered ''
    complete_line rmini set f.ini a k -- ''
    expect_offered -x
    complete_line rmini set f.ini a k -- -
    expect_offered -x
    complete_line rmini set f.ini a l ''
    expect_offered -1
    complete_line rmini set f.ini a m ''
    expect_offered ''
    complete_line rmini get f.ini a ''
    expect_offered '-- -n k l m'
    complete_line rmini check -x ke
    expect_offered key-blank
    complete_line rmini check --ignore = mixed
    expect_offered mixed-ends
    complete_line rmini check 'my\ file.ini' m
    expect_offered 'my file.ini'
    complete_line rmini get none.ini ''
    expect_offered ''
}

run_case
