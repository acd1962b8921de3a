"""Writes what a complete run of scripts/test --full has measured into the verification page.

    suite_figures.py FOLDER     FOLDER has ctest's results, STAGE.xml. Standard input is the table of stages that
                                scripts/test prints.
"""

import re
import sys
from pathlib import Path
from xml.etree import ElementTree

import page_figures

sys.path.insert(0, str(Path(__file__).parents[1] / "system"))

import nth_failure_table

COMMAND = "scripts/test --full --record"
RESULTS = {
    "asan tests": "asan",
    "tsan tests": "tsan",
    "unit tests": "unit",
    "server tests": "servers",
    "system tests": "system",
}


def cases_of(folder, name):
    """Returns the results of a stage: the output of each test, or None if it was skipped."""
    cases = ElementTree.parse(folder / f"{name}.xml").getroot().findall("testcase")
    assert all(case.get("status") in ("run", "notrun") for case in cases), f"a test of {name} has failed"
    return {case.get("name"): case.findtext("system-out") if case.get("status") == "run" else None for case in cases}


def stages(lines, results):
    yield ["stage", "time", "processor time", "tests", "skipped"]
    for line in lines:
        name, time, processor = re.fullmatch(r"(.*?) +(\d+:\d\d) +(\d+ s)", line).groups()
        cases = results.get(name)
        tests = ["", ""] if cases is None else [f"{len(cases):,}", list(cases.values()).count(None)]
        yield [name, time, processor, *tests]


def cases_in(outputs):
    """Returns how many cases pytest has run and skipped, according to the last lines of its outputs."""
    counts = {"passed": 0, "skipped": 0}
    for output in outputs:
        found = re.findall(r"(\d+) (passed|skipped)", output.splitlines()[-1])
        assert found, output
        for number, word in found:
            counts[word] += int(number)
    return f"{counts['passed']:,} cases passed, {counts['skipped']} skipped."


def nth_failures():
    rows = nth_failure_table.read_table()
    once = sum(row.how == "once" for row in rows)
    return [
        ["", "runs", "functions"],
        ["the call fails once", f"{once:,}", ""],
        ["the call fails from then on", f"{len(rows) - once:,}", ""],
        ["all", f"{len(rows):,}", len({row.function for row in rows})],
    ]


def main():
    folder = Path(sys.argv[1])
    results = {stage: cases_of(folder, name) for stage, name in RESULTS.items()}
    system, servers = results["system tests"], results["server tests"]
    assert system["system.test_500_nth_failure"]
    clock = (output for name, output in system.items() if output and name.startswith("system.test_6"))
    real = (output for name, output in servers.items() if output and name.startswith("servers."))
    blocks = {
        "suite": page_figures.table(stages(sys.stdin.read().splitlines(), results)),
        "nth-failures": page_figures.table(nth_failures()),
        "driven-clock": cases_in(clock),
        "servers": cases_in(real),
    }
    for name, text in blocks.items():
        page_figures.write(name, COMMAND, text)


if __name__ == "__main__":
    main()
