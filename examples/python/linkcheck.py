#!/usr/bin/env python3
"""linkcheck - finds links in Markdown files that lead nowhere, measured with the package arm.

    linkcheck.py [--workers N] FILE-OR-DIRECTORY...

The check is one transaction. The files are shared out to N worker processes, which are this
program again; they find the correlator of the check in their environment, so that checking a
file is a child of it. A file with a broken link is a failed transaction. Without an engine the
program does the same.
"""

from __future__ import annotations

import argparse
import re
import subprocess
import sys
from pathlib import Path

import arm

LINK = re.compile(r"\[[^\]]*\]\(([^()\s]+)\)")
FENCE = re.compile(r"^ *(```|~~~)")

application = arm.Application("linkcheck")
checking = application.transaction_class("check all")
reading = application.transaction_class(
    "check a file",
    "Markdown",
    arm.MetricDescriptions().describe(1, arm.MetricType.COUNTER32, "links"),
)


def text_lines(path: Path) -> list[str]:
    """The lines that are not in a code block."""
    lines = []
    fenced = False
    for line in path.read_text(encoding="utf-8").splitlines():
        if FENCE.match(line):
            fenced = not fenced
        elif not fenced:
            lines.append(line)
    return lines


def anchors(path: Path) -> set[str]:
    """The anchors of a file's headings."""
    names = set()
    for line in text_lines(path):
        if line.startswith("#"):
            title = re.sub(r"[^\w\- ]", "", line.lstrip("#").strip().lower())
            names.add(title.replace(" ", "-"))
    return names


def is_broken(path: Path, target: str) -> bool:
    if re.match(r"[a-z]+:", target):
        return False
    name, _, anchor = target.partition("#")
    file = path.parent / name if name else path
    if not file.exists():
        return True
    return bool(anchor) and file.suffix == ".md" and anchor not in anchors(file)


def check_file(path: Path) -> list[str]:
    """One sentence for each broken link of a file."""
    with arm.transaction(reading, parent=arm.Correlator.from_environment()) as measured:
        links = LINK.findall("\n".join(text_lines(path)))
        broken = [f"{path}: {target}" for target in links if is_broken(path, target)]
        if broken:
            measured.fail()
        measured.update(arm.DataBlock().counter32(1, len(links)))
        return broken


def work() -> int:
    """Reads file names from standard input and writes what is broken to standard output."""
    for name in sys.stdin:
        for sentence in check_file(Path(name.rstrip("\n"))):
            print(sentence)
    return 0


def markdown_files(paths: list[Path]) -> list[Path]:
    files: list[Path] = []
    for path in paths:
        files += sorted(path.rglob("*.md")) if path.is_dir() else [path]
    return files


def share_out(files: list[Path], workers: int, environment: dict[str, str]) -> list[str]:
    """What the worker processes have found."""
    command = [sys.executable, __file__, "--work"]
    processes = []
    for number in range(workers):
        process = subprocess.Popen(
            command,
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            text=True,
            env=environment,
        )
        processes.append((process, "".join(f"{file}\n" for file in files[number::workers])))
    broken = []
    for process, names in processes:
        output, _ = process.communicate(names)
        if process.returncode != 0:
            raise SystemExit("linkcheck: a worker failed")
        broken += output.splitlines()
    return sorted(broken)


def check(paths: list[Path], workers: int) -> int:
    files = markdown_files(paths)
    with arm.transaction(checking, correlator=True) as measured:
        broken = share_out(files, max(1, min(workers, len(files))), measured.environment())
        if broken:
            measured.fail()
    for sentence in broken:
        print(sentence)
    print(f"{len(files)} files, {len(broken)} broken links")
    return 1 if broken else 0


def main() -> int:
    parser = argparse.ArgumentParser(description="Finds links in Markdown files that lead nowhere.")
    parser.add_argument("paths", nargs="*", type=Path, metavar="FILE-OR-DIRECTORY")
    parser.add_argument("--workers", type=int, default=2, help="processes, 2 by default")
    parser.add_argument("--work", action="store_true", help=argparse.SUPPRESS)
    arguments = parser.parse_args()
    with application:
        return work() if arguments.work else check(arguments.paths, arguments.workers)


if __name__ == "__main__":
    sys.exit(main())
