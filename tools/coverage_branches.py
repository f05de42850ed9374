#!/usr/bin/env python3
"""Tells which branches of rm/ the suite has not taken, and holds them against the list of reasons.

coverage_branches.py COVERAGE_JSON REASONS [--all]

The list names a branch by the file and the text of its line, and gives the reason below:

    rm/file/growth.cpp: if (step == 0 || end < size) {
        The caller has asked for a step already.

Status 1 when a branch that was not taken has no reason there, or when the line of a reason is not
in its file any more. --all prints the branches that have their reason as well."""

import argparse
import collections
import json
import pathlib
import sys


def reasons_in(path):
    """(file, text of the line) -> reason"""
    reasons = {}
    key = None
    for line in path.read_text().splitlines():
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith(" "):
            reasons[key] = f"{reasons[key]} {line.strip()}".strip()
        else:
            file, _, text = line.partition(": ")
            key = (file, text.strip())
            reasons[key] = ""
    return reasons


def untaken_in(coverage):
    """(file, line number, branches not taken, branches of the line)"""
    for file in coverage["files"]:
        for line in file["lines"]:
            counts = [branch["count"] for branch in line["branches"]]
            if counts and not all(counts):
                yield file["file"], line["line_number"], counts.count(0), len(counts)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("coverage", type=pathlib.Path)
    parser.add_argument("reasons", type=pathlib.Path)
    parser.add_argument("--all", action="store_true")
    options = parser.parse_args()

    reasons = reasons_in(options.reasons)
    coverage = json.loads(options.coverage.read_text())
    sources = collections.defaultdict(list)
    for file in {file["file"] for file in coverage["files"]} | {file for file, _ in reasons}:
        path = pathlib.Path(file)
        sources[file] = [line.strip() for line in path.read_text().splitlines()] if path.is_file() else []

    complaints = [f"{file}: there is no such line any more: {text}" for file, text in reasons
                  if text not in sources[file]]
    complaints += [f"{file}: no reason is given for: {text}" for (file, text), reason in reasons.items()
                   if not reason]
    explained = 0
    for file, number, untaken, branches in untaken_in(coverage):
        text = sources[file][number - 1]
        reason = reasons.get((file, text))
        if reason is None:
            complaints.append(f"{file}:{number}: {untaken} of {branches} not taken: {text}")
        else:
            explained += untaken
            if options.all:
                print(f"{file}:{number}: {untaken} of {branches} not taken: {text}\n    {reason}")
    print(f"branches not taken, with their reason: {explained}")
    for complaint in complaints:
        print(complaint, file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
