"""Applications, transaction classes and transactions as Python objects, over :mod:`arm.calls`.

Nothing in here raises for a failed measurement: without the library or an engine the objects do
nothing. An application and a class register themselves at their first use, and try again at a later
one while no engine is there; so they can be made when a module is imported.

Threads: applications and classes may be used by any number of threads at once, a transaction by one
at a time.
"""

from __future__ import annotations

import functools
import inspect
import os
import threading
from enum import IntEnum
from types import TracebackType
from typing import Any, Callable, Mapping, Optional, TypeVar, Union, cast

from . import calls
from .structures import (
    CORRELATOR_GENERATED,
    CORRELATOR_PARENT,
    CORRELATOR_REQUESTED,
    CORRELATOR_SIZE,
    FORMAT_1,
    FORMAT_2,
    FORMAT_101,
    IGNOREID,
    TRACE_REQUESTED,
    UserData1,
    UserData2,
    UserData101,
)

__all__ = [
    "Application",
    "Correlator",
    "DataBlock",
    "MetricDescriptions",
    "MetricType",
    "Status",
    "Transaction",
    "TransactionClass",
    "measured",
    "transaction",
]

_Function = TypeVar("_Function", bound=Callable[..., Any])


class Status(IntEnum):
    """How a transaction ended."""

    GOOD = 0
    ABORTED = 1  #: by a fundamental fault of the system
    FAILED = 2  #: the software worked, but the wanted result could not be given


class MetricType(IntEnum):
    """Type of a metric: a counter only grows, a gauge goes up and down, the rest identifies."""

    COUNTER32 = 1
    COUNTER64 = 2
    COUNTER_RATIO32 = 3
    GAUGE32 = 4
    GAUGE64 = 5
    GAUGE_RATIO32 = 6
    ID32 = 7
    ID64 = 8
    STRING8 = 9
    STRING32 = 10


class Correlator:
    """The 168 bytes by which a transaction is known to its children, wherever they run.

    The content is the engine's. The text form is lower-case hexadecimal.
    """

    __slots__ = ("_data",)

    def __init__(self, data: bytes) -> None:
        """Takes 4 to 168 bytes; missing ones are zero. ValueError for any other number."""
        if not 4 <= len(data) <= CORRELATOR_SIZE:
            raise ValueError(f"a correlator has 4 to {CORRELATOR_SIZE} bytes, not {len(data)}")
        self._data = bytes(data).ljust(CORRELATOR_SIZE, b"\0")

    @classmethod
    def from_hex(cls, text: str) -> Optional[Correlator]:
        """Reads the text form; None when the text is anything else."""
        if not text.isascii() or not text.isalnum():
            return None
        try:
            return cls(bytes.fromhex(text))
        except ValueError:
            return None

    @classmethod
    def from_environment(
        cls, environment: Optional[Mapping[str, str]] = None
    ) -> Optional[Correlator]:
        """What the parent process has left in the environment; None when there is nothing."""
        variables = os.environ if environment is None else environment
        return cls.from_hex(variables.get(calls.arm_getCorrelatorKey(), ""))

    def environment(self, base: Optional[Mapping[str, str]] = None) -> dict[str, str]:
        """An environment for child processes: base, or this process's own, with the correlator."""
        variables = dict(os.environ if base is None else base)
        variables[calls.arm_getCorrelatorKey()] = self.hex()
        return variables

    def hex(self) -> str:
        """The text form, 336 digits."""
        return self._data.hex()

    def __bytes__(self) -> bytes:
        return self._data

    def __bool__(self) -> bool:
        """Whether it names a transaction; one whose length word is zero names none."""
        return self._data[:2] != b"\0\0"

    def __eq__(self, other: object) -> bool:
        return isinstance(other, Correlator) and self._data == other._data

    def __hash__(self) -> int:
        return hash(self._data)

    def __repr__(self) -> str:
        return f"Correlator({self.hex()[:16]}...)"


def _slot_bit(slot: int) -> int:
    return 0x80 >> (slot - 1)


def _wrapped(value: int, bits: int) -> int:
    """The value as the low bits of the field hold it: a counter that passes the end starts anew."""
    return value & ((1 << bits) - 1)


def _signed32(value: int) -> int:
    return (_wrapped(value, 32) ^ 0x80000000) - 0x80000000


