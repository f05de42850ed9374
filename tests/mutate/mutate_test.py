#!/usr/bin/env python3
"""The script itself, on a library of two functions: a script that calls everything noticed would
look the same as a suite that notices everything."""

import os
import pathlib
import subprocess
import sys
import tempfile
import textwrap
import unittest
import unittest.mock

import workshop

HERE = pathlib.Path(__file__).resolve().parent

TREE = {
    "CMakePresets.json": """
        {"version": 6, "configurePresets": [
            {"name": "debug", "generator": "Ninja",
             "cacheVariables": {"CMAKE_BUILD_TYPE": "Debug"}}]}
        """,
    "CMakeLists.txt": """
        cmake_minimum_required(VERSION 3.25)
        project(small LANGUAGES CXX)
        enable_testing()
        add_library(small STATIC rm/small.cpp)
        set_target_properties(small PROPERTIES PREFIX "" OUTPUT_NAME _rm)
        foreach(name IN ITEMS near_test far_test)
            add_executable(${name} tests/small/${name}.cpp)
            target_link_libraries(${name} PRIVATE small)
        endforeach()
        add_test(NAME Near.Adds COMMAND near_test adds)
        add_test(NAME Near.Doubles COMMAND near_test doubles)
        add_test(NAME Far.Halves COMMAND far_test)
        """,
    "rm/small.h": """
        int twice(int value);
        int half(int value);
        int sum(int a, int b);
        constexpr int kTwo = 2;
        """,
    "rm/small.cpp": """
        #include "small.h"
        int sum(int a, int b) { return a + b; }
        int twice(int value) { return value * kTwo; }
        int half(int value) { return value / 2; }
        int unused(int value) { return value + 1 + 0; }
        """,
    "tests/small/near_test.cpp": """
        #include "../../rm/small.h"
        int main(int, char** arguments)
        {
            return *arguments[1] == 'a' ? sum(2, 3) != 5 : twice(4) != 8;
        }
        """,
    "tests/small/far_test.cpp": """
        #include "../../rm/small.h"
        int main() { return half(8) != 4; }
        """,
}

HEAD = """\
    file rm/small.cpp
    tests near_test
    wide small
    """

NOTICED = """\
    @ a sum is a difference
    - return a + b;
    + return a - b;
    """
WIDELY = """\
    @ a half is a third
    - value / 2
    + value / 3
    """
SURVIVOR = """\
    @ a number that nobody asks for
    - value + 1 + 0
    + value + 2 + 0
    """
SAME = """\
    @ nothing is added
    same 0 makes no difference
    - value + 1 + 0
    + value + 1
    """
CLAIMED = """\
    @ a sum is another one
    same nobody adds
    - return a + b;
    + return a * b;
    """
BROKEN = """\
    @ a name that is not there
    - value * kTwo
    + value * kThree
    """
HEADER = """\
    file rm/small.h
    tests near_test

    @ two is three
    - kTwo = 2;
    + kTwo = 3;
    """


