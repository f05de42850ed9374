#!/usr/bin/env bash
# What rmheap finds in a log, and the figures that it makes of it.
# One case per function; the build registers each as rmheap.<Case>.
#
# usage: rmheap_test.sh <rmheap> <Case> <completion script> <host> <checker>
# shellcheck source-path=SCRIPTDIR source=rmheap.sh
. "$(dirname "$0")/rmheap.sh"

# ---- finding reports

ReadsALogWithStamps() {
    sound 'after the import'
    run f.log
    expect_status 0
    expect_no_err
    expect_line '^after the import$'
    expect_line '^report 1 of 1, f\.log:1, 07-Mar-96 14:05:09$'
    expect_row 'TAG NAME BYTES BLOCKS SEGS FREE LARGEST FRAG LIMIT'
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
    expect_row '1 tag 72 2 1 128 128 0%'
}

ReadsALogWithoutStamps() {
    stamp=
    sound 'after the import'
    run f.log
    expect_status 0
    expect_line '^after the import$'
    expect_line ', no time given$'
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
}

ReadsStandardInput() {
    sound
    status=0
    "$rmheap" <f.log >"$work/out" 2>"$work/err" || status=$?
    expect_status 0
    expect_line '^report 1 of 1, standard input:1,'
    status=0
    "$rmheap" - <f.log >"$work/out" 2>"$work/err" || status=$?
    expect_status 0
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
}

ReadsALogThatACollectorPutPrefixesTo() {
    stamp='2026-03-07T14:05:09Z host server[12]: [07-Mar-96 14:05:09]  '
    sound 'a title'
    run f.log
    expect_status 0
    expect_line '^a title$'
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
}

ReadsStampsInAnyLanguage() {
    stamp='[07-Mär-96 14:05:09]  '
    sound
    run f.log
    expect_status 0
    expect_line ', 07-Mär-96 14:05:09$'
}

ReadsLinesThatEndWithACarriageReturn() {
    sound
    sed -i 's/$/\r/' f.log
    run f.log
    expect_status 0
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
}

ReadsALogThatBeginsWithZeroBytes() {
    sound
    { head -c 5000 /dev/zero && cat f.log; } >g.log
    run g.log
    expect_status 0
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
}

ReadsALastLineWithoutItsEnd() {
    sound
    truncate -s -1 f.log
    run f.log
    expect_status 0
    expect_row '1 tag 72 2 1 128 128 0%'
}

ReadsAddressesOfAnyWidth() {
    segment yes '    00001018       128 (1) free' '    1098        24 (1)' '    0X10B0        48 (1)'
    sed -i 's/0x1000 /00001000 /' f.log
    run f.log
    expect_line ' 128 +128 +0%'
    rm f.log
    segment yes '    0x1018       128 (1) free' '    0x1098        24 (1)' '    0x10b0        48 (1)'
    sed -i 's/0x1/0xffffffffffff1/' f.log
    run f.log
    expect_row '1 sessions 72 2 1 128 128 0%'
}

LinesOfOtherProcessesStandInBetween() {
    sound
    local line
    while IFS= read -r line; do
        printf '%s\n' "$line"
        [[ $line == *'REPORT--'* ]] || printf '%s\n' "${stamp}WARNING: attempting to free bad pointer" \
            'TOTALLY: different' "${stamp}SEGMENT of a road" '    0x99 is an address' '[x]' '' \
            "${stamp}TAG"
    done <f.log >g.log
    run g.log
    expect_status 0
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
    expect_no_line DOUBTFUL
}

TakesTheLastCompleteReport() {
    sound first
    table second
    heading third
    log 'TAG 1(  sessions): limit=-1, allocated=72'
    run f.log
    expect_status 0
    expect_line '^second$'
    expect_line '^report 2 of 3, f\.log:18, .*, the last complete one$'
    expect_line '^Report 3 is newer and cut; see it with --report=3\.$'
}

TakesAReportThatWasAskedFor() {
    sound first
    table second
    run --report=1 f.log
    expect_status 0
    expect_line '^first$'
    expect_line '^report 1 of 2, f\.log:1, 07-Mar-96 14:05:09$'
    run -r3 f.log
    expect_status 1
    expect_no_out
    expect_err '^rmheap: there is no report 3, only 2$'
}

