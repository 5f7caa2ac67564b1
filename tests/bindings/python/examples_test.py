"""The Python example, with and without an engine."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from engine import SOURCES, EngineTestCase


def linkcheck(*arguments: object) -> subprocess.CompletedProcess[str]:
    return subprocess.run(
        [
            sys.executable,
            "-B",
            SOURCES / "examples/python/linkcheck.py",
            *(str(argument) for argument in arguments),
        ],
        env={**os.environ, "PYTHONDONTWRITEBYTECODE": "1"},
        capture_output=True,
        text=True,
        check=False,
    )


def make_files(directory: Path) -> None:
    (directory / "good.md").write_text("# A Title, here\n[itself](#a-title-here) [b](bad.md)\n")
    (directory / "bad.md").write_text(
        "[gone](gone.md) [no heading](good.md#gone) [far](https://example.org/x)\n"
        "```\n[code](is-no-link.md)\n```\n"
    )


class LinkcheckTestCase(EngineTestCase):
    def test_files_are_children_of_the_check(self) -> None:
        with tempfile.TemporaryDirectory() as name:
            make_files(Path(name))
            ran = linkcheck("--workers", "2", name)
        self.assertEqual((1, ""), (ran.returncode, ran.stderr))
        self.assertEqual(
            [f"{name}/bad.md: gone.md", f"{name}/bad.md: good.md#gone", "2 files, 2 broken links"],
            ran.stdout.splitlines(),
        )
        report = self.end_engine()
        self.assertEqual([2, 1, 1, 0], self.counts(report, "linkcheck", "check a file"))
        self.assertEqual([1, 0, 1, 0], self.counts(report, "linkcheck", "check all"))
        self.assertEqual(2, report.count("- check a file"), report)


class LinkcheckAloneTestCase(unittest.TestCase):
    def test_links_of_this_project_lead_somewhere(self) -> None:
        ran = linkcheck(SOURCES / "README.md", SOURCES / "CONTRIBUTING.md", SOURCES / "docs",
                        SOURCES / "examples", SOURCES / "python")
        self.assertEqual((0, ""), (ran.returncode, ran.stderr), ran.stdout)

    def test_a_file_that_is_missing_is_an_error(self) -> None:
        ran = linkcheck("/nowhere.md")
        self.assertNotEqual(0, ran.returncode)
        self.assertIn("a worker failed", ran.stderr)


if __name__ == "__main__":
    unittest.main()
