"""Measures libarm: one function for each table.  Started by './run bench', in private namespaces.

  bench.py [NAME...]   measures these tables, or all; results go to build/bench
  bench.py docs        puts the results there into docs/performance.md

BENCH_QUICK in the environment makes everything run a few times only, to see that it works; results
then go to build/bench/quick.
"""

import contextlib
import datetime
import http.server
import json
import os
import platform
import re
import subprocess
import sys
import threading
import time

import plots
from measure import (OUT, PROCESSOR, QUICK, ROOT, WIDTHS, Engine, Table, client, environment,
                     library, median, memory_of, number, percent, pin, program, ratio, run, spread,
                     times)

# Copies in the C library must not be counted as one instruction per byte, on either side.
PLAIN_COPIES = ("glibc.cpu.x86_rep_movsb_threshold=0x40000000:"
                "glibc.cpu.x86_rep_stosb_threshold=0x40000000")


# ---- counts and the floor ------------------------------------------------------------------------

def count_instructions(width, name):
    calls = times(200, 20)
    counter = subprocess.run(
        ["valgrind", "--tool=callgrind", "--toggle-collect=countedCalls",
         "--callgrind-out-file=/dev/null", program(width, "bench_client"), "counted",
         "--calls", str(calls), name],
        env=environment(GLIBC_TUNABLES=PLAIN_COPIES), stdout=subprocess.DEVNULL,
        stderr=subprocess.PIPE, text=True, check=False)
    collected = re.search(r"Collected : (\d+)", counter.stderr)
    if counter.returncode != 0 or collected is None:
        raise SystemExit("bench: callgrind failed\n" + counter.stderr)
    return int(collected.group(1)) / calls


def instructions():
    """Instructions in user space of one arm_start."""
    table = Table("Instructions in user space, one arm_start",
                  ["width", "libarm", "bare client", "ratio"])
    for width in WIDTHS:
        with Engine(width):
            counts = {name: count_instructions(width, name) for name in ("arm", "floor")}
        table.add(width, number(counts["arm"], 0), number(counts["floor"], 0),
                  number(counts["arm"] / counts["floor"]))
        table.data[width] = counts
    return table


def floor():
    """libarm and the bare client in turns, against the same engine, on one processor."""
    table = Table("One arm_start beside the bare client's, one processor, microseconds per call",
                  ["width", "threads", "libarm", "bare", "elapsed ratio", "libarm CPU", "bare CPU",
                   "CPU ratio", "spread"])
    # What is started here is not stopped.
    starts = 4 * 2 * 16 * times(6400, 640)
    for width in WIDTHS:
        with Engine(width, "--max-open", starts):
            for threads in (1, 4, 16, 64):
                got = client(width, "compare", "--calls", times(6400, 640), "--rounds",
                             times(15), "--threads", threads, "arm", "floor")
                arm, bare = got["arm"], got["floor"]
                table.add(width, threads, number(median(arm["elapsed_us"])),
                          number(median(bare["elapsed_us"])),
                          number(ratio(arm["elapsed_us"], bare["elapsed_us"]), 3),
                          number(median(arm["cpu_us"])), number(median(bare["cpu_us"])),
                          number(ratio(arm["cpu_us"], bare["cpu_us"]), 3),
                          percent(spread(arm["elapsed_us"])))
                table.data["%s, %d" % (width, threads)] = got
    table.notes.append("Medians of 15 rounds in turns; ratios are medians of the rounds' ratios. "
                       "CPU is the client's alone.")
    return table


def heads():
    """The caller's head record among few and among many."""
    table = Table("One arm_start with the caller's head record last, microseconds",
                  ["width", "libarm, last of 16", "libarm, last of 16000", "ratio",
                   "bare client that scans, last of 16000"])
    # When hardly any is left the engine does more than it would otherwise.
    spare = 100
    for width in WIDTHS:
        costs = {16: [], 16000: [], "scan": []}
        with Engine(width, "--requesters", 16 + spare, prefix="few"), \
             Engine(width, "--requesters", 16000 + spare, prefix="many"):
            for _ in range(times(9)):
                for count, prefix in ((16, "few"), (16000, "many")):
                    got = client(width, "heads", "--fill", count - 1, "--calls", times(2000, 200),
                                 "--rounds", 2, "arm", "scan", prefix=prefix)
                    costs[count].append(median(got["arm"]["elapsed_us"]))
                    if count == 16000:
                        costs["scan"].append(median(got["scan"]["elapsed_us"]))
        table.add(width, number(median(costs[16])), number(median(costs[16000])),
                  number(ratio(costs[16000], costs[16]), 3), number(median(costs["scan"])))
        table.data[width] = costs
    return table


