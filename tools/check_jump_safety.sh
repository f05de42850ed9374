#!/usr/bin/env bash
# check_jump_safety.sh SOURCE_DIR ARCHIVE
#
# Fatal errors leave the library by a jump over the frames between the failure and the host. What a
# destructor would have done in those frames never happens, so no frame may have one to run. The
# compiler itself tells: exceptions are on, so a destructor that is live across any call that may
# throw needs an entry in .gcc_except_table. This reads the objects of the optimised archive, which
# are those of the shared library too, and fails
#   - when one has such a table, or code that runs before main,
#   - when one refers to the exception machinery, to a function of the C++ library that throws, to
#     one of its owning classes, or to its allocation operators,
#   - when a source has no object or an object no source,
#   - when a source other than unwind.cpp says longjmp, be it in a comment: the jump has one place.
set -euo pipefail

if [ $# -ne 2 ]; then
    echo "usage: check_jump_safety.sh SOURCE_DIR ARCHIVE" >&2
    exit 2
fi
sources=$1 archive=$(realpath "$2")
objects=$(mktemp -d)
trap 'rm -rf "$objects"' EXIT
failed=0

fail() {
    printf '%s\n' "$1"
    failed=1
}

(cd "$objects" && "${AR:-ar}" x "$archive")
mapfile -t object_files < <(cd "$objects" && printf '%s\n' * | sort)
mapfile -t source_files < <(find "$sources" -name '*.cpp' | sort)
[ ${#source_files[@]} -gt 0 ] || fail "$sources: no sources"

have=$(printf '%s\n' "${object_files[@]%.o}")
want=$(for source in "${source_files[@]}"; do basename "$source"; done | sort)
if [ "$have" != "$want" ]; then
    fail "objects of $archive (>) and sources of $sources (<) differ:"
    diff <(echo "$want") <(echo "$have") | grep '^[<>]' || true
fi

# Owning classes and throwing helpers of the C++ library live in its object code under _ZSt and
# _ZNSt (with _ZNK for const members); what is used of it here is inline or C.
forbidden='^(__cxa_|__gxx_personality|_Unwind_|_ZSt|_ZNK?St|_Zn[aw]|_Zd[al])'

cd "$objects"
for object in "${object_files[@]}"; do
    sections=$("${READELF:-readelf}" -SW "$object")
    if grep -q '\.gcc_except_table' <<<"$sections"; then
        fail "$object: has .gcc_except_table: a destructor is live across a call"
    fi
    if grep -qE '\.(init_array|ctors)' <<<"$sections"; then
        fail "$object: has code that runs before main: a static is not constant-initialised"
    fi
    while read -r symbol; do
        fail "$object: refers to $symbol ($("${CXXFILT:-c++filt}" "$symbol"))"
    done < <("${NM:-nm}" -u "$object" | awk '{ print $NF }' | grep -E "$forbidden")
done

cd - >/dev/null
while read -r source; do
    fail "$source: says longjmp; only unwind.cpp may"
done < <(find "$sources" -type f ! -name unwind.cpp -exec grep -l longjmp {} + | sort)

if [ "$failed" -eq 0 ]; then
    echo "${#object_files[@]} objects: no destructor stands in the way of a jump"
fi
exit "$failed"