AReportOfNothingIsListedAndNeverTaken() {
    sound first
    closing
    run f.log
    expect_status 0
    expect_line '^first$'
    run --list f.log
    expect_status 0
    expect_row 'NO TIME STATE TAGS BYTES TITLE'
    expect_row '1 07-Mar-96 14:05:09 complete 1 72 first'
    expect_row '2 07-Mar-96 14:05:09 empty - -'
    : >f.log
    closing
    run f.log
    expect_status 1
    expect_err '^rmheap: there is no memory report with anything in it$'
}

ALogWithoutAReportIsSaidToBeOne() {
    log 'WARNING: attempting to free bad pointer, 0x1234'
    run f.log
    expect_status 1
    expect_no_out
    expect_err '^rmheap: there is no memory report$'
    run --list f.log
    expect_status 1
    expect_err '^rmheap: there is no memory report$'
}

ListsReportsWithTheirStates() {
    table whole
    heading begun
    log 'TAG 1(  sessions): limit=-1, allocated=72'
    heading broken
    log 'WARNING: Tag byte count, 4 mismatch with counted blocks, 5'
    closing
    heading wrong
    log 'TAG  1(  sessions):     4000/   50 :     4168/    3 :   1' \
        'TOTAL :     5000/   50 :     4168/    3 :   1'
    closing
    run --list f.log
    expect_status 0
    expect_row '1 07-Mar-96 14:05:09 complete 3 5,000 whole'
    expect_line '^ +2  07-Mar-96 14:05:09  cut .* begun$'
    expect_line '^ +3  07-Mar-96 14:05:09  damaged .* broken$'
    expect_line '^ +4  07-Mar-96 14:05:09  doubtful .* wrong$'
}

AReportGoesOnInTheNextFile() {
    sound whole
    split -l 7 f.log part.
    run part.*
    expect_status 0
    expect_line '^report 1 of 1, part\.aa:1,'
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
    expect_no_line DOUBTFUL
}

AFileThatCannotBeReadLeavesTheOthers() {
    sound
    run missing.log f.log .
    expect_status 2
    expect_err '^rmheap: cannot open missing\.log: No such file or directory$'
    expect_err '^rmheap: cannot read \.: Is a directory$'
    expect_row '1 sessions 72 2 1 128 128 0% 65,536'
}

FailureGoesBeforeDamageAndDamageBeforeDoubt() {
    heading
    log 'WARNING: Tag byte count, 4 mismatch with counted blocks, 5'
    run f.log
    expect_status 3
    expect_line '^DOUBTFUL: '
    run missing.log f.log
    expect_status 2
}

# ---- what a report does not say

TheTableAloneHasNoSegments() {
    table
    run f.log
    expect_status 0
    expect_row '1 sessions 4,000 50 1 4,168 - -'
    expect_row '2 cache 1,000 2 1 7,168 7,168 0%'
    expect_row '0 0 0 0 0 0 0%'
    expect_row '3 tags 5,000 52 2 11,336 - -'
    expect_line '^The report has the summary table alone: segments and blocks are not listed\.$'
    expect_line '^The largest free block is known where there is at most one, otherwise "-"\.$'
}

TotalsAloneAreShownAlone() {
    heading
    log 'TOTAL: 72 allocated bytes in 2 blocks,' '       128 free bytes in 3 blocks' \
        '       System contains 1 active tag'
    closing
    run f.log
    expect_status 0
    expect_row '1 tag 72 2 - 128 - -'
    expect_line '^The report has totals alone, nothing of single tags\.$'
}

DetailWithoutBlocksKnowsALargestBlockOfOne() {
    heading
    log 'TAG 1(  sessions): limit=-1, allocated=72' 'SEGMENT @ 0x1000   size=200' \
        'SEGMENT: 24 allocated bytes in 1 block' '         176 free bytes in 1 block' \
        'SEGMENT @ 0x2000   size=200' 'SEGMENT: 48 allocated bytes in 1 block' \
        '         152 free bytes in 1 block' 'TAG: 72 allocated bytes in 2 blocks,' \
        '     328 free bytes in 2 blocks' '     and contains 2 segments' \
        'TAG 2(     cache): limit=-1, allocated=24' 'SEGMENT @ 0x3000   size=200' \
        'SEGMENT: 24 allocated bytes in 1 block' '         176 free bytes in 2 blocks' \
        'TAG: 24 allocated bytes in 1 block,' '     176 free bytes in 2 blocks' \
        '     and contains 1 segment'
    closing
    run f.log
    expect_status 0
    expect_row '1 sessions 72 2 2 328 176 46%'
    expect_row '2 cache 24 1 1 176 - -'
    expect_row '2 tags 96 3 3 504 - -'
    expect_line '^The report lists no blocks\.$'
}

