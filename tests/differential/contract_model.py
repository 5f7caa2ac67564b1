"""A plain model of what the library's sixteen calls do, step for step as the contract words it.

Nothing of the library is used: every offset, limit and text is spelled out here again, from the
contract alone. The model keeps the System V objects as lists and bytes, plays the engine's side of
each script, and predicts for every call its result, the caller's memory afterwards, the request
record, what both shared segments and all semaphores then hold, and every trace line.

Texts are str with one character per byte (latin-1).
"""

import struct

NEVER_MEASURED = 2147483647
REQUESTS_FILE = "/var/kelp/controls_ae.kelp"
REPLIES_FILE = "/var/kelp/controls_ea.kelp"
BELL = "  \a%s\n"
STRANGER = 0x7FFFFFF0
FREE = (-1, 0xFFFFFFFF)

# The sets and segments of an engine, in the order of the wire.
OVERFLOW, EMPTY, REQUEST_LOCK, REPLY_LOCK, WAKE = range(5)
PROJECTS = (1, 1, 1, 1, 3)
REQUESTS, REPLIES = range(2)

# What an engine does with a request.
(REPLY, REPLY_TWICE, CANCEL, DIE, DIE_WAKE_SET_FIRST, STOP, REPLY_STATE_1, REPLY_STATE_2,
 WAKE_THEN_REPLY) = range(9)


class WaitsForEver(Exception):
    """The script makes a call wait for ever: its maker has to avoid that."""


def u16(data, offset):
    return struct.unpack_from("<H", data, offset)[0]


def u32(data, offset):
    return struct.unpack_from("<I", data, offset)[0]


def i32(data, offset):
    return struct.unpack_from("<i", data, offset)[0]


def put(data, offset, form, *values):
    struct.pack_into("<" + form, data, offset, *values)


# ---- names --------------------------------------------------------------------------------------

def ipc_name(name, size, prefix):
    """The path of a name file: name, delimiter and prefix, each append cut at the size."""
    parts = [name] if prefix is None else [name, ".", prefix[:4095]]
    out = ""
    for part in parts:
        out = (out + part[:size - len(out)])[:size - 1]
    return out


def engine_paths(prefix):
    """The name file of each set of an engine with that prefix."""
    return [ipc_name(REQUESTS_FILE + "_ovr", 128, prefix),
            ipc_name(REQUESTS_FILE + "_emp", 128, prefix),
            ipc_name(REQUESTS_FILE + "_mem", 125, prefix),
            ipc_name(REPLIES_FILE, 125, prefix),
            ipc_name(REPLIES_FILE, 123, prefix)]


def system_key(device, inode, project):
    """What ftok makes of a file, as the signed number that a trace line shows."""
    key = (project & 0xFF) << 24 | (device & 0xFF) << 16 | (inode & 0xFFFF)
    return key - (1 << 32) if key >= 1 << 31 else key


# ---- code sets ----------------------------------------------------------------------------------

def units_of(text):
    """UTF-16 units of a Python text; surrogates may stand alone."""
    raw = text.encode("utf-16-le", "surrogatepass")
    return [u16(raw, i) for i in range(0, len(raw), 2)]


def from_scsu(source):
    """Plain ASCII, and the one extended window that scripts define: tag 0x0B and two bytes."""
    text, at, window = "", 0, 0x80
    while at < len(source):
        byte = source[at]
        if byte == 0x0B:
            window = 0x10000 + 0x80 * ((source[at + 1] & 0x1F) * 256 + source[at + 2])
            at += 3
            continue
        text += chr(byte) if byte < 0x80 else chr(window + byte - 0x80)
        at += 1
    return text


def decoder(codec, errors="replace"):
    return lambda source: source.decode(codec, errors)


# The name that an application gives: the converter's own name, and what it makes of bytes.
CODE_SETS = {
    "UTF-8": ("UTF-8", decoder("utf-8")),
    "utf8": ("UTF-8", decoder("utf-8")),
    "US-ASCII": ("US-ASCII", decoder("ascii")),
    "ISO-8859-1": ("ISO-8859-1", decoder("latin-1")),
    "latin1": ("ISO-8859-1", decoder("latin-1")),
    "iso-8859-15": ("ibm-923_P100-1998", decoder("iso-8859-15")),
    "ibm-37": ("ibm-37_P100-1995", decoder("cp037")),
    "UTF-7": ("UTF-7", decoder("utf-7")),
    "CESU-8": ("CESU-8", decoder("utf-8", "surrogatepass")),
    "SCSU": ("SCSU", from_scsu),
}


def opening_error(codeset):
    """ICU's error for a name that it does not know."""
    return 1 if len(codeset) >= 60 else 4


