"""Reads the counters that the programs wrote (counters.cpp) and adds them up for each line of the sources.

gcov computes what was executed for each object file of the build. A line of a template or inline function is in many
object files, and in one object file once per instantiation. Here all of these count as one line. Their branches are
combined: branches are identified by the start of the function and their number within the line.

Branches and lines that the compiler generated are left out: both branches of a call if one of them is for an exception,
and lines that contain only braces, to which gcov assigns destructors.
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
    """A source line that contains code: how often it was executed, and how often each of its branches was taken."""

    text: str
    count: int = 0
    branches: dict = field(default_factory=dict)  # by function and number

    def never_taken(self):
        return sum(count == 0 for count in self.branches.values())


def read(root, build, folders, jobs):
    """Returns the lines of each file in the folders, as {name relative to root: {number: Line}}."""
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
    """Adds gcov's data about one source file in one object file."""
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
    """Returns the counts of the branches, without the two branches of a call that may throw."""
    kept = []
    for branch in branches:
        if not branch["throw"]:
            kept.append(branch)
        elif kept and kept[-1]["fallthrough"]:
            kept.pop()
    return [branch["count"] for branch in kept]


def _merge(build, target):
    """Adds up the counters of each object file over all programs. Writes the sum next to the compiler's notes of the
    object file. Object files without counters are kept if they belong to the sources, and left out if they belong to
    the tests.
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
    """Returns the sum of several counter files of one object file. A function is in the files of the programs that
    contain it."""
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
    """Returns each function's name, as bytes, and its counters."""
    place, name = HEADER, b""
    while place + 8 <= len(content):
        tag, length = struct.unpack_from("<II", content, place)
        record = content[place + 8 : place + 8 + length]
        place += 8 + length
        if tag == FUNCTION:
            name = record
        elif tag == ARCS:
            yield name, array.array("Q", record)