class Mutate(unittest.TestCase):
    def setUp(self):
        kept = tempfile.TemporaryDirectory()
        self.addCleanup(kept.cleanup)
        self.root = pathlib.Path(kept.name).resolve() / "tree"
        self.lists = self.root.parent / "lists"
        self.lists.mkdir()
        for name, text in TREE.items():
            path = self.root / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(textwrap.dedent(text).lstrip())

    def make(self, *parts, options=()):
        """Runs the script on these parts of a list: its status, and what it says."""
        text = "\n".join(map(textwrap.dedent, parts))
        (self.lists / "small.txt").write_text(text)
        done = subprocess.run(
            [sys.executable, HERE / "mutate.py", "--root", self.root, "--changes", self.lists,
             "--directory", self.root.parent / "work", *options],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        return done.returncode, done.stdout

    def test_an_old_text_that_is_not_there_is_an_error_of_the_list(self):
        status, said = self.make(HEAD, NOTICED.replace("a + b", "a * b"))
        self.assertEqual(status, 1)
        self.assertIn("small.txt:5: rm/small.cpp: a sum is a difference: "
                      "the old text is found 0 times", said)

    def test_an_old_text_that_is_there_twice_is_an_error_of_the_list(self):
        status, said = self.make(HEAD, SURVIVOR.replace("value + 1 + 0", "int value"))
        self.assertEqual(status, 1)
        self.assertIn("the old text is found 3 times", said)

    def test_lists_that_are_not_right_are_refused(self):
        for text, complaint in (
                (NOTICED.replace("a - b", "a + b"), "nothing is changed"),
                ("@ nothing\n+ int x;\n", "there is no old text"),
                (NOTICED + "\n" + NOTICED, "two changes are called"),
                ("- return\n", "text without a change"),
                ("sometimes near_test\n", "not understood: sometimes near_test")):
            status, said = self.make(HEAD, text)
            self.assertEqual(status, 1, said)
            self.assertIn(complaint, said)
        status, said = self.make("file rm/small.cpp\n", NOTICED)
        self.assertEqual(status, 1)
        self.assertIn("no test is named", said)

    def test_changes_can_be_looked_at_without_making_them(self):
        status, said = self.make(HEAD, NOTICED, SURVIVOR, options=["--check"])
        self.assertEqual((status, said), (0, "2 changes in 1 files can be made\n"))
        status, said = self.make(HEAD, NOTICED, SURVIVOR, options=["--list", "nobody"])
        self.assertEqual((status, said),
                         (0, "rm/small.cpp: a number that nobody asks for: not run\n"))
        self.assertFalse((self.root.parent / "work").exists())

    def test_each_change_is_told_by_what_has_become_of_it(self):
        status, said = self.make(HEAD, NOTICED, WIDELY, SURVIVOR, SAME, BROKEN, CLAIMED, HEADER)
        self.assertEqual(status, 1, said)
        for line in ("a sum is a difference: noticed Near.Adds (Failed)",
                     "a half is a third: noticed Far.Halves (Failed)",
                     "a number that nobody asks for: SURVIVED",
                     "nothing is added: same 0 makes no difference",
                     "a name that is not there: ERROR does not compile:",
                     "a sum is another one: ERROR is said to make no difference, "
                     "and is noticed by Near.Adds",
                     "rm/small.h: two is three: noticed Near.Doubles (Failed)"):
            self.assertIn(line, said)
        self.assertRegex(said, r"rm/small\.cpp +6 +2 +1 +1 +2 +-\n")
        self.assertRegex(said, r"total +7 +3 +1 +1 +2 +-\n")

    def test_the_next_run_goes_on_with_what_is_not_settled(self):
        status, said = self.make(HEAD, NOTICED, SURVIVOR, WIDELY, options=["--keep"])
        self.assertEqual(status, 1)
        self.assertIn("3/3", said)
        status, said = self.make(HEAD, NOTICED, SURVIVOR, WIDELY, options=["--keep"])
        self.assertEqual(status, 1)
        self.assertIn("1/1 rm/small.cpp: a number that nobody asks for: SURVIVED", said)
        self.assertRegex(said, r"total +3 +2 +- +1 +- +-\n")
        # Another text of the file, and nothing is known any more.
        path = self.root / "rm/small.cpp"
        path.write_text(path.read_text() + "// more\n")
        status, said = self.make(HEAD, NOTICED, WIDELY)
        self.assertEqual(status, 0, said)
        self.assertIn("2/2", said)
        self.assertEqual(sorted(path.name for path in (self.root.parent / "work").iterdir()),
                         ["results.txt", "sound.json"])

    def test_the_tree_is_found_without_git(self):
        shop = workshop.Workshop(self.root, self.root.parent / "work", 1)
        with_git = shop.files()
        with unittest.mock.patch.dict(os.environ, PATH="/nowhere"):
            self.assertEqual(shop.files(), with_git)
        self.assertEqual(with_git, sorted(TREE))

    def test_a_sound_tree_whose_tests_fail_shows_nothing(self):
        path = self.root / "tests/small/near_test.cpp"
        path.write_text(path.read_text().replace("!= 8", "!= 9"))
        status, said = self.make(HEAD, NOTICED)
        self.assertEqual(status, 2, said)
        self.assertIn("these cases fail in the sound tree:\n  Near.Doubles: Failed", said)


if __name__ == "__main__":
    unittest.main()
