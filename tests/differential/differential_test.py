"""Random scripts, played by the shipped library and by the contract's plain model: no difference.

  differential_test.py PLAYER WIDTH [CASE] [--scripts COUNT] [--seed FIRST]

CASE is one of
  scripts     no script tells a difference; the default
  situations  nor do these scripts, and every call, outcome and trace line is among them
  faults      nor do these, but every fault put into the model is seen

Run inside nsrun, by the tests with the count in ARM_DIFFERENTIAL_SCRIPTS. Each seed is one script.
One that tells a difference is printed as short as it can be made; --seed N --scripts 1 plays it
again.
"""

import argparse
import calendar
import collections
import functools
import itertools
import os
import re
import socket
import struct
import subprocess
import sys
import time

import contract_model
import faults
import scripts
import situations

STAMP_BASIC = re.compile(rb"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.(\d{3}):(\d{3}):000")
STAMP_XML = re.compile(rb"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.(\d{3})")
ZONES = {"UTC": 0, "AAA3:30": -12600, "BBB-5:45": 20700}


class Difference(Exception):
    pass


def differ(what, expected, seen):
    raise Difference("%s: the contract says %r, the library %r" % (what, expected, seen))


def check(what, expected, seen):
    if expected != seen:
        differ(what, expected, seen)


def check_bytes(what, expected, seen):
    if expected == seen:
        return
    at = next((i for i, (a, b) in enumerate(zip(expected, seen)) if a != b),
              min(len(expected), len(seen)))
    differ("%s, from byte %d" % (what, at), bytes(expected[at:at + 80]), bytes(seen[at:at + 80]))


# ---- the player ---------------------------------------------------------------------------------

class Seen:
    """What the player has seen, read field by field."""

    def __init__(self, raw):
        self.raw = raw
        self.at = 0

    def fields(self, form):
        values = struct.unpack_from("<" + form, self.raw, self.at)
        self.at += struct.calcsize("<" + form)
        return values

    def field(self, form):
        return self.fields(form)[0]

    def bytes(self, count):
        self.at += count
        return self.raw[self.at - count:self.at]

    def text(self):
        return self.bytes(self.field("I"))


class Player:
    def __init__(self, program, wide):
        self.program = program
        self.wide = wide
        self.start()

    def start(self):
        self.process = subprocess.Popen([self.program], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)

    def end(self):
        self.process.stdin.close()
        while self.process.stdout.read(65536):
            pass
        self.process.stdout.close()
        self.process.wait()

    def start_again(self):
        self.end()
        self.start()

    def send(self, script):
        raw = script.wire(os.getuid(), self.wide)
        self.process.stdin.write(struct.pack("<I", len(raw)) + raw)
        self.process.stdin.flush()

    def receive(self):
        size = self.process.stdout.read(4)
        if len(size) < 4:
            raise SystemExit("the player ended with %s" % self.process.wait())
        return Seen(self.process.stdout.read(struct.unpack("<I", size)[0]))


class EngineFacts:
    def __init__(self, seen):
        self.sets = seen.fields("5i")
        places = [seen.fields("II") for _ in range(5)]
        self.device = places[0][0]
        self.inodes = [inode for _, inode in places]


# ---- one script ---------------------------------------------------------------------------------

