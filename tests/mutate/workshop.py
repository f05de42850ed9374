"""The private copy of the tree: breaking a file in it, building, testing, mending.

Mending costs no build: the objects of the sound tree are kept aside and come back with their times,
so what each change costs is the compiling of what depends on its file, and the linking of the
programs that are asked.
"""

import hashlib
import json
import os
import pathlib
import re
import resource
import shutil
import subprocess

# What is copied where version control cannot be asked.
PARTS = ("CMakeLists.txt", "CMakePresets.json", "cmake", "docs", "include", "rm", "tests", "tools")

# A change may leave code behind that the compiler warns of; that is not what is to be shown.
NO_ERROR = ("cmake/flags.cmake", " -Werror")

CASE_SECONDS = 10  # the time-out of a case is so much,
CASE_FACTOR = 4  # and so many times what it takes in the sound tree
FILE_BYTES = 16 << 30  # a case makes a sparse file of 9 GiB
CPU_SECONDS = 120
UNKNOWN_SECONDS = 20  # that a case may take which was never run


class WorkshopError(Exception):
    """The sound tree could not be built or tested."""


def _limits() -> None:
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE_BYTES, FILE_BYTES))
    resource.setrlimit(resource.RLIMIT_CPU, (CPU_SECONDS, CPU_SECONDS))


def _fence() -> list[str]:
    """A command in front of the tests, where the system has it: what broken code leaves, processes
    and IPC objects, goes with them, and it reaches no process but its own."""
    fence = ["unshare", "--ipc", "--pid", "--fork", "--kill-child", "--mount-proc"]
    for options in ([], ["--map-root-user"]):
        command = [*fence, *options]
        try:
            if subprocess.run([*command, "true"], capture_output=True, check=False).returncode == 0:
                return command
        except OSError:
            break
    return []


def _quoted(text: str) -> str:
    """An argument in a file of CTest's."""
    equals = "="
    while f"]{equals}]" in text:
        equals += "="
    return f"[{equals}[{text}]{equals}]"


def program_of(case: dict) -> str:
    return pathlib.Path(case["command"][0]).name


