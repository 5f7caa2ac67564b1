"""Scripts: what they are made of, how a seed becomes one, and how the player reads them."""

import random
import struct

import contract_model as contract

CALLS = ("arm_init", "w_ArmInit", "arm_getid", "w_ArmGetID", "arm_start", "arm_update", "arm_stop",
         "arm_end", "arm_transactionReport", "arm_transactionInstanceReport",
         "arm_completeTransaction", "arm_completeTransactionInstance", "arm_associateMetricData",
         "arm_getCorrelatorKey", "SetExpectedCodeset", "GetExpectedCodeset", "setenv")

(CALL, START_ENGINE, STOP_ENGINE, KILL_ENGINE, SET_WORD, SET_SEMAPHORE, REMOVE_SET, REMOVE_SEGMENT,
 HIDE_NAME, SHOW_NAME, FILL_RING, DRAIN_RING, OCCUPY_HEADS, LINK_REPLY, MAKE_DIRECTORY) = range(15)

DEFAULT_LOG_DIR = "/var/orv/kestra/common/QDN/logs/"
OTHER_COMMON_DIR = "/tmp/other"
MISSING_COMMON_DIR = "/tmp/missing"
TRACE_NAME = "trace-armdebug.log"

UNREADABLE = object()


class OutsideMemory(Exception):
    """More is read than the script has given."""


class Memory:
    """The caller's memory of one call: up to three areas, each null, unreadable, or bytes."""

    def __init__(self, *areas, behind=0):
        self.areas = [None if a is None or a is UNREADABLE else bytearray(a) for a in areas]
        self.unreadable = [a is UNREADABLE for a in areas]
        self.behind = behind  # bytes between an area and the inaccessible page

    def is_null(self, area):
        if area >= len(self.areas):
            return True
        return self.areas[area] is None and not self.unreadable[area]

    def read(self, area, count):
        if self.areas[area] is None or len(self.areas[area]) < count:
            raise OutsideMemory
        return bytes(self.areas[area][:count])

    def word(self, area, offset):
        return struct.unpack_from("<i", self.read(area, offset + 4), offset)[0]

    def write(self, area, offset, data):
        self.areas[area][offset:offset + len(data)] = data

    def string(self, area):
        return None if self.is_null(area) else bytes(self.areas[area]).split(b"\0")[0]

    def text(self, area):
        string = self.string(area)
        return None if string is None else string.decode("latin-1")

    def copy(self):
        twin = Memory()
        twin.areas = [None if a is None else bytearray(a) for a in self.areas]
        twin.unreadable = list(self.unreadable)
        twin.behind = self.behind
        return twin

    def wire(self):
        parts = []
        for i in range(3):
            area = self.areas[i] if i < len(self.areas) else None
            kind = 1 if area is not None else 2 if i < len(self.areas) and self.unreadable[i] else 0
            area = b"" if area is None else area
            parts.append(struct.pack("<BBI", kind, self.behind, len(area)) + area)
        return b"".join(parts)

    def __repr__(self):
        shown = ["unreadable" if u else None if a is None else
                 bytes(a) if len(a) <= 60 else (len(a), bytes(a[:20]))
                 for a, u in zip(self.areas, self.unreadable)]
        return repr(shown)


class Answer:
    """What the engine does with the call's request."""

    def __init__(self, reaction, replies):
        self.reaction = reaction
        self.replies = replies


def reply_bytes(result, flag, correlator, rest=0xEE):
    return struct.pack("<iB3s168s", result, flag, b"\xEE" * 3, correlator).ljust(528, bytes([rest]))


class Layout:
    def __init__(self, requests, spare_requests, heads, spare_replies, first_number, ready):
        self.request_size = 28 + 4116 * requests + spare_requests
        self.reply_size = 12 + 548 * heads + spare_replies
        self.heads = heads
        self.first_number = first_number
        self.ready = ready

    def __repr__(self):
        return "Layout(%s)" % ", ".join("%s=%r" % one for one in vars(self).items())


