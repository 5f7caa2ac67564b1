"""Programs, engines and numbers: what the tables of bench.py are made with."""

import json
import os
import signal
import statistics
import subprocess
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# A quick run shows that everything works; its figures mean little, and docs never takes them.
QUICK = bool(os.environ.get("BENCH_QUICK"))
OUT = os.path.join(ROOT, "build", "bench", *(["quick"] if QUICK else []))
WIDTHS = {"32-bit": "i386", "64-bit": "amd64"}
# Everything runs on one processor, the last: the others are left to the machine.
PROCESSOR = max(os.sched_getaffinity(0))


def program(width, name):
    return os.path.join(ROOT, "build", WIDTHS[width] + "-bench", "bin", name)


def library(width):
    return os.path.join(ROOT, "build", WIDTHS[width] + "-bench", "lib", "libarm.so")


def pin():
    os.sched_setaffinity(0, {PROCESSOR})


def environment(prefix=None, **more):
    variables = dict(os.environ, **more)
    if prefix is not None:
        variables["ARM_AGENT_PREFIX"] = prefix
    return variables


def run(arguments, env=None, log=None):
    """Runs a program on the processor and returns what it prints; errors go to the log, if any."""
    done = subprocess.run(arguments, env=env, preexec_fn=pin, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=log, text=True, check=False)
    if done.returncode != 0:
        raise SystemExit("bench: %s failed (%d)" % (" ".join(arguments), done.returncode))
    return done.stdout


def client(width, *arguments, prefix=None, **env):
    """Runs a mode of bench_client and returns its figures."""
    command = [program(width, "bench_client")] + [str(a) for a in arguments]
    return json.loads(run(command, environment(prefix, **env)))


class Engine:
    """An engine on the processor, from a with statement's beginning to its end."""

    def __init__(self, width, *arguments, prefix=None):
        self.command = [program(width, "armengine")] + [str(a) for a in arguments]
        self.env = environment(prefix)
        self.prefix = prefix
        self.process = None

    def __enter__(self):
        self.process = subprocess.Popen(self.command, env=self.env, preexec_fn=pin, text=True,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        if not self.process.stdout.readline():
            raise SystemExit("bench: %s does not serve" % " ".join(self.command))
        return self

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        self.process.communicate()

    def cpu_us(self):
        """Processor time of all its threads so far, in microseconds."""
        tasks = "/proc/%d/task" % self.process.pid
        total = 0
        for task in os.listdir(tasks):
            with open(os.path.join(tasks, task, "schedstat"), encoding="ascii") as file:
                total += int(file.read().split()[0])
        return total / 1000

    def move_other_threads(self):
        """All but the one that serves requests go to the other processors, if there are any."""
        others = set(range(os.cpu_count())) - {PROCESSOR} or {PROCESSOR}
        for task in os.listdir("/proc/%d/task" % self.process.pid):
            if int(task) != self.process.pid:
                os.sched_setaffinity(int(task), others)

    def settle(self):
        """Waits until it has nothing to do any more, ten seconds at most."""
        used = self.cpu_us()
        for _ in range(100):
            time.sleep(0.1)
            before, used = used, self.cpu_us()
            if used - before < 1000:
                return

    def memory(self):
        return memory_of(self.process.pid)


def memory_of(pid):
    """Kilobytes of a process: resident, its proportional share, and its alone."""
    wanted = {"Rss": 0, "Pss": 0, "Private_Clean": 0, "Private_Dirty": 0}
    with open("/proc/%d/smaps_rollup" % pid, encoding="ascii") as file:
        for line in file:
            name = line.split(":")[0]
            if name in wanted:
                wanted[name] = int(line.split()[1])
    return {"rss": wanted["Rss"], "pss": wanted["Pss"],
            "private": wanted["Private_Clean"] + wanted["Private_Dirty"]}


def times(full, quick=2):
    """How often something is repeated."""
    return min(full, quick) if QUICK else full


def median(values):
    return statistics.median(values)


def spread(values):
    """Half the distance of the quartiles, as a share of the median."""
    quarters = statistics.quantiles(values, n=4)
    return (quarters[2] - quarters[0]) / 2 / statistics.median(values)


def ratio(left, right):
    """The median of the ratios of rounds that were run side by side."""
    return median([a / b for a, b in zip(left, right)])


def number(value, digits=2):
    return "%.*f" % (digits, value)


def percent(value):
    return "%.1f %%" % (100 * value)


class Table:
    """One table of the report; data is what lies behind it."""

    def __init__(self, title, columns):
        self.title = title
        self.columns = columns
        self.rows = []
        self.notes = []
        self.data = {}

    def add(self, *cells):
        self.rows.append([str(cell) for cell in cells])

    def text(self):
        widths = [max(len(row[i]) for row in [self.columns] + self.rows)
                  for i in range(len(self.columns))]
        lines = [self.title]
        for row in [self.columns] + self.rows:
            cells = [row[0].ljust(widths[0])]
            cells += [cell.rjust(width) for cell, width in zip(row[1:], widths[1:])]
            lines.append("  " + "  ".join(cells))
        return "\n".join(lines + ["  " + note for note in self.notes]) + "\n"

    def markdown(self):
        lines = ["| " + " | ".join(self.columns) + " |",
                 "|---|" + "---:|" * (len(self.columns) - 1)]
        lines += ["| " + " | ".join(row) + " |" for row in self.rows]
        lines += ["", *self.notes] if self.notes else []
        return "\n".join(lines) + "\n"

    def as_json(self):
        return {"title": self.title, "columns": self.columns, "rows": self.rows,
                "notes": self.notes, "data": self.data}

    @staticmethod
    def from_json(stored):
        table = Table(stored["title"], stored["columns"])
        table.rows, table.notes, table.data = stored["rows"], stored["notes"], stored["data"]
        return table
