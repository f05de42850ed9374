#!/usr/bin/env bash
# coverage_report.sh BUILD_DIR
# Lines and branches of rm/ that the suite has run, a row per file, with the lines it has not; the
# same with its source as pages in BUILD_DIR/report. Branches that only an exception would take, or
# that the compiler added, are no branches of the library: nothing in it throws. A line that was not
# run is a failure, and so is a branch that was not taken and has no reason in coverage_untaken.txt.
set -euo pipefail

build=$1
mkdir -p "$build/report"
gcovr --root . --filter 'rm/' --exclude-throw-branches --exclude-unreachable-branches \
    --csv "$build/report/coverage.csv" --html-details "$build/report/index.html" \
    --txt "$build/report/coverage.txt" --json "$build/report/coverage.json" "$build/CMakeFiles/rm_objects.dir"

awk -F, '
    function percent(covered, total) {
        return total == 0 ? "     -" : sprintf("%5.1f%%", 100 * covered / total)
    }
    function row(name, lines, linesRun, branches, branchesRun) {
        printf "%-28s %5d/%-5d %s   %5d/%-5d %s\n", name,
            linesRun, lines, percent(linesRun, lines), branchesRun, branches,
            percent(branchesRun, branches)
    }
    NR == 1 {
        for (i = 1; i <= NF; i++) column[$i] = i
        printf "%-28s %18s   %18s\n", "file", "lines", "branches"
        next
    }
    {
        row($column["filename"], $column["line_total"], $column["line_covered"],
            $column["branch_total"], $column["branch_covered"])
        lines += $column["line_total"]
        linesRun += $column["line_covered"]
        branches += $column["branch_total"]
        branchesRun += $column["branch_covered"]
    }
    END { row("rm/", lines, linesRun, branches, branchesRun) }' "$build/report/coverage.csv"

# The last column of the text report holds the lines that nothing ran.
missing=$(awk '/^rm\// && NF > 4 { sub(/^/, "    "); print "    " $1 ": " $NF }' "$build/report/coverage.txt")
[ -z "$missing" ] || printf 'lines not run:\n%s\n' "$missing"
echo "pages: $build/report/index.html"
tools/coverage_branches.py "$build/report/coverage.json" tools/coverage_untaken.txt
[ -z "$missing" ]