class Judge:
    """Plays a script in the model and compares with what was seen."""

    def __init__(self, model, script, seen, wide, counts):
        self.model = model
        self.script = script
        self.seen = seen
        self.counts = counts
        self.process = seen.field("i")
        threads = [seen.fields("QI") for _ in range(2)]
        self.selves = [own for own, _ in threads]
        self.senders = [(self.process, number if wide else own & 0xFFFFFFFF)
                        for own, number in threads]
        self.machine = self.model.Machine()
        self.away = {}
        self.library = self.model.Library(self.machine, dict(script.environment), script.login)
        self.zone = ZONES[script.environment["TZ"]]
        self.host = socket.gethostname().encode()
        self.directory_is_there = script.common_dir != scripts.MISSING_COMMON_DIR
        self.output = b""
        self.traced = False

    @property
    def engine(self):
        return self.library.engine

    def judge(self):
        for number, step in enumerate(self.script.steps, 1):
            try:
                self.judge_step(step)
            except Difference as difference:
                raise Difference("step %d, %r\n  %s" % (number, step, difference)) from None
            except self.model.WaitsForEver:
                raise Difference("step %d, %r\n  waits for ever by contract: the script's maker is "
                                 "at fault" % (number, step)) from None
        status = self.seen.field("i")
        check("the process's end", 0, status)
        check_bytes("the standard output", self.output, self.seen.text())
        mode = self.seen.field("I")
        check("the trace file's permissions", 0o100600 if self.traced else 0, mode)

    def judge_step(self, step):
        self.library.lines = []
        if step.what == scripts.CALL:
            self.judge_call(step)
        else:
            self.play_event(step)
            self.window = None
        self.judge_taken()
        self.judge_trace(step)
        self.judge_world()

    # Events.

    def play_event(self, step):
        first, second, third = step.numbers
        what = step.what
        if what == scripts.START_ENGINE:
            self.start_engine(step)
        elif what == scripts.HIDE_NAME:
            self.rename(self.script.paths[first], self.machine.files, self.away)
        elif what == scripts.SHOW_NAME:
            self.rename(self.script.paths[first], self.away, self.machine.files)
        elif what == scripts.MAKE_DIRECTORY:
            self.directory_is_there = True
        elif self.engine is not None:
            self.play_engine_event(step, first, second, third)

    @staticmethod
    def rename(path, source, target):
        if path in source:
            target[path] = source.pop(path)

    def play_engine_event(self, step, first, second, third):
        engine = self.engine
        if step.what == scripts.STOP_ENGINE:
            engine.stop()
        elif step.what == scripts.KILL_ENGINE:
            engine.die()
        elif step.what == scripts.SET_WORD:
            self.model.put(engine.segments[first].data, second, "i", third)
        elif step.what == scripts.SET_SEMAPHORE:
            engine.sets[first].values[second] = third
        elif step.what == scripts.REMOVE_SET:
            engine.remove_set(first)
        elif step.what == scripts.REMOVE_SEGMENT:
            engine.segments[first].exists = False
        elif step.what == scripts.FILL_RING:
            engine.fill(first)
        elif step.what == scripts.DRAIN_RING:
            self.drain()
        elif step.what == scripts.OCCUPY_HEADS:
            engine.occupy(first)
        else:
            engine.link(self.senders[second], [step.reply])

    def drain(self):
        empty = self.engine.sets[self.model.EMPTY]
        if self.engine.alive:
            self.engine.empty_ring()
        elif empty.exists:
            empty.values[0] += 1

    def start_engine(self, step):
        if self.engine is not None:
            self.engine.die()
            self.engine.remove_all()
        facts = EngineFacts(self.seen)
        self.library.device = facts.device
        self.library.engine = self.model.Engine(self.machine, self.script.paths, step.layout, facts)

    # Calls.

    def judge_call(self, step):
        verdict = self.seen.field("B")
        if verdict:
            raise Difference("the call %s" % ("hangs", "ends the process")[verdict - 1])
        memory = step.memory.copy()
        if self.engine is not None:
            self.engine.answer = step.answer
        self.library.sender = self.senders[step.thread]
        expected = self.library.call(step.name, step.arguments, memory)
        if self.engine is not None:
            self.engine.call_is_over()
        self.counts["call %s: %s" % (step.name, situations.outcome_of(expected))] += 1
        self.judge_result(step, expected)
        self.judge_memory(memory)

    def judge_result(self, step, expected):
        result, is_text, text, error = (self.seen.field("i"), self.seen.field("B"),
                                        self.seen.text(), self.seen.field("i"))
        begin, end = self.seen.fields("II"), self.seen.fields("II")
        self.window = begin, end
        has_data, data = self.seen.field("B"), self.seen.text()
        if step.name in ("arm_getCorrelatorKey", "GetExpectedCodeset"):
            check("the text", expected, text.decode() if is_text else None)
        else:
            check("the result", expected, result)
        check("errno's change", 0, error if step.name != "setenv" else 0)
        check("ICU_DATA", self.library.environment.get("ICU_DATA"),
              data.decode() if has_data else None)

    def judge_memory(self, memory):
        for number, area in enumerate(memory.areas):
            if area is None:
                continue
            whole = self.seen.field("B")
            check("the bytes beside area %d are whole" % number, 1, whole)
            check_bytes("area %d" % number, area, self.seen.bytes(len(area)))

    # Records.

    def judge_taken(self):
        count = self.seen.field("I")
        records = [(self.seen.field("H"), self.seen.bytes(4116)) for _ in range(count)]
        wake_ups = self.seen.field("I")
        expected = self.engine.taken if self.engine is not None else []
        check("the number of requests", len(expected), count)
        for (slot, record), (seen_slot, raw) in zip(expected, records):
            check("the request's slot", slot, seen_slot)
            self.judge_record(record, raw)
        check("raises of the empty semaphore", self.engine.wake_ups if self.engine else 0, wake_ups)
        if self.engine is not None:
            self.engine.taken = []
            self.engine.wake_ups = 0

    def judge_record(self, record, raw):
        for offset, field in record.fields:
            if raw[offset:offset + len(field)] != field:
                check_bytes("the request's field at %d" % offset, field,
                            raw[offset:offset + len(field)])
        if record.time is not None:
            seconds, nanoseconds = struct.unpack_from("<II", raw, record.time)
            self.judge_time("the request's time", seconds, nanoseconds, 1000)

    def judge_time(self, what, seconds, nanoseconds, unit):
        """Within the call, as far as the unit tells."""
        (first, first_part), (last, last_part) = self.window
        earliest = (first, first_part - first_part % unit)
        if not earliest <= (seconds, nanoseconds) <= (last, last_part) or nanoseconds % unit:
            differ(what, "from %r to %r" % (earliest, (last, last_part)), (seconds, nanoseconds))

    # Traces.

    def judge_trace(self, step):
        trace = self.seen.text()
        lines = self.library.lines
        for text, _ in lines:
            self.counts["trace: " + situations.shape_of(text)] += 1
        if lines:
            self.counts[self.library.format + " trace"] += 1
        if lines and not self.directory_is_there:
            self.counts["no trace directory"] += 1
            if not self.output:
                self.output = (b"Failed to open trace file [%s], make sure that subdirectory "
                               b"exists\n" % self.script.trace_path().encode())
            lines = []
        self.traced = self.traced or bool(lines)
        reader = TraceReader(trace)
        for text, ended in lines:
            if self.library.format == "basic":
                self.judge_basic(reader, text, ended, self.selves[step.thread])
            else:
                self.judge_xml(reader, text, self.selves[step.thread])
        check_bytes("the trace's end", b"", reader.rest())

    def judge_basic(self, reader, text, ended, thread):
        date, millis, micros = reader.match(STAMP_BASIC)
        self.judge_stamp(date, int(millis) * 1000000 + int(micros) * 1000, 1000)
        reader.expect(b" (%04d:%04d) - " % (self.process, thread))
        reader.expect_text(text)
        if ended:
            reader.expect(b"\n")

    def judge_xml(self, reader, text, thread):
        reader.expect(b"<Trace>\n <Time Millis=\"")
        total = reader.take(13)
        reader.expect(b"\">")
        date, millis = reader.match(STAMP_XML)
        seconds = self.judge_stamp(date, int(millis) * 1000000, 1000000)
        check("Millis", b"%13d" % (seconds * 1000 + int(millis)), total)
        reader.expect(b"</Time>\n <Server Format=\"IP\">" + self.host + b"</Server>\n"
                      b" <ProductId>QDN</ProductId>\n <Component>ARM</Component>\n"
                      b" <ProductInstance>5.3</ProductInstance>\n <LogText><![CDATA[")
        reader.expect_text(text)
        reader.expect(b"]]></LogText>\n"
                      b" <LogAttribs><Key>organization</Key><Value>ORV</Value></LogAttribs>\n"
                      b" <Source FileName=\"None\" Method=\"None\"/>\n"
                      b" <Thread>%04d</Thread>\n <Process>%04d</Process>\n</Trace>\n" %
                      (thread, self.process))

    def judge_stamp(self, date, nanoseconds, unit):
        seconds = seconds_of(date) - self.zone
        self.judge_time("the trace's time", seconds, nanoseconds, unit)
        return seconds

    # Shared memory.

    def judge_world(self):
        if not self.seen.field("B"):
            return
        engine = self.engine
        names = ("overflow", "empty", "request lock", "reply lock", "wake-up")
        for name, one in zip(names, engine.sets):
            expected = tuple(one.values if one.exists else [-1] * len(one.values))
            check("the %s set" % name, expected, self.seen.fields("%dh" % len(one.values)))
        check_bytes("the request queue", engine.segments[self.model.REQUESTS].data[:28],
                    self.seen.bytes(28))
        replies = engine.segments[self.model.REPLIES].data
        check_bytes("the reply queue", replies, self.seen.bytes(len(replies)))


