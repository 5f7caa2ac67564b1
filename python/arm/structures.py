"""The blocks that go with the calls, byte for byte as libarm and its engine have them.

Sizes and offsets are checked when this module is imported: an interpreter that would lay them out
in another way cannot import it.
"""

from __future__ import annotations

import ctypes

GOOD = 0
ABORT = 1
FAILED = 2
IGNOREID = 2147483647

FORMAT_1 = 1
FORMAT_2 = 2
FORMAT_101 = 101

CORRELATOR_PARENT = 0x80
CORRELATOR_REQUESTED = 0x40
CORRELATOR_GENERATED = 0x20
TRACE_REQUESTED = 0x10

CORRELATOR_SIZE = 168
METRIC_DATA_SIZE = 4096


class Ratio32(ctypes.LittleEndianStructure):
    """A value and what it is to be divided by."""

    _fields_ = [("value", ctypes.c_int32), ("divisor", ctypes.c_int32)]


class Value64(ctypes.LittleEndianStructure):
    """A 64-bit value, the low word first."""

    _fields_ = [("low", ctypes.c_uint32), ("high", ctypes.c_uint32)]


class Metric(ctypes.Union):
    """One metric slot, 8 bytes, read according to its type."""

    _fields_ = [
        ("value32", ctypes.c_int32),
        ("ratio32", Ratio32),
        ("value64", Value64),
        ("bytes", ctypes.c_uint8 * 8),
    ]


class UserData1(ctypes.LittleEndianStructure):
    """The block of arm_start, arm_update and arm_stop, 256 bytes."""

    _fields_ = [
        ("format", ctypes.c_int32),
        ("flags", ctypes.c_uint8 * 4),
        ("metric", Metric * 6),
        ("string32", ctypes.c_uint8 * 32),
        ("correlator", ctypes.c_uint8 * CORRELATOR_SIZE),
    ]


class UserData2(ctypes.LittleEndianStructure):
    """The opaque block of arm_update, 1024 bytes."""

    _fields_ = [("format", ctypes.c_int32), ("data", ctypes.c_uint8 * 1020)]


class MetricDescription(ctypes.LittleEndianStructure):
    """The type and the name of one metric, 48 bytes."""

    _fields_ = [("type", ctypes.c_int32), ("name", ctypes.c_uint8 * 44)]


class UserData101(ctypes.LittleEndianStructure):
    """The metric descriptions of arm_getid, 344 bytes."""

    _fields_ = [
        ("format", ctypes.c_int32),
        ("flags", ctypes.c_uint8 * 4),
        ("metric", MetricDescription * 7),
    ]


_LAYOUT: list[tuple[type[ctypes.Structure] | type[ctypes.Union], int, dict[str, int]]] = [
    (Ratio32, 8, {"value": 0, "divisor": 4}),
    (Value64, 8, {"low": 0, "high": 4}),
    (Metric, 8, {"value32": 0, "ratio32": 0, "value64": 0, "bytes": 0}),
    (UserData1, 256, {"format": 0, "flags": 4, "metric": 8, "string32": 56, "correlator": 88}),
    (UserData2, 1024, {"format": 0, "data": 4}),
    (MetricDescription, 48, {"type": 0, "name": 4}),
    (UserData101, 344, {"format": 0, "flags": 4, "metric": 8}),
]


def check_layout() -> None:
    """Raises ImportError when a structure has another size or offset than on the wire."""
    for structure, size, offsets in _LAYOUT:
        found = {name: getattr(structure, name).offset for name in offsets}
        if ctypes.sizeof(structure) != size or found != offsets:
            raise ImportError(
                f"arm: {structure.__name__} is laid out as {ctypes.sizeof(structure)} {found}, "
                f"not as {size} {offsets}"
            )


check_layout()
