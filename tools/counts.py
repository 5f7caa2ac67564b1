"""Puts the counts that './run verify' has stored into the documents that quote them.

usage: counts.py DIRECTORY DOCUMENT...

A count stands between marks in a document: <!-- PART WHAT -->COUNT<!-- end -->.  DIRECTORY holds
what each part has printed, in PART.txt; the counts of a part that is not there stay as they are.
"""

import pathlib
import re
import sys

MARK = re.compile(r"<!-- (\w+) ([^>]+?) -->([^<|]*)<!-- end -->")
BOTH_WIDTHS = re.compile(r"^ *(\d+) \+ (\d+) +(\S.*)$", re.MULTILINE)
KILLS = re.compile(r"(client|engine) (killed|stopped)\b.*")


def of_widths(text):
    """'390 + 390' by what was counted, and the sum of what was killed."""
    found = {what: f"{narrow} + {wide}" for narrow, wide, what in BOTH_WIDTHS.findall(text)}
    found["in all"] = f"""{sum(int(narrow) + int(wide)
                              for narrow, wide, what in BOTH_WIDTHS.findall(text)
                              if KILLS.fullmatch(what)):,}"""
    return found


def of_fuzz(text):
    found = {}
    for target, inputs, in_all in re.findall(
            r"^both +(\w+) +(\d+) inputs +in all: (\d+)$", text, re.MULTILINE):
        found[target] = f"{int(inputs):,}"
        found["in all"] = f"{int(in_all):,}"
    return found


def of_model(text):
    lines = re.findall(r"^(\w+) +([0-9.e+]+) states +(\S+)", text, re.MULTILINE)
    states = {name: int(float(number)) for outcome, number, name in lines if outcome == "holds"}
    found = {name: f"{number:,}" for name, number in states.items()}
    found["that hold"] = str(len(states))
    found["that break"] = str(len(lines) - len(states))
    found["million states"] = str(sum(states.values()) // 1_000_000)
    return found


def of_soak(text):
    found = {}
    for what, pattern in (("answered", r"(\d+) calls answered"), ("engines", r"by (\d+) engines"),
                          ("started", r"(\d+) programs of"), ("killed", r"started, (\d+) killed"),
                          ("counted", r"(\d+) instances counted"),
                          ("uncertain", r"(\d+) uncertain"),
                          ("disturbed", r"by a change of engines: (\d+)")):
        for number in re.findall(pattern, text):
            found[what] = f"{int(number):,}"
    return found


PARTS = {"fuzz": of_fuzz, "model": of_model, "differential": of_widths, "kills": of_widths,
         "soak": of_soak, "faults": of_widths}


def stored_counts(directory):
    return {part: read((directory / f"{part}.txt").read_text("utf-8"))
            for part, read in PARTS.items() if (directory / f"{part}.txt").exists()}


def filled(text, counts):
    """The text with its counts; a KeyError names what was not counted."""
    def content(mark):
        part, what, present = mark.groups()
        if part not in PARTS:
            raise KeyError(f"{part} {what}")
        if part in counts:
            if what not in counts[part]:
                raise KeyError(f"{part} {what}")
            present = counts[part][what]
        return f"<!-- {part} {what} -->{present}<!-- end -->"

    return MARK.sub(content, text)


def main(directory, documents):
    counts = stored_counts(pathlib.Path(directory))
    for part in PARTS:
        if part not in counts:
            print(f"counts of '{part}' are not stored and stay as they are", file=sys.stderr)
    try:
        for document in map(pathlib.Path, documents):
            document.write_text(filled(document.read_text("utf-8"), counts), "utf-8")
    except KeyError as missing:
        sys.exit(f"counts.py: {document}: nothing has counted {missing}")


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])
