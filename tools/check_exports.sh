#!/usr/bin/env bash
# check_exports.sh LIBRARY HEADER LIST
#
# The interface is stated three times: the header declares it, the list in the repository fixes it,
# the library exports it. This compares the three name by name and fails on any difference, so that
# a name is neither lost nor let out by accident.
set -euo pipefail
export LC_ALL=C

if [ $# -ne 3 ]; then
    echo "usage: check_exports.sh LIBRARY HEADER LIST" >&2
    exit 2
fi
library=$1 header=$2 list=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Names that HEADER itself declares, without those of the headers that it includes. Attributes are
# blanked, bodies of types dropped; what is left of each declaration is a function, whose name
# stands before its first parenthesis, or a variable, whose name stands last.
declared() {
    "${CC:-cc}" -std=c11 -E -D'__attribute__(x)=' -x c "$header" |
        awk -v header="$header" '
            /^# [0-9]+ "/ { name = $3; gsub(/"/, "", name); own = (name == header); next }
            /^#/ { next }
            own { print }' |
        tr '\n' ' ' |
        sed -E ':again; s/\{[^{}]*\}//g; t again' |
        tr ';' '\n' |
        awk '
            /^[ \t]*typedef/ || !/[A-Za-z]/ { next }
            /^[ \t]*(struct|union|enum)([ \t]+[A-Za-z_0-9]+)?[ \t]*$/ { next }
            { sub(/\(.*/, ""); sub(/\[.*/, ""); sub(/[ \t]+$/, ""); sub(/.*[^A-Za-z_0-9]/, ""); print }' |
        sort
}

declared >"$work/header"
# A name with a dot is none that a program could write: a sanitizer marks variables with them.
"${NM:-nm}" -D --defined-only "$library" | awk '$NF !~ /\./ { print $NF }' | sort >"$work/library"
grep -v '^$' "$list" >"$work/list" || true

failed=0
if [ ! -s "$work/list" ] || ! sort -c -u "$work/list" 2>"$work/order"; then
    echo "$list: empty, or not sorted without repeats (sort -u with LC_ALL=C)"
    failed=1
fi

# differ LEFT RIGHT TEXT: prints what only LEFT has.
differ() {
    local only
    only=$(comm -23 "$work/$1" "$work/$2" 2>/dev/null)
    if [ -n "$only" ]; then
        printf '%s:\n%s\n' "$3" "$only"
        failed=1
    fi
}

sort -u -o "$work/list" "$work/list"
differ header list "declared in $header, missing from $list"
differ list header "in $list, not declared in $header"
differ library list "exported by $library, missing from $list"
differ list library "in $list, not exported by $library"

if [ "$failed" -eq 0 ]; then
    echo "$(wc -l <"$work/list") names: header, list and library agree"
fi
exit "$failed"
