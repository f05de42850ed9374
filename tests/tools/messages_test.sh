#!/usr/bin/env bash
# The gate of the messages, on a tree of one source and one page: each is spoilt in turn.
# shellcheck source-path=SCRIPTDIR source=gate.sh
. "$(dirname "$0")/gate.sh"
gate=$1/tools/check_messages.py
page=$work/tree/docs/messages.md
source=$work/tree/rm/one.cpp

# make_tree: a tree in order
make_tree() {
    mkdir -p "$work/tree/docs" "$work/tree/include" "$work/tree/rm" "$work/tree/tools" \
        "$work/tree/examples/catalogue"
    cat >"$work/tree/include/rm.h" <<'END'
/** @defgroup rm_status Status values */
#define RM_SUCCESS 0        /**< success */
#define RM_NOT_FOUND 2      /**< not found */
#define RM_NO_PLACE (-1019) /**< no place */
/** @} */
void rm_systemLogWrite(const char* format, ...);
END
    cat >"$source" <<'END'
#include "rm.h"

#define TEXTS(name) {name ": no handle %d"}

namespace
{
struct Texts {
    const char* invalid;
};

constexpr Texts kRead = TEXTS("rm_read");

void failed(const char* function, const char* what)
{
    rm_systemLogWrite("%s() failed: %s, %d", function, what, 1);
}

void open(const char* what)
{
    failed("rm_open", what);  // failed("in a comment", "no text");
}
}  // namespace

void rm_systemLogWrite(const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
}

int16_t rm_read(int16_t handle)
{
    static_assert(sizeof(handle) == 2, "a handle is small");
    if (handle < 0) {
        rm_systemLogWrite(kRead.invalid, handle);
    }
    open("no file");
    open(handle == 1 ? "a" : "b");
    return RM_SUCCESS;
}
END
    cat >"$work/tree/tools/tool.cpp" <<'END'
int main(int count, char** words)
{
    complain("cannot read " + std::string(words[1]) + ": " + reason());
    complain(count > 2 ? "too many" : "too few");
}
END
    cat >"$page" <<'END'
# Messages

## Finder

<!-- finder: tools/check_messages.py --finder -->

END
    cat >"$work/body" <<'END'

<!-- end of finder -->

## The library

### Nothing to read

```
rm_read: no handle %d
rm_open() failed: no file, %d
rm_open() failed: %s, %d
```

- **Severity:** warning.
- **Cause:** there is no file.
- **Remedy:** a file.

## Statuses

| Status | Name | Cause |
|---|---|---|
| 2 | `RM_NOT_FOUND` | none |
| -1019 | `RM_NO_PLACE` | full |

## Tools and example

### A tool complains

```
cannot read ...: ...
too many
too few
```

- **Cause:** the command line.
- **Remedy:** another one.
END
    cat "$work/body" >>"$page"
    fill
}

# begin: a tree in order, again
begin() {
    rm -rf "$work/tree"
    cp -r "$work/good" "$work/tree"
}

# fill: the finder that belongs to the page
fill() {
    "$gate" --finder "$work/tree" >"$work/finder"
    {
        sed '/^<!-- finder/q' "$page"
        cat "$work/finder"
        sed -n '/^<!-- end of finder/,$p' "$page"
    } >"$work/page"
    cp "$work/page" "$page"
}

# spoil FILE EXPRESSION: one that changes nothing spoils nothing.
spoil() {
    cp "$1" "$work/before"
    sed -i "$2" "$1"
    if cmp -s "$1" "$work/before"; then
        echo "FAILED: nothing is changed by $2"
        failures=$((failures + 1))
    fi
}

# source_lacks TITLE TEXT EXPRESSION: with the changed source, the page lacks TEXT.
source_lacks() {
    begin
    spoil "$source" "$3"
    refuses "$1" "missing from docs/messages.md: $2" "$gate" "$work/tree"
}

make_tree
cp -r "$work/tree" "$work/good"
accepts "a page and sources that agree" "$gate" "$work/tree"

source_lacks "a new text" "disk full" \
    's/return RM_SUCCESS;/rm_systemLogWrite("disk full"); return RM_SUCCESS;/'
source_lacks "a new word that is handed over" "rm_open() failed: no disk, %d" \
    's/open("no file");/open("no file"); open("no disk");/'
source_lacks "a changed word that is handed over" "rm_close() failed: no file, %d" \
    's/"rm_open"/"rm_close"/'
source_lacks "a new text that a macro puts together" "rm_write: no handle %d" \
    's/^constexpr Texts kRead.*/&\nconstexpr Texts kWrite = TEXTS("rm_write");/'
source_lacks "a text on a way that is not known" "it is late" \
    's/return RM_SUCCESS;/tell("it is late"); return RM_SUCCESS;/'
source_lacks "a text over two lines" "disk very full" \
    's/return RM_SUCCESS;/rm_systemLogWrite("disk "\n"very full"); return RM_SUCCESS;/'

begin
spoil "$work/tree/tools/tool.cpp" 's/"too many"/"by far too many"/'
refuses "a new text of a tool" "missing from docs/messages.md: by far too many" "$gate" "$work/tree"
refuses "an old text of a tool" "no source writes this: too many" "$gate" "$work/tree"

begin
spoil "$page" 's/^rm_open() failed: no file, %d$/&\nrm_open() failed: no ink, %d/'
fill
refuses "a text that nobody writes" "no source writes this: rm_open() failed: no ink, %d" \
    "$gate" "$work/tree"

begin
spoil "$page" '/^rm_read: no handle %d$/d'
fill
refuses "a text that was taken away" "missing from docs/messages.md: rm_read: no handle %d" \
    "$gate" "$work/tree"

begin
spoil "$page" 's/^rm_read: no handle %d$/&\n&/'
fill
refuses "a text that stands twice" "listed twice" "$gate" "$work/tree"

begin
spoil "$page" '/Severity/d'
refuses "an entry without its severity" "has no Severity" "$gate" "$work/tree"

begin
spoil "$page" 's/\*\*Cause:\*\* the/**Reason:** the/'
refuses "an entry without its cause" "has no Cause" "$gate" "$work/tree"
refuses "an entry with a line of another name" '"Reason" is no line of an entry' \
    "$gate" "$work/tree"

begin
spoil "$page" 's/^### Nothing to read$/### Nothing read/'
refuses "a finder that leads elsewhere" "the finder is not" "$gate" "$work/tree"

begin
spoil "$page" '/end of finder/d'
refuses "a page without a finder" "the finder is missing" "$gate" "$work/tree"

begin
spoil "$page" '/RM_NO_PLACE/d'
refuses "a status that is missing" "RM_NO_PLACE -1019" "$gate" "$work/tree"

begin
spoil "$page" 's/| 2 |/| 3 |/'
refuses "a status with another number" "no status of include/rm.h: RM_NOT_FOUND 3" \
    "$gate" "$work/tree"

begin
rm "$page"
refuses "a tree without the page" "no such page" "$gate" "$work/tree"

begin
spoil "$source" 's/^struct Texts {/#error no\n&/'
refuses "a source that cannot be read" "preprocessor failed" "$gate" "$work/tree"

finish
