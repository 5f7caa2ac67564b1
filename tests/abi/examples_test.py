#!/usr/bin/env python3
"""Compiles and runs the examples of documents against an installed tree.

    examples_test.py DOCUMENT... -- CMAKE BUILD-DIR C-COMPILER C++-COMPILER [FLAG...]

An example is a fenced block. Its kind is the first word after the fence in Markdown, and in scdoc
the word of a comment line "; example: KIND" above it; a file name may follow. The blocks of a
document are taken in order and share a directory:

    c, cpp      a whole program: saved, compiled without a warning, run; 0 is wanted
    python      a whole program: saved and run
    sh          commands: run by a shell that stops at the first failure; with a file name, a script
                that is made executable and run
    serve       command lines of engines: each must serve until it is told to end
    cmake       lines of a CMakeLists.txt: configured and built together with the program before
    meson       a whole meson.build: the same
    console     commands that change the machine, or need what only the reader has: not run
    text, xml, json, ini, promql   no code

Every block must say what it is. An engine runs meanwhile, so a program that checks what its calls
return finds them good.
"""

import os
import pathlib
import re
import shlex
import subprocess
import sys
import tempfile

NOT_CODE = {"text", "xml", "json", "ini", "promql", "console"}
SUFFIX = {"c": ".c", "cpp": ".cpp", "python": ".py"}
WARNINGS = ["-Wall", "-Wextra", "-Werror"]


class Failure(Exception):
    pass


def blocks(document):
    """(line number, kind, file name or None, text) of each fenced block."""
    manual = document.suffix == ".scd"
    found, announced, lines, start = [], None, None, 0
    previous, in_list = "", False
    for number, line in enumerate(document.read_text().splitlines(), 1):
        if lines is not None:
            if line.strip() == "```":
                found.append((start, *announced, "\n".join(lines) + "\n"))
                announced, lines = None, None
            else:
                lines.append(line)
        elif manual and (match := re.match(r"; example: (\S+) ?(\S+)?$", line)):
            announced = match.groups()
        elif not manual and line.startswith("    ") and previous == "" and not in_list:
            raise Failure(
                f"{document}: line {number}: an indented block cannot say what it is: fence it"
            )
        elif match := re.match(r"\s*```(\S*) ?(\S+)?$", line):
            start, lines = number, []
            if not manual:
                announced = match.groups()
            if not announced or not announced[0]:
                raise Failure(f"{document}: line {number}: the block does not say what it is")
        if line and not line.startswith(" "):
            in_list = bool(re.match(r"([-*]|\d+\.) ", line))
        previous = line
    if lines is not None:
        raise Failure(f"{document}: line {start}: the block has no end")
    return found


class Workshop:
    """An installed tree, an engine of it, and a directory for the programs of each document."""

    def __init__(self, cmake, build, compilers, flags):
        self.root = pathlib.Path(tempfile.mkdtemp())
        self.cmake, self.flags = cmake, flags
        prefix = self.root / "prefix"
        subprocess.run([cmake, "--install", build, "--prefix", prefix], check=True,
                       stdout=subprocess.DEVNULL)
        self.environment = self.make_environment(prefix, compilers)
        self.engine = subprocess.Popen(
            [prefix / "bin/armengine"], stdout=subprocess.PIPE, text=True
        )
        if not self.engine.stdout.readline().startswith("armengine: serving"):
            raise Failure("the engine did not start")

    def make_environment(self, prefix, compilers):
        """Finds the installed tree, and cc and c++ of the width that is tested."""
        programs = self.root / "bin"
        programs.mkdir()
        for name, compiler in zip(("cc", "c++"), compilers):
            script = programs / name
            script.write_text("#!/bin/sh\nexec " + " ".join([compiler, *self.flags]) + ' "$@"\n')
            script.chmod(0o755)
        others = os.environ.get("LD_LIBRARY_PATH", "")
        return dict(
            os.environ,
            PATH=f"{programs}:{prefix}/bin:{os.environ['PATH']}",
            CC=str(programs / "cc"),
            CXX=str(programs / "c++"),
            LD_LIBRARY_PATH=f"{prefix}/lib:{others}",
            PKG_CONFIG_PATH=f"{prefix}/lib/pkgconfig",
            CMAKE_PREFIX_PATH=str(prefix),
            PYTHONPATH=str(pathlib.Path(__file__).resolve().parents[2] / "python"),
            PYTHONDONTWRITEBYTECODE="1",
            MANPATH=f"{prefix}/share/man",
            HOME=str(self.root),
        )

    def begin(self, document):
        self.directory = self.root / document.name.replace(".", "-")
        self.directory.mkdir()

    def run(self, *command):
        print("+", *command, flush=True)
        subprocess.run(command, check=True, cwd=self.directory, env=self.environment,
                       stdin=subprocess.DEVNULL, timeout=60)

    def output(self, *command):
        return subprocess.run(command, check=True, cwd=self.directory, env=self.environment,
                              stdout=subprocess.PIPE, text=True).stdout.split()

    def serve(self, line):
        """An engine beside that of the workshop. Its port may be in use here: any will do."""
        print("+", line, flush=True)
        command = re.sub(r"(--listen )\d+", r"\g<1>0", line)
        engine = subprocess.Popen(shlex.split(command), cwd=self.directory, stdout=subprocess.PIPE,
                                  env=dict(self.environment, ARM_AGENT_PREFIX="served"), text=True)
        first = engine.stdout.readline()
        engine.terminate()
        rest = engine.communicate(timeout=60)[0]
        if not first.startswith("armengine: serving") or engine.returncode != 0:
            raise Failure(f"{line}: {first}{rest}, exit status {engine.returncode}")

    def refuse(self, line):
        """Engines of 32 bits have no network outputs, and say so."""
        print("+", line, flush=True)
        engine = subprocess.run(shlex.split(line), stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                env=self.environment, text=True, timeout=60)
        if engine.returncode == 0 or "was built without" not in engine.stdout:
            raise Failure(f"{line}: {engine.stdout}, exit status {engine.returncode}")

    def close(self):
        self.engine.terminate()
        if self.engine.wait(30) != 0:
            raise Failure("the engine failed")


