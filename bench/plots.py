"""The plots of the tables, as SVG, drawn by gnuplot."""

import json
import os
import subprocess

from measure import median

STYLE = """set terminal svg size 720,420 dynamic noenhanced font "sans-serif,13" background "white"
set grid ytics lc rgb "#dddddd"
set border 3
set tics nomirror
"""


def gnuplot(script):
    subprocess.run(["gnuplot"], input=STYLE + script, text=True, check=True)


def block(name, rows):
    lines = [" ".join(str(cell) for cell in row) for row in rows]
    return "$%s << END\n%s\nEND\n" % (name, "\n".join(lines))


def quoted(text):
    return '"%s"' % text


def growth_rows(data, kind):
    return [[count, row["rate"], row["p50_us"], row["p99_us"], row["p999_us"]]
            for count, row in data[kind].items()]


def plot_growth(table, directory):
    blocks = "".join(block(kind, growth_rows(table["data"], kind))
                     for kind in ("threads", "processes"))
    axis = 'set logscale x 2\nset xlabel "callers"\n'
    gnuplot(blocks + axis + """set output "%s"
set ylabel "calls per second"
set yrange [0:*]
set key bottom right
plot $threads using 1:2 with linespoints lw 2 title "threads", \\
     $processes using 1:2 with linespoints lw 2 title "processes"
""" % os.path.join(directory, "growth-calls.svg"))
    gnuplot(blocks + axis + """set output "%s"
set ylabel "microseconds"
set logscale y
set key outside right
plot $threads using 1:3 with linespoints lw 2 title "threads, median", \\
     $threads using 1:4 with linespoints lw 2 title "99 %%", \\
     $threads using 1:5 with linespoints lw 2 title "99.9 %%", \\
     $processes using 1:3 with linespoints lw 2 dt 2 title "processes, median", \\
     $processes using 1:4 with linespoints lw 2 dt 2 title "99 %%", \\
     $processes using 1:5 with linespoints lw 2 dt 2 title "99.9 %%"
""" % os.path.join(directory, "growth-latency.svg"))


def bars(rows, path, label, begin, end, margin):
    """Horizontal bars on a logarithmic axis, the first at the top."""
    data = [[quoted(name), value, len(rows) - index] for index, (name, value) in enumerate(rows)]
    gnuplot(block("bars", data) + """set output "%s"
set xlabel "%s"
unset key
set grid noytics xtics lc rgb "#dddddd"
set logscale x
set xrange [%g:%g]
set yrange [0.4:%d.6]
set style fill solid 0.7
set lmargin %d
plot $bars using 2:3:(%g):2:($3-0.35):($3+0.35):ytic(1) with boxxyerror lc rgb "#3a6ea5", \\
     $bars using 2:3:(sprintf("  %%.3g", $2)) with labels left
""" % (path, label, begin, end, len(rows), margin, begin))


def plot_peers(table, directory):
    rows = [(name, median(values)) for name, values in table["data"].items()]
    bars(rows, os.path.join(directory, "peers.svg"), "microseconds per exchange", 0.001, 300, 34)


def plot_floor(table, directory):
    names = list(table["data"])
    rows = [[quoted(name), median(table["data"][name]["arm"]["elapsed_us"]),
             median(table["data"][name]["floor"]["elapsed_us"])] for name in names]
    gnuplot(block("rows", rows) + """set output "%s"
set ylabel "microseconds per call"
set xlabel "width, threads"
set style data histograms
set style fill solid 0.7
set yrange [0:*]
set key outside right
plot $rows using 2:xtic(1) title "libarm", $rows using 3 title "bare client"
""" % os.path.join(directory, "floor.svg"))


PLOTS = {"growth": plot_growth, "peers": plot_peers, "floor": plot_floor}


def draw(results, directory=None):
    """Draws the plots of all results that are there."""
    directory = directory or os.path.join(results, "plots")
    os.makedirs(directory, exist_ok=True)
    for name, plot in PLOTS.items():
        path = os.path.join(results, name + ".json")
        if os.path.exists(path):
            with open(path, encoding="utf-8") as file:
                plot(json.load(file), directory)
