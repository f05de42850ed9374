# Sourced by the tests of the gates. Sets `work`, an empty directory that goes at the end.
# shellcheck shell=bash
set -euo pipefail

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0

# accepts TITLE COMMAND...
accepts() {
    local title=$1
    shift
    if "$@" >"$work/output" 2>&1; then
        echo "ok: accepts $title"
    else
        echo "FAILED: refuses $title:"
        cat "$work/output"
        failures=$((failures + 1))
    fi
}

# refuses TITLE TEXT COMMAND...: the command fails, and says TEXT.
refuses() {
    local title=$1 text=$2
    shift 2
    if "$@" >"$work/output" 2>&1; then
        echo "FAILED: accepts $title"
    elif ! grep -qF -- "$text" "$work/output"; then
        echo "FAILED: refuses $title, but does not say \"$text\":"
        cat "$work/output"
    else
        echo "ok: refuses $title"
        return
    fi
    failures=$((failures + 1))
}

finish() {
    exit $((failures > 0))
}
