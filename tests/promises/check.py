#!/usr/bin/env python3
"""Each promise of the lists has a case that holds it, and the case is one of the suite.

check.py BUILD_DIRECTORY [--table] [--pages DIRECTORY]

A list is a page of items; an item ends with the names of its cases, or says why nobody could see
whether it is kept. --table prints how many of both each page has."""

import argparse
import pathlib
import re
import sys

LONGEST_LINE = 110
CASES = re.compile(r"((?:\s*`[\w.]+\.\w+`)+)$")
UNSEEN = re.compile(r"\bCannot be seen: \S")


def cases_of_the_suite(build):
    """Names as ctest has them, without what stands for a parameter."""
    names = set()
    for file in [*build.rglob("*_tests.cmake"), *build.rglob("CTestTestfile.cmake")]:
        for name in re.findall(r"^add_test\(\[=*\[(.+?)\]=*\]", file.read_text(), re.M):
            plain = re.match(r"(?:\w+/)?([\w.]+\.\w+)(?:/.*)?$", name.split()[0])
            names.add(plain[1] if plain else name)
    return names


def items(text):
    """(line number, text) of each item; its lines are joined."""
    found = []
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("- "):
            found.append([number, line[2:]])
        elif line.startswith("  ") and found and line.strip():
            found[-1][1] += " " + line.strip()
    return found


class Page:
    def __init__(self, path, suite):
        self.name = path.stem
        self.complaints = []
        self.cases = set()
        self.unseen = 0
        seen = {}
        text = path.read_text()
        self.promises = items(text)
        if not self.promises:
            self.complain(1, "promises nothing")
        for number, line in enumerate(text.splitlines(), 1):
            if len(line) > LONGEST_LINE:
                self.complain(number, f"is longer than {LONGEST_LINE} columns")
        for number, item in self.promises:
            self.look_at(number, item, suite)
            words = CASES.sub("", item)
            if words in seen:
                self.complain(number, f"says again what {seen[words]} says")
            seen[words] = f"line {number}"

    def complain(self, number, what):
        self.complaints.append(f"{self.name}.md:{number}: {what}")

    def look_at(self, number, item, suite):
        cases = CASES.search(item)
        if not cases:
            if UNSEEN.search(item):
                self.unseen += 1
            else:
                self.complain(number, "has no case, and no reason why there is none")
            return
        for case in re.findall(r"`([^`]+)`", cases[1]):
            self.cases.add(case)
            if case not in suite:
                self.complain(number, f"names {case}, which is not in the suite")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--table", action="store_true")
    parser.add_argument("--pages", type=pathlib.Path, default=pathlib.Path(__file__).parent)
    options = parser.parse_args()

    suite = cases_of_the_suite(options.build)
    lists = [path for path in sorted(options.pages.glob("*.md")) if path.stem != "README"]
    pages = [Page(path, suite) for path in lists]
    if options.table:
        print(f"{'page':14} {'promises':>9} {'cases':>6} {'cannot be seen':>15}")
        for page in pages:
            print(f"{page.name:14} {len(page.promises):9} {len(page.cases):6} {page.unseen:15}")
        print(
            f"{'all':14} {sum(len(page.promises) for page in pages):9}"
            f" {len(set().union(*(page.cases for page in pages))):6} {sum(page.unseen for page in pages):15}"
        )

    complaints = [complaint for page in pages for complaint in page.complaints]
    if not pages:
        complaints.append(f"{options.pages.name}: there is no list in it")
    for complaint in complaints:
        print(complaint, file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
