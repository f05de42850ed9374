#!/usr/bin/env bash
# What rmini check reports.
# One case per function; the build registers each as rmini.<Case>.
#
# usage: rmini_check_test.sh <rmini> <Case> <completion script> <module that makes calls fail>
# shellcheck source-path=SCRIPTDIR source=rmini.sh
. "$(dirname "$0")/rmini.sh"

# ---- check

CheckFindsNothingInAGoodFile() {
    file '; settings' '[a]' 'k=1' ' ' '' '[b]' 'k=2'
    run check f.ini
    expect_status 0
    expect_no_out
    expect_no_err
    file '[a]\r' 'k=1\r' '\r' '[b]\r' 'k=2\r'
    run check f.ini
    expect_status 0
}

CheckReportsBlanksAroundTheEqualsSign() {
    file '[a]' 'k = v'
    run check f.ini
    expect_finding key-blank 2 'it is "k "'
    expect_finding value-blank 2 'begins with a blank'
    file '[a]' '\tk=v'
    run check f.ini
    expect_finding key-blank 2 'blanks belong to the key'
    file '[a]' '=v'
    run check f.ini
    expect_finding key-blank 2 'the key is empty'
}

CheckReportsValuesThatReadersCutOff() {
    local long
    long=$(head -c 32765 /dev/zero | tr '\0' x)
    printf '[a]\nk=%s\n' "$long" >f.ini
    run check f.ini
    expect_status 0
    printf '[a]\nj=1\nk=%sx\n' "$long" >f.ini
    run check f.ini
    expect_finding value-long 3 'the value has 32766 bytes: readers get the first 32765 at most'
    run check -x value-long f.ini
    expect_status 0
}

CheckReportsDuplicates() {
    file '[a]' 'k=1' 'K=2' ' ' '' '[b]' 'k=3' ' ' '' '[A]' 'l=1'
    run check f.ini
    expect_finding duplicate-key 3 'line 2 already'
    expect_finding duplicate-section 10 '\[A\] begins in line 1 already'
}

CheckReportsWhereASearchRunsOn() {
    file '[a]' 'k=1' ' ' '[b]' 'k=2'
    run check f.ini
    expect_finding runs-on 4 '\[a\] of line 1 '
}

CheckReportsSectionsWithoutRoom() {
    file '[a]' 'k=1' '' '[b]' 'k=2'
    run check f.ini
    expect_finding no-room 1 \
        'a new key would be lost: put a line of one blank behind the last entry, before \[b\] of line 4'
    file '[b]' 'k=2' ''
    run check f.ini
    expect_finding no-room 1 'a new key would not be found: line 3 is empty and ends the section'
    file '[b\r' 'k=2'
    run check f.ini
    expect_finding no-room 1 'a new key would not be found: it would stand where readers do not look'
}

CheckReportsLinesThatAreNoEntries() {
    file '[a]' 'bare' '# text' '#k=1' ' [b]' ' ; c'
    run check -x hash-comment,indented f.ini
    expect_finding no-equals 2 'no entry'
    run check -x indented f.ini
    grep -q '^f\.ini:3: "#" begins no comment \[hash-comment\]$' "$work/out" || fail "line 3"
    grep -q '^f\.ini:4: .* its key is "#k" \[hash-comment\]$' "$work/out" || fail "line 4"
    run check f.ini
    grep -q '^f\.ini:5: .*no header \[indented\]$' "$work/out" || fail "line 5"
    grep -q '^f\.ini:6: .*no comment \[indented\]$' "$work/out" || fail "line 6"
}

CheckReportsBadHeaders() {
    file '[a] ; text' 'k=1' ' ' '' '[b' 'k=1'
    run check f.ini
    expect_finding header-text 1 'is ignored'
    expect_finding header-open 5 'no "\]"'
}