@functools.lru_cache(maxsize=64)
def seconds_of(date):
    return calendar.timegm(time.strptime(date.decode(), "%Y-%m-%d %H:%M:%S"))


class TraceReader:
    def __init__(self, trace):
        self.trace = trace
        self.at = 0

    def rest(self):
        return self.trace[self.at:]

    def take(self, count):
        self.at += count
        return self.trace[self.at - count:self.at]

    def expect(self, piece):
        if not self.trace.startswith(piece, self.at):
            check_bytes("the trace", piece, self.rest()[:len(piece) + 40])
        self.at += len(piece)

    def expect_text(self, text):
        if not isinstance(text, str):
            self.expect(text.before.encode())
            self.match(re.compile(rb"(\d+)"))
            self.expect(text.behind.encode())
        else:
            self.expect(text.encode("latin-1"))

    def match(self, pattern):
        found = pattern.match(self.trace, self.at)
        if found is None:
            differ("the trace", pattern.pattern, self.rest()[:120])
        self.at = found.end()
        return found.groups()


# ---- many scripts -------------------------------------------------------------------------------

class Run:
    def __init__(self, program, wide):
        self.player = Player(program, wide)
        self.wide = wide
        self.counts = collections.Counter()
        self.alike = 0

    def difference_of(self, script, seen, model=contract_model):
        try:
            Judge(model, script, seen, self.wide, self.counts).judge()
            return None
        except Difference as difference:
            return str(difference)

    def play_one(self, script):
        self.player.send(script)
        return self.difference_of(script, self.player.receive())

    def played(self, first, count):
        """Each script with what was seen. The player is one script ahead of whoever looks at it."""
        sent = collections.deque()
        for seed in range(first, first + count):
            sent.append(scripts.make_script(seed))
            self.player.send(sent[-1])
            if len(sent) == 2:
                yield sent.popleft(), self.player.receive()
        while sent:
            yield sent.popleft(), self.player.receive()

    def differing(self, first, count):
        """The scripts that tell a difference, with it."""
        for script, seen in self.played(first, count):
            difference = self.difference_of(script, seen)
            if difference is None:
                self.alike += 1
            else:
                yield script, difference

    def shorten(self, script, difference):
        """Without any step that the difference does not need, as far as a minute allows."""
        size = max(1, len(script.steps) // 2)
        last = time.monotonic() + 60
        while size >= 1:
            at = 0
            while at < len(script.steps) and time.monotonic() < last:
                shorter = script.without(at, size)
                still = self.play_one(shorter)
                if still:
                    script, difference = shorter, still
                else:
                    at += size
            size //= 2
        return difference, script


# ---- cases --------------------------------------------------------------------------------------

MOST_REPORTS = 5


def no_script_differs(run, first, count):
    bad = list(itertools.islice(run.differing(first, count), MOST_REPORTS))
    calls = sum(times for what, times in run.counts.items()
                if what.startswith("call ") and not what.startswith("call setenv"))
    # What was sent ahead of the last one is left unread.
    run.player.start_again()
    for script, difference in bad:
        print("seed %d tells a difference:\n  %s" % (script.seed, difference))
    if bad:
        print("the shortest script of seed %d: %s\n%s" % (bad[0][0].seed, *run.shorten(*bad[0])))
    print("counted: random scripts played like the model: %d" % run.alike)
    print("counted: random scripts' calls: %d" % calls)
    return not bad


def every_situation_is_reached(run, first, count):
    good = no_script_differs(run, first, count)
    for what, times in sorted(run.counts.items()):
        print("%8d %s" % (times, what))
    missing = [what for what in situations.SITUATIONS if not run.counts[what]]
    for what in missing:
        print("never reached: %s" % what)
    return good and not missing


def every_fault_is_found(run, first, count):
    played = list(run.played(first, count))
    good = not any(run.difference_of(script, seen) for script, seen in played)
    for name in faults.FAULTS:
        model = faults.faulty_model(name)
        number = next((number for number, one in enumerate(played, 1)
                       if tells_a_fault(run, one, model)), None)
        print("%s: %s" % (name, "NOT FOUND" if number is None else "found by script %d" % number))
        good = good and number is not None
    return good


def tells_a_fault(run, played, model):
    script, seen = played
    seen.at = 0
    try:
        return run.difference_of(script, seen, model) is not None
    except scripts.OutsideMemory:
        return True


def prepare_machine():
    with open("/etc/nsswitch.conf", "w", encoding="ascii") as file:
        file.write("passwd: files\n")
    os.makedirs(scripts.OTHER_COMMON_DIR + "/QDN/logs", exist_ok=True)
    os.makedirs(scripts.MISSING_COMMON_DIR + "/QDN", exist_ok=True)


def main():
    cases = {"scripts": no_script_differs, "situations": every_situation_is_reached,
             "faults": every_fault_is_found}
    options = argparse.ArgumentParser()
    options.add_argument("player")
    options.add_argument("width", type=int, choices=(32, 64))
    options.add_argument("case", nargs="?", choices=cases, default="scripts")
    options.add_argument("--scripts", type=int,
                         default=int(os.environ.get("ARM_DIFFERENTIAL_SCRIPTS", "100")))
    options.add_argument("--seed", type=int, default=1)
    given = options.parse_args()
    prepare_machine()
    run = Run(given.player, given.width == 64)
    good = cases[given.case](run, given.seed, given.scripts)
    run.player.end()
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
