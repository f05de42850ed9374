#!/usr/bin/env bash
# The formats that the catalogue reads, and the modules that read them. One case per function.
# shellcheck source=tests/multiprocess/catalogue_support.sh
source "$(dirname "$0")/catalogue_support.sh"

# input: the file that is loaded, from standard input.
input() { cat >"$work/input"; }

# serve <argument...>: loads the input, serves, verifies.
serve() {
    run --operations 400 "$@" "$work/input"
    expect_status 0
    expect_no_err
    expect_out '^Every record matches the input and the updates made to it\.$'
    expect_nothing_left
}

expect_format() { expect_out "^  format    $1\$"; }

expect_records() { [ "$(figure records)" = "$1" ] || fail "$(figure records) records instead of $1"; }

# refuses_line <line> <fault> [<argument...>]: the input, and says where and why.
refuses_line() {
    run "${@:3}" "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input:$1: $2"
    [ ! -s "$work/out" ] || fail "it went on"
    expect_nothing_left
}

# own_modules: a directory of modules that a case can change, with those that come with the program.
own_modules() {
    modules=$work/modules
    mkdir "$modules"
    cp "$shipped"/*.so "$modules"
}

# odd <name>: adds a module whose entry point is that of the name.
odd() { cp "$odd_module" "$modules/$1.so"; }

# refuses_module <name> <reason>: and serves with the others.
refuses_module() {
    records 10
    run --operations 100 --modules "$modules" "$work/input"
    expect_status 0
    expect_err "^catalogue: the module $1\\.so in $modules is not used: $2\\.$"
    expect_format fields
    expect_nothing_left
}

# ---- the three formats

ReadsRecordsOfFields() {
    records 40
    serve
    expect_format fields
    expect_records 40
}

ReadsCommaSeparatedValues() {
    input <<'END'
Name,Weight,Text
item1,1,"first line, and more
and a ""second"" one"
item2,4,
"item3",9,plain
END
    serve
    expect_format csv
    expect_records 3
}

ReadsIniFiles() {
    input <<'END'
; three of them
[item1]
Weight=1

Text=behind an empty line
[item2]
[item3]
Weight=9
END
    serve
    expect_format ini
    expect_records 3
}

ReadsFilesOfSeveralFormatsTogether() {
    records 10
    printf 'Name,Weight\nitem1,1\nitem2,4\n' >"$work/csv"
    printf '[item1]\nWeight=1\n' >"$work/ini"
    run --operations 400 "$work/input" "$work/csv" "$work/ini"
    expect_status 0
    expect_format 'fields csv ini'
    expect_records 13
    expect_nothing_left
}

MakesTheSameRecordsOfEveryFormat() {
    local i text format first=
    for i in {1..50}; do
        printf 'Name: item%d\nWeight: %d\nText: a line,\n one more "line"\n\n' "$i" "$i" >>"$work/fields"
        printf '[item%d]\nWeight=%d\n' "$i" "$i" >>"$work/ini"
    done
    {
        printf 'Name,Weight,Text\r\n'
        for i in {1..50}; do printf 'item%d,%d,"a line,\none more ""line"""\r\n' "$i" "$i"; done
    } >"$work/csv"
    {
        printf 'Name,Weight\n'
        for i in {1..50}; do printf 'item%d,%d\n' "$i" "$i"; done
    } >"$work/short.csv"
    # What is loaded of the same records has the same bytes, and what is asked of them the same answers.
    for format in 'fields csv' 'short.csv ini'; do
        first=
        for text in $format; do
            run --operations 400 --workers 1 --key Name "$work/$text"
            expect_status 0
            expect_nothing_left
            sed -nE '/^  (records|files)/p; /^  lookups/ s/, [0-9,]+ per.*//p; /^    (records|misses|sessions)/p' \
                "$work/out" >"$work/figures"
            [ "$(wc -l <"$work/figures")" -ge 5 ] || fail "too few figures"
            [ -n "$first" ] || cp "$work/figures" "$work/first"
            first=seen
            diff "$work/first" "$work/figures" || fail "$format differ"
        done
    done
}

