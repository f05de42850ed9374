#!/usr/bin/env bash
# The whole scene of the catalogue on real input: it is started and stays, loads, serves clients while
# it works, loses a worker, takes new settings, and ends in order on Ctrl-C. Another one is killed as a
# whole, and what it leaves is looked at and removed. ./run demo calls it.
#
# arguments: <directory of the tools> <catalogue> <map to write> <log to keep>
#            [<file of records> [<operations>]]
# The current directory is empty, and nobody else's.
set -euo pipefail

tools=$1
catalogue=$2
map=$3
kept_log=$4
input=${5:-/var/lib/dpkg/status}
operations=${6:-150000}

pid=
stop() {
    [ -z "$pid" ] || kill -KILL "$pid" 2>/dev/null || true
}
trap stop EXIT

step=0
say() {
    step=$((step + 1))
    printf '\n--- %d. %s\n' "$step" "$*"
}

# show <command...>: as one would type it, and what it prints.
show() {
    printf '    $ %s' "${1##*/}"
    printf ' %q' "${@:2}"
    printf '\n'
    "$@" 2>&1 | sed 's/^/      /'
}

die() {
    printf '\ndemo: %s\n' "$1" >&2
    sed 's/^/    /' server.out server.err >&2
    exit 1
}

# await <pattern> <file>: until a line that matches stands there, or the server has gone.
await() {
    local tries
    for ((tries = 0; tries < 1200; tries++)); do
        ! grep -qE -- "$1" "$2" 2>/dev/null || return 0
        kill -0 "$pid" 2>/dev/null || die "the server has ended."
        sleep 0.05
    done
    die "no line \"$1\" came."
}

lines() {
    grep -E -- "$1" "$2" | sed 's/^/      /'
}

say "Start: load $input into 32 files, 4 workers, and stay for clients"
printf '[catalogue]\nWorkers=4\n\n[log]\nLevel=2\n' >corvane.ini
: >server.out
: >server.err
"$catalogue" --stay --dir . --operations "$operations" --report "$input" >server.out 2>server.err &
pid=$!
await '^catalogue: process ' server.out
printf '    $ catalogue --stay --operations %s --report %s &\n' "$operations" "$input"
await 'worker 4: start: ' catalogue.log
lines '^(catalogue: process|loading: )' server.out
lines '  (parent: (input|loaded)|(desk|worker [0-9]): start)' catalogue.log

say "Clients: separate programs that ask it while the workers are busy"
show "$catalogue" list lib >names
sed -n '1,4p' names
printf '      ... %d names in all\n' $(($(wc -l <names) - 1))
name=$(sed -n '2s/^ *//p' names)
[ -n "$name" ] || die "there is no record whose name begins with lib."
show "$catalogue" put "$name" 'checked by the demonstration'
show "$catalogue" get "$name" >record
sed -n '1,4p' record
printf '      ...\n'
tail -n 2 record
clients=()
for client in 1 2 3 4 5 6; do
    for round in 1 2 3 4 5; do
        "$catalogue" put "$name" "client $client, round $round" --timeout 60 >>"client.$client"
        "$catalogue" get "$name" --timeout 60 >/dev/null
    done &
    clients+=($!)
done

say "A worker is killed, with SIGKILL, in the middle of its work"
victim=$(sed -nE 's/.*  worker 2: start: process ([0-9]+).*/\1/p' catalogue.log | tail -n 1)
printf '    $ kill -KILL %s\n' "$victim"
kill -KILL "$victim"
await 'worker 2: start: .* in the place of one that died' catalogue.log
lines '  (WARNING: lock|desk: warning: worker 2|worker 2: start: .* in the place)' server.err

say "New settings: corvane.ini is changed, and SIGHUP has it read again"
printf '[catalogue]\nWorkers=4\n\n[store]\nRotate=2\n\n[log]\nLevel=2\n\n[server]\nHandleLimit=12\n' >corvane.ini
printf '    $ kill -HUP %s\n' "$pid"
kill -HUP "$pid"
await 'desk: rotation 2: ' catalogue.log
await 'worker 4: settings 2 are in effect' catalogue.log
lines '  (desk: (reload|rotation)|worker [0-9]: settings)' catalogue.log

say "Six clients at once have each written five notes and read them back"
for client in "${clients[@]}"; do
    wait "$client" || die "a client failed."
done
printf '      %s updates acknowledged, the last one as %s\n' "$(cat client.* | wc -l)" \
    "$(cat client.* | sort -V | tail -n 1)"
show "$catalogue" stats >figures
cat figures

say "Shutdown: when the operations are done, Ctrl-C (SIGINT) ends it in order"
await '^staying: ' server.out
printf '    $ kill -INT %s\n' "$pid"
kill -INT "$pid"
status=0
wait "$pid" || status=$?
pid=
printf '      exit status %s\n' "$status"
left=$(find . -name 'catalogue-run.*')
[ -z "$left" ] || die "it left $left."

say "Verification and summary, as the server has printed them"
sed -n '/^staying: /,$p' server.out | sed 's/^/    /'
cp catalogue.log "$kept_log"
[ "$status" -eq 0 ] || die "it ended with status $status."

say "The heap of its parent, from the report at the end of its log"
"$tools/rmheap/rmheap" --svg="$map" "$kept_log"

say "Another server is killed with SIGKILL: what it leaves in the system, and how that goes"
"$catalogue" --stay --dir . --operations 1000 "$input" >server.out 2>server.err &
pid=$!
await '^staying: ' server.out
run=$(find . -name 'catalogue-run.*')
pids=$(sed -nE 's/.*: start: process ([0-9]+).*/\1/p' catalogue.log | tail -n 5)
printf '    $ kill -KILL %s\n' "$pid"
disown "$pid" # or the shell tells on standard error, now and then, that it was killed
kill -KILL "$pid"
# Its desk and its workers notice and end by themselves.
for other in $pid $pids; do
    while kill -0 "$other" 2>/dev/null; do sleep 0.05; done
done
pid=
show "$tools/rmipc/rmipc" list "$run/" || true
show "$tools/rmipc/rmipc" remove --yes "$run/"
printf '    $ rm -r %s\n' "$run"
rm -r "$run"
