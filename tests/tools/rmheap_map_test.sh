#!/usr/bin/env bash
# How rmheap shows a heap: the table on a terminal, the map; and its command line.
# One case per function; the build registers each as rmheap.<Case>.
#
# usage: rmheap_map_test.sh <rmheap> <Case> <completion script> <host> <checker>
# shellcheck source-path=SCRIPTDIR source=rmheap.sh
. "$(dirname "$0")/rmheap.sh"

# rectangles <file> <class>: how many of the class the map has.
rectangles() { grep -cE "<rect [^>]*class=\"$2\"" "$1" || true; }

# ---- the table

TheTableFitsTheWidth() {
    report_of tag:'a name that is longer than ten' mixed:300 tag:b:65536 mixed:300 drop:3 report:0x8001
    local width longest
    for width in 80 100 132 200; do
        COLUMNS=$width run f.log
        longest=$(wc -L <"$work/out")
        [ "$longest" -le "$width" ] || fail "$longest columns instead of $width"
        expect_line ' [#]+[.]*$'
    done
    COLUMNS=50 run f.log
    expect_no_line '#'
    expect_line '^TAG NAME '
}

TheWidthIs80WhenNothingTellsIt() {
    sound
    unset COLUMNS
    run f.log
    [ "$(wc -L <"$work/out")" -eq 80 ] || fail "another width"
    local wrong
    for wrong in 0 5 x 99999999999999999999 80x; do
        COLUMNS=$wrong run f.log
        [ "$(wc -L <"$work/out")" -eq 80 ] || fail "another width with COLUMNS=$wrong"
    done
}

BarsAreOfBlockCharactersOnATerminalInUtf8() {
    sound
    on_terminal f.log
    expect_status 0
    expect_line '█+.*░+'
    expect_no_line '#'
    LC_ALL=C on_terminal f.log
    expect_line '#+.*\.+'
    run f.log
    expect_line '#+\.+$'
}

ColoursAreForTerminalsThatWantThem() {
    sound
    on_terminal f.log
    expect_line $'\033''\[1m'
    NO_COLOR=1 on_terminal f.log
    expect_no_line $'\033'
    expect_line '█'
    TERM_OF_CASE=dumb on_terminal f.log
    expect_no_line $'\033'
    run f.log
    expect_no_line $'\033'
}

HumanSizesHaveUnits() {
    heading
    log 'TAG  1(         a):     1023/    3 :     1024/    1 :   4' \
        'TAG  2(         b):    10240/    3 :  1048575/    1 :   4' \
        'TAG  3(         c):  1048576/ 3000 : 3221225472/    1 :   4'
    closing
    run -H f.log
    expect_row '1 a 1023 3 4 1.00K 1.00K 0%'
    expect_row '2 b 10.0K 3 4 1.00M 1.00M 0%'
    expect_row '3 c 1.00M 3,000 4 3.00G 3.00G 0%'
}

FragmentationIsNeverRoundedToAllOrNothing() {
    heading
    log 'TAG 1(         a): limit=-1, allocated=0' 'SEGMENT @ 0x1000   size=100000' \
        'SEGMENT: 16 allocated bytes in 1 block' '         99984 free bytes in 1 block' \
        'SEGMENT @ 0x100000   size=24' 'SEGMENT: 16 allocated bytes in 1 block' \
        '         8 free bytes in 1 block'
    closing
    run f.log
    expect_line ' 99,992 +99,984 +1%'
}

# ---- the map

TheMapShowsEveryBlockToScale() {
    sound 'after the import'
    run --svg=m.svg f.log
    expect_status 0
    expect_line '^The map is in m\.svg$'
    expect_svg m.svg
    expect_text m.svg 'after the import'
    expect_text m.svg sessions
    expect_text m.svg 'A row is 2,048 bytes, 1 px 2 bytes.'
    expect_text m.svg '0x1000 · 200 bytes'
    expect_text m.svg '0x1018: 128 bytes free'
    expect_text m.svg '0x1098: 24 bytes used'
    expect_text m.svg '0x10b0: 48 bytes used'
    grep -q '<rect x="64" width="11.25" height="18" class="a"><title>0x1098' m.svg || fail "24 bytes"
    grep -q '<rect x="76" width="23.25" height="18" class="b"><title>0x10b0' m.svg || fail "48 bytes"
    [ "$(rectangles m.svg h)" -eq 2 ] || fail "not one header a block"
    expect_text m.svg \
        '72 bytes in 2 blocks, 1 segment · 128 free, largest 128, fragmentation 0% · limit 65,536'
}