StoresEveryFieldAsItWasRead() {
    input <<'END'
Name,Weight,Text
item1,1,"first line, and
a ""second"" one "
item2,,plain
END
    start "$work/input"
    await 'serving:'
    # Key and body stand side by side in a slot, in the one as loaded and in that of an update.
    perl -0777 -e '
        my $all = join "", map { open my $f, "<", $_ or die "$_: $!"; <$f> } @ARGV;
        index($all, "item1Name\0item1\0Weight\0001\0Text\0first line, and\na \"second\" one \0") >= 0
            or die "item1 is not there";
        index($all, "item2Name\0item2\0Weight\0\0Text\0plain\0") >= 0 or die "item2 is not there"' \
        "$runs"/*/bucket-*.dat || fail "what is stored is something else"
    interrupt
}

# ---- rows and quotes

RefusesARowOfAnotherLength() {
    printf 'a,b,c\n1,2,3\n"4\n5",6\n7,8,9\n' | input
    refuses_line 3 'the row has 2 fields, and the header has 3$'
    printf 'a,b,c\n1,2,3\n4,5,6,7\n' | input
    refuses_line 3 'the row has 4 fields or more, and the header has 3$'
}

RefusesAQuoteThatIsNeverClosed() {
    printf 'a,b\n1,2\n3,"4\n5,6\n' | input
    refuses_line 3 'the quote that opens here is never closed: """$'
}

RefusesTextBehindAQuotedField() {
    printf 'a,b\n1,2\n"3"x,4\n' | input
    refuses_line 3 'text behind the quote that closes a field: "x,4"$'
}

RefusesAQuoteWithinAPlainField() {
    printf 'a,b\n1,2\n3,4"5"\n' | input
    refuses_line 3 'a quote in a field that does not begin with one: ""5""$'
}

RefusesACarriageReturnWithinAPlainField() {
    printf 'a,b\n1,2\n3,4\r5\n' | input
    refuses_line 3 'a carriage return that ends no line, outside of quotes: "\?5"$'
}

RefusesAHeaderThatNamesNoColumnOrOneTwice() {
    printf 'a,,c\n1,2,3\n' | input
    refuses_line 1 'a column without a name$'
    printf 'a,b,"a"\n1,2,3\n' | input
    refuses_line 1 'a second column of this name: "a"$'
}

RefusesARowWithoutAName() {
    printf 'a,b\n1,2\n,3\n' | input
    refuses_line 3 'the first column names the record in 1 to 200 bytes: ""$'
}

TellsWhatAFileOfTheFormatLooksLike() {
    printf 'a,b\n1\n' | input
    refuses_line 2 'the row has 1 field, '
    expect_err '^  Rows of fields with commas between them, '
    printf '[a]\nno entry\n' | input
    refuses_line 2 'neither the header of a section, an entry nor a comment: "no entry"$'
    expect_err '^  A record is a section: '
    printf '[a]\n[b\n' | input
    refuses_line 2 'the header of a section lacks its \]: "\[b"$'
    printf '[a]\n[b] c\n' | input
    refuses_line 2 'text behind the header of a section: "\[b\] c"$'
}

# ---- names

TakesTheNamesFromAnotherField() {
    printf 'Weight,Name\n1,item1\n1,item2\n' | input
    serve --key Name
    expect_records 2
    # Without it the first column names them, and a repeated name gets a number.
    run --operations 400 --workers 1 --log-level 1 --kill-worker 1 "$work/input"
    expect_status 0
    expect_err 'in the middle of an update of "1(#2)?" in '
    printf 'Weight: 1\nName: item1\n\nName: item2\n' | input
    serve --key Name
    expect_records 2
}

RefusesANameThatNoFieldHas() {
    printf 'a,b\n1,2\n' | input
    refuses_line 1 'the header has no column of this name: "c"$' --key c
    printf 'a: 1\n\nb: 2\na: 3\n\nb: 4\n' | input
    refuses_line 6 'the record that begins here lacks the field that names it: "a"$' --key a
    expect_nothing_left
}

