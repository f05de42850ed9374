#!/usr/bin/env bash
# What the commands of rmini read and change, as its user sees it.
# One case per function; the build registers each as rmini.<Case>.
#
# usage: rmini_test.sh <rmini> <Case> <completion script> <module that makes calls fail>
# shellcheck source-path=SCRIPTDIR source=rmini.sh
. "$(dirname "$0")/rmini.sh"

# ---- get

GetPrintsTheValueAndANewline() {
    file '[server]' 'port=5432' 'name= a b '
    run get f.ini server port
    expect_status 0
    expect_out 5432
    expect_no_err
    run get f.ini server name
    expect_out ' a b '
}

GetComparesNamesWithoutRegardToCase() {
    file '[Server]' 'Port=5432'
    run get f.ini SERVER pORT
    expect_status 0
    expect_out 5432
}

GetCutsTheCarriageReturn() {
    file '[a]\r' 'k=v\r'
    run get f.ini a k
    expect_out v
}

GetTellsAMissingKeyFromAMissingSection() {
    file '[a]' 'k=v'
    run get f.ini a x
    expect_status 1
    expect_err '^rmini: f\.ini:1: \[a\] has no key "x"$'
    expect_no_out
    run get f.ini b x
    expect_status 1
    expect_err '^rmini: f\.ini: there is no section \[b\]$'
    run get -q f.ini b x
    expect_status 1
    expect_no_err
}

GetShowsTheLinesThatLookLikeTheKey() {
    file ' [b]' '[a]' 'k = v' '#j=1' '' 'l=1'
    run get f.ini a k
    expect_status 1
    expect_err '^  line 3 has the key "k ": blanks belong to it\.$'
    run get f.ini a j
    expect_err '^  line 4 has the key "#j": "#" begins no comment\.$'
    run get f.ini a l
    expect_err '^  line 6 has it, behind the empty line 5, which ends the section\.$'
    run get f.ini b k
    expect_err '^  Compare line 1: " \[b\]"; '
    run get f.ini a 'k '
    expect_out ' v'
}

GetSaysWhyALastLineIsNotRead() {
    printf '[a]\nj=1\nk=v' >f.ini
    run get f.ini a k
    expect_status 1
    expect_err '^  line 3 has it, and is not read: no newline ends it\.$'
    printf '[a]\nj=\0\nk=v\n' >f.ini
    run get f.ini a k
    expect_status 1
    expect_err '^  line 3 has it, and is not read: a zero byte ends the file before it\.$'
}

GetSaysThatSectionsAreNamedWithoutBrackets() {
    file '[server]' 'k=1'
    local command
    for command in 'get f.ini [server] k' 'delete f.ini [server]' 'keys f.ini [server]'; do
        # shellcheck disable=SC2086
        run $command
        expect_status 1
        expect_err '^  Names of sections are given without brackets\.$'
    done
    run set f.ini '[server]' k 2
    expect_refused 'could not be read back: ' '^  Names of sections are given without brackets\.$'
    run set f.ini 'server]' k 2
    ! grep -q 'without brackets' "$work/err" || fail "it begins with no bracket"
    run get f.ini other k
    ! grep -q 'without brackets' "$work/err" || fail "it has no bracket"
}

GetShowsAnEntryBeforeTheFirstSection() {
    file 'A=1' ';a=2' 'b =3' '[s]' 'c=4'
    run get f.ini x A
    expect_status 1
    expect_err '^rmini: f\.ini: there is no section \[x\]$'
    expect_err '^  line 1 has the key "A", before the first section: nobody finds it there\.$'
    ! grep -q 'line 2' "$work/err" || fail "a comment is shown"
    run get f.ini s b
    expect_err '^  line 3 has the key "b ", before the first section: nobody finds it there\.$'
    run get f.ini x c
    ! grep -q 'before the first' "$work/err" || fail "it stands in a section"
}

GetNotesAKeyOfAFollowingSection() {
    file '[a]' 'j=1' '[b]' 'k=2'
    run get f.ini a k
    expect_status 0
    expect_out 2
    expect_err '^rmini: f\.ini:4: taken from \[b\]: no empty line ends \[a\] before it$'
    run get -q f.ini a k
    expect_out 2
    expect_no_err
}

