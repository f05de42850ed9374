#!/usr/bin/env bash
# build_docs.sh [DIRECTORY]
#
# Builds the documentation in DIRECTORY, build/docs without one: the reference of the interface and
# the pages of docs/ as HTML, and the reference as manual pages. Whatever is not in order is an
# error: a name without a comment, a warning of Doxygen or of the formatter, a link that leads
# nowhere.
set -euo pipefail
export LC_ALL=C.UTF-8
called_from=$PWD
cd "$(dirname "$0")/.."

output=${1:-build/docs}
[ -z "${1-}" ] || [[ $1 == /* ]] || output=$called_from/$1
mkdir -p "$output"
rm -rf "$output/html" "$output/xml" "$output/man"

RM_DOCS_OUTPUT=$output RM_DOCS_HTML=$PWD/$output/html
[[ $output != /* ]] || RM_DOCS_HTML=$output/html
export RM_DOCS_OUTPUT RM_DOCS_HTML

# First, since Doxygen's words for a page that is not there are hard to understand.
tools/docs/check_links.py --pages .
doxygen -q docs/Doxyfile
tools/docs/man_pages.py "$output/xml" "$output/man"
rm -rf "$output/xml"

# The formatter says on standard error what it does not understand, and succeeds all the same.
format_pages() {
    find "$output/man" -type f -print0 | sort -z |
        xargs -0 -n 1 groff -z -ww -t -mdoc -Tutf8 2>&1
}
if ! warnings=$(format_pages) || [ -n "$warnings" ]; then
    printf '%s\n' "$warnings"
    exit 1
fi
tools/docs/check_links.py --html "$output/html" --man "$output/man"
