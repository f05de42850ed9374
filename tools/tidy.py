#!/usr/bin/env python3
"""clang-tidy over all sources, with its findings; what it says of the system's headers is left out.

tidy.py BUILD_DIRECTORY JOBS DIRECTORY...

Most of its time goes into the headers of the test framework, which it reads and searches again for
each file. So the tests are read ten at a time: their text one after the other in one file, each in a
namespace of its own, behind the headers of all. Whose text has a finding there, or cannot be compiled
there, is read alone, and only what is said of it then counts."""

import bisect
import concurrent.futures
import json
import pathlib
import re
import shlex
import subprocess
import sys

TOGETHER = 10
INCLUDE = re.compile(r"^#include\s+(\S+)\s*$", re.M)
NO_FINDING = re.compile(r"\d+ (?:warning|error)s?.* generated|Error while processing")


def clang_tidy(arguments):
    """(passes, what it says)"""
    done = subprocess.run(["clang-tidy", "--quiet", *arguments], capture_output=True, text=True, check=False)
    said = [line for line in (done.stdout + done.stderr).splitlines() if not NO_FINDING.match(line)]
    return done.returncode == 0, "".join(line + "\n" for line in said)


def flags_of(build):
    """{source: its flags} of what the build compiles."""
    flags = {}
    for command in json.loads((build / "compile_commands.json").read_text()):
        words = shlex.split(command["command"])[1:]
        source = pathlib.Path(command["file"]).resolve()
        while "-o" in words:
            del words[words.index("-o"):words.index("-o") + 2]
        flags[source] = tuple(word for word in words if word not in ("-c", command["file"]))
    return flags


def includes_of(source, text):
    """What the file includes, by names that hold in every directory."""
    beside = [(name, source.parent / name.strip('"')) for name in INCLUDE.findall(text)]
    return [f'"{path}"' if name.startswith('"') and path.exists() else name for name, path in beside]


def can_stand_with_others(source, text):
    """A macro, an include that stands there twice and a namespace with a name are not like that."""
    includes = includes_of(source, text)
    return (source.name.endswith("_test.cpp") and len(set(includes)) == len(includes)
            and not re.search(r"^\s*#\s*(?!include|if|else|elif|endif)", text, re.M)
            and not re.search(r"^namespace \w+$", text, re.M))


class Together:
    """Sources, one after the other."""

    def __init__(self, file, sources, texts):
        self.file, self.sources = file, sources
        includes = dict.fromkeys(name for source in sources for name in includes_of(source, texts[source]))
        parts = "".join(f"#include {name}\n" for name in includes)
        self.begins = []
        for number, source in enumerate(sources):
            self.begins.append(parts.count("\n") + 1)
            body = INCLUDE.sub("", texts[source])
            parts += f"namespace of_file_{number}\n{{\n{body}}}  // namespace of_file_{number}\n"
        file.write_text(parts)

    def concerned(self, said):
        """The sources that the findings stand in; all of them, when one stands elsewhere."""
        found = set()
        for path, line in re.findall(r"^(\S+?):(\d+):\d+: (?:warning|error): ", said, re.M):
            at = bisect.bisect(self.begins, int(line)) - 1
            if pathlib.Path(path) != self.file or at < 0:
                return self.sources
            found.add(self.sources[at])
        return sorted(found) or self.sources


def plan(build, directories):
    """Lists of sources that are read together, the longest first."""
    flags = flags_of(build)
    sources = sorted(path.resolve() for directory in directories for path in pathlib.Path(directory).rglob("*.cpp"))
    texts = {source: source.read_text() for source in sources}
    alone, groups, open_groups = [], [], {}
    for source in sources:
        if source not in flags or not can_stand_with_others(source, texts[source]):
            alone.append([source])
            continue
        group = open_groups.setdefault(flags[source], [])
        group.append(source)
        if len(group) == TOGETHER:
            groups.append(open_groups.pop(flags[source]))
    return groups + list(open_groups.values()) + alone, flags, texts


def read_group(number, sources, build, flags, texts):
    """(passes, what is said of them)"""
    alone = []
    while len(sources) > 1:
        text = Together(build / "together" / f"part_{number}.cpp", sources, texts)
        passes, said = clang_tidy([str(text.file), "--", *flags[sources[0]]])
        concerned = [] if passes else text.concerned(said)
        alone += concerned
        sources = [source for source in sources if source not in concerned]
        if "[clang-diagnostic-error" not in said:
            sources = []  # what the others have, if anything, was said
    results = [clang_tidy(["-p", str(build), str(source)]) for source in alone + sources]
    return all(passes for passes, _ in results), "".join(said for _, said in results)


def main():
    build, jobs, directories = pathlib.Path(sys.argv[1]).resolve(), int(sys.argv[2]), sys.argv[3:]
    groups, flags, texts = plan(build, directories)
    (build / "together").mkdir(exist_ok=True)
    (build / "together" / ".clang-tidy").write_text(pathlib.Path("tests/.clang-tidy").read_text())
    passes = True
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for passed, said in pool.map(lambda at: read_group(*at, build, flags, texts), enumerate(groups)):
            passes = passes and passed
            sys.stdout.write(said)
            sys.stdout.flush()
    return 0 if passes else 1


if __name__ == "__main__":
    sys.exit(main())