GetPrintsTheDefaultOnlyWhenThereIsNoKey() {
    file '[a]' 'k=v' 'empty='
    run get --default 7 f.ini a x
    expect_status 0
    expect_out 7
    run get f.ini b x -d -1
    expect_out -1
    run get f.ini a k --default=7
    expect_out v
    run get -d7 f.ini a empty
    expect_out ''
    run get --default 7 missing.ini a x
    expect_status 3
    expect_no_out
}

GetPrintsALongValueWhole() {
    local length
    for length in 32764 32765 32766 40000; do
        head -c "$length" /dev/zero | tr '\0' x >"$work/long"
        printf '[a]\nk=%s\n[b]\nj=1\n' "$(cat "$work/long")" >f.ini
        run get f.ini a k
        expect_status 0
        if [ "$length" -le 32765 ]; then
            expect_no_err
        else
            expect_err "^rmini: f\\.ini:2: the value has $length bytes: readers get the first 32765 at most\$"
        fi
        printf '\n' >>"$work/long"
        cmp -s "$work/long" "$work/out" || fail "$length bytes came back differently"
    done
}

# ---- sections, keys

ListsSectionsOnePerLine() {
    file 'x=1' '[one]' '; [no]' '[two words]' '' '[one]' '[]'
    run sections f.ini
    expect_status 0
    expect_out one 'two words' one ''
    expect_no_err
}

ListsKeysAndWholeLines() {
    file '[a]' 'k=v=w' ';c=1' 'bare' '' 'l=1' '[b]'
    run keys f.ini a
    expect_status 0
    expect_out k bare
    run keys --values f.ini a
    expect_out k=v=w bare
}

SeparatesListsByZeroBytes() {
    file '[a]' 'k=1' '=2' 'l=3'
    run sections -z f.ini
    printf 'a\0' | cmp -s - "$work/out" || fail "another list of sections"
    run keys -zv f.ini a
    printf 'k=1\0=2\0l=3\0' | cmp -s - "$work/out" || fail "another list of entries"
}

TakesAnEmptyListForNoFailure() {
    file ';nothing' '[a]' '' '[b]'
    run keys f.ini b
    expect_status 0
    expect_no_out
    file ';nothing'
    run sections f.ini
    expect_status 0
    expect_no_out
    run keys f.ini b
    expect_status 1
    expect_err '^rmini: f\.ini: there is no section \[b\]$'
}

ListsMoreThanTheInterfaceHolds() {
    local i
    {
        printf '[a]\n'
        for ((i = 10000; i < 15000; i++)); do printf 'key%d=%d\n' $i $i; done
        printf '\nno=1\n'
        for ((i = 10000; i < 15000; i++)); do printf '[section%d]\n' $i; done
    } >f.ini
    run keys f.ini a
    expect_status 0
    cmp -s <(seq -f 'key%.0f' 10000 14999) "$work/out" || fail "another list of keys"
    run keys -v f.ini a
    cmp -s <(seq 10000 14999 | sed 's/.*/key&=&/') "$work/out" || fail "another list of entries"
    run sections f.ini
    cmp -s <(echo a; seq -f 'section%.0f' 10000 14999) "$work/out" || fail "another list of sections"
}

# ---- set

SetReplacesAnEntryAtItsPlace() {
    file '[a]' 'K=1' 'l=2' '' '[b]' 'k=3'
    run set f.ini a k 9
    expect_status 0
    expect_no_out
    expect_no_err
    expect_file '[a]' 'k=9' 'l=2' '' '[b]' 'k=3'
    expect_files f.ini
}

SetAddsToTheLastSection() {
    file '[a]' 'k=1' '[b]' 'k=3'
    run set f.ini b new 'two words'
    expect_status 0
    expect_file '[a]' 'k=1' '[b]' 'k=3' 'new=two words'
}

SetAddsBeforeALineThatBeginsWithWhiteSpace() {
    file '[a]' 'k=1' ' ' '' '[b]'
    run set f.ini a new 2
    expect_status 0
    expect_file '[a]' 'k=1' 'new=2' ' ' '' '[b]'
}

SetAddsASection() {
    file '[a]' 'k=1'
    run set f.ini b k 2
    expect_status 0
    expect_file '[a]' 'k=1' '' '[b]' 'k=2'
}

