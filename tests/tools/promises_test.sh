#!/usr/bin/env bash
# The check of the promises, on a page and a suite of a few names: each kind of mistake is made in turn.
# shellcheck source-path=SCRIPTDIR source=gate.sh
. "$(dirname "$0")/gate.sh"
check=$1/tests/promises/check.py
page=$work/pages/things.md
mkdir -p "$work/pages" "$work/build/tests"

# What a build knows of its cases.
cat >"$work/build/tests/thing_test[1]_tests.cmake" <<'END'
add_test([=[Thing.IsRound]=]  thing_test [==[--gtest_filter=Thing.IsRound]==])
set_tests_properties([=[Thing.IsRound]=]  PROPERTIES TIMEOUT 120)
add_test([=[Of/Thing.HasAColour/Red  # GetParam() = Red]=]  thing_test)
END
echo 'add_test([=[rmthing.PrintsItself]=] "thing_test.sh" "PrintsItself")' >"$work/build/CTestTestfile.cmake"

begin() {
    echo "# Not a list" >"$work/pages/README.md"
    cat >"$page" <<'END'
# Things

What a thing is.

## Shape

- A thing is round. `Thing.IsRound`
- It has a colour, one of those that
  `thing_colour` knows. `Thing.HasAColour` `rmthing.PrintsItself`
- It is heavy. Cannot be seen: nothing weighs it.
END
}

checked=("$check" "$work/build" --pages "$work/pages")

# broken TITLE TEXT EXPRESSION
broken() {
    begin
    sed -i "$3" "$page"
    refuses "$1" "$2" "${checked[@]}"
}

begin
accepts "promises with their cases" "${checked[@]}"

broken "a case that is not there" "things.md:7: names Thing.IsFlat, which" 's/IsRound/IsFlat/'
broken "a case that is not there among others" "things.md:8: names rmthing.Hides, which" \
    's/PrintsItself/Hides/'
broken "a name with its parameter" "things.md:7: has no case" 's,IsRound,IsRound/Red,'
broken "a promise without a case" "things.md:7: has no case, and no reason" 's/ .Thing.IsRound.$//'
broken "a case in the middle" "things.md:7: has no case" 's/.Thing.IsRound.$/& and more/'
broken "a reason that is none" "things.md:10: has no case" 's/seen: .*/seen:/'
broken "a promise made twice" "things.md:8: says again what line 7 says" '7p'
broken "a long line" "things.md:3: is longer" '3s/$/ Words without an end, which nobody reads, and which no window shows as a whole, on any desk of anybody./'
broken "a page without promises" "things.md:1: promises nothing" '/^[- ]/d'
rm "$page"
refuses "no page at all" "there is no list" "${checked[@]}"

finish