# ---- System V objects ---------------------------------------------------------------------------

class SemaphoreSet:
    def __init__(self, number, values):
        self.number = number
        self.values = values
        self.exists = True


class Segment:
    def __init__(self, size):
        self.data = bytearray(size)
        self.exists = True


class Machine:
    """The name files and objects that paths lead to."""

    def __init__(self):
        self.files = {}  # path: inode
        self.sets = {}  # (inode, project): SemaphoreSet
        self.segments = {}

    def find(self, objects, path, project):
        found = objects.get((self.files[path], project))
        return found if found is not None and found.exists else None


# ---- the engine of a script ---------------------------------------------------------------------

class Engine:
    """The engine's side, in its own process or by the hands of the player."""

    def __init__(self, machine, paths, layout, seen):
        self.machine = machine
        self.paths = paths
        self.heads = layout.heads
        self.alive = True
        self.answer = None
        self.pending = None
        self.rest_goes = False
        self.taken = []
        self.wake_ups = 0
        counts = ([0, 0, 32766], [0, 0, 32766], [0, 2], [0, 2], [1, 0] + [0] * self.heads)
        self.sets = [SemaphoreSet(seen.sets[i], list(counts[i])) for i in range(5)]
        self.segments = [Segment(layout.request_size), Segment(layout.reply_size)]
        for i, path in enumerate(paths):
            machine.files[path] = seen.inodes[i]
            machine.sets[seen.inodes[i], PROJECTS[i]] = self.sets[i]
        machine.segments[seen.inodes[REQUEST_LOCK], 2] = self.segments[REQUESTS]
        machine.segments[seen.inodes[REPLY_LOCK], 2] = self.segments[REPLIES]
        self.lay_out(layout)

    def lay_out(self, layout):
        data, n = self.segments[REPLIES].data, self.heads
        put(data, 4, "I", 12 + 16 * n if n else 0)
        for i in range(n):
            number = 2 + (i + layout.first_number) % n
            put(data, 12 + 16 * i, "BBHiII", 0, 0, number, *FREE, 0)
            put(data, 12 + 16 * n + 532 * i + 528, "I",
                12 + 16 * n + 532 * (i + 1) if i + 1 < n else 0)
        put(self.segments[REQUESTS].data, 24, "I", layout.ready)

    def remove_set(self, number):
        self.sets[number].exists = False
        if number == EMPTY and self.alive:
            self.empty_ring()

    def remove_all(self):
        for one in self.sets + self.segments:
            one.exists = False

    def remove_names(self):
        for path in self.paths:
            self.machine.files.pop(path, None)

    def die(self):
        """The kernel takes back what keeps the life semaphores at 2; forged ones are settled."""
        self.alive = False
        for lock in (REQUEST_LOCK, REPLY_LOCK):
            values = self.sets[lock].values
            values[1] = min(values[1], 1)

    def stop(self):
        for segment in self.segments:
            put(segment.data, 8, "I", 2)
        self.remove_all()
        self.remove_names()
        self.alive = False

    # The request queue.

    def capacity(self):
        return (len(self.segments[REQUESTS].data) - 28) // 4116

    def fill(self, count):
        data = self.segments[REQUESTS].data
        held = u16(data, 0)
        more = max(0, min(count, self.capacity()) - held)
        if more:
            put(data, 0, "H", held + more)
            put(data, 4, "H", (u16(data, 4) + more) % self.capacity())
        if self.alive and not self.sets[EMPTY].exists:
            self.empty_ring()

    def empty_ring(self):
        """Takes everything; only the last record can be one of the library's."""
        data = self.segments[REQUESTS].data
        if self.alive and self.sets[REQUEST_LOCK].exists and u16(data, 0):
            put(data, 2, "H", u16(data, 4))
            put(data, 0, "H", 0)

    def notice(self, record, slot):
        """A record has been put."""
        empty = self.sets[EMPTY]
        if empty.exists and empty.values[0]:
            empty.values[0] -= 1
            self.wake_ups += 1
        self.empty_ring()
        self.taken.append((slot, record))
        self.pending = self.answer.reaction
        self.sender = record.sender
        head = self.find_head(self.sender)
        # A caller with a reply of its own takes that one first.
        if head is None or not u32(self.segments[REPLIES].data, head + 12):
            self.reply()

    # The reply queue.

    def head_offsets(self):
        return range(12, 12 + 16 * self.heads, 16)

    def find_head(self, sender):
        data = self.segments[REPLIES].data
        for head in self.head_offsets():
            if struct.unpack_from("<iI", data, head + 4) == sender:
                return head
        return None

    def claim_head(self, sender):
        data = self.segments[REPLIES].data
        any_free = u16(data, 2) < self.heads
        for head in self.head_offsets():
            status, _, number, process, thread, first = struct.unpack_from("<BBHiII", data, head)
            if (process, thread) != FREE if any_free else status or first:
                continue
            if any_free:
                put(data, 2, "H", u16(data, 2) + 1)
            put(data, head, "BBHiII", 0, 0, number, *sender, 0)
            return head
        return None

    def occupy(self, status):
        data = self.segments[REPLIES].data
        for i, head in enumerate(self.head_offsets()):
            if struct.unpack_from("<iI", data, head + 4) == FREE:
                number = u16(data, head + 2)
                put(data, head, "BBHiII", status, 0, number, STRANGER, 0x51 + i, 0)
                put(data, 2, "H", u16(data, 2) + 1)

    def link(self, sender, replies):
        data = self.segments[REPLIES].data
        if not self.sets[WAKE].exists or not self.sets[REPLY_LOCK].exists:
            return False
        if u32(data, 8) or u16(data, 0) >= self.heads:
            return False
        head = self.find_head(sender)
        if head is None:
            head = self.claim_head(sender)
        if head is None:
            return False
        for reply in replies:
            if u16(data, 0) < self.heads:
                self.append(head, reply)
                self.sets[WAKE].values[u16(data, head + 2)] += 1
        return True

    def append(self, head, reply):
        data = self.segments[REPLIES].data
        item = u32(data, 4)
        put(data, 4, "I", u32(data, item + 528))
        data[item:item + 528] = reply
        put(data, item + 528, "I", 0)
        last = head + 12
        while u32(data, last):
            last = u32(data, last) + 528
        put(data, last, "I", item)
        put(data, 0, "H", u16(data, 0) + 1)

    def reply(self):
        """Links what is still to be linked; a caller that then sleeps without one is cancelled."""
        count = {REPLY: 1, REPLY_TWICE: 2}.get(self.pending)
        if count is not None:
            linked = self.link(self.sender, self.answer.replies[:count])
            self.pending = None if linked else CANCEL

    def caller_sleeps(self):
        """What ends the wait of a caller that sleeps: a raise (True) or the set's removal."""
        data = self.segments[REPLIES].data
        head = self.find_head(self.sender)
        self.reply()
        reaction, self.pending = self.pending, None
        if reaction is None and self.sets[WAKE].values[u16(data, head + 2)]:
            self.sets[WAKE].values[u16(data, head + 2)] -= 1
        elif reaction is None or not self.alive:
            raise WaitsForEver
        elif reaction == CANCEL:
            data[head] = 3
        elif reaction == WAKE_THEN_REPLY:
            self.pending = REPLY
        elif reaction in (REPLY_STATE_1, REPLY_STATE_2):
            put(data, 8, "I", 1 if reaction == REPLY_STATE_1 else 2)
        elif reaction == STOP:
            self.stop()
        else:
            self.be_killed(reaction)
            return False
        return True

    def be_killed(self, reaction):
        self.die()
        if reaction == DIE:
            self.remove_all()
        self.sets[WAKE].exists = False
        self.rest_goes = True

    def call_is_over(self):
        # Only a caller that sleeps again after an idle wake-up is still replied to.
        if self.answer.reaction != WAKE_THEN_REPLY:
            self.reply()
        self.pending = None
        if self.rest_goes:
            self.remove_all()
        self.rest_goes = False