SetKeepsCrLf() {
    file '[a]\r' 'k=1\r' '\r' '[b]\r' 'k=2\r'
    run set f.ini a k 9
    run set f.ini a new 8
    run set f.ini b last 7
    expect_status 0
    expect_file '[a]\r' 'k=9\r' 'new=8\r' '\r' '[b]\r' 'k=2\r' 'last=7\r'
    run get f.ini b last
    expect_out 7
}

SetEndsAnUnfinishedCrLfFileLikeItsLines() {
    printf '[a]\r\nk=1' >f.ini
    run set f.ini a l 2
    expect_status 0
    expect_file '[a]\r' 'k=1' 'l=2\r'
}

SetTakesAnyValueThatReadsBack() {
    local value
    for value in '' ' ' '=' 'a=b;c' '[x]' ';' -1 $'\t' $'\x80\xff' "it's \"x\""; do
        file '[a]' 'k=1'
        run set f.ini a k "$value"
        expect_status 0
        run get f.ini a k
        expect_out "$value"
    done
    run set -- f.ini a k --quiet
    expect_status 0
    run get f.ini a k
    expect_out --quiet
}

SetReadsAValueFromStandardInput() {
    file '[a]' 'k=1'
    printf 'from elsewhere\n' | "$rmini" set f.ini a k -
    expect_file '[a]' 'k=from elsewhere'
    printf '%s' '-' | "$rmini" set f.ini a k -
    expect_file '[a]' 'k=-'
    : | "$rmini" set f.ini a k -
    expect_file '[a]' 'k='
    cp f.ini "$work/before"
    status=0
    printf 'two\nlines\n' | "$rmini" set f.ini a k - >"$work/out" 2>"$work/err" || status=$?
    expect_refused 'the value "two\?lines" could not be read back'
    status=0
    printf 'a\0b' | "$rmini" set f.ini a k - >"$work/out" 2>"$work/err" || status=$?
    expect_refused 'could not be read back: it must not hold .* a zero byte$'
    status=0
    "$rmini" set f.ini a k - >"$work/out" 2>"$work/err" <&- || status=$?
    expect_status 3
    expect_err '^rmini: cannot read standard input: '
    expect_unchanged
}

SetTakesAValueAsLongAsReadersDo() {
    local length
    for length in 32764 32765; do
        file '[a]' 'k=1'
        head -c "$length" /dev/zero | tr '\0' y >"$work/long"
        "$rmini" set f.ini a k - <"$work/long" 2>"$work/err"
        expect_no_err
        run get f.ini a k
        cmp -s "$work/out" <(cat "$work/long" && echo) || fail "another value came back"
        run check f.ini
        expect_status 0
    done
}

RefusesAValueThatReadersWouldCutOff() {
    local length
    for length in 32766 40000; do
        file '[a]' 'k=1'
        status=0
        head -c "$length" /dev/zero | tr '\0' y | "$rmini" set f.ini a k - >"$work/out" 2>"$work/err" ||
            status=$?
        expect_refused "^rmini: the value of $length bytes could not be read back: readers take 32765 at most\$"
    done
}

SetWritesNothingWhenTheEntryIsThere() {
    file '[a]' 'k=1'
    local number
    number=$(stat -c %i f.ini)
    run set f.ini a k 1
    expect_status 0
    [ "$(stat -c %i f.ini)" = "$number" ] || fail "the file was replaced"
}

SetNotesAnEntryThatStaysBehind() {
    file '[a]' 'k=1' 'k=2'
    run set f.ini a k 3
    expect_status 0
    expect_err '^rmini: f\.ini:3: "k" stands here too, and stays behind the entry that is set$'
    expect_file '[a]' 'k=3' 'k=2'
}

SetNotesAnEntryThatItDoesNotReplace() {
    file '[a]' 'j=1' ' ' 'k=1' 'j =2'
    local note='"k" stands here too, behind a line that begins with white space: it is not replaced'
    run set --dry-run f.ini a k 2
    expect_status 0
    expect_err "^rmini: f\\.ini:4: $note, and not read\$"
    expect_unchanged
    run set f.ini a k 2
    expect_status 0
    expect_err "^rmini: f\\.ini:5: $note, and not read\$"
    expect_file '[a]' 'j=1' 'k=2' ' ' 'k=1' 'j =2'
    run get f.ini a k
    expect_out 2
}

