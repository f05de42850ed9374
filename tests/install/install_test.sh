#!/usr/bin/env bash
# install_test.sh CMAKE BUILD_DIR CC CFLAGS
# Installs the build into an empty prefix, moves it, and builds and runs a C host against it, the
# way a user's own build would.
set -euo pipefail

cmake=$1 build=$2 cc=$3
read -ra flags <<<"$4"
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# works HOST: it ran to its end; a fatal error of the library would end it with status 0 as well.
works() {
    [ "$("$1")" = installed ] || { echo "$1 does not work"; exit 1; }
}

title() {
    printf '== %s\n' "$1"
}

title "install into an empty prefix, then move it"
"$cmake" --install "$build" --prefix "$work/first"
mv first prefix
installed=$(cd prefix && find . -type f | sort)
for file in include/rm.h _rm.so _rm.a pkgconfig/_rm.pc cmake/_rm/_rm-config.cmake bin/rmini \
    man/man1/rmini.1 bash-completion/completions/rmini bin/rmheap man/man1/rmheap.1 \
    bash-completion/completions/rmheap bin/rmipc man/man1/rmipc.1 bash-completion/completions/rmipc
do
    grep -q "/$file\$" <<<"$installed" || { echo "not installed: $file"; exit 1; }
done

title "a host by pkg-config"
export PKG_CONFIG_PATH
PKG_CONFIG_PATH=$(dirname "$(find "$work/prefix" -name _rm.pc)")
read -ra rm_flags <<<"$(pkg-config --cflags --libs _rm)"
"$cc" -std=c11 -Wall -Wextra -Werror "${flags[@]}" "$here/host.c" -o by_pkg_config "${rm_flags[@]}"
works ./by_pkg_config

title "hosts by find_package"
"$cmake" -G Ninja -S "$here/consumer" -B consumer -DCMAKE_PREFIX_PATH="$work/prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_C_FLAGS="$4" -DHOST="$here/host.c"
"$cmake" --build consumer
works ./consumer/host_shared
works ./consumer/host_static

title "the tools, with their manual pages"
printf '[server]\nport=1\n' >server.ini
prefix/bin/rmini set server.ini server port 2
[ "$(prefix/bin/rmini get server.ini server port)" = 2 ] || { echo "rmini does not work"; exit 1; }
grep -q '^\.Dt RMINI 1$' "$(find prefix -name rmini.1)"
printf 'TOTAL :       24/    1 :     8144/    1 :   1\nMEMORY REPORT DONE\n' >report.log
prefix/bin/rmheap --list report.log | grep -q . || { echo "rmheap does not work"; exit 1; }
grep -q '^\.Dt RMHEAP 1$' "$(find prefix -name rmheap.1)"
prefix/bin/rmipc list "$work/" | grep -q . || { echo "rmipc does not work"; exit 1; }
grep -q '^\.Dt RMIPC 1$' "$(find prefix -name rmipc.1)"
