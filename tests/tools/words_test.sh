#!/usr/bin/env bash
# The own-words gate. Each text that it has to refuse is put together here from two halves, since
# this file is itself read by the gate.
# shellcheck source-path=SCRIPTDIR source=gate.sh
. "$(dirname "$0")/gate.sh"
gate=$1/tools/check_words.sh

tree=$work/tree
mkdir "$tree"

# offends TITLE FIRST_HALF SECOND_HALF
offends() {
    echo "// $2$3" >"$tree/file.cpp"
    refuses "$1" "file.cpp:1" "$gate" "$tree"
}

echo '// A special case: the last part of 2.1 million records is specified here.' >"$tree/file.cpp"
accepts "words of its own" "$gate" "$tree"

offends "a document by its kind" "as the spe" "c says"
offends "a document by its long name" "This Spe" "cification"
offends "a document by its file" "see spe" "c.md"
offends "a chapter" "see Part" " 4.2"
offends "a path outside" "../share" "d/design.md"
offends "a path of one machine" "/wor" "k/main"
offends "a number of a tracker" "issu" "e 12"
offends "an open end" "TOD" "O: later"
offends "a test that does not run" "GTEST_SKI" "P()"
offends "a test that is switched off" "DISABLE" "D_Case"
offends "a test that cannot fail" "EXPECT_TRUE(tru" "e)"

rm "$tree/file.cpp"
touch "$tree/spe""c.md"
refuses "a file named after a document" "named after" "$gate" "$tree"

finish