TheMapIsPrintedAlone() {
    sound
    run --svg=- f.log
    expect_status 0
    expect_svg "$work/out"
    expect_files f.log
}

QuietWritesTheMapAlone() {
    sound
    run -q -s m.svg f.log
    expect_status 0
    expect_no_out
    expect_no_err
    expect_svg m.svg
}

ALongSegmentGoesOnInTheNextRow() {
    report_of tag:one segment:65536 get:60000 report:0x8001
    run --svg=m.svg f.log
    expect_svg m.svg
    expect_text m.svg +8K
    expect_text m.svg +56K
    # The block begins in one row, and its header stands there alone.
    [ "$(rectangles m.svg h)" -le 2 ] || fail "a header in every row"
}

ABrokenHeapIsDrawn() {
    report_of tag:one get:40:20 break:5:1:0 report:0x8001
    run -q --svg=m.svg f.log
    expect_status 3
    expect_svg m.svg
    expect_text m.svg 'The heap is damaged'
    [ "$(rectangles m.svg x)" -ge 1 ] || fail "nothing is marked"
    expect_text_like m.svg 'of which the report has no sense$'
}

AReportWithoutBlocksIsDrawnInProportion() {
    report_of tag:one get:1000 report:0x40 report:0x10
    local report
    for report in 1 2; do
        run -q --report=$report --svg=m.svg f.log
        expect_status 0
        expect_svg m.svg
        expect_text m.svg '1,024 bytes used, places not known'
        expect_text m.svg '7,144 bytes free, places not known'
    done
    heading
    log 'TOTAL: 72 allocated bytes in 2 blocks,' '       128 free bytes in 3 blocks'
    closing
    run -q --svg=m.svg f.log
    expect_svg m.svg
    expect_text m.svg 'The report lists no tags.'
}

AHundredThousandBlocksGiveAFileThatCanBeOpened() {
    report_of tag:big segment:1048576 mixed:60000 tag:small get:24:40000 drop:3 report:0x8001
    run -q --svg=m.svg f.log
    expect_status 0
    expect_svg m.svg
    [ "$(stat -c %s m.svg)" -lt 4000000 ] || fail "$(stat -c %s m.svg) bytes"
    expect_text_like m.svg 'they are drawn together'
    expect_text_like m.svg \
        '^from 0x[0-9a-f]+: [0-9]+ blocks? used, [0-9,]+ bytes; [0-9]+ free, [0-9,]+ bytes$'
}

SmallSegmentsAreDrawnOneBehindTheOther() {
    SEG_ALLOC=1 report_of tag:one get:8:20000 report:0x8001
    run -q --svg=m.svg f.log
    expect_status 0
    expect_svg m.svg
    expect_text_like m.svg '^20,001 small segments from 0x[0-9a-f]+ · 320,016 bytes$'
}

# draw_in_little_memory: draws f.log, and says that the map is whole.
draw_in_little_memory() {
    (
        # What the sanitizer reserves would count as well.
        grep -q __asan_init "$rmheap" || ulimit -v 400000
        run -q --svg=m.svg f.log
        [ "$status" -eq 0 ]
    ) || fail "it could not be drawn"
    expect_no_err
    expect_svg m.svg
    [ "$(stat -c %s m.svg)" -lt 4000000 ] || fail "$(stat -c %s m.svg) bytes"
}

SegmentsOfAnySizeAreDrawn() {
    local i segments=()
    for ((i = 1; i <= 200; i++)); do
        segments+=("$(printf 'SEGMENT @ 0x%x00000000   size=4294967288' $i)")
    done
    heading
    log 'TAG 1(      huge): limit=-1, allocated=24' "${segments[@]}"
    cp f.log g.log
    closing
    draw_in_little_memory
    expect_text_like m.svg '^A row is 17,179,869,184 bytes'
    mv g.log f.log
    log '    0xc800000018        24 (1)'
    closing
    draw_in_little_memory
    expect_text_like m.svg '^A row is 17,179,869,184 bytes'
    [ "$(rectangles m.svg x)" -eq 0 ] || fail "something is lost"
}

