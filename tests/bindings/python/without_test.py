"""The package where there is no engine, or no library."""

import unittest

import arm
from engine import run_python

PROGRAM = """
import logging
import arm

class Lines(logging.Handler):
    def emit(self, record):
        print(record.levelname, record.getMessage())

logging.getLogger("arm").addHandler(Lines())
logging.getLogger("arm").setLevel(logging.DEBUG)
order = arm.Application("shop").transaction_class("order")

@arm.measured(order)
def work():
    with arm.transaction(order, correlator=True, data=arm.DataBlock().gauge32(1, 1)) as measured:
        assert not measured.running and measured.correlator is None
        assert measured.update("text") < 0 and measured.stop() < 0
    return "done"

print(work(), work(), arm.available())
results = {
    arm.calls.arm_init("shop"), arm.calls.arm_getid(1, "order"), arm.calls.arm_start(1),
    arm.calls.arm_update(1), arm.calls.arm_stop(1, 0), arm.calls.arm_end(1),
    arm.calls.w_ArmInit(False, "shop"), arm.calls.w_ArmGetID(False, 1, "order"),
    arm.calls.arm_transactionReport(1), arm.calls.arm_transactionInstanceReport(1),
    arm.calls.arm_completeTransaction(1, 1), arm.calls.arm_completeTransactionInstance(1, 1),
    arm.calls.arm_associateMetricData(1, b"x"),
}
print(results, arm.calls.arm_getCorrelatorKey(), arm.calls.GetExpectedCodeset())
"""


class WithoutEngineTestCase(unittest.TestCase):
    def test_work_is_done_and_one_line_says_so(self) -> None:
        ran = run_python(PROGRAM)
        self.assertEqual("", ran.stderr)
        lines = ran.stdout.splitlines()
        self.assertEqual("DEBUG nothing is measured: no engine can be reached", lines[0])
        self.assertEqual(["done done True", "{-2} ARM_CORRELATOR None"], lines[1:])


class WithoutLibraryTestCase(unittest.TestCase):
    def test_work_is_done_and_one_line_says_so(self) -> None:
        ran = run_python(PROGRAM, LD_LIBRARY_PATH="")
        self.assertEqual("", ran.stderr)
        lines = ran.stdout.splitlines()
        self.assertRegex(lines[0], "^DEBUG nothing is measured: libarm.so.2: cannot open")
        self.assertEqual(["done done False", "{-2} ARM_CORRELATOR None"], lines[1:])

    def test_nothing_is_said_above_debug_level(self) -> None:
        program = "import arm; arm.Application('shop').id; arm.calls.arm_start(1)"
        ran = run_python(program, LD_LIBRARY_PATH="")
        self.assertEqual((0, "", ""), (ran.returncode, ran.stdout, ran.stderr))


class ImportTestCase(unittest.TestCase):
    def test_nothing_is_asked_of_an_engine_before_the_first_use(self) -> None:
        program = """
import arm
order = arm.Application("").transaction_class("")
@arm.measured(order)
def work(): pass
assert not arm.calls._said
"""
        self.assertEqual("", run_python(program).stderr)

    def test_all_names_are_there(self) -> None:
        for name in arm.__all__:
            self.assertTrue(hasattr(arm, name), name)
        for name in arm.calls.__all__:
            self.assertTrue(hasattr(arm.calls, name), name)


if __name__ == "__main__":
    unittest.main()