class Workshop:
    def __init__(self, source: pathlib.Path, directory: pathlib.Path, jobs: int):
        self.source = source
        self.directory = directory
        self.tree = directory / "tree"
        self.build = directory / "build"
        self.kept = directory / "kept"  # objects of the sound tree
        self.asked = directory / "asked"  # what CTest reads: the cases of one change
        self.scratch = directory / "scratch"  # temporary files of the tests
        self.jobs = jobs
        self.fence = _fence()
        self.seconds: dict[str, float] = {}  # that each case took when it passed, at most
        self.known = directory / "sound.json"  # the seconds, by what a program consists of

    # --- The copy

    def _known_to_git(self) -> list[str]:
        """Nothing where there is no git, or no repository."""
        try:
            listed = subprocess.run(
                ["git", "ls-files", "-z", "--cached", "--others", "--exclude-standard"],
                cwd=self.source, capture_output=True, text=True, check=True)
        except (OSError, subprocess.CalledProcessError):
            return []
        return [name for name in listed.stdout.split("\0") if name]

    def files(self) -> list[str]:
        known = self._known_to_git()
        if known:
            return sorted({name for name in known if (self.source / name).is_file()})
        parts = [self.source / part for part in PARTS]
        return sorted(str(path.relative_to(self.source))
                      for part in parts for path in (part, *part.rglob("*"))
                      if path.is_file() and "__pycache__" not in path.parts)

    def copy(self) -> None:
        """Makes the copy like the tree. A file that is the same keeps its time."""
        names = self.files()
        for name in names:
            data = (self.source / name).read_bytes()
            if name == NO_ERROR[0]:
                data = data.replace(NO_ERROR[1].encode(), b"")
            target = self.tree / name
            if not target.is_file() or target.read_bytes() != data:
                target.parent.mkdir(parents=True, exist_ok=True)
                target.write_bytes(data)
            shutil.copymode(self.source / name, target)
        wanted = set(names)
        for path in list(self.tree.rglob("*")):
            if path.is_file() and str(path.relative_to(self.tree)) not in wanted:
                path.unlink()

    # --- Building

    def _run(self, command: list[str], **options) -> subprocess.CompletedProcess:
        return subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, errors="replace", check=False,
                              **options)

    def configure(self) -> None:
        done = self._run(["cmake", "--preset", "debug", "-S", str(self.tree), "-B", str(self.build),
                          "-DRM_BUILD_EXAMPLES=OFF", "-DRM_BUILD_TOOLS=OFF",
                          "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
                          "-DCMAKE_C_FLAGS_DEBUG=-O0", "-DCMAKE_CXX_FLAGS_DEBUG=-O0"],
                         cwd=self.tree)
        if done.returncode != 0:
            raise WorkshopError(f"CMake failed:\n{done.stdout}")

    def make(self, programs: list[str]) -> str:
        """Builds them. The compiler's messages when that fails, else nothing."""
        done = self._run(["cmake", "--build", str(self.build), "-j", str(self.jobs), "--target",
                          *programs])
        return done.stdout or "failed" if done.returncode != 0 else ""

    def _objects(self) -> list[pathlib.Path]:
        return sorted(self.build.rglob("*.o"))

    def keep_objects(self) -> None:
        """Those that are there now are the sound ones."""
        for path in self._objects():
            target = self.kept / path.relative_to(self.build)
            if not target.is_file() or target.stat().st_mtime_ns != path.stat().st_mtime_ns:
                target.parent.mkdir(parents=True, exist_ok=True)
                partial = target.with_suffix(".part")
                shutil.copy2(path, partial)
                partial.rename(target)

    def mend_objects(self) -> None:
        """The sound objects come back, with their times: what the tree has changed since then is
        newer. If any do, archives go: they would count as newer than the objects."""
        mended = False
        for built in self._objects():
            kept = self.kept / built.relative_to(self.build)
            if not kept.is_file():
                built.unlink()  # made from a broken file, perhaps
                mended = True
            elif built.stat().st_mtime_ns != kept.stat().st_mtime_ns:
                shutil.copy2(kept, built)
                mended = True
        for kept in self.kept.rglob("*.o"):
            built = self.build / kept.relative_to(self.kept)
            if not built.is_file():
                shutil.copy2(kept, built)
                mended = True
        for product in ("_rm.a", "_rm.so") if mended else ():
            (self.build / product).unlink(missing_ok=True)

    def break_file(self, name: str, text: str) -> None:
        (self.tree / name).write_text(text)

    def mend_file(self, name: str, sound: bytes, times: os.stat_result) -> None:
        """The file is as it was, with its time, and so are the objects."""
        path = self.tree / name
        path.write_bytes(sound)
        os.utime(path, ns=(times.st_atime_ns, times.st_mtime_ns))
        self.mend_objects()

    # --- Testing

    def cases(self, programs: list[str]) -> list[dict]:
        """CTest's own description of the cases of these programs."""
        done = subprocess.run(["ctest", "--test-dir", str(self.build), "--show-only=json-v1"],
                              capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise WorkshopError(f"the cases could not be listed:\n{done.stdout}{done.stderr}")
        wanted = set(programs)
        found = [test for test in json.loads(done.stdout)["tests"]
                 if test.get("command") and program_of(test) in wanted]
        for test in found:
            test["name"] = test["name"].partition("  #")[0]  # without the parameter in words
        return found

    def _describe(self, cases: list[dict]) -> None:
        """Writes what CTest reads. Quick cases come first."""
        lines = []
        for case in cases:
            name, command = _quoted(case["name"]), " ".join(map(_quoted, case["command"]))
            properties = {entry["name"]: entry["value"] for entry in case.get("properties", [])}
            seconds = self.seconds.get(case["name"], UNKNOWN_SECONDS)
            limit = CASE_SECONDS + CASE_FACTOR * seconds
            settings = [f"TIMEOUT {limit:.0f} COST {-seconds:f}"]
            if "WORKING_DIRECTORY" in properties:
                settings.append(f'WORKING_DIRECTORY {_quoted(properties["WORKING_DIRECTORY"])}')
            if properties.get("ENVIRONMENT"):
                settings.append(f'ENVIRONMENT {_quoted(";".join(properties["ENVIRONMENT"]))}')
            lines.append(f"add_test({name} {command})")
            lines.append(f"set_tests_properties({name} PROPERTIES {' '.join(settings)})")
        shutil.rmtree(self.asked, ignore_errors=True)
        self.asked.mkdir(parents=True)
        (self.asked / "CTestTestfile.cmake").write_text("\n".join(lines) + "\n")

    def test(self, cases: list[dict], stop: bool) -> list[tuple[str, str]]:
        """Runs the cases; those that failed, each with how. With `stop`, no others after one."""
        if not cases:
            return []
        self._describe(cases)
        shutil.rmtree(self.scratch, ignore_errors=True)
        self.scratch.mkdir(parents=True)
        command = [*self.fence, "ctest", "--test-dir", str(self.asked), "-j", str(self.jobs),
                   "--no-tests=error"]
        done = self._run([*command, "--stop-on-failure"] if stop else command,
                         env={**os.environ, "TMPDIR": str(self.scratch)}, preexec_fn=_limits)
        shutil.rmtree(self.scratch, ignore_errors=True)
        failed = []
        for line in done.stdout.splitlines():
            found = re.match(r" *\d+/\d+ Test +#\d+: (.+?) \.+ *(.*?) +([\d.]+) sec", line)
            if not found:
                continue
            name, how, seconds = found.groups()
            if how == "Passed":
                self.seconds[name] = max(float(seconds), self.seconds.get(name, 0))
            else:
                failed.append((name, how.strip("* ")))
        if done.returncode != 0 and not failed:
            raise WorkshopError(f"CTest failed:\n{done.stdout}")
        return failed

    def failing_twice(self, cases: list[dict]) -> list[tuple[str, str]]:
        """Those that fail, and fail again: a busy machine can fail one once."""
        failed = {name for name, _ in self.test(cases, stop=False)}
        return self.test([case for case in cases if case["name"] in failed], stop=False)

    def first_failing_twice(self, cases: list[dict]) -> tuple[str, str] | None:
        """Likewise, and no others are run after it."""
        while cases:
            failed = self.test(cases, stop=True)
            if not failed:
                return None
            names = {name for name, _ in failed}
            again = self.test([case for case in cases if case["name"] in names], stop=True)
            if again:
                return again[0]
            cases = [case for case in cases if case["name"] not in names]
        return None

    def failing_sound(self, cases: list[dict], programs: list[str]) -> list[tuple[str, str]]:
        """Those that fail in the sound tree. What has passed as it is does not run again."""
        known = json.loads(self.known.read_text()) if self.known.is_file() else {}
        keys = {}
        for case in cases:
            program = program_of(case)
            if program in programs and program not in keys:
                data = pathlib.Path(case["command"][0]).read_bytes()
                keys[program] = hashlib.sha256(data).hexdigest()
        for program, key in keys.items():
            self.seconds.update(known.get(key, {}))
        asked = [case for case in cases if keys.get(program_of(case), "") not in known
                 and program_of(case) in keys]
        failed = self.failing_twice(asked)
        if not failed:
            for program, key in keys.items():
                known[key] = {case["name"]: self.seconds.get(case["name"], UNKNOWN_SECONDS)
                              for case in cases if program_of(case) == program}
            self.known.write_text(json.dumps(known))
        return failed
