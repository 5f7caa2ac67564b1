"""Holds the marks for counts in the documents to tools/counts.py, which fills them.

usage: counts_test.py SOURCE_DIRECTORY [CASE]
"""

import pathlib
import sys
import tempfile
import unittest

ROOT = pathlib.Path(sys.argv.pop(1))
sys.path.insert(0, str(ROOT / "tools"))
sys.dont_write_bytecode = True

import counts

PRINTED = {
    "fuzz": """both        names                6000 inputs   in all: 6000
amd64-fuzz  conversion           3100 inputs   findings: none
both        conversion           6200 inputs   in all: 12200
""",
    "model": """holds       2096222 states  mutex                one process at a time
holds     1.4656469e+07 states  engine-killed        a killed engine frees everybody
deadlock        911 states  no-undo              a control
assertion       912 states  split-put            a control
took 88 s
""",
    "kills": """     390 + 390     client killed, connection open
      13 + 12      engine stopped and replaced under a client
       1 + 1       client traced through the three calls that post nothing
   18512 + 41282   instructions of a writer between which the ring was looked at
""",
    "soak": "soak: 1006746 calls answered by 65 engines, each with its own answer; 211 programs of "
            "32 threads started, 64 killed; 105861 instances counted by the engines, 10180 "
            "uncertain; calls failed by a change of engines: 1046034, by a reconnection: 3\n",
}


class Counts(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.directory = pathlib.Path(directory.name)
        for part, text in PRINTED.items():
            (self.directory / f"{part}.txt").write_text(text)

    def filled(self, mark):
        text = f"| <!-- {mark} -->12<!-- end --> times |"
        return counts.filled(text, counts.stored_counts(self.directory))

    def test_what_was_printed_stands_between_the_marks(self):
        for mark, value in (
                ("fuzz conversion", "6,200"), ("fuzz in all", "12,200"),
                ("model mutex", "2,096,222"), ("model engine-killed", "14,656,469"),
                ("model that hold", "2"), ("model that break", "2"),
                ("model million states", "16"), ("kills in all", "805"),
                ("kills client killed, connection open", "390 + 390"),
                ("kills instructions of a writer between which the ring was looked at",
                 "18512 + 41282"),
                ("soak answered", "1,006,746"), ("soak engines", "65"), ("soak started", "211"),
                ("soak killed", "64"), ("soak counted", "105,861"), ("soak uncertain", "10,180"),
                ("soak disturbed", "1,046,034")):
            with self.subTest(mark):
                self.assertEqual(f"| <!-- {mark} -->{value}<!-- end --> times |",
                                 self.filled(mark))

    def test_parts_that_were_not_run_keep_their_counts(self):
        self.assertEqual("| <!-- faults a daemon -->12<!-- end --> times |",
                         self.filled("faults a daemon"))

    def test_marks_that_nothing_counts_are_refused(self):
        for mark in ("kills nobody", "model wake", "fuzz trace", "kill client killed"):
            with self.subTest(mark), self.assertRaises(KeyError):
                self.filled(mark)

    def test_documents_have_marks_of_every_part_and_each_is_closed(self):
        text = "".join((ROOT / name).read_text("utf-8")
                       for name in ("docs/reliability.md", "README.md"))
        marks = counts.MARK.findall(text)
        self.assertEqual(set(counts.PARTS), {part for part, _, _ in marks})
        self.assertEqual(text.count("<!-- "), 2 * len(marks))
        for part, what, count in marks:
            self.assertRegex(count, r"^[0-9][0-9,]*(?: \+ [0-9]+)?$", f"{part} {what}")


if __name__ == "__main__":
    unittest.main()
