#!/usr/bin/env bash
# The jump-safety gate, on one clean library and on one of each kind that it has to refuse.
# shellcheck source-path=SCRIPTDIR source=gate.sh
. "$(dirname "$0")/gate.sh"
gate=$1/tools/check_jump_safety.sh

# build NAME <source: makes the archive NAME of one clean file and the given one.
build() {
    mkdir -p "$work/$1/src" "$work/$1/obj"
    echo 'int sum(int a, int b); int sum(int a, int b) { return a + b; }' >"$work/$1/src/clean.cpp"
    cat >"$work/$1/src/given.cpp"
    for file in clean given; do
        "${CXX:-c++}" -std=c++20 -O2 -fPIC -c "$work/$1/src/$file.cpp" -o "$work/$1/obj/$file.cpp.o"
    done
    archive "$1"
}

# archive NAME: makes the archive anew of the objects that NAME has.
archive() {
    rm -f "$work/$1/lib.a"
    "${AR:-ar}" qc "$work/$1/lib.a" "$work/$1"/obj/*.o
}

# shellcheck disable=SC2317  # called through accepts and refuses
check() {
    "$gate" "$work/$1/src" "$work/$1/lib.a"
}

build plain <<'END'
#include <cstdio>
#include <string_view>
void mayNotReturn(const char*);
void show(std::string_view text);
void show(std::string_view text) { mayNotReturn(text.data()); std::puts(text.data()); }
END
accepts "plain data across a call" check plain

build guard <<'END'
void mayNotReturn();
void undo();
struct Guard { ~Guard() { undo(); } };
void work();
void work() { Guard guard; mayNotReturn(); }
END
refuses "a guard across a call" ".gcc_except_table" check guard

build owner <<'END'
#include <string>
void mayNotReturn(const char*);
void work(const char* text);
void work(const char* text) { std::string copy(text); copy += text; mayNotReturn(copy.c_str()); }
END
refuses "an owning string" "refers to _ZSt" check owner

build thrower <<'END'
void work(int value);
void work(int value) { if (value < 0) throw value; }
END
refuses "a throw" "refers to __cxa_throw" check thrower

build checked <<'END'
#include <array>
int at(const std::array<int, 4>& values, unsigned long index);
int at(const std::array<int, 4>& values, unsigned long index) { return values.at(index); }
END
refuses "a call that throws inside the C++ library" "out_of_range" check checked

build silent <<'END'
void mayNotReturn();
void work() noexcept;
void work() noexcept { mayNotReturn(); }
END
refuses "noexcept around a call" ".gcc_except_table" check silent

build heap <<'END'
int* make();
int* make() { return new int[4]; }
END
refuses "the allocation operators" "operator new" check heap

build constructed <<'END'
int now();
int start = now();
END
refuses "a static made before main" "before main" check constructed

build destructed <<'END'
void undo();
struct Table { int n = 0; ~Table() { undo(); } };
Table table;
END
refuses "a static with a destructor" "__cxa_atexit" check destructed

build second <<'END'
#include <csetjmp>
void leave(std::jmp_buf target);
void leave(std::jmp_buf target) { std::longjmp(target, 1); }
END
refuses "a second place that jumps" "says longjmp" check second

build remark <<'END'
// Like longjmp, but not.
int value();
int value() { return 1; }
END
refuses "a comment on the jump in another file" "says longjmp" check remark

build missing </dev/null
rm "$work/missing/obj/given.cpp.o"
archive missing
refuses "a source without its object" "given.cpp" check missing

build none </dev/null
rm "$work"/none/src/*.cpp
refuses "a library without sources" "no sources" check none

finish