# ---- the engine ----------------------------------------------------------------------------------

def engine_costs(width, engines, threads, rounds):
    """Client's elapsed and CPU time and the engine's CPU time per call, engine by engine."""
    calls = times(6400, 640)
    costs = {name: {"elapsed": [], "client": [], "engine": []} for name in engines}
    for _ in range(rounds):
        for name, engine in engines.items():
            before = engine.cpu_us()
            got = client(width, "compare", "--calls", calls, "--rounds", 1, "--threads", threads,
                         "either", prefix=engine.prefix)["either"]
            # A round that warms up comes first and counts for the engine.
            costs[name]["engine"].append((engine.cpu_us() - before) / calls / 2)
            costs[name]["elapsed"].append(got["elapsed_us"][0])
            costs[name]["client"].append(got["cpu_us"][0])
    return costs


def engine():
    """The engine with 64 callers, with few head records and with as many as there may be."""
    table = Table("The engine with 64 calling threads, one processor, 64-bit",
                  ["heads", "us per call", "client CPU us", "engine CPU us",
                   "engine memory, KB"])
    counts = (1000, 31998)
    with contextlib.ExitStack() as stack:
        engines = {count: stack.enter_context(
            Engine("64-bit", "--requesters", count, "--requests", 1000, prefix="h%d" % count))
            for count in counts}
        costs = engine_costs("64-bit", engines, 64, times(7))
        for count in counts:
            table.add(count, *[number(median(costs[count][kind]))
                               for kind in ("elapsed", "client", "engine")],
                      engines[count].memory()["rss"])
            table.data[str(count)] = costs[count]
    return table


# ---- what comes out of the engine ----------------------------------------------------------------

class Receiver:
    """Takes traces by HTTP and forgets them."""

    class Handler(http.server.BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def do_POST(self):
            self.rfile.read(int(self.headers["Content-Length"]))
            self.send_response(200)
            self.send_header("Content-Length", "2")
            self.end_headers()
            self.wfile.write(b"{}")

        def log_message(self, *_):
            pass

    def __enter__(self):
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), self.Handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        return self

    def __exit__(self, *_):
        self.server.shutdown()
        self.server.server_close()

    def url(self):
        return "http://127.0.0.1:%d" % self.server.server_port


def sustained(engine, threads):
    """Requests per second, and the engine's processor time for each."""
    before = engine.cpu_us()
    got = client("64-bit", "latency", "--milliseconds", times(300, 30), "--threads", threads,
                 prefix=engine.prefix)
    return {"rate": got["calls"] / got["elapsed_us"] * 1e6,
            "cpu_us": (engine.cpu_us() - before) / got["calls"]}


def outputs():
    """The reference engine with everything that it can write, send and serve, and with nothing."""
    table = Table("armengine with all outputs on and off, 64-bit",
                  ["outputs' threads", "calling threads", "off, calls/s", "on, calls/s", "on / off",
                   "off, engine CPU us", "on, engine CPU us"])
    on = ["--listen", "0", "--otlp-file", "/tmp/traces", "--events", "/tmp/events"]
    with Receiver() as receiver:
        for place in ("another processor", "the same processor"):
            with Engine("64-bit", prefix="off") as plain, \
                 Engine("64-bit", *on, "--otlp", receiver.url(),
                        prefix="on") as full:
                if place == "another processor":
                    full.move_other_threads()
                for threads in (1, 4, 64):
                    got = {"off": [], "on": []}
                    for _ in range(times(11)):
                        got["off"].append(sustained(plain, threads))
                        got["on"].append(sustained(full, threads))
                        # What is still to be written must not disturb the next turn.
                        full.settle()
                    columns = {name: {key: [one[key] for one in values] for key in values[0]}
                               for name, values in got.items()}
                    table.add(place, threads, *[number(median(columns[name]["rate"]), 0)
                                                for name in ("off", "on")],
                              number(ratio(columns["on"]["rate"], columns["off"]["rate"]), 3),
                              *[number(median(columns[name]["cpu_us"])) for name in ("off", "on")])
                    table.data["%s, %d" % (place, threads)] = columns
            for name in ("/tmp/traces", "/tmp/events"):
                os.remove(name)
    table.notes.append("Callers without any pause. On: the page and metrics, events to a file, "
                       "traces to a file and to a receiver by HTTP. CPU is that of all the "
                       "engine's threads.")
    return table


