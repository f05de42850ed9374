#!/usr/bin/env bash
# The reading of many tests at a time, with a clang-tidy that finds the word BAD, cannot compile the
# word ALONE beside other files, and notes what it was asked to read.
# shellcheck source-path=SCRIPTDIR source=gate.sh
. "$(dirname "$0")/gate.sh"
tidy=$1/tools/tidy.py
cd "$work"
mkdir -p bin build rm tests/thing

cat >bin/clang-tidy <<'END'
#!/usr/bin/env bash
status=0
file=$(printf '%s\n' "$@" | grep '\.cpp$' | head -n 1)
echo "${file##*/}" >>read
echo "12 warnings generated." >&2
if [[ $file == */part_*.cpp ]] && line=$(grep -n ALONE "$file"); then
    echo "$file:${line%%:*}:1: error: cannot be compiled [clang-diagnostic-error]"
    status=1
fi
if line=$(grep -n BAD "$file"); then
    echo "$file:${line%%:*}:3: error: bad word [some-check,-warnings-as-errors]"
    status=1
fi
if grep -qs BAD tests/thing/thing.h && grep -q 'thing.h"' "$file"; then
    echo "$PWD/tests/thing/thing.h:1:1: error: bad header [some-check,-warnings-as-errors]"
    status=1
fi
exit $status
END
chmod +x bin/clang-tidy
PATH=$work/bin:$PATH

# The first three stand beside each other; the last two are read alone.
sources=(tests/thing/a_test.cpp tests/thing/b_test.cpp tests/thing/c_test.cpp rm/thing.cpp
    tests/thing/macro_test.cpp)

begin() {
    rm -f read
    echo "Checks: ''" >tests/.clang-tidy
    echo "int thing();" >tests/thing/thing.h
    local source
    for source in "${sources[@]}"; do
        printf '#include <string>\n#include "thing.h"\n\nint thing() { return 1; }\n' >"$source"
        printf '{"directory": "%s", "command": "c++ -Irm -o thing.o -c %s", "file": "%s"}\n' \
            "$work/build" "$work/$source" "$work/$source"
    done | paste -sd, | sed 's/.*/[&]/' >build/compile_commands.json
    echo "#define THING 1" >>tests/thing/macro_test.cpp
}

# has_read TITLE NAME...: just these, in any order
has_read() {
    local title=$1 expected
    shift
    expected=$(printf '%s\n' "$@" | sort)
    if [ "$(sort read)" = "$expected" ]; then
        echo "ok: reads $title"
    else
        printf 'FAILED: %s: has read\n%s\nand not\n%s\n' "$title" "$(sort read)" "$expected"
        failures=$((failures + 1))
    fi
}

checked=("$tidy" build 2 rm tests)
rest=(macro_test.cpp thing.cpp)

begin
accepts "sources without a finding" "${checked[@]}"
has_read "tests together" part_0.cpp "${rest[@]}"
if [ -s "$work/output" ]; then
    echo "FAILED: says something of sources without a finding:"
    cat "$work/output"
    failures=$((failures + 1))
fi

begin
echo "// BAD" >>tests/thing/b_test.cpp
refuses "a finding in a test" "thing/b_test.cpp:5:3: error: bad word" "${checked[@]}"
has_read "only that test alone" part_0.cpp b_test.cpp "${rest[@]}"

begin
echo "// BAD" >>rm/thing.cpp
refuses "a finding in the library" "rm/thing.cpp:5:3: error: bad word" "${checked[@]}"

begin
echo "// ALONE" >>tests/thing/a_test.cpp
accepts "a test that cannot stand beside others" "${checked[@]}"
has_read "what others have without it" part_0.cpp part_0.cpp a_test.cpp "${rest[@]}"

begin
echo "// ALONE" >>tests/thing/a_test.cpp
echo "// BAD" >>tests/thing/c_test.cpp
refuses "a finding beside a test that cannot" "thing/c_test.cpp:5:3: error: bad word" "${checked[@]}"

begin
echo "// BAD" >tests/thing/thing.h
refuses "a finding in a header" "thing/thing.h:1:1: error: bad header" "${checked[@]}"
has_read "each of its users alone" part_0.cpp a_test.cpp b_test.cpp c_test.cpp "${rest[@]}"

finish