# ---- sizes

TakesAnEmptyFileAmongOthers() {
    records 10
    : >"$work/empty"
    printf '\n\r\n \t\n' >"$work/blank"
    run --operations 100 "$work/empty" "$work/input" "$work/blank"
    expect_status 0
    expect_format fields
    expect_records 10
}

RefusesFilesWithoutARecord() {
    : | input
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input holds no record\\.$"
    expect_err '^  Files of these formats can be read: csv, fields, ini\.$'
    printf 'a,b\n' | input
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input holds no record\\.$"
    expect_nothing_left
}

TakesAFieldOfAlmostOneMebibyte() {
    {
        printf 'Name,Text\nsmall,1\nhuge,"'
        head -c 1040000 /dev/zero | tr '\0' '\n'
        printf '"\nlast,2\n'
    } | input
    serve --workers 2
    expect_records 3
}

RefusesAFieldOfMoreThanOneMebibyte() {
    {
        printf 'Name,Text\nsmall,1\nhuge,"'
        head -c 1100000 /dev/zero | tr '\0' '\n'
        printf '"\n'
    } | input
    refuses_line 3 'the record is longer than 1 MiB: '
}

TakesAByteOrderMark() {
    printf '\xEF\xBB\xBFName,Weight\nitem1,2\n' | input
    serve --key Name
    expect_format csv
    expect_records 1
}

RefusesAFileWithANulByte() {
    printf 'a,b\n1,2\n3,4\0\n' | input
    refuses_line 3 'a NUL byte, so this is not a text: "3,4\?"$'
}

# ---- which format

TakesTheFormatThatIsNamed() {
    # One column is no file that could be recognised.
    printf 'Name\nitem1\nitem2\n' | input
    run "$work/input"
    expect_status 1
    expect_err "^catalogue: $work/input: its format is not recognised: it begins like none of csv, fields, ini\\.$"
    expect_err '^  Name the one that it has with --format\.$'
    expect_nothing_left
    serve --format csv
    expect_format csv
    expect_records 2
    printf '[formats]\nFormat=csv\n' | settings
    serve
    expect_format csv
}

RefusesAFormatThatNoModuleHas() {
    records 10
    run --format xml "$work/input"
    expect_status 2
    expect_err "^catalogue: there is no format \"xml\"; the modules in $shipped have: csv, fields, ini$"
    expect_nothing_left
}

NamesFormatsThatNeedARestart() {
    records 40
    printf '[log]\nLevel=1\n' | settings
    start "$work/input"
    await 'serving:'
    printf '[log]\nLevel=1\n[formats]\nFormat=csv\nKey=Name\nModules=elsewhere\n' | settings
    hang_up
    await_err 'reload 1: \[formats\] Modules: elsewhere, was ; needs a restart$'
    await_err 'reload 1: \[formats\] Format: csv, was ; needs a restart$'
    await_err 'reload 1: \[formats\] Key: Name, was ; needs a restart$'
    await_err 'reload 1: nothing changes$'
    # They are still what they were.
    printf '[log]\nLevel=1\n' | settings
    hang_up
    await_err 'reload 2: nothing changes$'
    interrupt
    ! grep -q 'reload 2: \[formats\]' "$work/err" || fail "they had changed"
}

# ---- modules

TakesItsModulesFromTheDirectoryThatItIsGiven() {
    own_modules
    rm "$modules/csv.so"
    odd words
    records 10
    run --operations 100 --log-level 1 --modules "$modules" "$work/input"
    expect_status 0
    expect_err "parent: formats: fields, ini, words, from $modules$"
    expect_nothing_left
    # From the file: counted from where that is.
    printf '[log]\nLevel=1\n[formats]\nModules=../modules\n' | settings
    run --operations 100 "$work/input"
    expect_status 0
    expect_err "parent: formats: fields, ini, words, from $home/\\.\\./modules$"
}

