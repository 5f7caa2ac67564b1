"""What the tests of the Python package share: a running armengine, and its report."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import unittest
from pathlib import Path

BIN = Path(os.environ["ARM_BUILD_DIR"]) / "bin"
SOURCES = Path(__file__).resolve().parents[3]


class EngineTestCase(unittest.TestCase):
    """Every test has an engine of its own."""

    def setUp(self) -> None:
        self.engine = subprocess.Popen(
            [BIN / "armengine", "--report"], stdout=subprocess.PIPE, text=True
        )
        self.addCleanup(self.end_engine)
        assert self.engine.stdout is not None
        self.assertIn("serving", self.engine.stdout.readline())

    def end_engine(self) -> str:
        """Ends the engine; returns its report."""
        if self.engine.poll() is None:
            self.engine.send_signal(signal.SIGTERM)
        report, _ = self.engine.communicate() if not self.engine.stdout.closed else ("", "")
        return report

    def counts(self, report: str, application: str, name: str) -> list[int]:
        """Count, good, failed and aborted of a class, as the report has them."""
        for line in report.splitlines():
            if line.startswith(application + " ") and f" {name} " in line:
                return [int(word) for word in line.split(f" {name} ", 1)[1].split()[:4]]
        self.fail(f"{application}: {name} is not in the report:\n{report}")


def run_python(code: str, **variables: str) -> subprocess.CompletedProcess[str]:
    """Runs a program in an interpreter of its own, with these variables in its environment."""
    return subprocess.run(
        [sys.executable, "-B", "-W", "error", "-c", code],
        env={**os.environ, **variables},
        capture_output=True,
        text=True,
        check=False,
    )