class Step:
    def __init__(self, what, first=0, second=0, third=0, layout=None, reply=None):
        self.what = what
        self.numbers = (first, second, third)
        self.layout = layout
        self.reply = reply

    def wire(self):
        raw = struct.pack("<Biii", self.what, *self.numbers)
        if self.layout is not None:
            raw += struct.pack("<IIHHB", self.layout.request_size, self.layout.reply_size,
                               self.layout.heads, self.layout.first_number, self.layout.ready)
        return raw + (self.reply or b"")

    def __repr__(self):
        names = ("call", "start engine", "stop engine", "kill engine", "set word", "set semaphore",
                 "remove set", "remove segment", "hide name", "show name", "fill ring",
                 "drain ring", "occupy heads", "link reply", "make the log directory")
        return "%s %r%s" % (names[self.what], self.numbers, self.layout or "")


class Call(Step):
    def __init__(self, name, numbers, memory, answer, thread):
        super().__init__(CALL)
        self.name = name
        self.arguments = list(numbers) + [0] * (8 - len(numbers))
        self.memory = memory
        self.answer = answer
        self.thread = thread

    def wire(self):
        return (super().wire() + struct.pack("<BB8i", self.thread, CALLS.index(self.name),
                                             *self.arguments) + self.memory.wire() +
                struct.pack("<B", self.answer.reaction) + b"".join(self.answer.replies))

    def __repr__(self):
        reactions = ("reply", "reply twice", "cancel", "die", "die, wake-up set first", "stop",
                     "state 1", "state 2", "wake, then reply")
        return "thread %d: %s %r %r -> %s %r" % (
            self.thread, self.name, self.arguments, self.memory, reactions[self.answer.reaction],
            [struct.unpack_from("<iB", r) for r in self.answer.replies])


class Script:
    """The host's environment, the machine's files, and the steps."""

    def __init__(self, seed):
        self.seed = seed
        self.environment = {}
        self.common_dir = None  # what the properties file names
        self.properties = ""
        self.login = b"tester"
        self.paths = contract.engine_paths(None)
        self.threads = 1
        self.steps = []

    def trace_path(self):
        if self.common_dir is None:
            return DEFAULT_LOG_DIR + TRACE_NAME
        return self.common_dir + "/QDN/logs/" + TRACE_NAME

    def passwd(self, user):
        name, number = (self.login, user) if self.login is not None else (b"somebody", user + 1)
        return b"%s:x:%d:%d::/:/bin/sh\n" % (name, number, number)

    def wire(self, user, wide):
        def text(value):
            value = value.encode("latin-1") if isinstance(value, str) else value
            return struct.pack("<I", len(value)) + value

        entries = ["%s=%s" % one for one in self.environment.items()]
        head = struct.pack("<I", len(entries)) + b"".join(map(text, entries))
        head += text(self.trace_path()) + text(self.properties) + text(self.passwd(user))
        head += b"".join(map(text, self.paths)) + struct.pack("<BI", self.threads, len(self.steps))
        steps = b"".join(step.wire() for step in self.steps)
        if not wide:
            # Replies that nobody has asked for: for the word that a thread of this width has.
            steps = b"".join(Step(s.what, 1, s.numbers[1], 0, None, s.reply).wire()
                             if s.what == LINK_REPLY else s.wire() for s in self.steps)
        return head + steps

    def without(self, first, count):
        twin = Script(self.seed)
        twin.__dict__.update(self.__dict__)
        twin.steps = self.steps[:first] + self.steps[first + count:]
        return twin

    def __str__(self):
        lines = ["environment %r" % self.environment, "properties %r" % self.properties,
                 "login %r, %d threads" % (self.login, self.threads)]
        return "\n".join(lines + ["%2d. %r" % one for one in enumerate(self.steps, 1)])


# ---- what scripts are made of -------------------------------------------------------------------

INTEGERS = (0, 1, 2, 5, 100, 256, 344, 1024, 4096, 4097, -1, -2, -2147483648, 2147483646,
            contract.NEVER_MEASURED, 65536, 0x7FFF, 128)
