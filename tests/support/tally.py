"""Prints the results of scripts/surroundings: a table, the failed tests, and the skipped tests.

    tally.py FOLDER NAME...     FOLDER has for each NAME: ctest's NAME.xml, NAME.tally of the system tests and the tests
                                with real servers (written by surroundings.py), and NAME.seconds. If the names of
                                all five environments are given, it also writes the table into the verification
                                page.
"""

import collections
import json
import re
import sys
import xml.etree.ElementTree
from pathlib import Path

import page_figures

ALL = ("kolkata", "new_york", "decimal_comma", "umask_077", "valgrind")
HEAD = ("surrounding", "tests", "failed", "skipped", "seconds")
FAILURES = ("failed", "error")
WIDTHS = (16, 7, 7, 8, 8)


def of_program(name, outcome, output):
    """Returns the results of a program's tests if the program ran as one ctest test. They are read from its output,
    which names only tests that failed or were skipped."""
    ran = re.search(r"^\[=+\] (\d+) tests? from .* ran", output, re.MULTILINE)
    failed = re.findall(r"^\[  FAILED  \] (\S+) \(", output, re.MULTILINE)
    skipped = re.findall(r"^\S*?([^/\s]+:\d+): Skipped\n(.*)$", output, re.MULTILINE)
    found = [(f"{name}: {test}", "failed", "") for test in failed]
    found += [(f"{name}: {place}", "skipped", reason) for place, reason in skipped]
    if outcome == "failed" and not failed:
        found.append((name, outcome, ""))
    return found + [(name, "passed", "")] * (int(ran[1]) - len(failed) - len(skipped) if ran else 0)


def outcomes(folder, name):
    """Returns (test, outcome, reason) for each test, and the number of processes under memcheck. For a file that
    pytest ran, and for a program that ran as one ctest test, the list has the individual tests.
    """
    records = [json.loads(line) for line in (folder / f"{name}.tally").read_text().splitlines()]
    found = [(test["test"], test["outcome"], test["reason"]) for test in records if "test" in test]
    told = {Path(test.split("::")[0]).stem for test, outcome, _ in found if outcome in FAILURES}
    for case in xml.etree.ElementTree.parse(folder / f"{name}.xml").getroot().iter("testcase"):
        test = case.get("name")
        outcome = {"run": "passed", "notrun": "skipped"}.get(case.get("status"), "failed")
        if test.startswith("valgrind."):
            found += of_program(test, outcome, case.findtext("system-out", ""))
        elif not test.startswith(("system.", "servers.")):
            found.append((test, outcome, ""))
        elif outcome == "failed" and test.split(".")[1] not in told:
            found.append((test, outcome, ""))  # the file ended before it wrote its results
    return found, sum(record.get("memcheck", 0) for record in records)


def row(*cells):
    first, *rest = zip(cells, WIDTHS, strict=True)
    return first[0].ljust(first[1]) + "".join(str(cell).rjust(width) for cell, width in rest)


def main():
    folder, names = Path(sys.argv[1]), sys.argv[2:]
    rows, details = [HEAD], []
    for name in names:
        found, processes = outcomes(folder, name)
        counts = collections.Counter(outcome for _, outcome, _ in found)
        failed = [test for test, outcome, _ in found if outcome in FAILURES]
        seconds = (folder / f"{name}.seconds").read_text().strip()
        rows.append((name, len(found), len(failed), counts["skipped"], seconds))
        details += [f"{name}: failed: {test}" for test in failed]
        skipped = [(test, reason) for test, outcome, reason in found if outcome == "skipped"]
        details += [f"{name}: skipped: {test} {reason}".rstrip() for test, reason in skipped]
        if processes:
            details.append(f"{name}: {processes} processes of system tests ran under memcheck")
    print("\n".join(details + [row(*cells) for cells in rows]))
    if set(ALL) <= set(names):
        page_figures.write("surroundings", "scripts/surroundings", page_figures.table(rows))


main()