class Examples:
    def __init__(self, shop):
        self.shop = shop
        self.program = None  # source of the last C or C++ program

    def try_block(self, number, kind, name, text):
        if kind in SUFFIX:
            source = self.shop.directory / (name or f"example{number}{SUFFIX[kind]}")
            source.write_text(text)
            getattr(self, "try_" + kind)(source)
        elif kind == "sh" and name:
            script = self.shop.directory / name
            script.write_text(text)
            script.chmod(0o755)
            self.shop.run(script)
        elif kind in ("sh", "serve", "cmake", "meson"):
            getattr(self, "try_" + kind)(text)
        elif kind not in NOT_CODE:
            raise Failure(f"'{kind}' is no kind of block")

    def try_c(self, source):
        self.compile(source, "cc", "-std=c11")

    def try_cpp(self, source):
        self.compile(source, "c++", "-std=c++17")

    def compile(self, source, compiler, standard):
        self.program = source
        program = source.with_suffix("")
        self.shop.run(compiler, standard, "-D_GNU_SOURCE", *WARNINGS,
                      *self.shop.output("pkg-config", "--cflags", "libarm"), "-o", program, source,
                      *self.shop.output("pkg-config", "--libs", "libarm"), "-ldl", "-lpthread")
        self.shop.run(program)

    def try_python(self, source):
        # The interpreter has the machine's width, and the library may have the other one.
        self.shop.run(sys.executable, source)

    def try_sh(self, text):
        self.shop.run("sh", "-eux", "-c", text)

    def try_serve(self, text):
        for line in text.splitlines():
            outputs = "--listen" in line or "--otlp" in line
            (self.shop.refuse if outputs and "-m32" in self.shop.flags else self.shop.serve)(line)

    def project(self, file, text):
        if self.program is None:
            raise Failure("there is no program before it")
        project = self.shop.directory / f"project-{file}"
        project.mkdir()
        (project / self.program.name).write_text(self.program.read_text())
        (project / file).write_text(text)
        return project

    def try_cmake(self, text):
        target = self.program.stem
        if "project(" not in text:
            language = "C" if self.program.suffix == ".c" else "CXX"
            text = (f"cmake_minimum_required(VERSION 3.13)\nproject({target} {language})\n"
                    f"add_executable({target} {self.program.name})\n" + text)
        project = self.project("CMakeLists.txt", text)
        self.shop.run(self.shop.cmake, "-S", project, "-B", project / "build")
        self.shop.run(self.shop.cmake, "--build", project / "build")
        self.shop.run(project / "build" / target)

    def try_meson(self, text):
        project = self.project("meson.build", text)
        self.shop.run("meson", "setup", project / "build", project)
        self.shop.run("meson", "compile", "-C", project / "build")
        self.shop.run(project / "build" / self.program.stem)


def try_document(shop, document, code):
    shop.begin(document)
    examples = Examples(shop)
    for number, kind, name, text in code:
        print(f"{document}: line {number}: {kind}", flush=True)
        examples.try_block(number, kind, name, text)


def main(documents, cmake, build, c_compiler, cxx_compiler, *flags):
    shop = None
    try:
        for document in map(pathlib.Path, documents):
            found = blocks(document)
            code = [block for block in found if block[1] not in NOT_CODE]
            others = len(found) - len(code)
            print(f"{document}: {len(code)} examples, {others} other blocks", flush=True)
            if code:
                shop = shop or Workshop(cmake, build, (c_compiler, cxx_compiler), flags)
                try_document(shop, document, code)
    finally:
        if shop:
            shop.close()


if __name__ == "__main__":
    divide = sys.argv.index("--")
    try:
        main(sys.argv[1:divide], *sys.argv[divide + 1:])
    except (Failure, subprocess.SubprocessError) as error:
        sys.exit(f"examples_test: {error}")