class DataBlock:
    """Seven metrics and the correlators that go with a start, an update or a stop; 256 bytes.

    Slots are numbered 1 to 6; slot 7 is the 32-byte string. A metric that is set is marked as
    valid. Every setter returns the block. A wrong slot is a ValueError.
    """

    __slots__ = ("raw",)

    def __init__(self) -> None:
        self.raw = UserData1()  #: the bytes themselves
        self.raw.format = FORMAT_1

    def _metric(self, slot: int) -> Any:
        if not 1 <= slot <= 6:
            raise ValueError(f"metric slots are 1 to 6, not {slot}")
        self.raw.flags[1] |= _slot_bit(slot)
        metric = self.raw.metric[slot - 1]
        metric.bytes[:] = [0] * 8
        return metric

    def _value32(self, slot: int, value: int) -> DataBlock:
        self._metric(slot).value32 = _signed32(value)
        return self

    def _value64(self, slot: int, value: int) -> DataBlock:
        metric = self._metric(slot)
        metric.value64.low = _wrapped(value, 32)
        metric.value64.high = _wrapped(value >> 32, 32)
        return self

    def _ratio32(self, slot: int, value: int, divisor: int) -> DataBlock:
        metric = self._metric(slot)
        metric.ratio32.value = _signed32(value)
        metric.ratio32.divisor = _signed32(divisor)
        return self

    def counter32(self, slot: int, value: int) -> DataBlock:
        """A 32-bit counter."""
        return self._value32(slot, value)

    def counter64(self, slot: int, value: int) -> DataBlock:
        """A 64-bit counter."""
        return self._value64(slot, value)

    def counter_ratio32(self, slot: int, value: int, divisor: int) -> DataBlock:
        """A 32-bit counter and what it is to be divided by."""
        return self._ratio32(slot, value, divisor)

    def gauge32(self, slot: int, value: int) -> DataBlock:
        """A 32-bit gauge."""
        return self._value32(slot, value)

    def gauge64(self, slot: int, value: int) -> DataBlock:
        """A 64-bit gauge."""
        return self._value64(slot, value)

    def gauge_ratio32(self, slot: int, value: int, divisor: int) -> DataBlock:
        """A 32-bit gauge and what it is to be divided by."""
        return self._ratio32(slot, value, divisor)

    def id32(self, slot: int, value: int) -> DataBlock:
        """A 32-bit number that identifies something."""
        return self._value32(slot, value)

    def id64(self, slot: int, value: int) -> DataBlock:
        """A 64-bit number that identifies something."""
        return self._value64(slot, value)

    def string8(self, slot: int, value: str) -> DataBlock:
        """At most 8 bytes of UTF-8; characters of a longer text that do not fit are left out."""
        self._metric(slot).bytes[:] = _field(value, 8)
        return self

    def string32(self, value: str) -> DataBlock:
        """Slot 7: at most 32 bytes of UTF-8; what does not fit is left out."""
        self.raw.flags[1] |= _slot_bit(7)
        self.raw.string32[:] = _field(value, 32)
        return self

    def clear_metrics(self) -> DataBlock:
        """Marks every slot as not valid."""
        self.raw.flags[1] = 0
        return self

    def child_of(self, parent: Optional[Correlator]) -> DataBlock:
        """Makes the transaction started with this block the child of another one, or of none."""
        self._set_flag(CORRELATOR_PARENT, bool(parent))
        self._set_flag(CORRELATOR_GENERATED, False)
        self.raw.correlator[:] = bytes(parent) if parent else bytes(CORRELATOR_SIZE)
        return self

    def want_correlator(self, wanted: bool = True) -> DataBlock:
        """Asks for a correlator of the transaction started with this block."""
        return self._set_flag(CORRELATOR_REQUESTED, wanted)

    def want_trace(self, wanted: bool = True) -> DataBlock:
        """Asks the engine to trace the transaction."""
        return self._set_flag(TRACE_REQUESTED, wanted)

    @property
    def correlator(self) -> Optional[Correlator]:
        """The correlator of the transaction started with this block; None when it has none."""
        if not self.raw.flags[0] & CORRELATOR_GENERATED:
            return None
        return Correlator(bytes(self.raw.correlator))

    def _set_flag(self, flag: int, on: bool) -> DataBlock:
        others = self.raw.flags[0] & ~flag
        self.raw.flags[0] = others | flag if on else others
        return self


def _cut(text: str, size: int) -> bytes:
    """The text's UTF-8, cut before the first character that does not fit."""
    data = calls.utf8(text)
    if len(data) <= size:
        return data
    while size > 0 and data[size] & 0xC0 == 0x80:
        size -= 1
    return data[:size]


