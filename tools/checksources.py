"""Runs a checking command over the sources of a build tree, one for each processor at a time.

usage: checksources.py BUILD-DIR tidy | together | syntax FOLDER...

FOLDER    of the project, whose sources are checked, also where the build puts them together

tidy      clang-tidy, with the .clang-tidy nearest to each source, or to its copy in the build tree
together  the same, but the sources of each FOLDER are read in one go, as far as they go together,
          since most time goes into what all include
syntax    the tree's own compiler, for its warnings only: no code is made

Nothing is printed of sources without findings.  The exit status is 1 when there were any.
"""

import json
import os
import re
import shlex
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

SOURCE_DIR = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def commands(build_dir, folders):
    """The compile commands of the folders' sources, one of each, the longest first."""
    with open(os.path.join(build_dir, "compile_commands.json"), encoding="utf-8") as file:
        entries = json.load(file)
    below = tuple(os.path.join(top, f, "") for top in (SOURCE_DIR, build_dir) for f in folders)
    # What is not there is made by a build.
    own = {e["file"]: e for e in entries
           if e["file"].startswith(below) and os.path.exists(e["file"])}
    return sorted(own.values(), key=lambda entry: -size(entry["file"]))


def parts(path):
    """The sources that a unity source puts together; any other is its own only part."""
    with open(path, encoding="utf-8") as file:
        return re.findall(r'^#include "(/[^"]+)"', file.read(), re.M) or [path]


def size(path):
    return os.path.getsize(path) + sum(os.path.getsize(part) for part in parts(path))


def tidy(build_dir, entry):
    return ["clang-tidy", "--quiet", "-p", build_dir, entry["file"]]


def syntax(_, entry):
    command = re.sub(r" -o \S+ -c ", " -fsyntax-only ", entry["command"])
    return ["sh", "-c", command]


def run(command, directory):
    done = subprocess.run(command, cwd=directory, capture_output=True, text=True, check=False)
    # clang-tidy counts on standard error what it has suppressed.
    return "" if done.returncode == 0 else done.stdout or done.stderr


def check_each(check, build_dir, entries):
    """What a command says of each source that it finds fault with."""
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        return list(pool.map(lambda e: run(check(build_dir, e), e["directory"]), entries))


def options(entry):
    """What a source is read with; in a tree of clang's with its warnings."""
    words = shlex.split(entry["command"])
    system = ["-isystem" + after for word, after in zip(words, words[1:]) if word == "-isystem"]
    warnings = [w for w in words if w.startswith("-W")] if "clang" in words[0] else ["-w"]
    return [w for w in words if w.startswith(("-std=", "-D", "-I"))] + system + warnings


class Folder:
    """The sources of one folder and language, with the options of all their commands."""

    def __init__(self, build_dir, name, suffix):
        self.build_dir = build_dir
        self.together = os.path.join(build_dir, name, f"together{suffix}")
        self.sources, self.options = {}, {}

    def add(self, entry):
        self.sources.update(dict.fromkeys(parts(entry["file"])))
        self.options.update(dict.fromkeys(options(entry)))

    def findings(self, sources):
        """What clang-tidy finds; sources that clash with earlier ones are read once more."""
        text = run(self.command(sources), self.build_dir)
        found = re.split(r"\n(?=/\S+:\d+:\d+: error: )", text.strip()) if text else []
        broken = [f for f in found if "[clang-diagnostic-error" in f.split("\n")[0]]
        if not broken or len(sources) == 1:
            return set(found)
        clashing = [s for s in sources[1:] if any(f.startswith(s + ":") for f in broken)]
        elsewhere = any(not f.startswith(tuple(s + ":" for s in clashing)) for f in broken)
        half = len(sources) // 2
        again = [sources[:half], sources[half:]] if elsewhere else [clashing]
        return set(found).difference(broken).union(*(self.findings(some) for some in again))

    def command(self, sources):
        with open(self.together, "w", encoding="utf-8") as file:
            for number, source in enumerate(sources):
                file.write(f"#undef main\n#define main main{number}  // NOLINT\n")
                file.write(f'#include "{source}"\n')
        # Of a main that has been renamed there is no prototype.
        always = ["-Wno-missing-prototypes", "-ferror-limit=0"]
        return ["clang-tidy", "--quiet", self.together, "--", *self.options, *always]


def precompile(build_dir, entries):
    """The header that the tree precompiles for its own compiler, for clang."""
    for entry in entries:
        if " -x c++-header " in entry["command"]:
            header = os.path.splitext(entry["file"])[0]
            made = os.path.join(build_dir, "together.pch")
            command = ["clang++", *options(entry), "-x", "c++-header", header, "-o", made]
            run(command, build_dir)
            return ["-include-pch", made]
    return []


def check_together(build_dir, entries, names):
    """What clang-tidy finds in each folder, read in one go."""
    precompiled, folders = precompile(build_dir, entries), {}
    for entry in entries:
        first, suffix = os.path.splitext(parts(entry["file"])[0])
        path = os.path.relpath(first, SOURCE_DIR)
        if entry["file"].endswith(".hxx.cxx"):
            continue
        name = next((name for name in names if path.startswith(os.path.join(name, ""))),
                    os.path.dirname(path))
        folder = folders.setdefault((name, suffix), Folder(build_dir, name, suffix))
        folder.add(entry)
        if suffix == ".cpp":
            folder.options.update(dict.fromkeys(precompiled))
    ordered = sorted(folders.values(), key=lambda f: -sum(map(os.path.getsize, f.sources)))
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        results = pool.map(lambda f: f.findings(list(f.sources)), ordered)
        return sorted(set().union(*results))


def main():
    build_dir, what = os.path.abspath(sys.argv[1]), sys.argv[2]
    entries = commands(build_dir, sys.argv[3:])
    if not entries:
        sys.exit(f"checksources.py: {build_dir} has no sources")
    if what == "together":
        findings = check_together(build_dir, entries, sys.argv[3:])
    else:
        findings = check_each({"tidy": tidy, "syntax": syntax}[what], build_dir, entries)
    for text in filter(None, findings):
        print(text)
    sys.exit(1 if any(findings) else 0)


main()
