#!/usr/bin/env bash
# check_host_kind.sh pie|no_pie|static HOST
# The host cases prove something about the kinds of host only while the hosts are of these kinds,
# whatever the compiler's defaults are.
set -euo pipefail

kind=$1 host=$2
readelf=${READELF:-readelf}
type=$("$readelf" -hW "$host" | awk '$1 == "Type:" { print $2 }')
needed=$("$readelf" -dW "$host" | grep -cF '[_rm.so]' || true) # of the shared library

[ "$needed" -eq "$([ "$kind" = static ] && echo 0 || echo 1)" ] ||
    { echo "$host needs _rm.so $needed times"; exit 1; }
case $kind in
pie | static)
    [ "$type" = DYN ] || { echo "$host is of type $type, wanted DYN"; exit 1; }
    ;;
no_pie)
    [ "$type" = EXEC ] || { echo "$host is of type $type, wanted EXEC"; exit 1; }
    "$readelf" -rW "$host" | grep -E '_COPY .*fileHandleLimit' ||
        { echo "$host has no copy of fileHandleLimit"; exit 1; }
    ;;
*)
    echo "usage: check_host_kind.sh pie|no_pie|static HOST" >&2
    exit 2
    ;;
esac
