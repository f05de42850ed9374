#!/usr/bin/env bash
# check_table.sh
#
# Holds the table of README.md against the sources: every target has a row and an input, the calls of
# a row are in the target or in a model that it includes, and no export is missing from the table.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")"

problems=0
problem() {
    echo "tests/fuzz/README.md: $1"
    problems=$((problems + 1))
}

# calls_of TARGET: those of its row, one a line
calls_of() {
    sed -n "s/^| \`$1\` | \([^|]*\) |.*/\1/p" README.md | tr ' ' '\n' | grep -xFf ../../cmake/exports.txt
}

for source in fuzz_*.cpp; do
    target=${source#fuzz_}
    target=${target%.cpp}
    grep -q "^| \`$target\` |" README.md || problem "there is no row for $target"
    [ -n "$(ls -A "corpus/$target" 2>/dev/null)" ] || problem "corpus/$target is empty"
    mapfile -t models < <(sed -n 's/^#include "\(tests\/models\/.*\)"/..\/..\/\1/p' "$source")
    while read -r call; do
        grep -qw "$call" "$source" fuzz.cpp "${models[@]}" || problem "$target does not call $call"
    done < <(calls_of "$target" || true)
done

while read -r target; do
    [ -f "fuzz_$target.cpp" ] || problem "there is no fuzz_$target.cpp"
done < <(sed -n "s/^| \`\([a-z_]*\)\` |.*/\1/p" README.md)

while read -r export; do
    grep -qw "$export" README.md || problem "no target names $export"
done <../../cmake/exports.txt

[ "$problems" -eq 0 ] && echo "the table names every export and every target"
