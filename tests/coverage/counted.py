"""Reads what the programs of a coverage build executed, for each line of the sources (llvm-profdata and llvm-cov).

The code of a template or an inline function is in many programs, and in one program once per instantiation. Here each
line and each condition of the source counts once. It counts as executed if any instantiation executed it. Lines of
only brackets, semicolons and a comment are left out.
"""

import json
import os
import re
import subprocess
from dataclasses import dataclass, field
from pathlib import Path

VERSION = "-14"  # version of the LLVM tools, which must be that of clang++
NOTHING_BUT_BRACES = re.compile(r"[\s{}();]*(//.*)?")


@dataclass
class Line:
    """A source line with code: how often it was executed, and how often each way of each condition was taken."""

    text: str
    count: int = 0
    branches: dict = field(default_factory=dict)  # maps (column of the condition, outcome) to a count

    def never_taken(self):
        return sum(count == 0 for count in self.branches.values())


def read(root, build, folders):
    """Returns the lines of each file in `folders`, as {name relative to `root`: {number: Line}}."""
    counters = sorted(build.glob("counters/*.profraw"))
    assert counters, f"no program has left counters in {build}/counters"
    merged = build / "counters.profdata"
    _run("llvm-profdata", "merge", "-sparse", "-o", merged, *counters)
    programs = [file for file in sorted((build / "tests").iterdir()) if file.is_file() and _has_counters(file)]
    options = [f"-instr-profile={merged}", "-skip-functions", "-skip-expansions", build / "addrpubd"]
    options += [word for program in programs for word in ("-object", program)]
    files = {}
    _add_lines(files, root, _run("llvm-cov", "export", "-format=lcov", *options))
    _add_branches(files, root, _run("llvm-cov", "export", "-format=text", *options))
    return {name: lines for name, lines in files.items() if name.startswith(tuple(f"{folder}/" for folder in folders))}


def _run(tool, *words):
    return subprocess.run([tool + VERSION, *words], check=True, capture_output=True, text=True).stdout


def _has_counters(file):
    return os.access(file, os.X_OK) and b"__llvm_covmap" in file.read_bytes()


def _name(root, path):
    return os.path.relpath(os.path.realpath(path), root)


def _add_lines(files, root, report):
    """Adds the records of lcov: SF:FILE, then DA:LINE,COUNT for each line with code."""
    for kind, _, text in (row.partition(":") for row in report.splitlines()):
        if kind == "SF":
            lines = files.setdefault(_name(root, text), {})
            texts = Path(text).read_text().splitlines()
        elif kind == "DA":
            number, count = map(int, text.split(","))
            source = texts[number - 1].strip()
            if not NOTHING_BUT_BRACES.fullmatch(source):
                lines.setdefault(number, Line(source)).count += count


def _add_branches(files, root, report):
    """Adds the conditions: line, column, two numbers for the end, and how often the condition was true and false."""
    for file in json.loads(report)["data"][0]["files"]:
        lines = files[_name(root, file["filename"])]
        for number, column, _, _, *counts in (branch[:6] for branch in file["branches"]):
            if number in lines:
                branches = lines[number].branches
                for outcome, count in zip((True, False), counts, strict=True):
                    branches[column, outcome] = branches.get((column, outcome), 0) + count