def holding(kind, count, options):
    """Kilobytes of an engine while a program holds so many of a kind."""
    with Engine("64-bit", *options) as engine:
        process = subprocess.Popen(
            [program("64-bit", "bench_client"), "hold", "--calls", str(count), kind],
            env=environment(), preexec_fn=pin, text=True, stdin=subprocess.PIPE,
            stdout=subprocess.PIPE)
        if not process.stdout.readline():
            raise SystemExit("bench: the program that holds transactions failed")
        engine.settle()
        held = engine.memory()["private"]
        process.communicate()
    return held


def memory():
    """What the engine keeps for a class and for an open instance."""
    few, many = times(10000, 1000), times(50000, 5000)
    kinds = {"instances": "open instance", "classes": "class never used", "used": "class in use"}
    table = Table("Memory of armengine, bytes for each, 64-bit", ["outputs", *kinds.values()])
    limits = ["--max-open", 2 * many, "--max-classes", 2 * many]
    outlets = ["--listen", "0", "--otlp-file", "/dev/null", "--events", "/dev/null"]
    for name, more in (("off", []), ("on", outlets)):
        row = {}
        for kind in kinds:
            held = [holding(kind, count, limits + more) for count in (few, many)]
            row[kind] = (held[1] - held[0]) * 1024 / (many - few)
        table.add(name, *[number(value, 0) for value in row.values()])
        table.data[name] = row
    table.notes.append("The difference of %d and %d of a kind. On: the page and metrics, traces "
                       "and events." % (many, few))
    return table


# ---- peers ---------------------------------------------------------------------------------------

class TraceSession:
    """An LTTng session that records the benchmark's tracepoint, stopped at first."""

    def __enter__(self):
        self.log = open("/tmp/lttng.log", "w", encoding="utf-8")
        self.daemon = subprocess.Popen(["lttng-sessiond", "--no-kernel", "--group", "root"],
                                       stdout=self.log, stderr=self.log)
        for _ in range(100):
            if os.path.exists("/run/lttng/client-lttng-sessiond"):
                break
            time.sleep(0.1)
        for step in (["create", "bench", "--output=/tmp/lttng"],
                     ["enable-channel", "-u", "bench", "--overwrite", "--subbuf-size=1M"],
                     ["enable-event", "-u", "bench:*", "-c", "bench"]):
            subprocess.run(["lttng"] + step, stdout=self.log, stderr=self.log, check=True)
        return self

    def __exit__(self, *_):
        self.daemon.terminate()
        self.daemon.wait()
        self.log.close()


PEERS_WITH_ANSWER = 9


def peers():
    """What else a program could use, in the same run."""
    results = os.path.join(OUT, "peers-google-benchmark.json")
    width = "64-bit"
    with TraceSession(), Engine(width):
        command = [program(width, "bench_peers"), "--benchmark_enable_random_interleaving=true",
                   "--benchmark_repetitions=%d" % times(9), "--benchmark_min_time=0.05",
                   "--benchmark_out=" + results, "--benchmark_out_format=json"]
        with open(os.path.join(OUT, "peers.log"), "w", encoding="utf-8") as log:
            run(command, environment(BENCH_TRACE_SESSION="1"), log)
    with open(results, encoding="utf-8") as file:
        runs = json.load(file)["benchmarks"]
    found = {}
    for each in sorted(runs, key=lambda one: one["family_index"]):
        if each["run_type"] == "iteration":
            name = each["run_name"].replace("/real_time", "")
            found.setdefault(name, []).append(each["real_time"])
    return peers_table(found)