ReadsAFormatThatIsNotItsOwn() {
    own_modules
    odd words
    printf 'item1 a\nitem2 b\n' | input
    serve --modules "$modules"
    expect_format words
    expect_records 2
    printf 'item1 a\nitem2\n' | input
    refuses_line 2 'a line without a blank: "item2"$' --modules "$modules"
    expect_err '^  A record is a line of a name, a blank and a value\.$'
}

ComesBackFromTheDirectoryOfItsModules() {
    # The file and the directory of the runs are named from where it was started.
    own_modules
    printf 'a,b\n1,2\n' >"$home/input"
    status=0
    "$catalogue" --dir ../runs --operations 100 --modules ../modules input \
        >"$work/out" 2>"$work/err" || status=$?
    expect_status 0
    expect_no_err
    expect_format csv
    expect_nothing_left
    [ "$(find "$modules" ! -name '*.so' -type f)" = '' ] || fail "it left something with the modules"
}

LoadsModulesFromADirectoryWithALongPath() {
    local deep
    deep=$work/$(head -c 120 /dev/zero | tr '\0' d)
    mkdir "$deep"
    cp "$shipped"/*.so "$deep"
    records 10
    serve --modules "$deep"
}

GoesOnWithoutAModuleThatIsNoObject() {
    own_modules
    printf 'hello\n' >"$modules/text.so"
    refuses_module text 'it cannot be loaded, or has no function TEXT_ModEntry to begin with'
    expect_err "  Failed to load module './text\\.so'"
    expect_err '  REASON: '
    : >"$modules/text.so"
    refuses_module text 'it cannot be loaded, .*'
    rm "$modules/text.so"
    head -c 200 "$odd_module" >"$modules/words.so"
    refuses_module words 'it cannot be loaded, .*'
    rm "$modules/words.so"
    mkdir "$modules/directory.so"
    refuses_module directory 'it cannot be loaded, .*'
}

GoesOnWithoutAModuleThatLacksItsEntryPoint() {
    own_modules
    odd silent
    odd libsilent
    refuses_module silent 'it cannot be loaded, or has no function SILENT_ModEntry to begin with'
    expect_err 'libsilent\.so .* has no function SILENT_ModEntry to begin with'
}

GoesOnWithoutAModuleThatLacksWhatItNeeds() {
    own_modules
    cp "$unresolved_module" "$modules/unresolved.so"
    refuses_module unresolved 'it cannot be loaded, .*'
    expect_err '  REASON: .*aFunctionThatNobodyHas'
}

GoesOnWithoutAModuleThatLacksAFunction() {
    own_modules
    odd lacking
    refuses_module lacking 'it lacks the function formatNext'
    odd mute
    refuses_module mute 'it lacks the function formatVersion'
}

GoesOnWithoutAModuleOfAnotherVersion() {
    own_modules
    odd newer
    refuses_module newer 'it is made for version 2 of format\.h, not for 1'
}

GoesOnWithoutASecondModuleOfAFormat() {
    own_modules
    odd twin
    refuses_module twin 'csv\.so has a format csv already'
    odd nameless
    refuses_module nameless 'its format has no name of 1 to 31 characters without a blank'
}

LogsTheModulesThatItDoesNotUse() {
    own_modules
    odd lacking
    odd newer
    records 10
    run --operations 100 --log-level 2 --modules "$modules" "$work/input"
    expect_status 0
    expect_log 'parent: formats: modules that cannot be used, as said above: lacking\.so newer\.so$'
}

TakesNoMoreThanFifteenModules() {
    modules=$work/modules
    mkdir "$modules"
    local i
    for i in {01..17}; do odd "m$i"; done
    printf 'item1 a\nitem2 b\n' | input
    # The last of them is whole: the library's registry loses functions of what comes behind it.
    run --operations 100 --modules "$modules" --format m15 "$work/input"
    expect_status 0
    expect_format m15
    expect_err "^catalogue: the module m16\\.so in $modules is not used: there are 15 others\\.$"
    expect_err '^catalogue: the module m17\.so '
    ! grep -q 'm15\.so' "$work/err" || fail "m15.so was refused"
    expect_nothing_left
}

LooksAtTheFirstSixtyFourModulesByName() {
    modules=$work/modules
    mkdir "$modules"
    local i
    for i in {70..36} {1..35}; do odd "m$(printf %02d "$i")"; done
    printf 'item1 a\n' | input
    run --operations 100 --modules "$modules" --format m15 "$work/input"
    expect_status 0
    expect_err '^catalogue: the module m64\.so .* there are 15 others\.$'
    for i in {65..70}; do
        expect_err "^catalogue: the module m$i\\.so in $modules is not used: there are more than 64 files\\.$"
    done
    [ "$(grep -c 'more than 64 files' "$work/err")" = 6 ] || fail "others were left out too"
    expect_nothing_left
}

TakesFifteenGoodModulesBesideBadOnes() {
    modules=$work/modules
    mkdir "$modules"
    local i
    for i in {01..15}; do odd "m$i"; done
    odd lacking
    printf 'hello\n' >"$modules/a.so"
    odd mute
    printf 'item1 a\n' | input
    run --operations 100 --modules "$modules" --format m15 "$work/input"
    expect_status 0
    expect_format m15
    expect_err 'lacking\.so .* it lacks the function formatNext\.$'
}

RefusesADirectoryOfModulesThatIsMissing() {
    records 10
    run --modules "$work/missing" "$work/input"
    expect_status 2
    expect_err "^catalogue: the directory of the format modules, $work/missing: No such file or directory$"
    expect_err '^  Name the one that holds them with --modules, or in corvane\.ini: \[formats\] Modules\.$'
    run --modules "$work/input" "$work/input"
    expect_status 2
    expect_err "^catalogue: the directory of the format modules, $work/input: Not a directory$"
    expect_nothing_left
}

RefusesADirectoryWithoutAModule() {
    records 10
    mkdir "$work/empty"
    printf 'hello\n' >"$work/empty/text.so"
    : >"$work/empty/.hidden.so"
    : >"$work/empty/README"
    run --modules "$work/empty" "$work/input"
    expect_status 2
    expect_err "^catalogue: there is no format module that can be used in $work/empty\\.$"
    [ "$(grep -c '^catalogue: the module ' "$work/err")" = 1 ] || fail "other files were tried"
    expect_nothing_left
}

EndsInOrderWhenAModuleEndsFatally() {
    own_modules
    odd fatal
    records 10
    run --modules "$modules" "$work/input"
    expect_status 1
    expect_err '  Specific problem: a module that ends the server$'
    expect_err '^catalogue: the library met an error that cannot be mended'
    expect_nothing_left
    [ -z "$(ls -A "$home")" ] || fail "it left something"
    [ "$(find "$modules" ! -name '*.so' -type f)" = '' ] || fail "it left something with the modules"
}

RefusesRecordsThatAModuleDoesNotName() {
    own_modules
    odd keyless
    printf 'item1 a\nitem2 b\n' | input
    refuses_line 1 'the record that begins here lacks the field that names it$' --modules "$modules" \
        --format keyless
}

# ---- the run goes on as ever

ReplacesAWorkerKilledOverAnotherFormat() {
    {
        printf 'Name,Text\n'
        for i in {1..40}; do printf 'item%d,"a, ""b""\n"\n' "$i"; done
    } | input
    run --operations 4000 --kill-worker 3 "$work/input"
    expect_status 0
    expect_err '  desk: warning: worker 3, process [0-9]+, was killed by signal 9 \(Killed\) in the middle of an update of "item[0-9]+" in bucket-[0-9]+\.dat; '
    expect_nothing_left
}

FindsADamagedRecordOfAnotherFormat() {
    printf '[item1]\na=b\n[item2]\na=c\n' | input
    run --operations 100 --damage-record 2 "$work/input"
    expect_status 1
    expect_err 'the checksum of the slot does not match\.$'
    expect_nothing_left
}

run_case
