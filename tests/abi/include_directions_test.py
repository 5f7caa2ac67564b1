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
# Parts of the tree whose folders must all be in the table.
PARTS = ("shared", "engine", "programs")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


def table(text):
    """Folder -> what it may include, in the order of the rows."""
    rows = {}
    for line in text.split(BEGIN)[1].split(END)[0].splitlines():
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if len(cells) == 3 and cells[0].startswith("`"):
            rows[cells[0].strip("`").rstrip("/")] = re.findall(r"`([^`]+)`", cells[2])
    return rows


def sources(root):
    for part in PARTS:
        for path in sorted((root / part).rglob("*")):
            if path.suffix in (".c", ".cpp", ".h"):
                yield path


def violations(root):
    allowed = table((root / "docs/architecture.md").read_text())
    found = []
    for path in sources(root):
        folder = path.parent.relative_to(root).as_posix()
        if folder not in allowed:
            found.append(f"{folder} is not in the table")
            continue
        own = folder.rsplit("/", 1)[-1]
        for include in INCLUDE.findall(path.read_text()):
            name, slash, _ = include.partition("/")
            if not slash or name == own or name in allowed[folder]:
                continue
            found.append(f"{path.relative_to(root)} includes {include}")
    return found


class IncludeDirections(unittest.TestCase):
    def test_every_include_is_one_of_the_table(self):
        self.assertGreater(len(list(sources(ROOT))), 100)
        self.assertEqual([], violations(ROOT))

    def test_table_goes_in_one_direction(self):
        above = {"arm", "ipc", "platform"}
        for folder, allowed in table((ROOT / "docs/architecture.md").read_text()).items():
            self.assertEqual([], sorted(set(allowed) - above), folder)
            above.add(folder.rsplit("/", 1)[-1])

    def test_table_names_no_folder_that_is_gone(self):
        for folder in table((ROOT / "docs/architecture.md").read_text()):
            self.assertTrue((ROOT / folder).is_dir(), folder)

    def test_include_against_the_table_is_found(self):
        for include, wrong in (("base/Time.h", 0), ("events/Event.h", 1), ("../base/Time.h", 1)):
            with self.subTest(include), tempfile.TemporaryDirectory() as directory:
                root = pathlib.Path(directory)
                (root / "docs").mkdir()
                (root / "engine/registry").mkdir(parents=True)
                (root / "docs/architecture.md").write_text(
                    f"{BEGIN}\n| `engine/registry/` | | `base` |\n{END}\n"
                )
                (root / "engine/registry/Registry.cpp").write_text(f'#include "{include}"\n')
                self.assertEqual(wrong, len(violations(root)))


if __name__ == "__main__":
    unittest.main()
