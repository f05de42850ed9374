"""Lists of changes: what is broken in which file, and which tests have to notice it.

A list is a text of lines:

    file rm/bag.cpp              the changes that follow are in this file
    tests bag_ring_test ...      programs that should notice them
    wide containers ...          folders of tests/ that are asked before a change has survived

    @ a ring skips its last slot         one change, by what is wrong then
    tests bag_ring_test                  its own programs, in place of the ones above
    same nobody can see that: why        it is known to make no difference, in one line or more
    - slot + 1 >= bag->slotCount         what stands in the file, exactly once
    + slot + 2 >= bag->slotCount         what stands there instead
      a line of both, where one alone is not unique

What stands after the two characters in front counts as it is, blanks included, and need not be a
whole line. Lines that begin with # are comments. A new "file" forgets the programs of the last one.
"""

import dataclasses
import hashlib
import pathlib


class ListError(Exception):
    """A list that is not right: not the code's fault and not the tests'."""


@dataclasses.dataclass
class Change:
    title: str
    where: str  # list and line
    file: str
    tests: list[str]
    wide: list[str]
    old: str = ""
    new: str = ""
    reason: str = ""  # why it makes no difference; empty when it has to be noticed

    @property
    def name(self) -> str:
        return f"{self.file}: {self.title}"

    def applied_to(self, text: str) -> str:
        """The text with the change in it. ListError unless the old text stands there once."""
        count = text.count(self.old)
        if count != 1:
            raise ListError(f"{self.where}: {self.name}: the old text is found {count} times")
        return text.replace(self.old, self.new)

    def key(self, tree: pathlib.Path) -> str:
        """Another one whenever the change, its file or the sources of its tests are others."""
        digest = hashlib.sha256()
        sources = [tree / self.file]
        for test in self.tests:
            sources += sorted(tree.glob(f"tests/*/{test}.*"))
        for part in (self.old, self.new, self.reason, *self.tests):
            digest.update(part.encode() + b"\0")
        for source in sources:
            digest.update(source.read_bytes() if source.is_file() else b"")
        return digest.hexdigest()[:16]


class _Reader:
    """Reads one list."""

    def __init__(self, path: pathlib.Path):
        self.path = path
        self.changes: list[Change] = []
        self.file = ""
        self.tests: list[str] = []
        self.wide: list[str] = []
        self.current: Change | None = None
        self.old: list[str] = []
        self.new: list[str] = []

    def fail(self, number: int, text: str) -> None:
        raise ListError(f"{self.path.name}:{number}: {text}")

    def finish(self, number: int) -> None:
        """The change that was being read is complete."""
        change = self.current
        if change is None:
            return
        change.old, change.new = "\n".join(self.old), "\n".join(self.new)
        if not change.old.strip():
            self.fail(number, f"{change.title}: there is no old text")
        if change.old == change.new:
            self.fail(number, f"{change.title}: nothing is changed")
        if not change.tests:
            self.fail(number, f"{change.title}: no test is named")
        self.changes.append(change)
        self.current, self.old, self.new = None, [], []

    def word_line(self, number: int, word: str, rest: str) -> None:
        if word == "file":
            self.finish(number)
            self.file, self.tests, self.wide = rest, [], []
        elif word == "tests":
            if self.current is not None:
                self.current.tests = rest.split()
            else:
                self.tests = rest.split()
        elif word == "wide" and self.current is None:
            self.wide = rest.split()
        elif word == "same" and self.current is not None and rest:
            self.current.reason = f"{self.current.reason} {rest}".strip()
        elif word == "@" and rest and self.file:
            self.finish(number)
            where = f"{self.path.name}:{number}"
            self.current = Change(rest, where, self.file, self.tests, self.wide)
        else:
            self.fail(number, f"not understood: {word} {rest}")

    def line(self, number: int, line: str) -> None:
        if line[:2] in ("- ", "+ ", "  ") or line in ("-", "+"):
            if self.current is None:
                self.fail(number, "text without a change")
            if line[0] in "- ":
                self.old.append(line[2:])
            if line[0] in "+ ":
                self.new.append(line[2:])
        elif line.strip() and not line.startswith("#"):
            word, _, rest = line.partition(" ")
            self.word_line(number, word, rest.strip())

    def read(self) -> list[Change]:
        lines = self.path.read_text().splitlines()
        for number, line in enumerate(lines, 1):
            self.line(number, line)
        self.finish(len(lines))
        return self.changes


def read_lists(directory: pathlib.Path) -> list[Change]:
    """The changes of all lists, those of one file together."""
    changes: list[Change] = []
    for path in sorted(directory.glob("*.txt")):
        changes += _Reader(path).read()
    names = [change.name for change in changes]
    for name in names:
        if names.count(name) > 1:
            raise ListError(f"two changes are called {name}")
    return changes


def check_against(changes: list[Change], tree: pathlib.Path) -> list[str]:
    """What is wrong with the changes as the tree is now."""
    problems = []
    for change in changes:
        source = tree / change.file
        try:
            if not source.is_file():
                raise ListError(f"{change.where}: there is no {change.file}")
            change.applied_to(source.read_text())
        except ListError as error:
            problems.append(str(error))
    return problems
