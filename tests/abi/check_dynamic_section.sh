#!/usr/bin/env bash
# check_dynamic_section.sh LIBRARY
# What the loader is told about the shared object.
set -euo pipefail

dynamic=$("${READELF:-readelf}" -dlW "$1")
failed=0

# expect PROMISE PATTERN
expect() {
    if ! grep -qE "$2" <<<"$dynamic"; then
        echo "not so: $1 ($2)"
        failed=1
    fi
}

expect "the soname is the file's name" '\(SONAME\).*\[_rm\.so\]$'
expect "the library is never unloaded" '\(FLAGS_1\).*NODELETE'
expect "everything is bound when it is loaded" '\(FLAGS_1\).*NOW'
expect "the relocated data is read-only" 'GNU_RELRO'

if grep -E '\((TEXTREL|RPATH|RUNPATH)\)' <<<"$dynamic"; then
    echo "text relocations or a run path"
    failed=1
fi
# The platform and the C++ library; a sanitizer brings its own.
if grep '(NEEDED)' <<<"$dynamic" |
    grep -vE '\[(libc|libm|libgcc_s|libstdc\+\+|ld-linux[-_a-z0-9]*|libasan|libubsan)\.so\.[0-9]+\]'; then
    echo "depends on more than the platform"
    failed=1
fi
exit "$failed"
