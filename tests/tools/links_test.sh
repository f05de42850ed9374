#!/usr/bin/env bash
# The check of the documentation's links, on a small tree: each kind of link is broken in turn.
# shellcheck source-path=SCRIPTDIR source=gate.sh
. "$(dirname "$0")/gate.sh"
check=$1/tools/docs/check_links.py
tree=$work/tree

# begin: a tree in order
begin() {
    rm -rf "$tree"
    mkdir -p "$tree/docs" "$tree/html" "$tree/man/man3" "$tree/man/man7"
    cat >"$tree/README.md" <<'END'
# A `thing`

See [the guide](docs/guide.md), [its `end`, and
more](docs/guide.md#how-it-ends-rm_exit), [above](#a-thing), [elsewhere](https://example.org/none).
`[no](link.md)`

```
[nor](this.md)
```
END
    cat >"$tree/docs/guide.md" <<'END'
# Guide

![A picture](picture.svg) [back](../README.md)

## How it ends: `rm_exit()`

## Twice

## Twice

See [the second](#twice-1).
END
    echo '<svg/>' >"$tree/docs/picture.svg"
    cat >"$tree/html/index.html" <<'END'
<html><body><h1 id="top">x</h1><img src="a.svg"/><a href="other.html#here">o</a><a href="#top">t</a>
<object data="a.svg"></object></body></html>
END
    echo '<a name="here"></a>' >"$tree/html/other.html"
    echo '<svg/>' >"$tree/html/a.svg"
    echo 'var tree = [ "Other", "other.html#here", null ];' >"$tree/html/tree.js"
    printf '.Xr other 7 ,\nsee \\%%\\fBrm_one\\fP(3)\n' >"$tree/man/man3/rm_one.3"
    echo '.Xr rm_one 3' >"$tree/man/man7/other.7"
}

checked=("$check" --pages "$tree" --html "$tree/html" --man "$tree/man")

# broken TITLE TEXT FILE EXPRESSION
broken() {
    begin
    cp "$tree/$3" "$work/before"
    sed -i "$4" "$tree/$3"
    if cmp -s "$tree/$3" "$work/before"; then
        echo "FAILED: nothing is changed by $4"
        failures=$((failures + 1))
    fi
    refuses "$1" "$2" "${checked[@]}"
}

begin
accepts "links that lead somewhere" "${checked[@]}"

broken "a file that is not there" "README.md:3: there is no docs/gone.md" README.md \
    's,docs/guide.md),docs/gone.md),'
broken "a heading that is not there" "there is no heading docs/guide.md#how-it-ended" README.md \
    's,#how-it-ends-rm_exit,#how-it-ended,'
broken "a heading of the page itself" "there is no heading #below" README.md 's,#a-thing,#below,'
broken "a heading that stands once only" "there is no heading #twice-1" docs/guide.md \
    '/^## Twice/,+1d'
broken "a picture that is not there" "docs/guide.md:3: there is no other.svg" docs/guide.md \
    's,picture.svg,other.svg,'
broken "a link over two lines" "there is no docs/gone.md" README.md \
    '4s,docs/guide.md#[^)]*,docs/gone.md,'
broken "a built page that is not there" "index.html:1: there is no gone.html#here" html/index.html \
    's,other.html,gone.html,'
broken "a place that is not there" "there is no place other.html#there" html/index.html \
    's,#here,#there,'
broken "a built picture that is not there" "there is no b.svg" html/index.html 's,src="a,src="b,'
broken "an embedded picture that is not there" "there is no b.svg" html/index.html \
    's,data="a,data="b,'
broken "a branch of the tree at the side" "tree.js: there is no place other.html#there" \
    html/tree.js 's,#here,#there,'
broken "a manual page in the text" "rm_one.3:2: there is no rm_two(3)" man/man3/rm_one.3 \
    's,fBrm_one,fBrm_two,'
broken "a manual page at the end" "other.7:1: there is no rm_one(4)" man/man7/other.7 's,3,4,'

rm -rf "$tree"
mkdir -p "$tree/html" "$tree/man"
refuses "an empty tree" "no links in any page" "${checked[@]}"
refuses "a tree without manual pages" "no manual pages" "${checked[@]}"

finish
