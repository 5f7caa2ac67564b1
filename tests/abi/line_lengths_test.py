"""Holds comments to 100 columns, and Python to them altogether; clang-format holds the rest of C++.

usage: line_lengths_test.py SOURCE_DIRECTORY [CASE]
"""

import pathlib
import re
import sys
import unittest

ROOT = pathlib.Path(sys.argv.pop(1))
COLUMNS = 100
PARTS = ("include", "src", "shared", "engine", "programs", "examples", "python", "tests", "fuzz",
         "bench", "model", "cmake", "man", "tools", "docs", "debian")
C_SUFFIXES = (".c", ".cpp", ".h", ".hpp", ".pml")
C_COMMENT = re.compile(r"(?:^|\s)(?://|/\*)")
HASH_COMMENT = re.compile(r"(?:^|\s)#\s")


def kind(path):
    if path.suffix in C_SUFFIXES:
        return "c"
    if path.suffix == ".py":
        return "python"
    if path.suffix in (".sh", ".cmake") or path.name in ("CMakeLists.txt", "run"):
        return "hash"
    return None


def files():
    yield from (ROOT / "run", ROOT / "CMakeLists.txt")
    for part in PARTS:
        yield from (path for path in sorted((ROOT / part).rglob("*")) if kind(path))


def too_long(kind_of_file, text):
    """The numbers of the lines whose comment ends beyond the columns."""
    in_block = False
    for number, line in enumerate(text.splitlines(), 1):
        commented = kind_of_file == "python" or in_block
        if kind_of_file == "c":
            commented = commented or C_COMMENT.search(line) is not None
            in_block = line.rfind("/*") > line.rfind("*/") or (in_block and "*/" not in line)
        elif kind_of_file == "hash":
            commented = HASH_COMMENT.search(line) is not None
        if commented and len(line) > COLUMNS:
            yield number


class LineLengths(unittest.TestCase):
    def test_comments_keep_to_the_columns(self):
        paths = list(files())
        self.assertGreater(len(paths), 300)
        self.assertEqual([], [f"{path.relative_to(ROOT)}:{number}" for path in paths
                              for number in too_long(kind(path), path.read_text("utf-8"))])

    def test_overlong_comments_are_found(self):
        long = "x" * (COLUMNS + 1)
        for kind_of_file, text, found in (
                ("c", f"// {long}", [1]), ("c", f"int a;  /* {long} */", [1]),
                ("c", f"/* one\n   {long}\n*/\n{long}", [2]), ("c", f"const char* a = {long};", []),
                ("c", "// " + "x" * (COLUMNS - 3), []), ("hash", f"set(a)\n# {long}", [2]),
                ("hash", f"set({long})", []), ("python", long, [1])):
            with self.subTest(kind=kind_of_file, text=text):
                self.assertEqual(found, list(too_long(kind_of_file, text)))


if __name__ == "__main__":
    unittest.main()
