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
    """Returns how many cases pytest has run and skipped, according to its output."""
    counts = {
        word: sum(int(number) for text in outputs for number in re.findall(rf"(\d+) {word}", text.splitlines()[-1]))
        for word in ("passed", "skipped")
    }
    assert counts["passed"] > 0
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
    clock = [output.rstrip() for name, output in system.items() if name.startswith("system.test_6") and output]
    real = [output.rstrip() for name, output in servers.items() if name.startswith("servers.") and output]
    assert system["system.test_500_nth_failure"]
    page_figures.write("suite", COMMAND, page_figures.table(stages(sys.stdin.read().splitlines(), results)))
    page_figures.write("nth-failures", COMMAND, page_figures.table(nth_failures()))
    page_figures.write("driven-clock", COMMAND, cases_in(clock))
    page_figures.write("servers", COMMAND, cases_in(real))


if __name__ == "__main__":
    main()
