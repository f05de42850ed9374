#!/usr/bin/env python3
"""Breaks the code of the library on purpose, place by place, and shows that a test notices each.

The places are in the lists in changes/. README.md tells how they are written and read.
"""

import argparse
import pathlib
import shutil
import sys
import time

sys.dont_write_bytecode = True

import changes as lists  # noqa: E402: no bytecode beside the sources
import workshop  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent

PROGRAMS_AT_ONCE = 10  # of those that are tested sound: what has passed is not run again

NOTICED, SAME, SURVIVED, ERROR = "noticed", "same", "SURVIVED", "ERROR"


def arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="mutate", description=__doc__.splitlines()[0])
    parser.add_argument("part", nargs="*",
                        help="only changes whose name, file and title, has this in it")
    parser.add_argument("--list", action="store_true",
                        help="print the changes and what is known of them")
    parser.add_argument("--check", action="store_true",
                        help="only see that each change can be made")
    parser.add_argument("--jobs", type=int, default=2, metavar="N",
                        help="of the build and of the tests")
    parser.add_argument("--sample", type=int, default=1, metavar="N", help="every N-th change only")
    parser.add_argument("--near", action="store_true",
                        help="do not ask the folders, only the programs named")
    parser.add_argument("--fresh", action="store_true",
                        help="forget what earlier runs have found out")
    parser.add_argument("--keep", action="store_true", help="leave the copy and its build there")
    parser.add_argument("--root", type=pathlib.Path, default=ROOT, help=argparse.SUPPRESS)
    parser.add_argument("--changes", type=pathlib.Path, default=HERE / "changes",
                        help=argparse.SUPPRESS)
    parser.add_argument("--directory", type=pathlib.Path, metavar="DIR",
                        help="for the copy, its build and the results; build/mutate")
    given = parser.parse_args()
    given.directory = (given.directory or given.root / "build" / "mutate").resolve()
    if given.sample < 1 or given.jobs < 1:
        parser.error("numbers are from 1 up")
    return given


class Results:
    """What is known of each change, in a text file that grows by a line for each."""

    def __init__(self, path: pathlib.Path, fresh: bool):
        self.path = path
        self.known: dict[str, tuple[str, str]] = {}
        if fresh:
            path.unlink(missing_ok=True)
        if path.is_file():
            for line in path.read_text().splitlines():
                key, outcome, detail, *_ = (*line.split("\t"), "", "")
                self.known[key] = (outcome, detail)

    def add(self, key: str, outcome: str, detail: str, name: str) -> None:
        self.known[key] = (outcome, detail)
        self.path.parent.mkdir(parents=True, exist_ok=True)
        with self.path.open("a") as file:
            file.write(f"{key}\t{outcome}\t{detail}\t{name}\n")

    def of(self, key: str) -> tuple[str, str]:
        return self.known.get(key, ("", ""))

    def is_settled(self, key: str) -> bool:
        """Survivors and errors are what somebody is about to mend: they are tried again."""
        return self.of(key)[0] in (NOTICED, SAME)


class Run:
    """Makes the changes, one after the other."""

    def __init__(self, shop: workshop.Workshop, near: bool):
        self.shop = shop
        self.near = near  # the folders of a change are not asked
        self.cases: dict[str, list[dict]] = {}  # by program, of those that pass in the sound tree

    def prepare(self, programs: list[str]) -> None:
        say("Copying the tree")
        self.shop.mend_objects()  # after a run that was stopped
        self.shop.copy()
        self.shop.configure()
        if not self.shop.fence:
            say("There are no namespaces here: what broken code leaves behind stays")
        say(f"Building and testing {len(programs)} programs of the sound tree")
        self._learn(programs)

    def _learn(self, programs: list[str]) -> None:
        """Builds programs in the sound tree, where all of their cases have to pass."""
        missing = [program for program in programs if program not in self.cases]
        if not missing:
            return
        messages = self.shop.make(missing)
        if messages:
            raise workshop.WorkshopError(f"the sound tree does not build:\n{messages}")
        self.shop.keep_objects()
        cases = self.shop.cases(missing)
        for first in range(0, len(missing), PROGRAMS_AT_ONCE):
            failed = self.shop.failing_sound(cases, missing[first:first + PROGRAMS_AT_ONCE])
            if failed:
                raise workshop.WorkshopError("these cases fail in the sound tree:\n" +
                                             "\n".join(f"  {name}: {how}" for name, how in failed))
        for program in missing:
            self.cases[program] = [case for case in cases if workshop.program_of(case) == program]
            if not self.cases[program]:
                raise workshop.WorkshopError(f"{program} has no cases")

    def _wide(self, change: lists.Change) -> list[str]:
        """The other programs of the folders that the change names."""
        found = [path.stem for folder in change.wide
                 for path in sorted((self.shop.tree / "tests" / folder).glob("*_test.cpp"))]
        return [program for program in found if program not in change.tests]

    def _broken(self, change: lists.Change, programs: list[str]) -> tuple[str, str]:
        """Makes the change, asks the programs, and mends it again."""
        path = self.shop.tree / change.file
        sound, times = path.read_bytes(), path.stat()
        try:
            self.shop.break_file(change.file, change.applied_to(sound.decode()))
            messages = self.shop.make(programs)
            if messages:
                return ERROR, "does not compile: " + first_error(messages)
            cases = [case for program in programs for case in self.cases[program]]
            noticed = self.shop.first_failing_twice(cases)
        finally:
            self.shop.mend_file(change.file, sound, times)
        return (SURVIVED, "") if noticed is None else (NOTICED, f"{noticed[0]} ({noticed[1]})")

    def make(self, change: lists.Change) -> tuple[str, str]:
        outcome, detail = self._broken(change, change.tests)
        if change.reason and outcome == SURVIVED:
            return SAME, change.reason
        if change.reason and outcome == NOTICED:
            return ERROR, f"is said to make no difference, and is noticed by {detail}"
        wide = self._wide(change)
        if outcome == SURVIVED and wide and not self.near:
            self._learn(wide)
            outcome, detail = self._broken(change, wide)
        return outcome, detail

    def still_sound(self, names: set[str]) -> list[tuple[str, str]]:
        """In the end: which of the cases that have noticed something fail without a change."""
        cases = [case for known in self.cases.values() for case in known if case["name"] in names]
        programs = sorted({workshop.program_of(case) for case in cases})
        if programs and self.shop.make(programs):
            raise workshop.WorkshopError("the mended tree does not build")
        return self.shop.failing_twice(cases)


