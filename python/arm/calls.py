"""The sixteen calls of libarm under their own names.

Texts are ``bytes``, or ``str`` that is sent as UTF-8; they end at their first zero byte. Blocks are
structures of :mod:`arm.structures`. Results are those of arm.h and armext.h; without the library
every call that would post something returns ``UNREACHABLE``, as it does without an engine. No call
raises for a failed measurement.

A call waits for its answer without a time limit and with the interpreter lock released: other
threads run on, and a signal's Python handler runs when the call has returned.
"""

from __future__ import annotations

import ctypes
import logging
import threading
from typing import Any, Optional, Union

from .structures import METRIC_DATA_SIZE

__all__ = [
    "GetExpectedCodeset",
    "SetExpectedCodeset",
    "UNREACHABLE",
    "arm_associateMetricData",
    "arm_completeTransaction",
    "arm_completeTransactionInstance",
    "arm_end",
    "arm_getCorrelatorKey",
    "arm_getid",
    "arm_init",
    "arm_start",
    "arm_stop",
    "arm_transactionInstanceReport",
    "arm_transactionReport",
    "arm_update",
    "available",
    "w_ArmGetID",
    "w_ArmInit",
]

Text = Union[str, bytes, None]
Block = Union[ctypes.Structure, None]

#: What a call returns when there is no library, or no engine.
UNREACHABLE = -2

logger = logging.getLogger("arm")

_LIBRARY_NAME = "libarm.so.2"

_i32 = ctypes.c_int32
_text = ctypes.c_char_p
_pointer = ctypes.c_void_p

# Name, result and arguments of each call.
_SIGNATURES: dict[str, tuple[Any, list[Any]]] = {
    "arm_init": (_i32, [_text, _text, _i32, _pointer, _i32]),
    "arm_getid": (_i32, [_i32, _text, _text, _i32, _pointer, _i32]),
    "arm_start": (_i32, [_i32, _i32, _pointer, _i32]),
    "arm_update": (_i32, [_i32, _i32, _pointer, _i32]),
    "arm_stop": (_i32, [_i32, _i32, _i32, _pointer, _i32]),
    "arm_end": (_i32, [_i32, _i32, _pointer, _i32]),
    # The user name may be written to, see armext.h.
    "w_ArmInit": (_i32, [ctypes.c_ubyte, _text, _pointer, _i32, _pointer, _i32]),
    "w_ArmGetID": (_i32, [ctypes.c_ubyte, _i32, _text, _text, _i32, _pointer, _i32]),
    "arm_transactionReport": (_i32, [_i32, _i32, _pointer, _i32, _i32, _i32, _i32, _i32]),
    "arm_transactionInstanceReport": (_i32, [_i32, _i32, _pointer, _i32, _i32, _i32, _i32, _i32]),
    "arm_completeTransaction": (_i32, [_i32, _i32, _i32]),
    "arm_completeTransactionInstance": (_i32, [_i32, _i32, _i32]),
    "arm_associateMetricData": (_i32, [_i32, _pointer, _i32]),
    "arm_getCorrelatorKey": (_text, []),
    "SetExpectedCodeset": (_i32, [_text]),
    "GetExpectedCodeset": (_text, []),
}


def _load() -> tuple[Optional[ctypes.CDLL], str]:
    """The library, or why there is none."""
    try:
        library = ctypes.CDLL(_LIBRARY_NAME)
        for name, (result, arguments) in _SIGNATURES.items():
            function = getattr(library, name)
            function.restype = result
            function.argtypes = arguments
    except (OSError, AttributeError) as error:
        return None, str(error)
    return library, ""


_said: set[str] = set()
_said_lock = threading.Lock()


def say_once(what: str, message: str, *arguments: object) -> None:
    """Logs a message at debug level, the first time only that it is about this."""
    with _said_lock:
        if what in _said:
            return
        _said.add(what)
    logger.debug(message, *arguments)


_library, _why_not = _load()


def available() -> bool:
    """Whether libarm has been loaded; it says nothing about an engine."""
    return _library is not None


def _call(name: str, *arguments: Any) -> int:
    """Makes a call that posts something, if there is a library."""
    if _library is None:
        say_once("unreachable", "nothing is measured: %s", _why_not)
        return UNREACHABLE
    result = int(getattr(_library, name)(*arguments))
    if result == UNREACHABLE:
        say_once("unreachable", "nothing is measured: no engine can be reached")
    return result


def utf8(text: str) -> bytes:
    """The bytes that are sent for a text. A file name that is no UTF-8 keeps its own."""
    try:
        return text.encode("utf-8", "surrogateescape")
    except UnicodeEncodeError:
        return text.encode("utf-8", "replace")


def _bytes(text: Text) -> Optional[bytes]:
    return utf8(text) if isinstance(text, str) else text


def _address(block: Block) -> Any:
    return None if block is None else ctypes.addressof(block)


def _size(block: Block) -> int:
    return 0 if block is None else ctypes.sizeof(block)


