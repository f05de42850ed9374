#!/usr/bin/env bash
# check_one_place.sh ARCHIVE
# What the library asks of the system in one place of its own only: elsewhere it would pass by the
# memory manager, the log, the fatal path.
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# "symbol object" of everything that an object takes from outside; some flags of the compiler put a
# checked variant in the place of a function.
"${NM:-nm}" -A -u "$1" | sed -E 's/^.*[:\[]([A-Za-z]+\.cpp)\.o\]?:[^U]*U /\1 /' |
    awk '{ sub(/@.*/, "", $2); sub(/^__/, "", $2); sub(/_chk$/, "", $2); print $2, $1 }' |
    sort -u >"$work/uses"
failed=0

# only PROMISE SYMBOLS [OBJECT...]: no other object uses one of them, and the first one does.
only() {
    local promise=$1 symbols=$2 strangers
    shift 2
    strangers=$(grep -E "^($symbols) " "$work/uses" | grep -vE " ($(IFS='|'; echo "${*:-none}"))\$" || true)
    if [ -n "$strangers" ]; then
        printf 'not so: %s:\n%s\n' "$promise" "$strangers"
        failed=1
    fi
    if [ $# -gt 0 ] && ! grep -qE "^($symbols) $1\$" "$work/uses"; then
        echo "not so: $1 uses $symbols"
        failed=1
    fi
}

# The bookkeeping of the segments is the memory manager's own and no memory of a tag.
only "memory comes from the heap in one place" 'malloc|realloc|strdup|strndup|Zn[wa][mj]' process.cpp
only "the bookkeeping of the memory manager takes its own" 'calloc|aligned_alloc' \
    chain.cpp pagetable.cpp pieces.cpp segmentmap.cpp
only "every diagnostic goes through one writer" 'stderr' syslog.cpp base.cpp
only "standard output gets failed system calls only" 'v?printf|puts|putchar' fatal.cpp
only "a process ends in one place" '_?exit|_Exit|quick_exit' fatal.cpp
only "control leaves frames in one place" '_?(sig)?longjmp' unwind.cpp
only "files take turns by a lock in one place" 'flock|lockf' osreplace.cpp
only "nothing is started" '(v|_F)?fork|clone3?|pthread_create|posix_spawnp?|system|popen|exec[vl]p?e?'
only "no lock of threads is used" 'pthread_(mutex|rwlock|cond|spin)_[a-z_]*|sem_(wait|open|init)'
exit "$failed"