NamesStayWithinTheMap() {
    local name
    name="<&\"' $(head -c 200 /dev/zero | tr '\0' W)"
    heading "$name"
    log "TAG 1($name): limit=-1, allocated=72" "TAG  1($name):     4000/   50 :     4168/    3 :   1" \
        "$(printf 'TAG 2(\001\377]]>): limit=-1, allocated=0')"
    closing
    run -q --svg=m.svg f.log
    expect_svg m.svg
    expect_text m.svg '��]]&gt;'
    expect_text_like m.svg 'W{200}$'
    # What is seen is cut, so that it fits even in a wide font.
    sed 's,<title>[^<]*</title>,,g' m.svg >seen.svg
    expect_text_like seen.svg 'W…$'
    [ "$(grep -oE '>[^<]*W[^<]*<' m.svg | grep -c 'W…')" -ge 2 ] || fail "a name is not cut"
    texts seen.svg
    [ "$(wc -L <"$work/texts")" -le 165 ] || fail "a text is too long"
}

FiftyTagsAreDrawn() {
    local steps=() i
    for ((i = 1; i <= 50; i++)); do
        steps+=("tag:tag $i" "get:$i:$i")
    done
    report_of "${steps[@]}" report:0x8001
    run -q --svg=m.svg f.log
    expect_svg m.svg
    [ "$(rectangles m.svg card)" -eq 51 ] || fail "not a card for each tag"
}

# ---- the file of the map

AnOldMapIsReplacedWhole() {
    sound
    echo old >m.svg
    chmod 640 m.svg
    run -q --svg=m.svg f.log
    expect_svg m.svg
    [ "$(stat -c %a m.svg)" = 640 ] || fail "its rights have changed"
    expect_files f.log m.svg
    rm m.svg
    (umask 027 && "$rmheap" -q --svg=m.svg f.log)
    [ "$(stat -c %a m.svg)" = 640 ] || fail "its rights are not those of a new file"
}

AnOldMapSurvivesAFailure() {
    report_of tag:one mixed:200 report:0x8001
    echo old >m.svg
    # Counters of a coverage build would be cut off as well, and go where nobody reads them.
    (
        export GCOV_PREFIX=$work/counters
        ulimit -f 1
        run --svg=m.svg f.log
        [ "$status" -eq 2 ]
    ) || fail "it could be written"
    [ "$(cat m.svg)" = old ] || fail "the old map is gone"
    expect_err '^rmheap: cannot write m\.svg: File too large$'
    expect_no_line 'The map is in'
    expect_files f.log m.svg
    run --svg=no/m.svg f.log
    expect_status 2
    expect_err '^rmheap: cannot write no/m\.svg: No such file or directory$'
    mkdir directory
    run --svg=directory f.log
    expect_status 2
    expect_err '^rmheap: cannot write directory: Is a directory$'
    expect_files directory f.log m.svg
}

ALinkStaysALink() {
    sound
    echo old >m.svg
    ln -s m.svg link.svg
    run -q --svg=link.svg f.log
    [ -L link.svg ] || fail "the link was replaced"
    expect_svg m.svg
    expect_files f.log link.svg m.svg
}

APipeIsWrittenInto() {
    sound
    mkfifo pipe
    cat pipe >m.svg &
    run -q --svg=pipe f.log
    wait
    expect_status 0
    expect_svg m.svg
    run -q --svg=/dev/full f.log
    expect_status 2
    expect_err '^rmheap: cannot write /dev/full: No space left on device$'
}

NoMapIsWrittenWithoutAReport() {
    : >f.log
    echo old >m.svg
    run --svg=m.svg f.log
    expect_status 1
    [ "$(cat m.svg)" = old ] || fail "it was written"
}

# ---- standard output

JsonHasEveryFigure() {
    sound 'a "title"'
    run --json f.log
    expect_status 0
    expect_json '.report=1'
    expect_json '.file="f.log"'
    expect_json '.line=1'
    expect_json '.time="07-Mar-96 14:05:09"'
    expect_json '.title="a \"title\""'
    expect_json '.complete=true'
    expect_json '.total.bytes=72'
    expect_json '.tags[0].tag=1'
    expect_json '.tags[0].limit=65536'
    expect_json '.tags[0].limited=true'
    expect_json '.tags[0].blocks=2'
    expect_json '.tags[0].segments=1'
    expect_json '.tags[0].free=128'
    expect_json '.tags[0].largestFree=128'
    expect_json '.tags[0].fragmentation=0.0000'
    expect_json '.tags[0].segmentList[0].address="0x1000"'
    expect_json '.tags[0].segmentList[0].size=200'
    expect_json '.tags[0].segmentList[0].pieces[1][1]=24'
    expect_json '.tags[0].segmentList[0].pieces[1][2]="used"'
    rm f.log
    table ''
    run --json f.log
    expect_json '.tags[1].largestFree=null'
    expect_json '.tags[1].fragmentation=null'
    expect_json '.tags[1].limited=null'
    run --list --json f.log
    expect_json '[0].report=1'
    expect_json '[0].tags=3'
    : >f.log
    run --list --json f.log
    expect_status 1
    expect_json '#=0'
}