def arm_init(appl_name: Text, appl_user_id: Text = "*", flags: int = 0) -> int:
    """Registers the application. Returns its id, or a negative error."""
    return _call("arm_init", _bytes(appl_name), _bytes(appl_user_id), flags, None, 0)


def arm_getid(
    appl_id: int, tran_name: Text, tran_detail: Text = "", flags: int = 0, data: Block = None
) -> int:
    """Registers a transaction class. Returns its id, or a negative error."""
    name, detail = _bytes(tran_name), _bytes(tran_detail)
    return _call("arm_getid", appl_id, name, detail, flags, _address(data), _size(data))


def arm_start(tran_id: int, flags: int = 0, data: Block = None) -> int:
    """Starts a transaction. Returns its handle, IGNOREID or a negative error. May write to data."""
    return _call("arm_start", tran_id, flags, _address(data), _size(data))


def arm_update(start_handle: int, flags: int = 0, data: Block = None) -> int:
    """Reports progress. Returns the engine's status, or a negative error."""
    return _call("arm_update", start_handle, flags, _address(data), _size(data))


def arm_stop(start_handle: int, tran_status: int, flags: int = 0, data: Block = None) -> int:
    """Stops a transaction. Returns the engine's status, or a negative error."""
    return _call("arm_stop", start_handle, tran_status, flags, _address(data), _size(data))


def arm_end(appl_id: int, flags: int = 0) -> int:
    """Ends the application. Returns the engine's status, or a negative error."""
    return _call("arm_end", appl_id, flags, None, 0)


def w_ArmInit(convert: bool, appl_name: Text, appl_user_id: Text = "*", flags: int = 0) -> int:
    """arm_init, whose texts are sent as they are when convert is false."""
    user = _bytes(appl_user_id)
    own_copy = None if user is None else ctypes.create_string_buffer(user)
    return _call("w_ArmInit", int(convert), _bytes(appl_name), own_copy, flags, None, 0)


def w_ArmGetID(
    convert: bool,
    appl_id: int,
    tran_name: Text,
    tran_detail: Text = "",
    flags: int = 0,
    data: Block = None,
) -> int:
    """arm_getid, whose texts are sent as they are when convert is false."""
    name, detail = _bytes(tran_name), _bytes(tran_detail)
    block = (_address(data), _size(data))
    return _call("w_ArmGetID", int(convert), appl_id, name, detail, flags, *block)


def _report(
    name: str, tran_handle: int, data: Block, stamp_time: bool, values: tuple[int, int, int]
) -> int:
    block = (_address(data), _size(data))
    return _call(name, tran_handle, 0, *block, int(stamp_time), *values)


def arm_transactionReport(
    tran_handle: int,
    data: Block = None,
    stamp_time: bool = True,
    report_value1: int = 0,
    report_value2: int = 0,
    report_value3: int = 0,
) -> int:
    """Reports a whole transaction. Returns the engine's answer, or a negative error."""
    values = (report_value1, report_value2, report_value3)
    return _report("arm_transactionReport", tran_handle, data, stamp_time, values)


def arm_transactionInstanceReport(
    tran_handle: int,
    data: Block = None,
    stamp_time: bool = True,
    report_value1: int = 0,
    report_value2: int = 0,
    report_value3: int = 0,
) -> int:
    """Reports a whole transaction instance. Returns the engine's answer, or a negative error."""
    values = (report_value1, report_value2, report_value3)
    return _report("arm_transactionInstanceReport", tran_handle, data, stamp_time, values)


def arm_completeTransaction(
    tran_handle: int, complete_value1: int, complete_value2: int = 0
) -> int:
    """Completes a transaction. Returns the engine's answer, or a negative error."""
    return _call("arm_completeTransaction", tran_handle, complete_value1, complete_value2)


def arm_completeTransactionInstance(
    tran_handle: int, complete_value1: int, complete_value2: int = 0
) -> int:
    """Completes a transaction instance. Returns the engine's answer, or a negative error."""
    values = (complete_value1, complete_value2)
    return _call("arm_completeTransactionInstance", tran_handle, *values)


def arm_associateMetricData(tran_handle: int, data: bytes) -> int:
    """Attaches 1 to 4096 bytes to a transaction. Returns the answer, or a negative error."""
    # More than the largest size is for the library to refuse, without being copied first.
    length = min(len(data), METRIC_DATA_SIZE + 1)
    buffer = ctypes.create_string_buffer(data[:length], max(length, 1))
    return _call("arm_associateMetricData", tran_handle, buffer, length)


def arm_getCorrelatorKey() -> str:
    """The name of the environment variable that carries a correlator to child processes."""
    if _library is None:
        return "ARM_CORRELATOR"
    return str(_library.arm_getCorrelatorKey().decode("ascii"))


def SetExpectedCodeset(codeset: Text) -> int:
    """Names the code set of the texts that are converted. Returns 0, or a negative error."""
    return _call("SetExpectedCodeset", _bytes(codeset))


def GetExpectedCodeset() -> Optional[str]:
    """The name of the code set in use; None when there is none yet."""
    name = None if _library is None else _library.GetExpectedCodeset()
    return None if name is None else str(name.decode("ascii", "replace"))