# ---- request records ----------------------------------------------------------------------------

class Record:
    """A request: the bytes that the table of its type names, and where its time lies."""

    def __init__(self, sender, kind):
        self.sender = sender
        self.fields = [(0, struct.pack("<iIi", *sender, kind))]
        self.time = None

    def words(self, offset, *values):
        self.fields.append((offset, struct.pack("<%di" % len(values), *values)))
        return self

    def bytes(self, offset, data):
        self.fields.append((offset, bytes(data)))
        return self

    def string(self, offset, size, text):
        """Bounded copy: up to the zero byte, the rest zero, the last byte always zero."""
        text = text.split(b"\0")[0][:size - 1]
        self.stored = text.decode("latin-1")
        return self.bytes(offset, text.ljust(size, b"\0"))

    def timed(self, offset):
        self.time = offset
        return self


# ---- the library --------------------------------------------------------------------------------

class RequestQueue:
    def __init__(self, overflow, empty, lock, segment):
        self.overflow = overflow
        self.empty = empty
        self.lock = lock
        self.data = segment.data
        self.capacity = (len(segment.data) - 28) // 4116 & 0xFFFF


class ReplyQueue:
    def __init__(self, lock, segment, wake):
        self.lock = lock
        self.data = segment.data
        self.wake = wake
        self.capacity = (len(segment.data) - 12) // 548 & 0xFFFF


