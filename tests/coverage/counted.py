"""Reads the counters that the programs left behind (counters.cpp) and adds them up for each line of the sources.

gcov works out what each object of the build has run. A line of a template or an inline function is in many objects, and
in one object once for each instantiation. All of these are one line here, and their branches are one row: branch by
branch, by the place where the function starts and the number within its line.

Left out is what is the compiler's and not the source's: both ways of a call where one of them is an exception's, and
lines with nothing but braces, where it puts destructors.
"""

import array
import json
import re
import shutil
import struct
import subprocess
from collections import defaultdict
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from pathlib import Path

FUNCTION, ARCS = 0x01000000, 0x01A10000  # tags of gcov-io.h, GCC 12
HEADER = 16  # bytes
NOTHING_BUT_BRACES = re.compile(r"[\s{}();]*(//.*)?")


@dataclass
class Line:
    """A source line with code: how often it has run, and how often each of its branches was taken."""

    text: str
    count: int = 0
    branches: dict = field(default_factory=dict)  # by function and number

    def never_taken(self):
        return sum(count == 0 for count in self.branches.values())


def read(root, build, folders, jobs):
    """The lines of each file in the folders, as {name relative to root: {number: Line}}."""
    objects = build / "counters.merged"
    _merge(build, objects)
    files = {}
    with ThreadPoolExecutor(jobs) as workers:
        for report in workers.map(_gcov, sorted(objects.rglob("*.gcno"))):
            for file in report["files"]:
                name = Path(file["file"])
                if any(root / folder in name.parents for folder in folders):
                    _add(files.setdefault(str(name.relative_to(root)), {}), file, name)
    return files


def _gcov(notes):
    command = ["gcov", "--json-format", "--branch-probabilities", "--stdout", notes.name]
    output = subprocess.run(command, cwd=notes.parent, check=True, capture_output=True).stdout
    return json.loads(output.splitlines()[0])


def _add(lines, file, path):
    """Adds what gcov says of one file in one object."""
    texts = path.read_text().splitlines()
    starts = {function["name"]: (function["start_line"], function["start_column"]) for function in file["functions"]}
    for entry in file["lines"]:
        number = entry["line_number"]
        text = texts[number - 1].strip()
        if NOTHING_BUT_BRACES.fullmatch(text):
            continue
        line = lines.setdefault(number, Line(text))
        line.count += entry["count"]
        start = starts.get(entry.get("function_name"))
        for index, count in enumerate(_written(entry["branches"])):
            line.branches[start, index] = line.branches.get((start, index), 0) + count


def _written(branches):
    """The counts of the branches without the two ways of a call that may throw."""
    kept = []
    for branch in branches:
        if not branch["throw"]:
            kept.append(branch)
        elif kept and kept[-1]["fallthrough"]:
            kept.pop()
    return [branch["count"] for branch in kept]


def _merge(build, target):
    """Adds up the counters of each object over all programs and puts them beside the compiler's notes on it. An object
    of the sources that no program has run has none; one of the tests is left out.
    """
    shutil.rmtree(target, ignore_errors=True)
    counters = defaultdict(list)
    for file in sorted(build.glob("counters/*/*.gcda")):
        counters[file.name].append(file)
    assert counters, f"no program has left counters in {build}/counters"
    for notes in build.rglob("*.gcno"):
        if target in notes.parents:
            continue
        files = counters.get(str(notes.with_suffix(".gcda")).replace("/", "-"), [])
        if not files and build / "tests" in notes.parents:
            continue
        folder = target / notes.parent.relative_to(build)
        folder.mkdir(parents=True, exist_ok=True)
        (folder / notes.name).symlink_to(notes)
        if files:
            (folder / notes.name).with_suffix(".gcda").write_bytes(_sum([file.read_bytes() for file in files]))


def _sum(contents):
    """The sum of several files of one object. A function is in those of the programs that kept it."""
    total = {}
    for content in contents:
        for function, counters in _functions(content):
            known = total.setdefault(function, counters)
            if known is not counters:
                total[function] = array.array("Q", map(int.__add__, known, counters))
    pieces = [contents[0][:HEADER]]
    for function, counters in total.items():
        pieces += [struct.pack("<II", FUNCTION, len(function)), function]
        pieces += [struct.pack("<II", ARCS, len(counters) * 8), counters.tobytes()]
    return b"".join(pieces)


def _functions(content):
    """Each function's name, as bytes, and its counters."""
    place, name = HEADER, b""
    while place + 8 <= len(content):
        tag, length = struct.unpack_from("<II", content, place)
        record = content[place + 8 : place + 8 + length]
        place += 8 + length
        if tag == FUNCTION:
            name = record
        elif tag == ARCS:
            yield name, array.array("Q", record)