def _field(text: str, size: int) -> list[int]:
    return list(_cut(text, size).ljust(size, b"\0"))


class MetricDescriptions:
    """Types and names of a class's metrics, 344 bytes. Slot 7, and no other, takes STRING32."""

    __slots__ = ("raw",)

    def __init__(self) -> None:
        self.raw = UserData101()  #: the bytes themselves
        self.raw.format = FORMAT_101

    def describe(self, slot: int, kind: MetricType, name: str) -> MetricDescriptions:
        """Describes slot 1 to 7; a name has at most 43 bytes, what does not fit is left out."""
        if not 1 <= slot <= 7:
            raise ValueError(f"metric slots are 1 to 7, not {slot}")
        if (slot == 7) != (kind == MetricType.STRING32):
            raise ValueError("slot 7 takes STRING32, and nothing else does")
        self.raw.flags[1] |= _slot_bit(slot)
        self.raw.metric[slot - 1].type = int(kind)
        self.raw.metric[slot - 1].name[:] = list(_cut(name, 43).ljust(44, b"\0"))
        return self


class Application:
    """A registered application. Ends with its ``with`` block, or when ``end`` is called.

    A process that exits without ending it leaves that to the engine.
    """

    def __init__(self, name: str, user: str = "*") -> None:
        """Nothing is asked of the engine yet.

        name: 1 to 127 bytes of UTF-8; user: at most 127, "*" is the login name of the process's
        user.
        """
        self.name = name
        self.user = user
        self._id = 0
        self._lock = threading.Lock()

    def transaction_class(
        self, name: str, detail: str = "", metrics: Optional[MetricDescriptions] = None
    ) -> TransactionClass:
        """A kind of transaction. name: 1 to 3619 bytes of UTF-8; detail: at most 127."""
        return TransactionClass(self, name, detail, metrics)

    @property
    def id(self) -> int:
        """The application's id, registered when it is not yet; negative when that fails."""
        with self._lock:
            if self._id <= 0:
                self._id = calls.w_ArmInit(False, self.name, self.user)
                _say_when_bad(self._id)
            return self._id

    def end(self) -> int:
        """Ends the application. Running transactions may still be stopped. Returns the status."""
        with self._lock:
            identifier, self._id = self._id, 0
        return calls.arm_end(identifier) if identifier > 0 else calls.UNREACHABLE

    def _forget(self, identifier: int) -> None:
        with self._lock:
            if self._id == identifier:
                self._id = 0

    def __enter__(self) -> Application:
        return self

    def __exit__(self, *_: object) -> None:
        self.end()


class TransactionClass:
    """A kind of transaction of an application; it ends with that."""

    def __init__(
        self,
        application: Application,
        name: str,
        detail: str = "",
        metrics: Optional[MetricDescriptions] = None,
    ) -> None:
        self.application = application
        self.name = name
        self.detail = detail
        self._metrics = metrics
        self._registered = (0, 0)  # the application's id, and the class's own
        self._lock = threading.Lock()

    @property
    def id(self) -> int:
        """The class's id, registered when it is not yet; negative when that fails."""
        application = self.application.id
        if application <= 0:
            return application
        with self._lock:
            if self._registered[0] != application or self._registered[1] <= 0:
                data = None if self._metrics is None else self._metrics.raw
                own = calls.w_ArmGetID(False, application, self.name, self.detail, data=data)
                self._registered = (application, own)
                _say_when_bad(own)
            return self._registered[1]

    def _forget(self) -> None:
        """The engine has gone: the next one gives other ids."""
        with self._lock:
            application = self._registered[0]
            self._registered = (0, 0)
        self.application._forget(application)


def _say_when_bad(result: int) -> None:
    if result < 0 and result != calls.UNREACHABLE:
        calls.say_once(f"result {result}", "not all is measured: a call returned %d", result)


