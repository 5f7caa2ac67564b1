"""Holds docs/quirks.md, the marks in the sources and the tests together.

usage: quirks_test.py SOURCE-DIR

Each mark "Deliberate (NAME)" or "sic (NAME)" has one row of that name, each row at least one mark,
and each row names tests that exist.
"""

import pathlib
import re
import sys

SOURCE = pathlib.Path(sys.argv[1])
TEST = r"TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)"


def texts(directories, pattern):
    for directory in directories:
        for path in sorted((SOURCE / directory).rglob(pattern)):
            yield path, path.read_text(encoding="utf-8")


def marks():
    """The names of the marks, and the places of marks without a name."""
    named, nameless = set(), []
    for path, text in texts(["src", "include"], "*.*"):
        for match in re.finditer(r"(?:\bDeliberate\b|\bsic\b)(?: \(([a-z0-9-]+)\))?", text):
            if match[1]:
                named.add(match[1])
            else:
                line = text.count("\n", 0, match.start()) + 1
                nameless.append(f"{path.relative_to(SOURCE)}:{line}")
    return named, nameless


def rows():
    """Name of each row, and the tests that it names."""
    text = (SOURCE / "docs/quirks.md").read_text(encoding="utf-8")
    lines = [line for line in text.splitlines() if re.match(r"\| [a-z0-9-]+ \| ", line)]
    body = [line.split(" | ") for line in lines if not line.startswith("| name ")]
    return [(row[0].strip("| "), re.findall(r"`(\w+\.\w+)`", row[-1])) for row in body]


def main():
    sources = texts(["tests"], "*.cpp")
    tests = {f"{m[1]}.{m[2]}" for _, text in sources for m in re.finditer(TEST, text)}
    named, nameless = marks()
    table = rows()
    names = [name for name, _ in table]
    wrong = [f"{place}: a mark without a name" for place in nameless]
    wrong += [f"docs/quirks.md: two rows '{name}'" for name in set(names) if names.count(name) > 1]
    wrong += [f"mark '{name}' has no row in docs/quirks.md" for name in sorted(named - set(names))]
    wrong += [f"row '{name}' has no mark in the sources" for name in names if name not in named]
    wrong += [f"row '{name}' names no test" for name, pinned in table if not pinned]
    wrong += [
        f"row '{name}': there is no test {test}"
        for name, pinned in table
        for test in pinned
        if test not in tests
    ]
    if not table or not tests:
        wrong.append("there are no rows, or no tests, to compare")
    print("\n".join(wrong), file=sys.stderr)
    sys.exit(1 if wrong else 0)


main()