SetAddsNoSecondEntryWhereReadersFindTheValue() {
    file '[a]' 'j=1' ' ' 'k=1'
    run set f.ini a k 1
    expect_status 0
    expect_no_err
    expect_unchanged
    run set f.ini a K 1
    expect_file '[a]' 'j=1' 'K=1' ' ' 'k=1'
    file '[a]' 'j=1' ' ' '[b]' 'k=1'
    run set f.ini a k 1
    expect_status 0
    expect_file '[a]' 'j=1' 'k=1' ' ' '[b]' 'k=1'
}

SetNotesAKeyThatDiffersByBlanksAlone() {
    file '[a]' 'k = 1' '[b]' 'k = 1'
    run set f.ini a k 3
    expect_refused '^  line 2 has the key "k ": blanks belong to it\.$'
    run set f.ini b k 3
    expect_status 0
    expect_err '^rmini: f\.ini:4: "k " is another key than "k": blanks belong to it$'
    run set -q f.ini b 'k ' ' 3'
    expect_no_err
    expect_file '[a]' 'k = 1' '[b]' 'k = 3' 'k=3'
}

SetChangesTheTargetOfALink() {
    mkdir far
    printf '[a]\nk=1\n' >far/real.ini
    ln -s far/real.ini link.ini
    run set link.ini a k 2
    expect_status 0
    [ -L link.ini ] || fail "the link is gone"
    [ "$(cat far/real.ini)" = $'[a]\nk=2' ] || fail "the target was not changed"
    [ "$(ls -A far)" = real.ini ] || fail "left in the target's directory: $(ls -A far)"
}

SetKeepsPermissions() {
    file '[a]' 'k=1'
    chmod 640 f.ini
    run set f.ini a k 2
    [ "$(stat -c %a f.ini)" = 640 ] || fail "other permissions"
}

SetWorksWithAnyPath() {
    mkdir -p 'two words/-x'
    printf '[a]\nk=1\n' >'two words/-x/[%s]*.ini'
    run set 'two words/-x/[%s]*.ini' a k 2
    expect_status 0
    run get 'two words/-x/[%s]*.ini' a k
    expect_out 2
    run get 'two words/-x/[%s]*.ini' a x
    expect_err '^rmini: two words/-x/\[%s\]\*\.ini:1: '
    printf '[a]\nk=1\n' >-
    run set ./- a k 3
    expect_status 0
    run get -- ./- a k
    expect_out 3
}

# ---- set that is refused, and what can be done

RefusesASetThatWouldBeLost() {
    file '[a]' 'k=1' '[b]' 'k=2'
    run set f.ini a new 3
    expect_refused '^rmini: f\.ini:3: not set: the entry would be lost$' \
        '^  \[a\] of line 1 has no key "new"\.' 'none before \[b\] of line 3\.$' \
        '^  Put a line of one blank before line 3, or use --insert, which writes it behind line 2\.$'
}

TheAdviceOfARefusalHelps() {
    file '[a]' 'k=1' '' '[b]' 'k=2'
    run set f.ini a new 3
    expect_refused 'Put a line of one blank before line 3,'
    sed -i '3i\ ' f.ini
    run set f.ini a new 3
    expect_status 0
    expect_file '[a]' 'k=1' 'new=3' ' ' '' '[b]' 'k=2'
}

RefusesASetBehindAnEmptyLine() {
    file '[a]' 'k=1' '' 'j=2'
    run set f.ini a new 3
    expect_refused '^rmini: f\.ini:3: not set: the entry would not be found$' \
        '^  The line is empty, which ends \[a\] of line 1 for readers, and the entry would stand in line 5\.$' \
        'use --insert, which writes it behind line 2\.$'
    run set f.ini a j 3
    expect_refused 'the entry would stand in line 4\.$'
}

RefusesASetBehindAZeroByte() {
    file '[a]' 'k=\0' 'j=2'
    run set f.ini a new 3
    expect_refused '^rmini: f\.ini:2: not set: the entry would not be found$' 'zero byte'
}

RefusesASetThatReadersLookForElsewhere() {
    file '[a\r' '[b]' 'k=2'
    run set f.ini a new 3
    expect_refused '^rmini: f\.ini:1: not set: the entry would not be found$' \
        'readers look for it below this line'
}