FreeSpaceIsWhatLiesBetweenUsedBlocks() {
    segment no '    0x1028        24 (1)' '    0x1048        48 (1)'
    sed -i 's/128 free bytes in 1 block/128 free bytes in 3 blocks/' f.log
    run f.log
    expect_status 0
    expect_row '1 sessions 72 2 1 128 104 19%'
    expect_line '^The report does not list free blocks: they are what lies between used ones\.$'
    run --json f.log
    expect_json '.tags[0].segmentList[0].pieces#=5'
    expect_json '.tags[0].segmentList[0].pieces[0][0]="0x1018"'
    expect_json '.tags[0].segmentList[0].pieces[0][1]=16'
    expect_json '.tags[0].segmentList[0].pieces[0][2]="free"'
    expect_json '.tags[0].segmentList[0].pieces[2][1]=8'
    expect_json '.tags[0].segmentList[0].pieces[4][0]="0x1078"'
    expect_json '.tags[0].segmentList[0].pieces[4][1]=104'
}

TheAnchorIsNoBlock() {
    sound
    run --json f.log
    expect_json '.tags[0].freeBlocks=1'
    expect_json '.tags[0].segmentList[0].pieces#=3'
    expect_json '.tags[0].segmentList[0].pieces[0][0]="0x1018"'
}

LimitsAreShownWhenThereIsOne() {
    sound
    sed -i 's/limit=65536/limit=-1/' f.log
    run f.log
    expect_no_line LIMIT
    sed -i 's/limit=-1/limit=-294967296/' f.log
    run f.log
    expect_row '1 sessions 72 2 1 128 128 0% 4,000,000,000'
}

# ---- names

NamesMayHoldAnything() {
    local name
    for name in 'a): limit=7, allocated=9' 'x (y)' '):' 'TAG 2(b): limit=-1, allocated=5' 'a:b/c 1/2' \
        '[07-Mar-96 14:05:09]  z' '  much longer than ten'; do
        rm -f f.log
        heading
        log "$(printf 'TAG %u(%10s): limit=-1, allocated=0' 1 "$name")" \
            "$(printf 'TAG %2d(%10s):        0/    0 :        0/    0 :   0' 1 "$name")"
        closing
        run --json f.log
        expect_status 0
        expect_json ".tags[0].name=\"$name\""
        expect_json .tags#=1
        stamp= && rm f.log && heading title
        log "$(printf 'TAG %u(%10s): limit=-1, allocated=0' 1 "$name")"
        closing
        run --json f.log
        expect_status 0
        expect_json ".tags[0].name=\"$name\""
        stamp='[07-Mar-96 14:05:09]  '
    done
}

ANameMayHoldANewline() {
    heading 'a title'
    log $'TAG 1(    a\nbcde): limit=-1, allocated=0'
    closing
    run --json f.log
    expect_status 0
    expect_json '.tags[0].name="a�bcde"'
}

ANameThatIsCutIsMarked() {
    local name
    name=$(head -c 300 /dev/zero | tr '\0' n)
    heading
    log "TAG 1($name" | head -c 281
    sed -i "s/^\(.*TAG 1(.\{253\}\).*/\1/" f.log
    log 'SEGMENT @ 0x1000   size=200' 'SEGMENT: 24 allocated bytes in 1 block' \
        '         176 free bytes in 1 block' 'TAG: 24 allocated bytes in 1 block,' \
        '     176 free bytes in 1 block' '     and contains 1 segment'
    closing
    run --json f.log
    expect_status 0
    expect_json ".tags[0].name=\"${name:0:253}...\""
    expect_json '.tags[0].bytes=24'
    expect_json '.tags[0].limited=null'
}

