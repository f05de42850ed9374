#!/usr/bin/env python3
"""What the pages of the guide point to is there, and nothing in them is said twice.

pages_test.py ROOT

Links lead to files and headings that exist, here and on the other pages of the repository; the test
cases that are named do too. Each picture is well-formed and shown. No sentence of the guide stands in
it a second time. The table of services has every source of the library and every test program, and
nothing that is not there."""

import pathlib
import re
import sys
import xml.etree.ElementTree

GUIDE = ["HOSTS", "memory", "processes", "modules", "limits", "surprises"]
OTHERS = ["README.md", "ARCHITECTURE.md", "CONTRIBUTING.md", "examples/README.md", "docs/messages.md"]
SERVICE_TESTS = ["base", "containers", "ems", "file", "multiprocess", "rmalloc", "rmsrv", "rmutil", "txtutil",
                 "unix"]
OF_ALL_SERVICES = ["overview_promise_test.cpp", "status_promise_test.cpp"]
FEWEST_WORDS = 6  # of a sentence that counts: shorter ones are bound to come again


def without_code(text):
    """The text with its blocks of code as empty lines, so that lines keep their numbers."""
    return re.sub(r"^```.*?^```", lambda block: "\n" * block[0].count("\n"), text, flags=re.M | re.S)


def anchors(text):
    found = set()
    for heading in re.findall(r"^#+ (.*)$", without_code(text), re.M):
        words = re.sub(r"[^\w\- ]", "", heading.lower())
        found.add(words.replace(" ", "-"))
    return found


def wrong_links(page, text):
    plain = without_code(text)
    for link in re.finditer(r"\]\(([^)\s]+)\)", re.sub(r"`[^`\n]*`", "", plain)):
        target, _, anchor = link[1].partition("#")
        if re.match(r"[a-z]+:", target):
            continue
        path = page.parent / target if target else page
        if not path.exists():
            yield f"{page.name}: leads to {link[1]}, which is not there"
        elif anchor and anchor not in anchors(path.read_text()):
            yield f"{page.name}: leads to {link[1]}, a heading that is not there"


def cases_of_the_suite(root):
    pattern = re.compile(r"\bTEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\)")
    found = set()
    for file in (root / "tests").rglob("*_test.cpp"):
        found.update(".".join(case) for case in pattern.findall(file.read_text()))
    return found


def sentences(text):
    """The prose in its sentences: no code, tables, headings or comments."""
    plain = re.sub(r"<!--.*?-->|<sub>.*?</sub>", "", without_code(text), flags=re.S)
    plain = re.sub(r"!\[[^\]]*\]\([^)]*\)", "", plain)
    plain = re.sub(r"^(\||#).*$", "", plain, flags=re.M)
    plain = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", plain)
    for paragraph in re.split(r"\n\s*\n|^(?:- |\d\. )", plain, flags=re.M):
        line = " ".join(re.sub(r"[*`]", "", paragraph).split())
        for sentence in re.split(r"(?<=[.:;?!]) (?=[A-Z\"])|[:;] ", line):
            words = re.findall(r"\w+", sentence.lower())
            if len(words) >= FEWEST_WORDS:
                yield " ".join(words)


def files_of(root, cell):
    """The files that a cell of the table names; what has no folder is in that of the one before."""
    folder = ""
    for name in re.findall(r"`([^`]+)`", cell):
        path = name if "/" in name else f"{folder}/{name}"
        folder = path.rsplit("/", 1)[0]
        found = {str(file.relative_to(root)) for file in root.glob(path.rstrip("/"))}
        if path.endswith("/"):
            found = {str(file.relative_to(root)) for file in (root / path).glob("*_test.cpp")} or found
        yield path, found


def wrong_services(root):
    text = (root / "ARCHITECTURE.md").read_text()
    table = text.partition("## Services")[2].partition("\n## ")[0]
    sources, tests, checkers = set(), set(), set()
    for row in re.findall(r"^\| (.*) \|$", table, re.M)[1:]:
        _, source, test, checker = row.split(" | ")
        for cell, all_of_them in (source, sources), (test, tests):
            for path, found in files_of(root, cell):
                if not found:
                    yield f"ARCHITECTURE.md: names {path}, which is not there"
                all_of_them |= found
        checkers |= set(re.findall(r"`\w+::(\w+)`", checker))
    code = "".join(file.read_text() for file in (root / "rm").rglob("*.h"))
    for checker in sorted(checkers):
        if not re.search(rf"\b{checker}\(", code):
            yield f"ARCHITECTURE.md: names the checker {checker}, which is not there"
    for file in sorted((root / "rm").rglob("*.cpp")):
        if str(file.relative_to(root)) not in sources:
            yield f"ARCHITECTURE.md: {file.relative_to(root)} has no row"
    for folder in SERVICE_TESTS:
        for file in sorted((root / "tests" / folder).glob("*_test.cpp")):
            if str(file.relative_to(root)) not in tests and file.name not in OF_ALL_SERVICES:
                yield f"ARCHITECTURE.md: {file.relative_to(root)} is in no row"


def main():
    root = pathlib.Path(sys.argv[1])
    pages = {name: root / "docs" / f"{name}.md" for name in GUIDE}
    complaints = []
    suite = cases_of_the_suite(root)
    said = {}
    for name, page in pages.items():
        text = page.read_text()
        complaints += wrong_links(page, text)
        for case in sorted(set(re.findall(r"\b[A-Z]\w+\.[A-Z]\w+", without_code(text)))):
            if not case.endswith(".RM") and case not in suite:
                complaints.append(f"{page.name}: names the case {case}, which is not there")
        for sentence in sentences(text):
            if sentence in said:
                complaints.append(f"{page.name}: says again, after {said[sentence]}: {sentence}")
            said[sentence] = page.name

    for name in OTHERS:
        page = root / name
        if page.exists():
            complaints += wrong_links(page, page.read_text())

    complaints += wrong_services(root)

    shown = "".join(file.read_text() for file in [*root.glob("*.md"), *(root / "docs").glob("*.md")])
    for picture in sorted((root / "docs").glob("*.svg")):
        try:
            xml.etree.ElementTree.parse(picture)
        except xml.etree.ElementTree.ParseError as error:
            complaints.append(f"{picture.name}: {error}")
        if f"{picture.name})" not in shown:
            complaints.append(f"{picture.name}: no page shows it")

    for complaint in complaints:
        print(complaint, file=sys.stderr)
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
