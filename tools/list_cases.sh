#!/usr/bin/env bash
# Lists the behaviours that the suite shows, read off the names of its cases: a table by test file,
# group and case, as Markdown. Who knows what the library is to do finds here the case that says so.
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

# table: of lines "group case"
table() {
    awk '
        # HoldsTheLockFor14Seconds -> holds the lock for 14 seconds
        function words(name) {
            while (match(name, /[a-z0-9][A-Z]|[A-Z][A-Z][a-z]|[A-Za-z][0-9]/)) {
                name = substr(name, 1, RSTART) " " substr(name, RSTART + 1)
            }
            return tolower(name)
        }
        NR == 1 { print "\n| Group | Case |\n|---|---|" }
        { printf "| %s | %s |\n", $1 == group ? "" : $1, words($2); group = $1 }'
}

LC_ALL=C find tests -name '*_test.cpp' | LC_ALL=C sort | while IFS= read -r file; do
    printf '\n## %s\n' "$file"
    # Long names stand on two lines.
    tr '\n' ' ' <"$file" | grep -oE 'TEST(_F|_P)?\( *[A-Za-z0-9]+, *[A-Za-z0-9]+\)' |
        sed -E 's/^[A-Z_]+\( *//; s/\)$//; s/, */ /' | table
done

# In scripts a case is a function whose name begins with a capital.
LC_ALL=C find tests -name '*_test.sh' | LC_ALL=C sort | while IFS= read -r file; do
    printf '\n## %s\n' "$file"
    group=${file##*/}
    sed -nE "s/^([A-Z][A-Za-z]+)\(\) \{$/${group%%_*} \1/p" "$file" | table
done
