"""The bytes of blocks and correlators; no engine is needed."""

import ctypes
import struct
import unittest
from unittest import mock

import arm
from arm import structures


def slot(block: arm.DataBlock, number: int) -> bytes:
    return bytes(block.raw)[8 * number:8 * number + 8]


class LayoutTestCase(unittest.TestCase):
    def test_sizes_are_those_of_the_wire(self) -> None:
        self.assertEqual(256, ctypes.sizeof(structures.UserData1))
        self.assertEqual(1024, ctypes.sizeof(structures.UserData2))
        self.assertEqual(344, ctypes.sizeof(structures.UserData101))
        self.assertEqual(88, structures.UserData1.correlator.offset)

    def test_another_layout_cannot_be_imported(self) -> None:
        wrong = [(structures.UserData1, 256, {"format": 0, "correlator": 92})]
        with mock.patch.object(structures, "_LAYOUT", wrong):
            with self.assertRaisesRegex(ImportError, "UserData1 is laid out as 256"):
                structures.check_layout()
        with mock.patch.object(structures, "_LAYOUT", [(structures.Metric, 16, {})]):
            with self.assertRaises(ImportError):
                structures.check_layout()


class DataBlockTestCase(unittest.TestCase):
    def test_empty_block_has_its_format_and_nothing_else(self) -> None:
        self.assertEqual(struct.pack("<i", 1) + bytes(252), bytes(arm.DataBlock().raw))

    def test_every_type_has_the_bytes_of_its_type(self) -> None:
        block = arm.DataBlock()
        self.assertEqual(struct.pack("<ii", -2, 0), slot(block.counter32(1, -2), 1))
        self.assertEqual(struct.pack("<q", 2**40 + 1), slot(block.counter64(2, 2**40 + 1), 2))
        self.assertEqual(struct.pack("<ii", 7, 9), slot(block.counter_ratio32(3, 7, 9), 3))
        self.assertEqual(struct.pack("<ii", 8, 0), slot(block.gauge32(4, 8), 4))
        self.assertEqual(struct.pack("<q", -1), slot(block.gauge64(5, -1), 5))
        self.assertEqual(struct.pack("<ii", -1, 2), slot(block.gauge_ratio32(6, -1, 2), 6))
        self.assertEqual(0xFC, bytes(block.raw)[5])
        self.assertEqual(struct.pack("<ii", 5, 0), slot(block.id32(6, 5), 6))
        self.assertEqual(struct.pack("<q", 6), slot(block.id64(6, 6), 6))
        self.assertEqual(b"ab\0\0\0\0\0\0", slot(block.string8(6, "ab"), 6))

    def test_slot_seven_is_a_string(self) -> None:
        block = arm.DataBlock().string32("région")
        self.assertEqual("région".encode().ljust(32, b"\0"), bytes(block.raw)[56:88])
        self.assertEqual(0x02, bytes(block.raw)[5])
        self.assertEqual(0, bytes(block.clear_metrics().raw)[5])

    def test_long_strings_end_with_a_whole_character(self) -> None:
        self.assertEqual("ééé".encode() + b"a\0", slot(arm.DataBlock().string8(1, "éééaéé"), 1))
        self.assertEqual(b"12345678", slot(arm.DataBlock().string8(1, "123456789"), 1))

    def test_counters_begin_anew_behind_their_end(self) -> None:
        self.assertEqual(struct.pack("<Q", 1), slot(arm.DataBlock().counter64(1, 2**64 + 1), 1))
        self.assertEqual(b"\0\0\0\x80\0\0\0\0", slot(arm.DataBlock().counter32(1, 2**31), 1))

    def test_wrong_slots_are_value_errors(self) -> None:
        for number in (0, 7, -1):
            with self.assertRaises(ValueError):
                arm.DataBlock().gauge32(number, 1)

    def test_flags_are_set_and_taken_back(self) -> None:
        block = arm.DataBlock().want_correlator().want_trace()
        self.assertEqual(0x50, bytes(block.raw)[4])
        self.assertEqual(0x10, bytes(block.want_correlator(False).raw)[4])
        self.assertIsNone(block.correlator)


class MetricDescriptionsTestCase(unittest.TestCase):
    def test_descriptions_lie_at_their_offsets(self) -> None:
        metrics = arm.MetricDescriptions()
        metrics.describe(1, arm.MetricType.COUNTER64, "bytes")
        metrics.describe(7, arm.MetricType.STRING32, "r" * 60)
        data = bytes(metrics.raw)
        self.assertEqual(344, len(data))
        self.assertEqual((101, 0, 0x82), struct.unpack_from("<iBB", data))
        self.assertEqual(struct.pack("<i", 2) + b"bytes".ljust(44, b"\0"), data[8:56])
        self.assertEqual(struct.pack("<i", 10) + b"r" * 43 + b"\0", data[296:344])

    def test_what_does_not_fit_a_slot_is_a_value_error(self) -> None:
        for slot_number, kind in (
            (0, arm.MetricType.GAUGE32),
            (8, arm.MetricType.GAUGE32),
            (7, arm.MetricType.GAUGE32),
            (1, arm.MetricType.STRING32),
        ):
            with self.assertRaises(ValueError):
                arm.MetricDescriptions().describe(slot_number, kind, "x")


class CorrelatorTestCase(unittest.TestCase):
    pattern = bytes((i * 5 + 3) % 256 for i in range(168))

    def test_text_form_comes_back(self) -> None:
        correlator = arm.Correlator(self.pattern)
        self.assertEqual(self.pattern.hex(), correlator.hex())
        self.assertEqual(correlator, arm.Correlator.from_hex(correlator.hex()))
        self.assertEqual(hash(correlator), hash(arm.Correlator(self.pattern)))
        self.assertTrue(correlator)

    def test_shorter_texts_and_capital_digits_are_read(self) -> None:
        correlator = arm.Correlator.from_hex("0004C1fF")
        assert correlator is not None
        self.assertEqual(b"\0\x04\xc1\xff".ljust(168, b"\0"), bytes(correlator))

    def test_other_texts_are_none(self) -> None:
        for text in ("", "0004c1", "0004c1ff0", "0004c1fg", " 0004c1ff", "00 04 c1 ff", "0" * 338):
            self.assertIsNone(arm.Correlator.from_hex(text), text)

    def test_environment_hands_it_over(self) -> None:
        correlator = arm.Correlator(self.pattern)
        variables = correlator.environment({"A": "b"})
        self.assertEqual({"A": "b", "ARM_CORRELATOR": correlator.hex()}, variables)
        self.assertEqual(correlator, arm.Correlator.from_environment(variables))
        self.assertIsNone(arm.Correlator.from_environment({}))
        self.assertIn("PATH", correlator.environment())

    def test_length_zero_names_no_transaction(self) -> None:
        self.assertFalse(arm.Correlator(bytes(168)))
        block = arm.DataBlock().child_of(arm.Correlator(self.pattern))
        self.assertEqual(0x80, bytes(block.raw)[4])
        self.assertEqual(self.pattern, bytes(block.raw)[88:])
        self.assertEqual(0, bytes(block.child_of(arm.Correlator(bytes(168))).raw)[4])
        self.assertEqual(0, bytes(block.child_of(None).raw)[4])
        self.assertEqual(bytes(168), bytes(block.raw)[88:])

    def test_wrong_sizes_are_value_errors(self) -> None:
        for size in (0, 3, 169):
            with self.assertRaises(ValueError):
                arm.Correlator(bytes(size))


if __name__ == "__main__":
    unittest.main()