RefusesNamesAndValuesThatCannotBeReadBack() {
    file '[a]' 'k=1'
    local name
    for name in '' 'x]' $'x\ny' $'x\ry'; do
        run set f.ini "$name" k 1
        expect_refused '^rmini: the section ".*" could not be read back: '
    done
    for name in '' 'x=y' ';x' '[x' ' x' $'\tx' $'x\ny' $'x\ry'; do
        run set f.ini a "$name" 1
        expect_refused '^rmini: the key ".*" could not be read back: '
    done
    for name in $'x\ny' $'x\ry'; do
        run set f.ini a k "$name"
        expect_refused '^rmini: the value ".*" could not be read back: '
    done
}

InsertFindsAPlaceBehindTheLastEntry() {
    file '[a]' 'k=1' 'K=2' 'l=3' ';c=1' '' 'm=4' '[b]' 'k=5'
    run set --insert f.ini a new 6
    expect_status 0
    expect_file '[a]' 'k=1' 'K=2' 'l=3' 'new=6' ';c=1' '' 'm=4' '[b]' 'k=5'
    run get f.ini a new
    expect_out 6
    expect_no_err
}

InsertDoesNotStandOnARepeatedKey() {
    file '[a]' 'k=1' 'K=2' '[b]'
    run set --insert f.ini a new 6
    expect_status 0
    expect_file '[a]' 'k=1' 'new=6' 'K=2' '[b]'
}

InsertKeepsTheEntryThatItStandsOnToTheByte() {
    file '[a]\r' 'Key= v \r' '[b]\r'
    run set -i f.ini a new 6
    expect_status 0
    expect_file '[a]\r' 'Key= v \r' 'new=6\r' '[b]\r'
}

InsertIsRefusedWhereNothingHelps() {
    file '[a]' ';k=1' '' '[b]' 'k=5'
    run set --insert f.ini a new 6
    expect_refused '^  Put a line of one blank before line 3\.$'
}

InsertDoesWhatSetDoesWhereThatSucceeds() {
    file '[a]' 'k=1' ' ' '' '[b]'
    run set --insert f.ini a new 2
    expect_file '[a]' 'k=1' 'new=2' ' ' '' '[b]'
}

# ---- create

CreatesAFile() {
    run set f.ini a k 1
    expect_status 3
    expect_err '^rmini: cannot open f\.ini: it does not exist; --create makes it$'
    expect_files
    run set --create f.ini a k 1
    expect_status 0
    expect_file '' '[a]' 'k=1'
    expect_files f.ini
    run set --create f.ini a l 2
    expect_file '' '[a]' 'k=1' 'l=2'
}

CreatesNothingWhenTheSetIsRefusedOrFails() {
    run set --create f.ini a 'x=y' 1
    expect_status 4
    expect_files
    run_with rename set --create f.ini a k 1
    expect_status 5
    run recover f.ini
    expect_status 0
    expect_file '' '[a]' 'k=1'
    rm f.ini
    run_with remove set --create f.ini a k 1
    expect_status 5
    expect_files _temp_.ini
}

DoesNotCreateDirectoriesOrTheTargetsOfLinks() {
    run set --create no/f.ini a k 1
    expect_status 3
    expect_err '^rmini: cannot open no/f\.ini: No such file or directory$'
    ln -s nowhere.ini link.ini
    run set --create link.ini a k 1
    expect_status 3
    expect_err '^rmini: cannot open link\.ini: a symbolic link to a file that is not there$'
    expect_files link.ini
}

# ---- delete

DeletesAllEntriesWithTheKey() {
    file '[a]' 'k=1' 'K=2' 'l=3' '' 'k=4' '[b]' 'k=5'
    run delete f.ini a k
    expect_status 0
    expect_no_out
    expect_no_err
    expect_file '[a]' 'l=3' '' '[b]' 'k=5'
}

DeletesASection() {
    file '[a]' 'k=1' '' '[b]' 'k=2' '' '[c]'
    run delete f.ini B
    expect_status 0
    expect_no_err
    expect_file '[a]' 'k=1' '' '[c]'
}