BytesThatAreNoCharactersAreReplaced() {
    heading "$(printf '\033[31m\351t\351')"
    log "$(printf 'TAG 1(%s): limit=-1, allocated=0' "$(printf '\302\205\342\200\256\377"\\<x')")"
    closing
    run f.log
    expect_status 0
    ! LC_ALL=C grep -q "$(printf '[\033\302\205\377]x')" "$work/out" || fail "raw bytes are printed"
    expect_line '^�\[31m�t�$'
    run --json f.log
    expect_json '.tags[0].name="���\"\\<x"'
}

OutsideOfUtf8NamesAreAscii() {
    heading 'Übung'
    log 'TAG 1(     größe): limit=-1, allocated=0'
    closing
    LC_ALL=C run f.log
    expect_line '^\?bung$'
    expect_row '1 gr??e 0 0 0 0 0 0%'
}

# ---- damage and doubt

WarningsOfTheLibraryAreDamage() {
    heading
    log 'TAG 1(  sessions): limit=-1, allocated=72' 'SEGMENT @ 0x1000   size=200' \
        'SEGMENT: 24 allocated bytes in 1 block' '         176 free bytes in 1 block' \
        'WARNING: Segment block count, 2 mismatch with counted blocks, 1' \
        'WARNING: Segment unit count, 25 mismatch with counted units, 1000' \
        'WARNING: Tag byte count, 72 mismatch with counted blocks, 24'
    closing
    run f.log
    expect_status 3
    expect_line '^DAMAGED: '
    expect_line '^  tag 1 \(sessions\), segment 0x1000: 2 blocks should be in use, 1 can be found$'
    expect_line '^  tag 1 \(sessions\), segment 0x1000: its size is 8,000 bytes, its blocks make up 200$'
    expect_line '^  tag 1 \(sessions\): its record says 72 bytes in use, its blocks make up 24$'
    run --quiet f.log
    expect_status 3
    expect_no_out
    run --json f.log
    expect_status 3
    expect_json '.damage#=3'
}

ASegmentThatDoesNotLeadToTheNextIsDamage() {
    heading
    log 'TAG 1(  sessions): limit=-1, allocated=24' 'SEGMENT @ 0x1000   size=200' \
        'SEGMENT: 24 allocated bytes in 1 block' '         176 free bytes in 1 block' \
        'WARNING: memory check: tag 1, segment 0x1000: the chain of segments is not as it is kept'
    closing
    run f.log
    expect_status 3
    expect_line '^DAMAGED: '
    expect_line '^  tag 1 \(sessions\), segment 0x1000: its header does not lead to the next segment$'
    run --json f.log
    expect_status 3
    expect_json '.damage#=1'
}

WarningsBelongToTheRowBehindThem() {
    heading
    log '       allocated/blocks     freed/blocks  segs' \
        'TAG  1(  sessions):     4000/   50 :     4168/    3 :   1' \
        'WARNING: Segment block count, 2 mismatch with counted blocks, 1' \
        'TAG  2(     cache):     1000/    2 :     7168/    1 :   1'
    closing
    run f.log
    expect_status 3
    expect_line '^  tag 2 \(cache\), a segment: 2 blocks should be in use, 1 can be found$'
    rm f.log
    heading
    log 'WARNING: Tag byte count, 72 mismatch with counted blocks, 24'
    closing
    run f.log
    expect_status 3
    expect_line '^  a tag: its record says 72 bytes in use, its blocks make up 24$'
}

DamageIsPlacedBehindTheBlockBeforeIt() {
    segment yes '    0x1018       128 (1) free' '    0x1098        24 (1)' \
        '    0x10b0         0 (1) free' '    0x10b8         0 (1) free' '    0x10c0        32 (1)'
    sed -i '/SEGMENT:/i WARNING: Segment block count, 5 mismatch with counted blocks, 2' f.log
    run f.log
    expect_status 3
    expect_line '2 blocks of 0 bytes; first at 0x10b0,'
    tr -s '\n ' ' ' <"$work/out" | grep -q 'behind the used block of 24 bytes at 0x1098' ||
        fail "the block before is not named"
    expect_no_line 'lost'
    run --json f.log
    expect_json '.tags[0].segmentList[0].pieces[2][2]="lost"'
}