def peers_table(found):
    table = Table("One exchange, 64-bit, one processor, microseconds",
                  ["means", "answered", "median", "spread", "times libarm"])
    own = median(found["libarm, arm_start"])
    for index, (name, values) in enumerate(found.items()):
        table.add(name, "yes" if index < PEERS_WITH_ANSWER else "no", number(median(values), 3),
                  percent(spread(values)), number(median(values) / own, 3))
    table.notes.append("Answered: 4116 bytes go out and 528 come back from another process. Not "
                       "answered: a line of about 20 bytes, two integers, one observation.")
    table.data = found
    return table


# ---- growth --------------------------------------------------------------------------------------

def growth():
    """More and more callers of the reference engine."""
    table = Table("Callers of the reference engine, one processor, 64-bit",
                  ["callers", "kind", "calls/s", "median us", "99 % us", "99.9 % us"])
    width = "64-bit"
    counts = [1, 2, 4, 8, 16, 32, 64, 128, 256]
    got = {kind: {count: [] for count in counts} for kind in ("threads", "processes")}
    with Engine(width):
        for _ in range(times(5)):
            for kind, by_count in got.items():
                for count, results in by_count.items():
                    results.append(client(width, "latency", "--milliseconds", times(300, 30),
                                          "--" + kind, count))
    for kind, by_count in got.items():
        table.data[kind] = {}
        for count, results in by_count.items():
            row = {"rate": median([r["calls"] / r["elapsed_us"] * 1e6 for r in results])}
            for name in ("p50_us", "p99_us", "p999_us"):
                row[name] = median([r[name] for r in results])
            table.add(count, kind, number(row["rate"], 0), number(row["p50_us"], 1),
                      number(row["p99_us"], 1), number(row["p999_us"], 1))
            table.data[kind][str(count)] = row
    table.notes.append("Medians of 5 runs of 0.3 s; every caller makes arm_start and arm_stop in "
                       "turns without a pause.")
    return table


# ---- what a program pays -------------------------------------------------------------------------

TRACE_DIRECTORY = "/var/orv/kestra/common/QDN/logs"


def cost_of(width, name, *arguments, prefix=None, **env):
    got = client(width, "cost", "--rounds", times(3), *arguments, name, prefix=prefix, **env)
    return median(got[name]["elapsed_us"])


def without_engine(width, prefix):
    return cost_of(width, "none", "--calls", times(2000, 200), "--no-engine", prefix=prefix)


def clear_traces():
    for name in os.listdir(TRACE_DIRECTORY):
        os.remove(os.path.join(TRACE_DIRECTORY, name))


def repeated(full, measure):
    return [measure() for _ in range(times(full))]