class Transaction:
    """A running transaction. As a context manager it starts and stops with the ``with`` block.

    Left by an exception it has failed, unless a status was set before; ``sys.exit(0)`` is no
    failure.
    """

    def __init__(
        self,
        of: TransactionClass,
        *,
        parent: Optional[Correlator] = None,
        correlator: bool = False,
        data: Optional[DataBlock] = None,
    ) -> None:
        """Nothing is started yet.

        parent: the correlator of the transaction that this one belongs to; correlator: whether a
        correlator of its own is wanted; data: metrics to start with.
        """
        self._class = of
        self._parent = parent
        self._block = data
        if parent is not None or correlator:
            self._block = data or DataBlock()
            self._block.want_correlator(correlator)
        self._handle = -1
        self._status: Optional[Status] = None

    @property
    def handle(self) -> int:
        """What arm_start returned; negative while nothing is measured."""
        return self._handle

    @property
    def correlator(self) -> Optional[Correlator]:
        """Its correlator; None when none was asked for or given."""
        return None if self._block is None else self._block.correlator

    def environment(self, base: Optional[Mapping[str, str]] = None) -> dict[str, str]:
        """An environment for child processes: base, or this process's own, with the correlator if
        there is one, and without a foreign one if there is none."""
        own = self.correlator
        if own is not None:
            return own.environment(base)
        variables = dict(os.environ if base is None else base)
        variables.pop(calls.arm_getCorrelatorKey(), None)
        return variables

    def start(self) -> Transaction:
        """Starts it; one that runs already is stopped first."""
        self.stop()
        identifier = self._class.id
        # A block that was started with before holds that transaction's own correlator.
        if self._block is not None and (self._parent is not None or self.correlator is not None):
            self._block.child_of(self._parent)
        if identifier > 0:
            self._handle = calls.arm_start(
                identifier, data=None if self._block is None else self._block.raw
            )
            if self._handle == calls.UNREACHABLE:
                self._class._forget()
            _say_when_bad(self._handle)
        return self

    def update(self, data: Union[DataBlock, str, bytes, None] = None) -> int:
        """Reports progress, with metrics or a text of at most 1020 bytes. Returns the status."""
        if self._handle < 0:
            return self._handle
        if data is None or isinstance(data, DataBlock):
            return calls.arm_update(self._handle, data=None if data is None else data.raw)
        block = UserData2()
        block.format = FORMAT_2
        text = _cut(data, 1020) if isinstance(data, str) else data[:1020]
        block.data[: len(text)] = list(text)
        return calls.arm_update(self._handle, data=block)

    def set_status(self, status: Status) -> None:
        """The status with which it will be stopped, exception or not."""
        self._status = status

    def fail(self) -> None:
        """It will be stopped as failed."""
        self.set_status(Status.FAILED)

    def abort(self) -> None:
        """It will be stopped as aborted."""
        self.set_status(Status.ABORTED)

    def stop(self, status: Optional[Status] = None, data: Optional[DataBlock] = None) -> int:
        """Stops it with this status, else the one that was set, else good. Returns the status word
        of the engine, or the negative handle when it does not run."""
        handle, self._handle = self._handle, -1
        if handle < 0:
            return handle
        if status is None:
            status = Status.GOOD if self._status is None else self._status
        return calls.arm_stop(handle, int(status), data=None if data is None else data.raw)

    @property
    def running(self) -> bool:
        """Whether it runs and is measured."""
        return 0 < self._handle != IGNOREID

    def __enter__(self) -> Transaction:
        return self.start()

    def __exit__(
        self,
        kind: Optional[type[BaseException]],
        error: Optional[BaseException],
        trace: Optional[TracebackType],
    ) -> None:
        if self._status is None and error is not None and not _is_good_exit(error):
            self._status = Status.FAILED
        self.stop()


def _is_good_exit(error: BaseException) -> bool:
    return isinstance(error, SystemExit) and error.code in (None, 0)


def transaction(
    of: TransactionClass,
    *,
    parent: Optional[Correlator] = None,
    correlator: bool = False,
    data: Optional[DataBlock] = None,
) -> Transaction:
    """A transaction for a ``with`` statement; the arguments are those of :class:`Transaction`."""
    return Transaction(of, parent=parent, correlator=correlator, data=data)


def measured(of: TransactionClass) -> Callable[[_Function], _Function]:
    """Makes each call of the decorated function a transaction. A coroutine function's lasts until
    its coroutine ends. A generator function's would end before its work: TypeError."""

    def decorate(function: _Function) -> _Function:
        if inspect.isgeneratorfunction(function) or inspect.isasyncgenfunction(function):
            raise TypeError("a generator does its work later: measure the loop that uses it")
        if inspect.iscoroutinefunction(function):

            @functools.wraps(function)
            async def call_and_await(*args: Any, **kwargs: Any) -> Any:
                with transaction(of):
                    return await function(*args, **kwargs)

            return cast(_Function, call_and_await)

        @functools.wraps(function)
        def call(*args: Any, **kwargs: Any) -> Any:
            with transaction(of):
                return function(*args, **kwargs)

        return cast(_Function, call)

    return decorate