BlocksThatDoNotFillTheSegmentAreDoubtful() {
    segment yes '    0x1018       128 (1) free' '    0x10a8        24 (1)' '    0x10b0        48 (1)'
    run f.log
    expect_status 4
    expect_line '^DOUBTFUL: '
    expect_line '1 block overlaps the one before, 1 hole between blocks; first at'
    rm f.log
    segment yes '    0x1018       128 (1) free' '    0x1098        24 (1)' '    0x10b0        56 (1)'
    run f.log
    expect_status 4
    expect_line '1 block reaches out of it; first at 0x10b0'
    rm f.log
    segment yes '    0x1018       100 (1) free' '    0x107c        28 (1) free' \
        '    0x1098        24 (1)' '    0x10b0        48 (1)'
    run f.log
    expect_status 4
    expect_line '1 free block touches another; first at 0x107c'
}

SumsThatDoNotAgreeAreDoubtful() {
    local change
    for change in 's/SEGMENT: 72/SEGMENT: 80/' 's/TAG: 72/TAG: 80/' 's/TOTAL: 72/TOTAL: 80/' \
        's/TAG: 72 allocated bytes in 2/TAG: 72 allocated bytes in 3/' 's/contains 1 s/contains 2 s/' \
        's/contains 1 active/contains 2 active/' 's/ 128 free bytes in 1/ 128 free bytes in 2/' \
        's/allocated=72/allocated=80/' '/    0x1098/d' '/SEGMENT @/d' '/TAG 1(/d'; do
        rm -f f.log
        sound
        sed -i "$change" f.log
        run f.log
        [ "$status" -eq 4 ] || fail "exit status $status for $change"
        expect_line '^DOUBTFUL: '
    done
}

SumsAreComparedAsTheLibraryKeepsThem() {
    heading
    log '       allocated/blocks     freed/blocks  segs' \
        'TAG  1(  sessions): 4294967288/    5 :        0/    0 :   1' \
        'TAG  2(     cache):       16/    1 :        0/    0 :   1' \
        'TOTAL :        8/    6 :        0/    0 :   2'
    closing
    run f.log
    expect_status 0
}

ACutReportIsShownWithAWarning() {
    sound
    head -n 9 f.log >g.log
    run g.log
    expect_status 4
    expect_line '^report 1 of 1, g\.log:1, .*, cut$'
    expect_line '^  the report is cut: its end is missing$'
    expect_line '^ +1  sessions .*65,536'
    sed 1,4d f.log >g.log
    run g.log
    expect_status 4
    expect_line '^  the report is cut: its beginning is missing$'
    expect_row '1 72 2 1 128 128 0%'
}

TwoReportsInOneAnotherAreDoubtful() {
    sound
    cp f.log g.log
    paste -d '\n' f.log g.log >h.log
    run h.log
    expect_status 4
    expect_line 'lines? out of place'
}

ABlockOfAnotherTagIsOutOfPlace() {
    segment yes '    0x1018       128 (1) free' '    0x1098        24 (2)' \
        '    0x1098        24 (1)' '    0x10b0        48 (1)'
    run f.log
    expect_status 4
    expect_line '^  1 line out of place'
    expect_no_line 'overlaps'
}

ALineThatNothingAnnouncedIsOutOfPlace() {
    sound
    sed -i "/SEGMENT @/a $stamp         4 free bytes in 1 block" f.log
    run f.log
    expect_status 4
    expect_line '^  1 line out of place'
    expect_no_line 'its summary says'
}

SegmentsBeyondTheMostAreLeftOut() {
    {
        echo '--------VIRLO MEMORY REPORT--------'
        echo
        echo 'TAG 1(      many): limit=-1, allocated=0'
        yes 'SEGMENT @ 0x1   size=8' | head -n 1048576 || true
        # Of these two, everything.
        echo 'SEGMENT @ 0x2000   size=64'
        echo '    0x2018        24 (1)'
        echo 'SEGMENT: 24 allocated bytes in 1 block'
        echo '         40 free bytes in 1 block'
        echo 'SEGMENT @ 0x3000   size=64'
        echo 'TAG: 24 allocated bytes in 1 block,'
        echo '     40 free bytes in 1 block'
        echo '     and contains 1048578 segments'
        echo 'TAG 2(       few): limit=-1, allocated=0'
        echo 'TAG: 8 allocated bytes in 1 block,'
        echo 'MEMORY REPORT DONE'
    } >f.log
    run f.log
    expect_status 4
    expect_line '^  5 lines of tags, segments and blocks left out: there are too many$'
    expect_line 'tag 1 \(many\), segments: listed are 1,048,576, its total says 1,048,578$'
    expect_line ' few +8 '
    expect_no_line 'out of place'
}