SIZES = (0, 1, 4, 255, 256, 256, 257, 344, 1024, -1, -256, 2147483647, -2147483648)
RESULTS = (0, 1, 7, 101, 4711, -5, -1003, -77777, -2147483648, contract.NEVER_MEASURED)
NAME_LENGTHS = (0, 1, 2, 7, 63, 126, 127, 127, 128, 129, 200)
CLASS_LENGTHS = (0, 1, 9, 100, 127, 128, 1206, 1207, 1810, 3618, 3619, 3619, 3620, 3700)
ENVIRONMENT_VALUES = {
    "ARMDEBUG": (None, "", "1", "0"),
    "ARMDEBUGFORMAT": (None, "basic", "basic", "Basic", "xml", "", "basic "),
    "ARM_AGENT_PREFIX": (None, None, None, "", "agent2", "a b%s%n", "x" * 60, "p" * 93, "q" * 94,
                         "r" * 96, "s" * 97, "t" * 200),
    "TZ": ("UTC", "UTC", "AAA3:30", "BBB-5:45"),
    "ICU_DATA": (None, None, "/nowhere"),
}
UNKNOWN_CODESETS = ("no such code set", "x" * 59, "y" * 60, "z" * 5000)


def ascii_text(r, length):
    return bytes(r.choices(b"abcXYZ019 -_[]%<>&", k=length))


def multibyte_text(r, length):
    text = "".join(r.choices(("e", "\xe9", "\u20ac", "\U0001F600"), k=length)).encode()
    while len(text) > length:
        text = text[:length].decode(errors="ignore").encode()
    return text.ljust(length, b"a")


def broken_text(r, length):
    pieces = (b"\xff", b"\xc3", b"\xe2\x82", b"\xf0\x9f\x98", b"\xc0\xaf", b"\x80", b"ok", b"\xed")
    return b"".join(r.choices(pieces, k=length))[:length]


def begun(beginning, r, length):
    """Text that begins so, or does not when there is no room."""
    return beginning + ascii_text(r, max(0, length - len(beginning)))


def surrogate_text(r, length):
    return begun(b"a" * r.randrange(3) + b"\xed\xa0\x80" if length > 5 else b"", r, length)


def utf7_text(r, length):
    pieces = (b"A+AAA-BCD", b"+AGEAYg-", b"a+-b", b"+2D3eAA-", b"+AAA-")
    return begun(r.choice(pieces) if length > 9 else b"", r, length)


def wide_text(r, length):
    if length < 4:
        return ascii_text(r, length)
    return b"\x0b\x01\x01" + bytes(r.choices(range(0x80, 0x100), k=length - 3))


def any_text(r, length):
    return bytes(r.choices(range(1, 256), k=length))


# Text that each converter reads without a doubt about its rules.
TEXTS = {
    "UTF-8": (ascii_text, ascii_text, multibyte_text, broken_text),
    "CESU-8": (ascii_text, surrogate_text),
    "UTF-7": (ascii_text, utf7_text),
    "SCSU": (ascii_text, wide_text),
    "US-ASCII": (ascii_text, any_text),
    "ISO-8859-1": (ascii_text, any_text),
    "ibm-923_P100-1998": (ascii_text, any_text),
    "ibm-37_P100-1995": (ascii_text, any_text),
}