DeletesNothingThatIsNotThere() {
    file '[a]' 'k=1'
    run delete f.ini a x
    expect_status 1
    expect_err '^rmini: f\.ini:1: \[a\] has no key "x"$'
    run delete f.ini b
    expect_status 1
    expect_err '^rmini: f\.ini: there is no section \[b\]$'
    expect_unchanged
    run -q delete f.ini b
    expect_status 1
    expect_no_err
}

DeleteNotesWhatReadersFindNow() {
    file '[a]' 'k=1' '[b]' 'k=2'
    run delete f.ini a k
    expect_status 0
    expect_err '^rmini: f\.ini:3: a reader finds "k" here now: '
    file '[a]' 'k=1' '[a]' 'k=2'
    run delete f.ini a
    expect_status 0
    expect_err '^rmini: f\.ini:1: another section \[a\] stands here, which readers find now$'
}

# ---- diff

DryRunPrintsTheDiffAndChangesNothing() {
    file '[a]' 'k=1' 'l=2' 'm=3' 'n=4' 'o=5'
    run set --dry-run f.ini a k 9
    expect_status 0
    expect_out '--- f.ini' '+++ f.ini' '@@ -1,5 +1,5 @@' ' [a]' -k=1 +k=9 ' l=2' ' m=3' ' n=4'
    run delete -n f.ini a o
    expect_status 0
    expect_out '--- f.ini' '+++ f.ini' '@@ -3,4 +3,3 @@' ' l=2' ' m=3' ' n=4' -o=5
    expect_unchanged
    run set -nc new.ini a k 9
    expect_out '--- new.ini' '+++ new.ini' '@@ -0,0 +1,3 @@' + '+[a]' +k=9
    expect_files f.ini
}

DryRunHasTheStatusOfTheChange() {
    file '[a]' 'k=1' '[b]'
    run set --dry-run f.ini a new 1
    expect_status 4
    run delete --dry-run f.ini a new
    expect_status 1
    run set --dry-run f.ini a k 1
    expect_status 0
    expect_no_out
}

DiffPrintsTheChangeThatWasMade() {
    printf '[a]\nk=1' >f.ini
    run set --diff f.ini a l 2
    expect_status 0
    expect_out '--- f.ini' '+++ f.ini' '@@ -1,2 +1,3 @@' ' [a]' -k=1 '\ No newline at end of file' \
        +k=1 +l=2
    expect_file '[a]' 'k=1' 'l=2'
}

ThePlanIsWhatTheLibraryDoes() {
    local pieces=('[a]' '[b]' '[c' '[A] x' ' [a]' 'k=1' 'K=2' 'j =3' ';k=4' '#x=5' '' '' ' ' 'bare'
        '=6' 'k=7\r' '\r')
    local i n lines status_of_plan
    RANDOM=4711
    for ((i = 0; i < 40; i++)); do
        lines=()
        for ((n = RANDOM % 9; n > 0; n--)); do
            lines+=("${pieces[RANDOM % ${#pieces[@]}]}")
        done
        file "${lines[@]}"
        [ $((RANDOM % 4)) -ne 0 ] || truncate -s "-$((${#lines[@]} > 0))" f.ini
        local keys=(k j x) sections=(a b c) arguments
        local section=${sections[RANDOM % 3]} key=${keys[RANDOM % 3]}
        case $((RANDOM % 4)) in
        0) arguments=(delete f.ini "$section" "$key") ;;
        1) arguments=(delete f.ini "$section") ;;
        2) arguments=(set --insert f.ini "$section" "$key" new) ;;
        3) arguments=(set f.ini "$section" "$key" new) ;;
        esac
        cp f.ini "$work/before"
        run "${arguments[@]}" --dry-run
        status_of_plan=$status
        tail -n +3 "$work/out" | grep '^[-+]' | sort >"$work/planned" || true
        run "${arguments[@]}"
        expect_status "$status_of_plan"
        diff -U0 "$work/before" f.ini | tail -n +3 | grep '^[-+]' | sort >"$work/made" || true
        cmp -s "$work/planned" "$work/made" || fail "${arguments[*]}: $(cat "$work/planned")"
        [ "$status" -eq 0 ] || expect_unchanged
        if [ "$status" -eq 0 ] && [ "${arguments[0]}" = set ]; then
            run get f.ini "$section" "$key"
            expect_out new
        fi
    done
}

run_case
