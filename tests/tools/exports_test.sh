#!/usr/bin/env bash
# The export gate, on an interface that agrees and on each way to disagree.
# shellcheck source-path=SCRIPTDIR source=gate.sh
. "$(dirname "$0")/gate.sh"
gate=$1/tools/check_exports.sh

cat >"$work/lib.h" <<'END'
#include <stdint.h>
#define API __attribute__((visibility("default")))
typedef struct Record { const char* name; int (*compare)(int, int); } Record;
extern API int16_t limit;
API void log_text(const char* format, ...)
    __attribute__((__format__(__printf__, 1, 2)));
API const Record* find(int (*compare)(const Record*, int), int count);
END

# library NAME <source
library() {
    "${CC:-cc}" -shared -fPIC -fvisibility=hidden -I "$work" -x c - -o "$work/$1.so"
}

full='#include "lib.h"
int16_t limit; void log_text(const char* format, ...) { (void)format; }
const Record* find(int (*compare)(const Record*, int), int count)
{ return compare(0, count) ? 0 : (const Record*)0; }
'
library full <<<"$full"
library more <<<"$full API int surprise(void); int surprise(void) { return 1; }"
library less <<<'#include "lib.h"
int16_t limit; void log_text(const char* format, ...) { (void)format; }'

names() { # names NAME...: writes them as a list and prints where it is
    printf '%s\n' "$@" >"$work/list"
    echo "$work/list"
}

accepts "an interface that agrees" \
    "$gate" "$work/full.so" "$work/lib.h" "$(names find limit log_text)"
refuses "a name that the library lets out" "surprise" \
    "$gate" "$work/more.so" "$work/lib.h" "$(names find limit log_text)"
refuses "a name that the library lost" "not exported by" \
    "$gate" "$work/less.so" "$work/lib.h" "$(names find limit log_text)"
refuses "a declaration that is not in the list" "missing from" \
    "$gate" "$work/full.so" "$work/lib.h" "$(names find limit)"
refuses "a listed name without a declaration" "not declared in" \
    "$gate" "$work/full.so" "$work/lib.h" "$(names find limit log_text other)"
refuses "a list out of order" "not sorted" \
    "$gate" "$work/full.so" "$work/lib.h" "$(names limit find log_text)"

finish