def reconnect_time(width):
    """The first call after the engine was replaced."""
    with Engine(width):
        process = subprocess.Popen([program(width, "bench_client"), "reconnect"], text=True,
                                   preexec_fn=pin, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        process.stdin.write("\n")
        process.stdin.flush()
        process.stdout.readline()
    with Engine(width):
        process.stdin.write("\n")
        process.stdin.flush()
        answer = json.loads(process.stdout.readline())
        process.communicate()
    if answer["result"] <= 0:
        raise SystemExit("bench: the call after the engine's restart failed")
    return answer["us"]


def costs():
    """Calls beside the ordinary path."""
    table = Table("What a call costs, microseconds", ["call", *WIDTHS])
    rows = {}

    def put(name, width, values):
        rows.setdefault(name, {})[width] = values

    for width in WIDTHS:
        put("arm_start, an engine was never there", width, repeated(
            7, lambda: without_engine(width, "nobody")))
        with Engine(width, prefix="dead"):
            pass
        put("arm_start, the engine has died", width, repeated(
            7, lambda: without_engine(width, "dead")))
        with Engine(width):
            kinds = {
                "arm_start": ("arm", {}),
                "arm_start of an ignored transaction": ("ignored", {}),
                "arm_start with tracing, XML": ("arm", {"ARMDEBUG": "1"}),
                "arm_start with tracing, basic": ("arm", {"ARMDEBUG": "1",
                                                          "ARMDEBUGFORMAT": "basic"}),
            }
            for _ in range(times(7)):
                for name, (call, env) in kinds.items():
                    rows.setdefault(name, {}).setdefault(width, []).append(
                        cost_of(width, call, "--calls", times(1000, 100), **env))
                    clear_traces()
            firsts = repeated(15, lambda: client(width, "first"))
            put("first arm_start of a process", width, [f["first_start_us"] for f in firsts])
            put("first arm_init, connection open", width, [f["first_init_us"] for f in firsts])
            put("second arm_init", width, [f["second_init_us"] for f in firsts])
        put("arm_init after the engine was replaced", width,
            repeated(9, lambda: reconnect_time(width)))
    for name, by_width in rows.items():
        table.add(name, *[number(median(by_width[width])) for width in WIDTHS])
    table.data = rows
    return table


def share():
    """arm_start and arm_stop around work of a known length."""
    table = Table("Share of measuring in a program's time, one processor for program and engine",
                  ["width", "transaction", "added us", "share", "added CPU us", "share of CPU"])
    for width in WIDTHS:
        with Engine(width):
            for work, calls in ((100, 1000), (1000, 150), (10000, 20)):
                got = client(width, "share", "--work", work, "--calls", times(calls, 20),
                             "--rounds", times(9))
                added = {}
                for kind in ("elapsed_us", "cpu_us"):
                    pairs = list(zip(got["measured"][kind], got["plain"][kind]))
                    added[kind] = (median([m - p for m, p in pairs]),
                                   median([1 - p / m for m, p in pairs]))
                table.add(width, "%g ms" % (work / 1000), number(added["elapsed_us"][0], 1),
                          percent(added["elapsed_us"][1]), number(added["cpu_us"][0], 1),
                          percent(added["cpu_us"][1]))
                table.data["%s, %d" % (width, work)] = got
    table.notes.append("Elapsed time holds the engine's work as well, since both share the "
                       "processor; CPU is the program's alone.")
    return table


# ---- size ----------------------------------------------------------------------------------------

def sections(path):
    line = subprocess.run(["size", path], stdout=subprocess.PIPE, text=True,
                          check=True).stdout.splitlines()[1].split()
    return {"text": int(line[0]), "data": int(line[1]), "bss": int(line[2])}


def relocations(path):
    listing = subprocess.run(["readelf", "-rW", path], stdout=subprocess.PIPE, text=True,
                             check=True).stdout
    kinds = re.findall(r"R_(?:386|X86_64)_(\w+)", listing)
    relative = kinds.count("RELATIVE")
    return relative, len(kinds) - relative


def idle_memory(command, wait_for_line):
    process = subprocess.Popen(command, text=True, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    if wait_for_line:
        process.stdout.readline()
    else:
        # The program has been loaded when it sleeps in its read.
        while True:
            with open("/proc/%d/stat" % process.pid, encoding="ascii") as file:
                if file.read().rsplit(") ", 1)[1].startswith("S"):
                    break
            time.sleep(0.01)
    memory = memory_of(process.pid)
    process.communicate()
    return memory


def size():
    """The library on disk, at load time and in memory."""
    table = Table("Size, load time and memory", ["", *WIDTHS])
    columns = {width: {} for width in WIDTHS}
    for width, column in columns.items():
        path = library(width)
        column.update({"%s, bytes" % name: value for name, value in sections(path).items()})
        relative, symbolic = relocations(path)
        column["relocations, relative"] = relative
        column["relocations, by symbol"] = symbolic
        plain, linked = program(width, "bench_idle"), program(width, "bench_idle_arm")
        got = client(width, "spawn", "--calls", times(40, 4), "--rounds", times(11), plain,
                     linked)
        column["start and end of an empty program, us"] = median(got[plain]["elapsed_us"])
        column["the same, linked with libarm, us"] = median(got[linked]["elapsed_us"])
        for name, command in (("an empty program", [plain]),
                              ("the same, linked with libarm", [linked])):
            memory = idle_memory(command, False)
            column["%s: resident KB" % name] = memory["rss"]
            column["%s: private KB" % name] = memory["private"]
        with Engine(width):
            memory = idle_memory([program(width, "bench_client"), "memory"], True)
        column["a program after its calls: resident KB"] = memory["rss"]
        column["a program after its calls: private KB"] = memory["private"]
        table.data[width] = column
    for name in columns["32-bit"]:
        table.add(name, *[number(columns[width][name], 0) for width in WIDTHS])
    table.notes.append("Load time and memory are mostly those of ICU's libraries, which libarm "
                       "needs for its conversions.")
    return table


# ---- report --------------------------------------------------------------------------------------

TABLES = {f.__name__: f for f in (instructions, floor, heads, engine, outputs, memory, peers,
                                  growth, costs, share, size)}


def first_line(command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True,
                          check=False).stdout.split("\n")[0]


# Above this share other programs disturb the figures.
QUIET = 0.05


def busy_share():
    """The share of all processors that other programs use, over a second."""
    def reading():
        with open("/proc/stat", encoding="ascii") as file:
            fields = [int(field) for field in file.readline().split()[1:9]]
        return sum(fields), fields[3] + fields[4]

    total, idle = reading()
    time.sleep(1)
    later_total, later_idle = reading()
    return 1 - (later_idle - idle) / max(1, later_total - total)


def machine():
    """What the figures depend on."""
    busy = busy_share()
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = re.search(r"model name\s*:\s*(.*)", file.read())
    return {
        "date": datetime.date.today().isoformat(),
        "processor": "%s, %d of them, number %d used" % (
            model.group(1) if model else platform.machine(), os.cpu_count(), PROCESSOR),
        "kernel": platform.release(),
        "C library": " ".join(platform.libc_ver()),
        "compiler": first_line(["gcc", "--version"]),
        "other work": "%s of the processors before the run%s" % (
            percent(busy), ": they were busy, and the times are rough" if busy > QUIET else ""),
    }


def store(name, content):
    with open(os.path.join(OUT, name), "w", encoding="utf-8") as file:
        file.write(content)


def measure_tables(names):
    os.makedirs(OUT, exist_ok=True)
    facts = machine()
    store("machine.json", json.dumps(facts, indent=1))
    for name, value in facts.items():
        print("%-20s %s" % (name, value))
    for name in names:
        begin = time.monotonic()
        table = TABLES[name]()
        store(name + ".json", json.dumps(table.as_json(), indent=1))
        store(name + ".txt", table.text())
        print("\n" + table.text(), end="", flush=True)
        print("  (./run bench %s: %.0f s)" % (name, time.monotonic() - begin), flush=True)
    plots.draw(OUT)


def load(name):
    with open(os.path.join(OUT, name + ".json"), encoding="utf-8") as file:
        return json.load(file)


def update_docs():
    """Replaces what stands between the marks of docs/performance.md, and the plots."""
    path = os.path.join(ROOT, "docs", "performance.md")
    with open(path, encoding="utf-8") as file:
        page = file.read()

    def content(mark):
        name = mark.group(1)
        if name == "machine":
            body = "".join("- %s: %s\n" % item for item in load(name).items())
        else:
            body = Table.from_json(load(name)).markdown()
        return "<!-- begin %s -->\n%s<!-- end %s -->" % (name, body, name)

    page = re.sub(r"<!-- begin (\w+) -->\n.*?<!-- end \1 -->", content, page, flags=re.DOTALL)
    with open(path, "w", encoding="utf-8") as file:
        file.write(page)
    plots.draw(OUT, os.path.join(ROOT, "docs", "plots"))


def main(names):
    if names == ["docs"] and not QUICK:
        update_docs()
        return
    unknown = [name for name in names if name not in TABLES]
    if unknown:
        raise SystemExit("bench: there is no table '%s', only: %s"
                         % (unknown[0], " ".join(TABLES)))
    measure_tables(names or list(TABLES))


if __name__ == "__main__":
    main(sys.argv[1:])
