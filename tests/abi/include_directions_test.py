"""Holds includes to the table of docs/architecture.md.

usage: include_directions_test.py SOURCE_DIRECTORY [CASE]
"""

import pathlib
import re
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1))
BEGIN = "<!-- begin include directions -->"
END = "<!-- end include directions -->"
EXCEPTIONS_BEGIN = "<!-- begin include exceptions -->"
EXCEPTIONS_END = "<!-- end include exceptions -->"
# Parts of the tree whose folders must all be in the table.
PARTS = ("src", "shared", "engine", "programs")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def rows(text, begin, end, column):
    """First cell -> the names in a column, in the order of the rows."""
    found = {}
    for line in text.split(begin)[1].split(end)[0].splitlines():
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if len(cells) == 3 and cells[0].startswith("`"):
            found[cells[0].strip("`").rstrip("/")] = re.findall(r"`([^`]+)`", cells[column])
    return found


def table(text):
    """Folder -> what its files may include."""
    return rows(text, BEGIN, END, 2)


def exceptions(text):
    """File -> what it includes as well."""
    return rows(text, EXCEPTIONS_BEGIN, EXCEPTIONS_END, 1)


def sources(root):
    for part in PARTS:
        for path in sorted((root / part).rglob("*")):
            if path.suffix in (".c", ".cpp", ".h"):
                yield path


def folders_included(path):
    return [include.partition("/")[0] for include in INCLUDE.findall(path.read_text())
            if "/" in include]


def violations(root):
    text = (root / "docs/architecture.md").read_text()
    allowed, excepted = table(text), exceptions(text)
    found = []
    for path in sources(root):
        folder = path.parent.relative_to(root).as_posix()
        if folder not in allowed:
            found.append(f"{folder} is not in the table")
            continue
        file = path.relative_to(root).as_posix()
        known = [folder.rsplit("/", 1)[-1], *allowed[folder], *excepted.get(file, [])]
        found += [f"{file} includes {name}" for name in folders_included(path)
                  if name not in known]
    return found


class IncludeDirections(unittest.TestCase):
    def test_every_include_is_one_of_the_table(self):
        self.assertGreater(len(list(sources(ROOT))), 100)
        self.assertEqual([], violations(ROOT))

    def test_table_goes_in_one_direction(self):
        above = set()
        for folder, allowed in table((ROOT / "docs/architecture.md").read_text()).items():
            self.assertEqual([], sorted(set(allowed) - above), folder)
            above.add(folder.rsplit("/", 1)[-1])

    def test_table_names_no_folder_that_is_gone(self):
        for folder in table((ROOT / "docs/architecture.md").read_text()):
            self.assertTrue((ROOT / folder).is_dir(), folder)

    def test_exceptions_are_needed_and_against_the_direction(self):
        text = (ROOT / "docs/architecture.md").read_text()
        self.assertTrue(exceptions(text))
        for file, names in exceptions(text).items():
            self.assertEqual([], sorted(set(names) - set(folders_included(ROOT / file))), file)
            self.assertFalse(set(names) & set(table(text)[file.rsplit("/", 1)[0]]), file)

    def test_include_against_the_table_is_found(self):
        for include, excepted, wrong in (
                ("base/Time.h", "", 0), ("events/Event.h", "", 1), ("../base/Time.h", "", 1),
                ("events/Event.h", "engine/registry/Registry.cpp", 0),
                ("events/Event.h", "engine/registry/Registry.h", 1)):
            with self.subTest(include=include, excepted=excepted), \
                 tempfile.TemporaryDirectory() as directory:
                root = pathlib.Path(directory)
                (root / "docs").mkdir()
                (root / "engine/registry").mkdir(parents=True)
                (root / "docs/architecture.md").write_text(
                    f"{BEGIN}\n| `engine/registry/` | | `base` |\n{END}\n"
                    f"{EXCEPTIONS_BEGIN}\n| `{excepted}` | `events` | |\n{EXCEPTIONS_END}\n"
                )
                (root / "engine/registry/Registry.cpp").write_text(f'#include "{include}"\n')
                self.assertEqual(wrong, len(violations(root)))


if __name__ == "__main__":
    unittest.main()