TagsBeyondTheMostAreLeftOut() {
    heading
    # Segments of tags whose first lines are missing, each behind the end of another report.
    yes $'SEGMENT @ 0x1   size=8\nTOTAL :        8/    1 :        0/    0 :   1' |
        head -n $((2 * 65535)) >>f.log || true
    log 'TAG 1(         a): limit=-1, allocated=0' 'SEGMENT @ 0x1000   size=64' \
        'SEGMENT: 24 allocated bytes in 1 block' '         40 free bytes in 1 block'
    # Of the next, everything.
    log 'TAG 2(         b): limit=-1, allocated=24' 'SEGMENT @ 0x2000   size=64' \
        '    0x2018        24 (2)' 'SEGMENT: 24 allocated bytes in 1 block' \
        '         40 free bytes in 1 block' 'TAG: 24 allocated bytes in 1 block,' \
        '     40 free bytes in 1 block' '     and contains 1 segment' \
        'TAG  2(         b):       24/    1 :       40/    1 :   1' \
        'TAG  1(         a):       16/    1 :        0/    0 :   0'
    closing
    run --sort=bytes f.log
    expect_status 4
    expect_line '^  9 lines of tags, segments and blocks left out: there are too many$'
    expect_line '^ +1  a +16 '
    expect_line '^  65,534 lines out of place'
    expect_no_line '^ *2  b'
}

AHeadingIsNoTitle() {
    log '--------VIRLO MEMORY REPORT--------'
    sound 'a title'
    run f.log
    expect_status 0
    expect_line '^a title$'
    expect_line '^report 2 of 2, f\.log:2,'
}

NumbersThatDoNotFitAreNoNumbers() {
    local number
    for number in 4294967296 99999999999999999999999999 0x10 -2147483649; do
        rm -f f.log
        table
        sed -i "s/4000/$number/" f.log
        run f.log
        expect_status 4
        expect_line '1 line cannot be read'
        expect_no_line "$number"
    done
    rm f.log
    sound
    sed -i 's/0x1018/0x11111111111111111/' f.log
    run f.log
    expect_status 4
    expect_no_line 'reaches out'
}

# ---- choosing and comparing

OnlyTheTagsThatWereAskedForAreShown() {
    table
    run --tag=2 f.log
    expect_status 0
    expect_row '2 cache 1,000 2 1 7,168 7,168 0%'
    expect_no_line sessions
    expect_row '1 tag 1,000 2 1 7,168 7,168 0%'
    run -t sessions -t 0 f.log
    expect_status 0
    expect_row '2 tags 4,000 50 1 4,168 - -'
    run --tag=7 f.log
    expect_status 1
    expect_no_out
    expect_err '^rmheap: report 1 has no tag 7$'
}

SortsByTheKey() {
    heading
    log '       allocated/blocks     freed/blocks  segs' \
        'TAG  1(         d):       30/    3 :       90/    9 :   4' \
        'TAG  2(         c):       40/    1 :       70/    1 :   2' \
        'TAG  3(         a):       10/    2 :       80/    1 :   1' \
        'TAG  4(         b):       20/    4 :        0/    0 :   3'
    closing
    local key
    while read -r key order; do
        run --sort="$key" f.log
        expect_status 0
        [ "$(awk '/^  [0-9] /{printf "%s", $1}' "$work/out")" = "$order" ] || fail "sorted by $key"
    done <<'KEYS'
bytes 2143
blocks 4132
free 1324
largest 3241
frag 2341
segments 1423
tag 1234
name 3421
KEYS
    run f.log
    [ "$(awk '/^  [0-9] /{printf "%s", $1}' "$work/out")" = 2143 ] || fail "not sorted by bytes"
}

SizesShowWhatHoldsMost() {
    heading
    log 'TAG 1(  sessions): limit=-1, allocated=200' 'SEGMENT @ 0x1000   size=200' \
        '    0x1018        24 (1)' '    0x1030        48 (1)' '    0x1060        48 (1)' \
        '    0x1090        80 (1)'
    closing
    run --sizes f.log
    expect_row '1 sessions 48 2 96 48%'
    expect_row '80 1 80 40%'
    expect_row '24 1 24 12%'
    run --sizes=1 f.log
    expect_row '1 sessions 48 2 96 48%'
    expect_no_line ' 80 '
    rm f.log
    table
    run -z f.log
    expect_line '^  not known: the report lists no blocks$'
}

