#!/usr/bin/env bash
# check_words.sh [DIRECTORY]
#
# The project speaks for itself. Its comments give their reasons in its own words and point to no
# document outside of it, to no path of somebody's machine and to no number of a tracker; nothing is
# left open in the text, and no test is written so that it does not run or cannot fail. The patterns
# carry brackets where they would otherwise find themselves.
set -euo pipefail
cd "${1:-$(dirname "$0")/..}"

# What version control holds or would take; without it, everything but the build.
list() {
    git ls-files -z --cached --others --exclude-standard 2>/dev/null ||
        find . -path ./build -prune -o -path ./.git -prune -o -type f -print0 | sed -z 's,^\./,,'
}

failed=0

# none TITLE PATTERN [GREP_OPTION...]: no text file has a line that matches.
none() {
    local title=$1 pattern=$2 found
    shift 2
    found=$(list | xargs -0 -r grep -nHIE "$@" -e "$pattern" -- 2>/dev/null || true)
    if [ -n "$found" ]; then
        printf '%s:\n%s\n' "$title" "$found"
        failed=1
    fi
}

none "mentions a document outside of the project" \
    '\b(the|this|our|system) spe[c](s|ification)?\b|\bspe[c]\.md\b|\bPart[s]? [0-9]+\.[0-9]|\.\./share[d]/' -i
none "mentions a path of one machine" '/wor[k]/|/far[m]/|/hom[e]/[a-z]'
none "mentions an issue of a tracker" '\bissu[e] #?[0-9]' -i
none "left open" '\b(TOD[O]|FIXM[E]|XX[X]|HAC[K])\b'
none "a test that does not run or cannot fail" \
    'GTEST_SKI[P]|DISABLE[D]_|(EXPECT|ASSERT)_TRUE\(tru[e]\)'

names=$(list | tr '\0' '\n' |
    grep -iE '(^|/)spe[c](ification)?([-_.][^/]*)?$|(^|/)part[s]?[-_]?[0-9]+[-_.][0-9]' || true)
if [ -n "$names" ]; then
    printf 'named after a document outside of the project:\n%s\n' "$names"
    failed=1
fi

[ "$failed" -eq 0 ] && echo "own words only"
exit "$failed"