class Maker:
    """Makes one script, of which no call waits for ever."""

    def __init__(self, seed):
        self.r = random.Random(seed)
        self.script = Script(seed)
        # What the script opens at its beginning, if it does not leave it to the first conversion.
        self.codeset_name = self.one_of(None, self.one_of(*contract.CODE_SETS))
        self.engine = "none"
        self.harmed = False
        self.roomy = False
        self.renamed = False
        self.removed = set()
        self.filled = False

    def chance(self, part):
        return self.r.random() < part

    def one_of(self, *values):
        return self.r.choice(values)

    def make(self):
        self.make_head()
        if self.chance(0.5):
            self.open_codeset()
            self.likely_engine()
        else:
            self.likely_engine()
            self.open_codeset()
        for _ in range(self.r.randint(3, 17)):
            while self.chance(0.28):
                self.event()
            if (self.harmed or self.renamed or self.engine != "alive") and self.chance(0.4):
                self.remedy()
            self.call()
        return self.script

    def make_head(self):
        script = self.script
        for name, values in ENVIRONMENT_VALUES.items():
            value = self.r.choice(values)
            if value is not None:
                script.environment[name] = value
        if self.chance(0.35):
            script.environment["ARMDEBUG"] = "1"
        prefix = script.environment.get("ARM_AGENT_PREFIX")
        script.paths = contract.engine_paths(prefix)
        if self.chance(0.15):
            script.common_dir = self.one_of(OTHER_COMMON_DIR, MISSING_COMMON_DIR)
            script.properties = self.one_of(
                "kestra_common_dir=%s\n", "# it\nkestra_common_dir = %s \r\n",
                "#kestra_common_dir=/a\nxkestra_common_dir\t%s/") % script.common_dir
        elif self.chance(0.1):
            script.properties = self.one_of("\n", "#kestra_common_dir=/a\n", "other=1\n")
        script.login = self.one_of(b"tester", b"tester", None, b"m\xfcller", b"l" * 120, b"l" * 128,
                                   b"\xe9" * 100)
        if self.codeset_name in ("UTF-7", "CESU-8", "SCSU") and script.login is not None:
            script.login = script.login.replace(b"\xfc", b"u").replace(b"\xe9", b"e")
        script.threads = self.one_of(1, 1, 2)

    def add(self, what, *numbers, **more):
        self.script.steps.append(Step(what, *numbers, **more))

    # Events.

    def likely_engine(self):
        if self.chance(0.85):
            self.start_engine()

    def start_engine(self):
        r = self.r
        heads = r.choice((1, 2, 2, 3, 4, 6)) if not self.chance(0.03) else 0
        requests = r.choice((1, 2, 3, 4, 8)) if not self.chance(0.03) else 0
        spare = r.choice((0, 0, 1, 547, 300))
        # A segment that an engine has found large enough. Its head records do not run out.
        self.roomy = heads > 1 and self.chance(0.15)
        if self.roomy:
            spare += 548 * r.randint(1, 5)
        layout = Layout(requests, r.choice((0, 0, 1, 4115, 2000)), heads, spare, r.randrange(6),
                        1 if not self.chance(0.06) else 0)
        self.add(START_ENGINE, layout=layout)
        self.engine = "alive"
        self.removed = set()
        self.filled = False
        self.harmed = not layout.ready
        self.requests = requests

    def event(self):
        if self.engine != "alive":
            self.r.choice((self.start_engine, self.start_engine, self.start_engine,
                           self.show_name, self.words))()
            return
        self.r.choices(
            (self.start_engine, self.stop, self.kill, self.words, self.heal, self.lives,
             self.remove, self.hide_name, self.show_name, self.fill, self.occupy, self.stale,
             self.directory, self.environment, self.overflow),
            (4, 3, 5, 10, 8, 4, 4, 5, 3, 8, 3, 8, 1, 2, 3))[0]()

    def remedy(self):
        """Calls that fail again and again tell little."""
        if self.renamed:
            self.set_environment("ARM_AGENT_PREFIX",
                                 self.script.environment.get("ARM_AGENT_PREFIX"))
        if self.engine == "alive" and self.chance(0.5):
            self.heal()
        else:
            self.start_engine()

    def stop(self):
        self.add(STOP_ENGINE)
        self.engine = "none"

    def kill(self):
        self.add(KILL_ENGINE)
        self.engine = "dead"

    def words(self):
        segment, offset, value = self.r.choice((
            (0, 8, 1), (0, 8, 2), (0, 8, 9), (0, 20, 50299), (0, 20, 0), (0, 20, -1), (0, 24, 0),
            (1, 8, 1), (1, 8, 2), (1, 8, 3), (0, 12, 5), (0, 16, 6), (0, 24, 77)))
        self.add(SET_WORD, segment, offset, value)
        self.harmed = True
        if self.chance(0.4):
            self.make_reopen()

    def heal(self):
        for segment, offset, value in ((0, 8, 0), (1, 8, 0), (0, 24, 1)):
            self.add(SET_WORD, segment, offset, value)
        for lock in (contract.REQUEST_LOCK, contract.REPLY_LOCK):
            if self.chance(0.5):
                self.add(SET_SEMAPHORE, lock, 1, 2)
        self.harmed = bool(self.removed)

    def lives(self):
        self.add(SET_SEMAPHORE, self.one_of(contract.REQUEST_LOCK, contract.REPLY_LOCK), 1,
                 self.one_of(0, 1, 2, 3))
        self.harmed = True

    def overflow(self):
        self.add(SET_SEMAPHORE, contract.OVERFLOW, 0, self.one_of(1, 2, 5))

    def remove(self):
        self.harmed = True
        # Without its set the drain of the overflow semaphore has no end.
        sets = (contract.EMPTY, contract.REQUEST_LOCK, contract.REPLY_LOCK, contract.WAKE)
        if self.chance(0.3):
            self.add(REMOVE_SEGMENT, self.one_of(0, 1))
        else:
            one = self.r.choice(sets if self.filled else sets + (contract.OVERFLOW,))
            self.removed.add(one)
            self.add(REMOVE_SET, one)
        if self.chance(0.6):
            self.make_reopen()

    def hide_name(self):
        self.add(HIDE_NAME, self.one_of(0, 1, 2, 3, 4, 4, 4))
        self.harmed = True
        if self.chance(0.6):
            self.make_reopen()

    def make_reopen(self):
        """An open connection needs neither names nor most objects any more."""
        self.add(SET_WORD, 0, 20, 50299)

    def show_name(self):
        self.add(SHOW_NAME, self.r.randrange(5))

    def fill(self):
        if contract.OVERFLOW in self.removed or self.requests < 1:
            return
        self.filled = True
        if self.chance(0.5):
            self.overflow()
        self.add(FILL_RING, self.one_of(self.requests - 1, self.requests - 1, self.requests, 1, 2))
        if self.chance(0.7):
            self.call()
        if self.chance(0.8):
            self.add(DRAIN_RING)

    def occupy(self):
        if not self.roomy:
            self.add(OCCUPY_HEADS, self.one_of(0, 1, 1, 2))

    def stale(self):
        thread = self.r.randrange(self.script.threads)
        self.add(LINK_REPLY, 0, thread, reply=self.reply())
        if self.chance(0.3):
            self.add(SET_WORD, 1, 8, self.one_of(1, 1, 2, 3))
            self.harmed = True
            self.call(thread)

    def directory(self):
        self.add(MAKE_DIRECTORY)

    def environment(self):
        name = self.one_of("ARM_AGENT_PREFIX", "ARM_AGENT_PREFIX", "ARMDEBUG", "ARMDEBUGFORMAT")
        self.set_environment(name, self.one_of(self.script.environment.get(name), None, "other"))

    def set_environment(self, name, value):
        if name == "ARM_AGENT_PREFIX":
            self.renamed = value != self.script.environment.get(name)
        memory = Memory(name.encode() + b"\0",
                        None if value is None else value.encode("latin-1") + b"\0")
        self.add_call("setenv", [], memory)

    # Calls.

    def reply(self):
        r = self.r
        result = r.choice(RESULTS) if self.chance(0.5) else r.randint(1, 100000)
        return reply_bytes(result, r.choice((0, 0, 1, 1, 0x80, 0xFF)), r.randbytes(168))

    def answer(self):
        kinds = (contract.REPLY, contract.REPLY_TWICE, contract.CANCEL, contract.DIE,
                 contract.DIE_WAKE_SET_FIRST, contract.STOP, contract.REPLY_STATE_1,
                 contract.REPLY_STATE_2, contract.WAKE_THEN_REPLY)
        kind = self.r.choices(kinds, (70, 4, 4, 2, 2, 2, 2, 2, 4))[0]
        return Answer(kind, [self.reply(), self.reply()])

    def add_call(self, name, numbers, memory, thread=None):
        answer = self.answer()
        if answer.reaction in (contract.DIE, contract.DIE_WAKE_SET_FIRST, contract.STOP):
            self.engine = "perhaps"
        if thread is None:
            thread = self.r.randrange(self.script.threads)
        self.script.steps.append(Call(name, numbers, memory, answer, thread))

    def call(self, thread=None):
        name = self.r.choices(CALLS[:16], (10, 10, 8, 8, 14, 8, 10, 6, 5, 4, 4, 3, 6, 1, 4, 2))[0]
        numbers, memory = self.arguments_of(name)
        memory.behind = self.one_of(0, 0, 0, 1, 2, 3)
        self.add_call(name, numbers, memory, thread)

    def integer(self):
        return self.r.choice(INTEGERS) if self.chance(0.45) else self.r.randint(1, 2000000000)

    def handle(self):
        ends = (0, -1, contract.NEVER_MEASURED)
        return self.r.choice(ends) if self.chance(0.15) else self.integer()

    def size(self):
        return self.r.choice(SIZES)

    def text(self, lengths):
        """A string in the code set of the moment, with its zero byte."""
        if self.chance(0.04):
            return None
        length = self.r.choice(lengths) if self.chance(0.45) else self.r.randint(1, 40)
        make = self.r.choice(TEXTS[contract.CODE_SETS[self.codeset_name or "UTF-8"][0]])
        return make(self.r, length) + b"\0"

    def user(self):
        return b"*\0" if self.chance(0.25) else self.text(NAME_LENGTHS)

    def unused(self):
        return self.one_of(None, UNREADABLE, b"\1\0\0\0")

    def block(self, formats, least):
        """A data block; of a format that the call does not read it may be short."""
        if self.chance(0.15):
            return None
        form = self.r.choice(formats + (5, 0, -1))
        full = {1: 256, 2: 1024, 101: 344}
        size = max(least, full[form] if form in formats else 4)
        block = bytearray(self.r.randbytes(size))
        struct.pack_into("<i", block, 0, form)
        if size > 4:
            block[4] = self.one_of(0, 0x40, 0x80, 0xC0, 0x20, 0x60, 0xA0, 0xE0,
                                   self.r.randrange(256))
        if size > 197:
            block[197] = self.one_of(0, 0, 1, 0xFE, 0xFF)
        return block

    def arguments_of(self, name):
        if name in ("arm_init", "w_ArmInit"):
            convert = self.one_of(0, 0, 1, 255, 256)
            return ([self.integer(), self.integer(), convert],
                    Memory(self.text(NAME_LENGTHS), self.user(), self.unused()))
        if name in ("arm_getid", "w_ArmGetID"):
            convert = self.one_of(0, 1, 2)
            memory = Memory(self.text(CLASS_LENGTHS), self.text(NAME_LENGTHS),
                            self.block((101, 101, 101), 4))
            return [self.handle(), self.integer(), self.size(), convert], memory
        if name == "arm_start":
            return ([self.handle(), self.integer(), self.size()],
                    Memory(self.block((1, 1, 1), 256)))
        if name == "arm_update":
            return ([self.handle(), self.integer(), self.size()],
                    Memory(self.block((1, 1, 2, 2), 4)))
        if name == "arm_stop":
            size = self.size()
            block = self.block((1, 1), 256)
            if size <= 0 and self.chance(0.3):
                block = UNREADABLE
            return [self.handle(), self.integer(), self.integer(), size], Memory(block)
        if name == "arm_end":
            return [self.handle(), self.integer(), self.size()], Memory(self.unused())
        if name.endswith("Report"):
            return ([self.handle(), self.integer(), self.size(), self.one_of(0, 1, -1, 256)] +
                    [self.integer() for _ in range(3)], Memory(self.block((1, 1, 1), 256)))
        if name.startswith("arm_complete"):
            return [self.handle(), self.integer(), self.integer()], Memory()
        if name == "arm_associateMetricData":
            length = self.one_of(0, 1, 2, 8, 255, 4095, 4096, 4096, 4097, -1, 2147483647)
            data = self.r.randbytes(length) if 0 < length <= 4096 else UNREADABLE
            return [self.handle(), length], Memory(None if self.chance(0.1) else data)
        if name == "SetExpectedCodeset":
            return [], self.any_codeset()
        return [], Memory()

    def codeset(self, name):
        return Memory(None if name is None else name.encode() + b"\0")

    def any_codeset(self):
        """One that changes nothing: a converter is open, or the default is what is named."""
        if self.codeset_name is not None:
            names = tuple(contract.CODE_SETS)
        else:
            names = ("UTF-8", "utf8", None)
        return self.codeset(self.r.choice(names + UNKNOWN_CODESETS))

    def open_codeset(self):
        if self.codeset_name is None:
            return
        if self.chance(0.2):
            self.add_call("SetExpectedCodeset", [], self.codeset(self.one_of(*UNKNOWN_CODESETS)))
        self.add_call("SetExpectedCodeset", [], self.codeset(self.codeset_name))


def make_script(seed):
    return Maker(seed).make()