class Library:
    """One process's library: all of its state, and its calls."""

    def __init__(self, machine, environment, login):
        self.machine = machine
        self.environment = environment
        self.login = login  # bytes, or None for a user without an entry
        self.device = 0
        self.engine = None
        self.sender = None
        self.ipc_initialized = False
        self.out_queue = None
        self.in_queue = None
        self.converter = None
        self.debug_run = False
        self.debug_checked = False
        self.format = "xml"
        self.lines = []

    # Diagnostics.

    def debug(self, text):
        if self.debug_run:
            self.lines.append((text, False))

    def debug_line(self, text):
        if self.debug_run:
            self.lines.append((text, True))

    def error(self, text):
        self.debug(BELL % text)

    def check_debug(self):
        if self.debug_checked:
            return
        self.debug_checked = True
        self.debug_run = "ARMDEBUG" in self.environment
        if self.debug_run:
            if "ARMDEBUGFORMAT" in self.environment:
                basic = self.environment["ARMDEBUGFORMAT"] == "basic"
                self.format = "basic" if basic else "xml"
            self.debug("Debug run found in caller's environment.\n")

    # Objects.

    def path_of(self, name, size):
        return ipc_name(name, size, self.environment.get("ARM_AGENT_PREFIX"))

    def open_semaphore(self, name):
        where = "CkesSemaphore_LINUX::implOpen"
        path = self.path_of(name, 128)
        if path not in self.machine.files:
            self.debug_line("%s ftok call failed[%d] for i_Name[%s]" % (where, 2, path))
            return None
        found = self.machine.find(self.machine.sets, path, 1)
        if found is None:
            key = system_key(self.device, self.machine.files[path], 1)
            self.debug_line("%s semget call failed[%d] for sem_key[%d]" % (where, 2, key))
        return found

    def open_shared_memory(self, name):
        """The result, the lock set and the segment."""
        where = "CkesSharedMemory_UNIX::implOpen"
        path = self.path_of(name, 125)
        self.debug_line("%s ENTER - name = %s" % (where, path))
        if path not in self.machine.files:
            self.debug_line("%s - ERROR -  ftok(name, IPC_MEM_ID) failed where name = %s, "
                            "errno = %d" % (where, path, 2))
            return -250, None, None
        lock = self.machine.find(self.machine.sets, path, 1)
        if lock is None:
            self.debug_line("%s - ERROR - semget(sem_key, 2, 0) failed where errno = %d" %
                            (where, 2))
            return -251, None, None
        segment = self.machine.find(self.machine.segments, path, 2)
        if segment is None:
            self.debug_line("%s - ERROR - shmget(mem_key, 1, 0) failed where errno = %d" %
                            (where, 2))
            return -251, None, None
        if lock.values[1] == 1:
            # errno is not named for a value that was read well.
            self.debug_line(AnyErrno("%s - ERROR - semctl(VSemaphore, 1, GETVAL) failed where "
                                     "errno = " % where, ", sem_val = 1"))
            return -263, lock, segment
        self.debug_line("%s EXIT - name = %s" % (where, path))
        return 0, lock, segment

    def open_request_queue(self):
        """None when it does not become initialized."""
        overflow = self.open_semaphore(REQUESTS_FILE + "_ovr")
        if overflow is None:
            self.debug("CIPCSimpleQueue Failed on VOverflowSem\n")
            return None
        empty = self.open_semaphore(REQUESTS_FILE + "_emp")
        if empty is None:
            self.debug("CIPCSimpleQueue Failed on the empty queue wait sem\n")
            return None
        result, lock, segment = self.open_shared_memory(REQUESTS_FILE + "_mem")
        if result not in (0, -263):
            self.debug("CIPCSimpleQueue Failed on the shared memory\n")
            return None
        put(segment.data, 20, "I", 50300)
        if u32(segment.data, 8) != 0:
            self.debug("CIPCSimpleQueue VQueueState is bad\n")
            return None
        return RequestQueue(overflow, empty, lock, segment)

    def open_reply_queue(self):
        where = "CIPCQueue<T>::CIPCQueue(const char*,bool)"
        self.debug("%s ENTER, name[%s] remove[%d]\n" % (where, REPLIES_FILE, 0))
        result, lock, segment = self.open_shared_memory(REPLIES_FILE)
        if result not in (0, -263):
            self.debug("%s - ERROR -VSharedMemory->GetInitResult() = %d\n" % (where, result))
            return None
        queue = None
        wake = self.open_wake_set(self.path_of(REPLIES_FILE, 123))
        if wake is None:
            self.debug("%s ERROR - VInitialized == 0\n" % where)
        elif u32(segment.data, 8) == 0:
            queue = ReplyQueue(lock, segment, wake)
        self.debug("%s EXIT, name[%s] remove[%d] VInitialized[%d]\n" %
                   (where, REPLIES_FILE, 0, queue is not None))
        return queue

    def open_wake_set(self, path):
        where = "CIPCQueue_LINUX::implInitialize"
        self.debug_line("%s ENTER - name = %s, items = %d" % (where, path, 0))
        if path not in self.machine.files:
            self.debug_line("%s - ERROR - ftok errno = %d" % (where, 2))
            return None
        wake = self.machine.find(self.machine.sets, path, 3)
        if wake is None:
            self.debug_line("%s - ERROR - semget get semaphore id errno = %d" % (where, 2))
            return None
        self.debug_line("%s EXIT - name = %s, items = %d" % (where, path, 0))
        return wake

    # The connection.

    @staticmethod
    def creator_alive(queue):
        return queue.lock.exists and queue.lock.values[1] > 1

    def initialize_ipc(self):
        queue = self.open_request_queue()
        failure = None
        if queue is None:
            failure = "InitializeIPC, OutQueue is not Initialized\n"
        elif not self.creator_alive(queue):
            failure = "InitializeIPC, OutQueue Creator is not alive\n"
        elif u32(queue.data, 24) == 0:
            failure = ""
        if failure is not None:
            self.debug("InitializeIPC, OutQueue failure\n")
            if failure:
                self.debug(failure)
            self.out_queue = None
            return False
        self.out_queue = queue
        self.in_queue = self.open_reply_queue()
        if self.in_queue is None:
            self.debug("InitializeIPC, Failed to create InQueue\n")
            self.close_ipc()
            return False
        return True

    def close_ipc(self):
        self.out_queue = None
        if self.in_queue is not None:
            # The queue's end locks the segment, although nothing is done under the lock.
            self.lock(self.in_queue)
        self.in_queue = None

    def engine_alive(self):
        if self.out_queue is None:
            self.debug("IsEngineAlive: OutQueue is NULL\n")
            return False
        if not self.creator_alive(self.out_queue):
            self.debug("IsEngineAlive: CreatorAlive failed\n")
            return False
        version = u32(self.out_queue.data, 20)
        if version == 50300:
            return True
        self.debug("IsEngineAlive: OutQueue version[%d] does not match libarm version[%d]\n" %
                   (version, 50300))
        return False

    def check_engine_status(self):
        if not self.ipc_initialized:
            self.ipc_initialized = self.initialize_ipc()
        if not self.ipc_initialized:
            self.debug("CheckEngineStatus, InitializeIPC failed\n")
            return -2
        if self.engine_alive():
            return 0
        self.debug("CheckEngineStatus, IsEngineAlive failed\n")
        self.ipc_initialized = False
        self.close_ipc()
        self.debug("CheckEngineStatus, Try to InitializeIPC again.\n")
        self.ipc_initialized = self.initialize_ipc()
        if not self.ipc_initialized:
            self.debug("CheckEngineStatus, 2nd try at InitializeIPC failed.\n")
            return -2
        if self.engine_alive():
            return 0
        self.debug("CheckEngineStatus, 2nd InitializeIPC worked, but IsEngineAlive failed.\n")
        return -2

    def post(self, record):
        queue = self.out_queue
        if queue is None or not self.creator_alive(queue):
            return -2
        code = self.put(queue, record)
        return {0: 0, -274: -8}.get(code, -9)

    def put(self, queue, record):
        data = queue.data
        if u32(data, 8) != 0:
            return -284
        count, slot = u16(data, 0), u16(data, 4)
        if count == queue.capacity:
            return -274
        put(data, 4, "H", (slot + 1) % queue.capacity)
        put(data, 0, "H", count + 1)
        if count + 1 == 1:
            if queue.empty.exists and queue.empty.values[0] + 1 <= queue.empty.values[2]:
                queue.empty.values[0] += 1
        elif count + 1 == queue.capacity:
            if not queue.overflow.exists:
                raise WaitsForEver
            queue.overflow.values[0] = 0
        self.engine.notice(record, slot)
        return 0

    def get(self):
        """The result, and the reply's 528 bytes when it is 0."""
        queue = self.in_queue
        if queue is None or not self.creator_alive(queue):
            return -2, None
        code, reply = self.private_get(queue)
        return (0 if code == 0 else -9), reply

    def lock(self, queue):
        if queue.lock.exists:
            return 0
        self.debug("%s: semop on VSemaphore[%d] failed [%d] errno[%d]\n" %
                   ("CkesSharedMemory::implLock", queue.lock.number, -1, 22))
        return -261

    def find_head(self, queue):
        data = queue.data
        heads = range(12, 12 + 16 * queue.capacity, 16)
        for head in heads:
            if struct.unpack_from("<iI", data, head + 4) == self.sender:
                return head
        found = None
        if u16(data, 2) < queue.capacity:
            found = next(h for h in heads if struct.unpack_from("<iI", data, h + 4) == FREE)
            put(data, 2, "H", u16(data, 2) + 1)
        else:
            # Nobody else sleeps while a script's call is made; without the set nobody can tell.
            idle = (h for h in heads
                    if queue.wake.exists and u32(data, h + 12) == 0 and data[h] == 0)
            found = next(idle, None)
        if found is not None:
            put(data, found, "BBHiII", 0, 0, u16(data, found + 2), *self.sender, 0)
        return found

    def wait(self, queue, number):
        if not queue.wake.exists:
            return False
        if queue.wake.values[number] > 0:
            queue.wake.values[number] -= 1
            return True
        return self.engine.caller_sleeps()

    def private_get(self, queue):
        data = queue.data
        if self.lock(queue) != 0:
            return -261, None
        head = self.find_head(queue)
        if head is None:
            return -274, None
        if u32(data, head + 12) == 0 and u32(data, 8) != 0:
            return -284, None
        while True:
            data[head] = 1
            woken = self.wait(queue, u16(data, head + 2))
            if u32(data, 8) == 2:
                return -284, None
            if self.lock(queue) != 0:
                return -261, None
            if not woken:
                return -272, None
            first = u32(data, head + 12)
            if first == 0 and u32(data, 8) != 0:
                return -284, None
            if data[head] == 3:
                data[head] = 0
                return -277, None
            if first != 0:
                break
        reply = bytes(data[first:first + 528])
        put(data, head + 12, "I", u32(data, first + 528))
        put(data, first + 528, "I", u32(data, 4))
        put(data, 4, "I", first)
        put(data, 0, "H", u16(data, 0) - 1)
        data[head] = 0
        if u16(data, 0) == queue.capacity - 1:
            queue.wake.values[1] += 1
        return 0, reply

    def exchange(self, record, traced, wait_error="IPCGetFromEngine failed"):
        """The result, and the reply when there was one."""
        result = self.post(record)
        if result != 0:
            if traced:
                self.error("IPCPostToEngine failed")
            return result, None
        result, reply = self.get()
        if result != 0:
            if traced:
                self.error(wait_error)
            return result, None
        return i32(reply, 0), reply

    # Conversion.

    def open_converter(self, codeset):
        if self.converter is not None:
            return -3004
        self.environment["ICU_DATA"] = "/var/orv/kestra/common/QDN/icudata"
        if codeset is None:
            codeset = "UTF-8"
        if codeset not in CODE_SETS:
            self.debug(("intlGetICUConverter()->ICU ERROR Code [%d] on ucnv_open() for codeset "
                        "<%s> \n" % (opening_error(codeset), codeset))[:4095])
            return -1003
        self.converter = CODE_SETS[codeset]
        return 0

    def convert(self, source, capacity):
        """The result and the UTF-8 bytes."""
        if self.converter is None:
            result = self.open_converter(None)
            if result != 0:
                return result, b""
        text = self.converter[1](source)
        units = units_of(text)
        error = 0
        if len(units) > capacity:
            error = 15
            self.debug("ConvertStrUTF8()->ucnv_toUChars() ICU ERROR Code [%d] \n" % error)
        elif any(0xD800 <= ord(c) < 0xE000 for c in text):
            error = 10
        elif len(text.encode("utf-8")) > capacity:
            error = 15
        if error:
            self.debug("ConvertStrUTF8()->w_strToUTF8() ICU ERROR Code [%d] \n" % error)
            return -1003, b""
        return 0, text.encode("utf-8")

    def convert_names(self, convert, names, log):
        """Both names; the second one's error decides."""
        result = 0
        out = []
        for (name, capacity), label in zip(names, ("appl_name", "appl_user_id")):
            if convert:
                result, converted = self.convert(name, capacity)
                if result != 0 and log:
                    self.debug("Conversion of %s[%s] failed[%d]\n" %
                               (label, name.decode("latin-1"), result))
                name = converted
            out.append(name)
        return result, out

    # Registration.

    def w_arm_init(self, convert, memory, flags):
        self.check_debug()
        self.debug("libarm:arm_init ENTER\n")
        result = self.init_steps(convert, memory, flags)
        self.debug("libarm:arm_init EXIT[%d]\n" % result)
        return result

    def init_steps(self, convert, memory, flags):
        name, user = memory.string(0), memory.string(1)
        if self.check_engine_status() != 0:
            self.error("CheckEngineStatus failed")
            return -2
        if name is None:
            self.error("appl_name is NULL")
            return -1
        user = b"" if user is None else user
        if not 1 <= len(name) <= 127 or len(user) > 127:
            self.error("Some param is too long")
            return -1
        result, (name, user) = self.convert_names(convert, ((name, 128), (user, 128)), True)
        if result == 0 and user.split(b"\0")[0] == b"*":
            result, user = self.login_name(convert, memory)
        if result != 0:
            self.error("UTF-8 conversion failed")
            return result
        record = Record(self.sender, 1)
        app = record.string(12, 128, name).stored
        user = record.string(140, 128, user).stored
        record.words(268, flags, 0, 0)
        self.debug("  app[%s]user[%s]\n" % (app, user))
        return self.exchange(record, True)[0]

    def login_name(self, convert, memory):
        if self.login is None:
            return 0, b""
        result, user = self.convert(self.login, 128)
        if result != 0 and not convert:
            memory.write(1, 0, b"\0")
        return result, user

    def w_arm_getid(self, convert, appl_id, memory, size):
        self.debug("libarm:arm_getid ENTER\n")
        result = self.getid_steps(convert, appl_id, memory, size)
        self.debug("libarm:arm_getid EXIT[%d]\n" % result)
        return result

    def getid_steps(self, convert, appl_id, memory, size):
        name, detail = memory.string(0), memory.string(1)
        if self.check_engine_status() != 0:
            self.error("CheckEngineStatus failed")
            return -2
        if appl_id <= 0 or name is None:
            self.error("appl_id or trans name is invalid")
            return -1
        detail = b"" if detail is None else detail
        if not 1 <= len(name) <= 3619 or len(detail) > 127:
            self.error("Some name is too long")
            return -1
        result, (name, detail) = self.convert_names(convert, ((name, 3620), (detail, 128)), False)
        if memory.is_null(2) or memory.word(2, 0) != 101:
            size = 0
        if result != 0:
            self.error("UTF-8 conversion failed")
            return result
        record = Record(self.sender, 2).words(12, appl_id)
        name = record.string(16, 3620, name).stored
        detail = record.string(3636, 128, detail).stored
        record.words(3764, 0).words(4112, size)
        if size > 0:
            record.bytes(3768, memory.read(2, 344))
        self.debug("  applID[%d] transname[%s] transdetail[%s]\n" % (appl_id, name, detail))
        return self.exchange(record, True)[0]

    def arm_end(self, appl_id):
        self.debug("libarm:arm_end ENTER\n")
        if self.check_engine_status() != 0:
            self.error("CheckEngineStatus failed")
            result = -2
        elif appl_id <= 0:
            self.error("appl_id is invalid")
            result = -1
        else:
            record = Record(self.sender, 6).words(12, appl_id, 0, 0, 0)
            self.debug("  appl_id[%d]\n" % appl_id)
            result = self.exchange(record, True, "IPCGetFrmEngine failed")[0]
        self.debug("libarm:arm_end EXIT [%d]\n" % result)
        return result

    # Measurement.

    def hand_back(self, memory, reply):
        if reply is None or memory.is_null(0) or reply[4] == 0:
            return
        flags = memory.read(0, 5)[4]
        if flags & 0x40:
            memory.write(0, 4, bytes([flags | 0x20]))
            memory.write(0, 88, reply[8:176])

    def arm_start(self, tran_id, memory, size):
        self.debug("libarm:arm_start ENTER\n")
        result = self.start_steps(tran_id, memory, size)
        self.debug("libarm:arm_start EXIT [%d]\n" % result)
        return result

    def start_steps(self, tran_id, memory, size):
        if self.check_engine_status() != 0:
            self.error("CheckEngineStatus failed")
            return -2
        if not memory.is_null(0):
            flags = memory.read(0, 5)[4]
            if flags & 0x80 and memory.read(0, 198)[197] & 0x01:
                flags = flags | 0x20 if flags & 0x40 else flags ^ 0x20
                memory.write(0, 4, bytes([flags]))
                self.debug("  Ignoring this tran_id\n")
                return NEVER_MEASURED
        if tran_id < 0:
            self.error("Bad tran ID")
            return -1
        if memory.is_null(0) or memory.word(0, 0) != 1:
            size = 0
        record = Record(self.sender, 3).words(12, tran_id, 0).words(276, size).timed(280)
        if size > 0:
            record.bytes(20, memory.read(0, 256))
        self.debug("  tran_id[%d]\n" % tran_id)
        result, reply = self.exchange(record, True)
        self.hand_back(memory, reply)
        return result

    def arm_update(self, handle, flags, memory, size):
        if self.check_engine_status() != 0:
            return -2
        if handle == NEVER_MEASURED:
            return 0
        if handle <= 0:
            return -1
        record = Record(self.sender, 4).words(12, handle, flags).timed(1048)
        form = None if memory.is_null(0) else memory.word(0, 0)
        if form in (1, 2):
            record.bytes(20, memory.read(0, 256 if form == 1 else 1024)).words(1044, size)
        else:
            record.words(1044, 0)
        return self.exchange(record, False)[0]

    def arm_stop(self, handle, status, flags, memory, size):
        self.debug("libarm:arm_stop ENTER\n")
        result = self.stop_steps(handle, status, flags, memory, size)
        self.debug("libarm:arm_stop EXIT[%d]\n" % result)
        return result

    def stop_steps(self, handle, status, flags, memory, size):
        if self.check_engine_status() != 0:
            self.error("CheckEngineStatus failed")
            return -2
        if handle == NEVER_MEASURED:
            self.debug("  Passed IGNOREID\n")
            return 0
        if handle < 0:
            self.error("Invalid start_handle")
            return -1
        if memory.is_null(0):
            size = 0
        record = Record(self.sender, 5).words(12, handle, status, flags).words(280, size)
        if size > 0:
            record.bytes(24, memory.read(0, 256))
        self.debug("  start_handle[%d]\n" % handle)
        return self.exchange(record.timed(284), True)[0]

    # Reports, completions, metric data.

    def report(self, kind, handle, memory, size, stamp, value1, value2, value3):
        if self.check_engine_status() != 0:
            return -2
        if handle == NEVER_MEASURED:
            return 0
        if handle < 0 or value1 < 0 or value2 < 0:
            return -1
        if memory.is_null(0) or memory.word(0, 0) != 1:
            size = 0
        record = Record(self.sender, kind).words(12, handle, value1, value2, value3, 0)
        record.words(288, size)
        if size > 0:
            record.bytes(32, memory.read(0, 256))
        if stamp:
            record.timed(292)
        else:
            record.words(292, 0, 0)
        result, reply = self.exchange(record, False)
        self.hand_back(memory, reply)
        return result

    def complete(self, kind, handle, value1, value2):
        if self.check_engine_status() != 0:
            return -2
        if handle == NEVER_MEASURED:
            return 0
        if handle < 0 or value1 < 0:
            return -1
        record = Record(self.sender, kind).words(12, handle, value1, value2).timed(24)
        return self.exchange(record, False)[0]

    def associate(self, handle, memory, length):
        if self.check_engine_status() != 0:
            return -2
        if handle == NEVER_MEASURED:
            return 0
        if handle < 0 or memory.is_null(0) or length > 4096 or length <= 0:
            return -1
        record = Record(self.sender, 19).words(12, handle, length)
        return self.exchange(record.bytes(20, memory.read(0, length)), False)[0]

    # All of them.

    def call(self, name, n, memory):
        """The result: a number, a text, or None for a null pointer."""
        calls = {
            "arm_init": lambda: self.w_arm_init(1, memory, n[0]),
            "w_ArmInit": lambda: self.w_arm_init(n[2] & 0xFF, memory, n[0]),
            "arm_getid": lambda: self.w_arm_getid(1, n[0], memory, n[2]),
            "w_ArmGetID": lambda: self.w_arm_getid(n[3] & 0xFF, n[0], memory, n[2]),
            "arm_start": lambda: self.arm_start(n[0], memory, n[2]),
            "arm_update": lambda: self.arm_update(n[0], n[1], memory, n[2]),
            "arm_stop": lambda: self.arm_stop(n[0], n[1], n[2], memory, n[3]),
            "arm_end": lambda: self.arm_end(n[0]),
            "arm_transactionReport": lambda: self.report(16, n[0], memory, *n[2:7]),
            "arm_transactionInstanceReport": lambda: self.report(17, n[0], memory, *n[2:7]),
            "arm_completeTransaction": lambda: self.complete(15, *n[0:3]),
            "arm_completeTransactionInstance": lambda: self.complete(18, *n[0:3]),
            "arm_associateMetricData": lambda: self.associate(n[0], memory, n[1]),
            "arm_getCorrelatorKey": lambda: "ARM_CORRELATOR",
            "SetExpectedCodeset": lambda: self.open_converter(memory.text(0)),
            "GetExpectedCodeset": lambda: self.converter and self.converter[0],
            "setenv": lambda: self.set_environment(memory.text(0), memory.text(1)),
        }
        return calls[name]()

    def set_environment(self, name, value):
        """What a host does between its calls."""
        self.environment.pop(name, None)
        if value is not None:
            self.environment[name] = value
        return 0


class AnyErrno:
    """A text with a number that the contract leaves open."""

    def __init__(self, before, behind):
        self.before = before
        self.behind = behind
