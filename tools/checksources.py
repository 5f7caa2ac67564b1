"""Runs a checking command over the sources of a build tree, one for each processor at a time.

usage: checksources.py BUILD-DIR tidy | syntax FOLDER...

FOLDER  of the project, whose sources are checked, also where the build puts them together

tidy    clang-tidy, with the .clang-tidy nearest to each source, or to its copy in the build tree
syntax  the tree's own compiler, for its warnings only: no code is made

Nothing is printed of sources without findings.  The exit status is 1 when there were any.
"""

import json
import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor


def commands(build_dir, folders):
    """The compile commands of the folders' sources, the longest first."""
    with open(os.path.join(build_dir, "compile_commands.json"), encoding="utf-8") as file:
        entries = json.load(file)
    source_dir = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    below = tuple(os.path.join(top, f, "") for top in (source_dir, build_dir) for f in folders)
    # What is not there is made by a build.
    own = [e for e in entries if e["file"].startswith(below) and os.path.exists(e["file"])]
    return sorted(own, key=lambda entry: -size(entry["file"]))


def size(path):
    """Bytes of a source with what it includes by name: a unity source names its parts."""
    with open(path, encoding="utf-8") as file:
        parts = re.findall(r'^#include "(/[^"]+)"', file.read(), re.M)
    return os.path.getsize(path) + sum(os.path.getsize(part) for part in parts)


def tidy(build_dir, entry):
    return ["clang-tidy", "--quiet", "-p", build_dir, entry["file"]]


def syntax(_, entry):
    command = re.sub(r" -o \S+ -c ", " -fsyntax-only ", entry["command"])
    return ["sh", "-c", command]


def run(command, directory):
    done = subprocess.run(command, cwd=directory, capture_output=True, text=True, check=False)
    # clang-tidy counts on standard error what it has suppressed.
    text = done.stdout + (done.stderr if done.returncode else "")
    return done.returncode == 0, text


def main():
    build_dir, what = os.path.abspath(sys.argv[1]), {"tidy": tidy, "syntax": syntax}[sys.argv[2]]
    entries = commands(build_dir, sys.argv[3:])
    if not entries:
        sys.exit(f"checksources.py: {build_dir} has no sources")
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        results = list(pool.map(lambda e: run(what(build_dir, e), e["directory"]), entries))
    for good, text in results:
        if not good:
            print(text)
    sys.exit(0 if all(good for good, _ in results) else 1)


main()