CompareShowsWhatGrew() {
    report_of tag:steady get:100:5 tag:leaking get:40:10 report:0x8001:before get:40:30 \
        tag:fresh get:8 report:0x8001:after
    run --compare f.log
    expect_status 0
    expect_line '^From report 1 of 2, f\.log:1, .*: before$'
    expect_line '^to   report 2 of 2, f\.log:[0-9]+, .*: after$'
    tr -s ' ' <"$work/out" | grep -q '^ 2 leaking 496 1,936 +1,440 +30 0 -1,440' || fail "growth"
    tr -s ' ' <"$work/out" | grep -q '^ 3 fresh (new) 0 32 +32 +2 +1 +8,136' || fail "a new tag"
    tr -s ' ' <"$work/out" | grep -q '^ 1 steady 576 576 0 0 0 0' || fail "no growth"
    expect_row '2 leaking 48 +30 +1,440'
    run --compare=2,1 f.log
    tr -s ' ' <"$work/out" | grep -q '^ 2 leaking 1,936 496 -1,440 -30 0 +1,440' || fail "shrinking"
    expect_line 'fresh \(gone\)'
    expect_line '^No size of block grew\.$'
    run --compare=1 --json f.log
    expect_json '.tags[0].name="leaking"'
    expect_json '.tags[0].bytes[1]=1936'
    expect_json '.sizes[0].size=48'
    expect_json '.sizes[0].blocks[0]=10'
}

CompareWantsTwoReports() {
    sound
    run --compare f.log
    expect_status 1
    expect_err '^rmheap: there is no complete memory report before the last one$'
    table
    run --compare f.log
    expect_status 0
    expect_line '^Which sizes of block grew is not known: not both reports list blocks\.$'
    run --compare=1,9 f.log
    expect_status 1
    expect_err '^rmheap: there is no report 9, only 2$'
}

# ---- real reports

EveryKindOfReportIsRead() {
    report_of tag:one get:10:3 get:500 tag:two get:100:40 drop:3 \
        report:0x8001 report:0x8000 report:0x8041 report:0x8005 report:0x10 report:0x50 report:0x40
    local i
    for i in 1 2 3 4 5 6 7; do
        run --report="$i" f.log
        expect_status 0
        expect_line '^  2  two   +3,040 +28 +1 +5,128'
        expect_no_line 'DOUBTFUL|DAMAGED'
    done
    run --report=1 --json f.log
    expect_json '.tags[2].largestFree=3672'
    run --report=2 --json f.log
    expect_json '.tags[2].largestFree=3672'
}

AReportOfOneTagIsRead() {
    report_of tag:one get:10:3 tag:two get:100:4 report:0x8003
    run f.log
    expect_status 0
    expect_row '1 tag 464 5 1 7,704 7,704 0%'
    expect_no_line one
}

BlocksThatAreSegmentsOfTheirOwnAreRead() {
    SEG_ALLOC=1 report_of tag:one get:10:300 report:0x8001
    run f.log
    expect_status 0
    expect_line '^  1  one   +7,216 +301 +301 +0 +0 +0%'
}

AWrittenOverHeaderIsShown() {
    report_of tag:one get:40:20 break:5:0:7 drop:4 report:0x8001
    run f.log
    expect_status 3
    expect_line '^  tag 1 \(one\), segment 0x[0-9a-f]+: [0-9]+ blocks should be in use, [0-9]+ can be found$'
    expect_line '1 free block touches another; first at 0x'
    expect_no_line DOUBTFUL
    rm f.log
    report_of tag:one get:40:20 break:5:1:0 report:0x8001
    run f.log
    expect_status 3
    tr -s '\n ' ' ' <"$work/out" | grep -qE 'behind the used block of 48 bytes at 0x' ||
        fail "the block before is not named"
    rm f.log
    report_of tag:one get:40:20 break:5:1:100000 report:0x8001
    run f.log
    expect_status 3
    expect_line '1 block reaches out of it'
}

run_case