def say(text: str) -> None:
    print(f"==> {text}", flush=True)


def first_error(messages: str) -> str:
    for line in messages.splitlines():
        if "error:" in line or "undefined reference" in line:
            return line.strip().replace("\t", " ")
    return messages.strip().splitlines()[-1].replace("\t", " ")


def make_all(todo: list[tuple[lists.Change, str]], shop: workshop.Workshop, results: Results,
             near: bool) -> None:
    programs = sorted({program for change, _ in todo for program in change.tests})
    run = Run(shop, near)
    run.prepare(programs)
    noticing = set()
    for number, (change, key) in enumerate(todo, 1):
        began = time.monotonic()
        outcome, detail = run.make(change)
        results.add(key, outcome, detail, change.name)
        if outcome == NOTICED:
            noticing.add(detail.rpartition(" (")[0])
        seconds = time.monotonic() - began
        print(f"{number}/{len(todo)} {change.name}: {outcome} {detail} {seconds:.1f} s", flush=True)
    failed = run.still_sound(noticing)
    if failed:
        raise workshop.WorkshopError(f"these fail in the mended tree too: {failed}")


def table(chosen: list[tuple[lists.Change, str]], results: Results) -> int:
    """Prints what is known. 1 when something has survived, or is wrong with a list."""
    columns = {NOTICED: "noticed", SAME: "same", SURVIVED: "survived", ERROR: "error",
               "": "not run"}
    files = sorted({change.file for change, _ in chosen})
    width = max(map(len, [*files, "total"]))

    def row(title: str, counts: dict[str, int]) -> str:
        return f"{title:{width}}{sum(counts.values()):9}" + "".join(
            f"{count or '-':>10}" for count in counts.values())

    print(f"{'file':{width}}  changes" + "".join(f"{title:>10}" for title in columns.values()))
    total = dict.fromkeys(columns, 0)
    for file in files:
        counts = dict.fromkeys(columns, 0)
        for change, key in chosen:
            if change.file == file:
                counts[results.of(key)[0]] += 1
        for outcome, count in counts.items():
            total[outcome] += count
        print(row(file, counts))
    print(row("total", total))
    for outcome, title in ((SAME, "Make no difference"), (ERROR, "Errors"), (SURVIVED, "Survived")):
        found = [(change, results.of(key)[1]) for change, key in chosen
                 if results.of(key)[0] == outcome]
        if found:
            print(f"\n{title}:")
        for change, detail in found:
            print(f"  {change.name} ({change.where})" + (f"\n      {detail}" if detail else ""))
    return 1 if total[SURVIVED] or total[ERROR] else 0


def main() -> int:
    given = arguments()
    try:
        every = lists.read_lists(given.changes)
        problems = lists.check_against(every, given.root)
    except lists.ListError as error:
        every, problems = [], [str(error)]
    if problems:
        print("\n".join(problems), file=sys.stderr)
        return 1
    if given.check:
        files = len({change.file for change in every})
        print(f"{len(every)} changes in {files} files can be made")
        return 0
    results = Results(given.directory / "results.txt", given.fresh)
    named = [change for change in every
             if not given.part or any(part in change.name for part in given.part)]
    chosen = [(change, change.key(given.root)) for change in named[::given.sample]]
    if not chosen:
        print("no change has that in its name", file=sys.stderr)
        return 2
    if given.list:
        for change, key in chosen:
            print(f"{change.name}: {' '.join(filter(None, results.of(key))) or 'not run'}")
        return 0
    todo = [entry for entry in chosen if not results.is_settled(entry[1])]
    status = 0
    if todo:
        try:
            shop = workshop.Workshop(given.root, given.directory, given.jobs)
            make_all(todo, shop, results, given.near)
            if not given.keep:
                for part in (shop.tree, shop.build, shop.kept, shop.asked):
                    shutil.rmtree(part, ignore_errors=True)
        except workshop.WorkshopError as error:
            print(f"mutate: {error}", file=sys.stderr)
            status = 2
        except KeyboardInterrupt:
            print("\nStopped; the next run goes on from here.", file=sys.stderr)
            status = 130
    return table(chosen, results) or status


if __name__ == "__main__":
    sys.exit(main())