CheckReportsEntriesThatNobodyFinds() {
    file 'x=1' '[a]' 'k=1' ' ' '' 'l=1' 'm=1' '[b]'
    run check f.ini
    expect_finding before-section 1 '"x" stands before the first section'
    expect_finding behind-empty 6 '"l" and 1 more are not found: the empty line 5 ends \[a\]'
    file 'x=1'
    run check f.ini
    expect_finding before-section 1 '"x"'
}

CheckReportsALastLineWithoutANewline() {
    printf '[a]\nk=1' >f.ini
    run check f.ini
    expect_finding no-newline 2 'not read'
    { printf '[a]\nj=%0505d\n' 1 && printf 'k=1'; } >f.ini # the line begins a block
    run get f.ini a k
    expect_status 0
    run check f.ini
    expect_finding no-newline 3 'read only as long as'
}

CheckReportsBytesThatReadersStumbleOver() {
    file '[a]' 'k=\0' 'l=1'
    run check f.ini
    expect_finding zero-byte 2 'end of the file; nothing behind it is read or checked'
    file '[a]' ' k=\0' 'l = 2' '[b] x'
    run check f.ini
    expect_finding key-blank 2 'the key'
    [ "$(grep -c '^f\.ini:[34]:' "$work/out")" -eq 0 ] || fail "more was checked"
    file '\xef\xbb\xbf[a]' 'k=1'
    run check f.ini
    expect_finding byte-order-mark 1 'no*ne'
    file '[a]' 'k=1\r2'
    run check f.ini
    expect_finding lone-return 2 'inside of the line'
}

CheckReportsMixedLineEnds() {
    file '[a]' 'k=1\r' 'l=1'
    run check f.ini
    expect_finding mixed-ends 2 'CR LF, and the lines before it with LF'
    file '[a]\r' 'k=1' 'l=1\r'
    run check f.ini
    expect_finding mixed-ends 2 'LF alone, and the lines before'
}

CheckReportsALeftOverFile() {
    file '[a]' 'k=1'
    printf '[a' >_temp_.ini
    run check f.ini
    expect_status 6
    grep -q "^f\\.ini: $PWD/_temp_\\.ini stands beside it, .* \\[left-over\\]$" "$work/out" ||
        fail "it is not reported"
    run check --ignore left-over f.ini
    expect_status 0
}

CheckIgnoresAndIsQuietWhenAsked() {
    file '[a]' 'k = v'
    run check -x key-blank --ignore=value-blank f.ini
    expect_status 0
    expect_no_out
    run check -q f.ini
    expect_status 6
    expect_no_out
    run check -x nonsense f.ini
    expect_status 2
    expect_err '^rmini: --ignore: there is no kind "nonsense"'
}

CheckLooksAtEveryFile() {
    printf '[a]\nk = v\n' >b.ini
    printf '[a]\nk=v\n' >good.ini
    run --check good.ini b.ini
    expect_status 6
    grep -q '^b\.ini:2: ' "$work/out" || fail "b.ini is missing"
    run check missing.ini b.ini good.ini
    expect_status 3
    run check b.ini missing.ini good.ini
    expect_status 3
    expect_err '^rmini: cannot open missing\.ini: No such file or directory$'
    grep -q '^b\.ini:2: ' "$work/out" || fail "b.ini is missing"
    ! grep -q good "$work/out" || fail "good.ini has no findings"
}

EveryKindIsCompletedAndDocumented() {
    local kinds kind manual
    manual=$(dirname "$completion")/rmini.1
    kinds=$(sed -n "/kinds='/,/'\$/p" "$completion" | tr -d "'" | sed 's/.*kinds=//')
    [ "$(wc -w <<<"$kinds")" -eq 20 ] || fail "not all kinds are completed"
    file '[a]'
    for kind in $kinds; do
        run check -x "$kind" f.ini
        expect_status 0
        grep -q "^\\.It $kind\$" "$manual" || fail "the manual lacks $kind"
    done
}

run_case
