"""The sixteen calls under their own names, with an engine."""

import unittest

import arm
from arm import calls
from arm.structures import FAILED, GOOD, IGNOREID, UserData1, UserData2, UserData101
from engine import EngineTestCase


class SixteenCallsTestCase(EngineTestCase):
    def test_every_call_reaches_the_engine(self) -> None:
        application = calls.arm_init("shop", "*")
        self.assertGreater(application, 0)
        order = calls.arm_getid(application, "order", "détail", data=UserData101(format=101))
        self.assertGreater(order, 0)
        handle = calls.arm_start(order)
        self.assertGreater(handle, 0)
        self.assertEqual(0, calls.arm_update(handle, data=UserData2(format=2)))
        self.assertEqual(0, calls.arm_associateMetricData(handle, b"some bytes"))
        self.assertEqual(0, calls.arm_stop(handle, FAILED))
        self.assertEqual(0, calls.arm_transactionReport(order, report_value1=GOOD, report_value2=5))
        self.assertEqual(0, calls.arm_end(application))
        self.assertEqual([2, 1, 1, 0], self.counts(self.end_engine(), "shop", "order"))

    def test_calls_without_conversion_send_bytes_as_they_are(self) -> None:
        application = calls.w_ArmInit(False, "läden", "*")
        self.assertGreater(application, 0)
        order = calls.w_ArmGetID(False, application, b"best\xc3\xa4tigen")
        self.assertGreater(order, 0)
        # What another kind of call has registered is the same class.
        self.assertEqual(order, calls.w_ArmGetID(False, application, "bestätigen", "detail"))

    def test_every_call_hands_its_arguments_over(self) -> None:
        # The engine knows none of these ids, and says so.
        for result in (
            calls.arm_getid(9999, "order"),
            calls.arm_start(9999),
            calls.arm_update(9999),
            calls.arm_stop(9999, GOOD),
            calls.arm_end(9999),
            calls.arm_transactionReport(9999),
            calls.arm_transactionInstanceReport(9999),
            calls.arm_completeTransaction(9999, 0),
            calls.arm_completeTransactionInstance(9999, 0),
            calls.arm_associateMetricData(9999, b"x"),
        ):
            self.assertLess(result, -9)

    def test_arguments_that_the_library_rejects_are_minus_one(self) -> None:
        self.assertEqual(-1, calls.arm_init(""))
        self.assertEqual(-1, calls.arm_init("x" * 128))
        self.assertEqual(-1, calls.arm_init(None))
        self.assertEqual(-1, calls.arm_getid(0, "order"))
        self.assertEqual(-1, calls.arm_start(-1))
        self.assertEqual(-1, calls.arm_associateMetricData(1, b""))
        self.assertEqual(-1, calls.arm_associateMetricData(1, bytes(4097)))
        self.assertEqual(-1, calls.arm_transactionReport(1, report_value2=-1))
        self.assertEqual(0, calls.arm_stop(IGNOREID, GOOD))

    def test_start_writes_the_correlator_into_its_block(self) -> None:
        application = calls.arm_init("shop")
        order = calls.arm_getid(application, "order")
        block = UserData1(format=1)
        block.flags[0] = 0x40
        handle = calls.arm_start(order, data=block)
        self.assertEqual(0x60, block.flags[0])
        self.assertEqual(168, block.correlator[1])
        self.assertEqual(0, calls.arm_stop(handle, GOOD))

    def test_text_with_wrong_surrogates_is_sent_all_the_same(self) -> None:
        self.assertGreater(calls.w_ArmInit(False, "bad \ud800 text", "file \udcff"), 0)


class CodesetTestCase(unittest.TestCase):
    def test_code_set_is_named_once(self) -> None:
        self.assertIsNone(calls.GetExpectedCodeset())
        self.assertEqual(-1003, calls.SetExpectedCodeset("no such code set"))
        self.assertEqual(0, calls.SetExpectedCodeset("ISO-8859-1"))
        self.assertEqual("ISO-8859-1", calls.GetExpectedCodeset())
        self.assertEqual(-3004, calls.SetExpectedCodeset("UTF-8"))


class KeyTestCase(unittest.TestCase):
    def test_key_needs_no_engine(self) -> None:
        self.assertTrue(arm.available())
        self.assertEqual("ARM_CORRELATOR", calls.arm_getCorrelatorKey())


if __name__ == "__main__":
    unittest.main()