SaysThatStandardOutputCouldNotBeWritten() {
    sound
    status=0
    "$rmheap" f.log >/dev/full 2>"$work/err" || status=$?
    expect_status 2
    expect_err '^rmheap: standard output could not be written: No space left on device$'
    status=0
    "$rmheap" f.log >&- 2>"$work/err" || status=$?
    expect_status 2
}

AReaderThatHasGoneIsNoMessage() {
    report_of tag:one mixed:3000 report:0x8001
    (
        status=0
        "$rmheap" --json f.log 2>"$work/err" || status=$?
        echo "$status" >"$work/status"
    ) | head -n 1 >/dev/null
    [ "$(cat "$work/status")" -eq 2 ] || fail "status $(cat "$work/status")"
    expect_no_err
}

# ---- the command line

RefusesAWrongCommandLine() {
    sound
    local line
    while IFS='|' read -r line why; do
        # shellcheck disable=SC2086
        run $line f.log
        expect_status 2
        expect_no_out
        expect_err "^rmheap: $why; see rmheap --help\$"
    done <<'LINES'
--wrong|"--wrong" is no option
-x|"-x" is no option
--report=0|--report wants a number, as --list shows it, not "0"
--report=1x|--report wants a number, as --list shows it, not "1x"
-r 99999999999999999999|--report wants a number, as --list shows it, not "99999999999999999999"
--sort=size|--sort: there is no key "size"
--json=1|--json takes no value
--sizes=0|--sizes wants a number from 1 to 1000, not "0"
--compare=1,|--compare wants numbers of reports, as --list shows them, not "1,"
--list --compare|--list and --compare do not go together
--list --report=1|--report and --list do not go together
--compare --report=1|--report and --compare do not go together: --compare=A,B
--list --svg=m.svg|--svg shows one report; choose it with --report
--svg=- --json|--svg=- prints the map alone
--svg=|--svg wants the name of a file
LINES
    run f.log --svg
    expect_status 2
    expect_err '^rmheap: --svg wants a value; '
    run ''
    expect_status 2
    expect_files f.log
}

OptionsMayStandAnywhere() {
    sound
    cp f.log ./-l
    run f.log --list
    expect_line '^  NO  TIME'
    run -qs m.svg f.log
    expect_no_out
    expect_svg m.svg
    run -- -l
    expect_status 0
    expect_line '^report 1 of 1, -l:1,'
}

HelpNamesEveryOptionOfTheManual() {
    local manual options option
    manual=$(dirname "$completion")/rmheap.1
    run --help
    expect_status 0
    expect_no_err
    [ "$(wc -L <"$work/out")" -le 80 ] || fail "a line is too long"
    options=$(grep -oE -- '--[a-z]+' "$work/out" | sort -u)
    for option in $options; do
        grep -qE "^\\.It Fl . .*-${option#--}( |\$)" "$manual" || fail "the manual lacks $option"
        grep -q -- "$option" "$completion" || fail "the completion lacks $option"
    done
    [ "$(wc -w <<<"$options")" -eq "$(grep -c '^\.It Fl ' "$manual")" ] || fail "the manual has more"
    run -V
    expect_line '^rmheap [0-9]+\.[0-9]+\.[0-9]+$'
}

# complete_line <word...>: what bash offers for the last word, sorted, in $offered.
complete_line() {
    COMP_WORDS=(rmheap "$@")
    COMP_CWORD=$#
    COMPREPLY=()
    _rmheap "$rmheap" || true # bash does not look at it
    offered=$(printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd ' ')
}

CompletesOptionsReportsTagsAndFiles() {
    set +u # bash calls completions without it
    # shellcheck source=../../tools/rmheap/rmheap.bash
    . "$completion"
    table ''
    table ''
    complete_line --s
    [ "$offered" = '--sizes --sort --svg' ] || fail "options: $offered"
    complete_line --sort = b
    [ "$offered" = 'blocks bytes' ] || fail "keys: $offered"
    complete_line f.log --report ''
    [ "$offered" = '1 2' ] || fail "reports: $offered"
    complete_line f.log -t ''
    [ "$offered" = '0 1 2' ] || fail "tags: $offered"
    complete_line f
    [ "$offered" = 'f.log' ] || fail "files: $offered"
}

run_case
