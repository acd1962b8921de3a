"""mutate.py [options] [FILTER]: changes the sources one token at a time and checks whether a test detects the change.

Prints one line per mutant, then the figures, the explanations that are no longer needed, and the survivors without an
explanation. The exit status is 1 if there is such an explanation or survivor, otherwise 0.
"""

import argparse
import os
import queue
import random
import shutil
import sys
import threading
import time
from collections import Counter
from concurrent.futures import ThreadPoolExecutor
from fnmatch import fnmatch
from pathlib import Path

sys.path.insert(1, str(Path(__file__).resolve().parents[1] / "support"))

import page_figures  # noqa: E402
import runs
from mutants import KINDS, mutants_of
from programs import Base, DoesNotCompile, Worker
from tables import Covering, Explained

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
SEED = 20261121
DEFAULT_WORK = Path("/tmp/addrpubd-mutation")


class Judge:
    """Determines which test detects a mutant. All workers use it at the same time."""

    def __init__(self, base, covering, with_system):
        self.base = base
        self.covering = covering
        self.with_system = with_system
        self._seconds = {}  # duration of each run on the unchanged sources
        self._lock = threading.Lock()

    def outcome(self, worker, mutant):
        """Returns the outcome of the mutant and the test that determined it."""
        worker.change(mutant)
        try:
            for part in self.covering.units(mutant.file):
                program, covers = self._changed(worker, part)
                if program is None:
                    continue
                ended = runs.unit(program, worker.scratch, self._limits(worker, part), covers)
                if not ended.passed:
                    return "killed", f"{part.program}: {ended.reason}"
            return self._by_system(worker, mutant)
        except DoesNotCompile as refusal:
            return "does not compile", next((s for s in str(refusal).splitlines() if "error" in s), "")[-150:]

    def _changed(self, worker, part):
        """Returns the part's program and the other programs that it runs. The program is None if none of them contains
        the change."""
        program = worker.program(f"tests/{part.program}", part.sources)
        others = {name: worker.program(f"tests/{name}") for name in part.others}
        covers = {self.base.build / "tests" / name: new for name, new in others.items() if new}
        if program is None and covers:
            program = self.base.part(part.program, part.sources)
        return program, covers

    def _by_system(self, worker, mutant):
        files = self.covering.systems(mutant.file) if self.with_system else ()
        if files and (executable := worker.program("addrpubd")):
            build = worker.build_with(executable)
            for name in files:
                ended = runs.system(self._system_file(name), build, worker.scratch, self._system_limits(worker, name))
                if not ended.passed:
                    return "killed", f"{name}: {ended.reason}"
        return "survived", ""

    def _system_file(self, name):
        return self.base.tree / "tests/system" / f"{name}.py"

    def _limits(self, worker, part):
        def first():
            program = self.base.part(part.program, part.sources)
            return runs.unit(program, worker.scratch, runs.FIRST)

        return self._measured(part, first)

    def _system_limits(self, worker, name):
        return self._measured(
            name, lambda: runs.system(self._system_file(name), self.base.build, worker.scratch, runs.FIRST)
        )

    def _measured(self, what, first):
        """Returns the time limits of a run of `what`, a Part or the name of a system test file. The first call for it
        runs `first`, the same run on the unchanged sources, which must pass."""
        with self._lock:
            if what not in self._seconds:
                ended = first()
                if not ended.passed:
                    raise SystemExit(f"{what} fails on the unchanged sources: {ended.reason}\n{ended.output[-3000:]}")
                self._seconds[what] = ended.seconds
            return runs.following(self._seconds[what])


class Census(Judge):
    """Finds every test that kills a mutant, in each unit test program of tests_of.txt that contains the change and in
    the system tests except those in LEFT_OUT."""

    #  These tests take minutes, or need more programs than a worker builds. Those from 700 on test the open client
    #  library and addrpubd-check.
    LEFT_OUT = ("test_195_", "test_450_", "test_470_", "test_500_", "test_510_", "test_628_", "test_7", "test_8")

    def outcome(self, worker, mutant):
        """Returns the outcome of the mutant and the names of the tests that fail. The system tests in LEFT_OUT are not
        run."""
        worker.change(mutant)
        found = []
        try:
            for part in self.covering.programs():
                program, covers = self._changed(worker, part)
                if program is not None:
                    failed = runs.every_unit(program, worker.scratch, self._limits(worker, part), covers)
                    found += [f"{part.program}: {name}" for name in failed]
            executable = worker.program("addrpubd") if self.with_system else None
            if executable:
                build = worker.build_with(executable)
                for file in sorted((self.base.tree / "tests/system").glob("test_*.py")):
                    if not file.name.startswith(self.LEFT_OUT):
                        limits = self._system_limits(worker, file.stem)
                        failed = runs.every_system(file, build, worker.scratch, limits)
                        found += [f"{file.stem}: {name}" for name in failed]
        except DoesNotCompile as refusal:
            return "does not compile", next((s for s in str(refusal).splitlines() if "error" in s), "")[-150:]
        return ("killed", "\n    ".join(["", *found, f"{len(found)} tests"])) if found else ("survived", "")


class Report:
    """Prints and stores the outcomes of the mutants."""

    def __init__(self, file, total, stale):
        self._file = open(file, "a", encoding="utf-8")
        self._total = total
        self._lock = threading.Lock()
        self.counts = Counter()
        self.open = []
        self.stale = stale  # explanations that are no longer needed

    def add(self, mutant, outcome, by, seconds, explained):
        """Adds one result. A survivor with an explanation is not listed as open."""
        with self._lock:
            if outcome == "survived" and explained:
                outcome, by = "explained", explained
            elif explained:
                self.stale.append(f"killed: {mutant.key}")
            if outcome == "survived":
                self.open.append(mutant)
            self.counts[mutant.kind, outcome] += 1
            done = sum(self.counts.values())
            place = f"{mutant.file}:{mutant.line}"
            print(f"[{done}/{self._total}] {place} {mutant.change} | {outcome} | {by} | {seconds:.1f} s", flush=True)
            by = ", ".join(by.split("\n    ")[1:]) if "\n" in by else by
            self._file.write(f"{mutant.key}\t{mutant.kind}\t{outcome}\t{by}\n")
            self._file.flush()

    def close(self):
        """Prints the figures, the explanations that are no longer needed, and the open survivors."""
        self._file.close()
        for kind in KINDS:
            figures = {outcome: n for (of_kind, outcome), n in sorted(self.counts.items()) if of_kind == kind}
            print(f"{kind}s: {sum(figures.values())}", *(f"{n} {outcome}" for outcome, n in figures.items()), sep=", ")
        for what in self.stale:
            print(f"explained, but {what}")
        for mutant in self.open:
            print(f"survived: {mutant.key}")


def last_outcomes(file):
    """Returns the outcomes of an earlier run."""
    if not file.exists():
        return {}
    rows = [line.split("\t") for line in file.read_text(encoding="utf-8").splitlines()]
    return {row[0]: row[2] for row in rows}


def chosen(tree, covering, options):
    """Returns the mutants that the options select."""
    found = []
    for kind in options.kind or KINDS:
        for file in covering.files():
            if fnmatch(file, f"*{options.filter}*") and (tree / file).exists():
                found += [m for m in mutants_of(file, (tree / file).read_text()) if m.kind == kind]
    if options.only:
        found = [m for m in found if options.only in m.key]
    if options.number and options.number < len(found):
        kept = set(random.Random(SEED).sample(range(len(found)), options.number))
        found = [m for i, m in enumerate(found) if i in kept]
    return found


def arguments():
    """Returns the parsed command line."""
    parser = argparse.ArgumentParser(prog="scripts/mutate", description=__doc__.split("\n", 1)[0].split(": ", 1)[1])
    parser.add_argument("filter", nargs="?", default="", help="part of a file's name: service/, publish, com/*.cpp")
    parser.add_argument("-n", "--number", type=int, help="try only this number of mutants, drawn with a fixed seed")
    parser.add_argument("-j", "--jobs", type=int, default=2, help="mutants at a time (2)")
    parser.add_argument("-k", "--kind", action="append", choices=KINDS, help="only mutants of this kind")
    parser.add_argument("--only", help="mutants whose listed name contains this text")
    parser.add_argument("--list", action="store_true", help="list the mutants and run nothing")
    parser.add_argument("--resume", action="store_true", help="leave out mutants that an earlier run decided")
    parser.add_argument("--keep-base", action="store_true", help="use the previous run's copy of the tree")
    parser.add_argument("--no-system", action="store_true", help="do not run the system tests on survivors")
    parser.add_argument("--every-test", action="store_true", help="list each test that kills a mutant, not only one")
    parser.add_argument("--work", type=Path, default=DEFAULT_WORK, help="folder for copies and builds")
    return parser.parse_args()


def asked_for(tree, covering, explained, results, options):
    """Returns the mutants to try. A resumed run leaves out mutants that an earlier run decided. A mutant that was never
    tried is not left out, even if it has an explanation."""
    mutants = chosen(tree, covering, options)
    if not options.resume:
        return mutants
    last = last_outcomes(results)

    def settled(mutant):
        outcome = last.get(mutant.key)
        explicable = outcome in ("survived", "explained")
        return outcome in ("killed", "does not compile") or (explicable and explained.reason(mutant))

    return [mutant for mutant in mutants if not settled(mutant)]


def unborne(tree, explained, files):
    """Yields the lines of explained.txt for these files that match no mutant."""
    for file in files:
        for key in explained.without_mutant(file, mutants_of(file, (tree / file).read_text())):
            yield f"no such mutant: {key}"


def write_figures(results, every):
    """Writes the outcomes of the mutants into the page if every mutant of the sources has an outcome."""
    last = last_outcomes(results)
    if any(mutant.key not in last for mutant in every):
        return
    counts = Counter((Path(mutant.file).parts[0], mutant.kind, last[mutant.key]) for mutant in every)
    rows = [("", "mutants", "killed", "does not compile", "explained", "open")]
    for part, kind in dict.fromkeys((Path(mutant.file).parts[0], mutant.kind) for mutant in every):
        rows.append((f"{part}, {kind}s", *by_outcome(counts, lambda key, of=(part, kind): key[:2] == of)))
    rows.append(("all", *by_outcome(counts, lambda _: True)))
    page_figures.write("mutation", "scripts/mutate", page_figures.table(rows))


def by_outcome(counts, belongs):
    """Returns the sum of the counts whose key belongs to the row, then a figure for each outcome."""
    outcomes = ("killed", "does not compile", "explained", "survived")
    figures = [sum(n for key, n in counts.items() if key[2] == name and belongs(key)) for name in outcomes]
    return sum(figures), *figures


def try_all(mutants, judge, report, explained, workers):
    """Tries all mutants, each on one of the workers."""
    idle = queue.SimpleQueue()
    for worker in workers:
        idle.put(worker)

    def judged(mutant):
        worker = idle.get()
        start = time.monotonic()
        try:
            outcome, by = judge.outcome(worker, mutant)
        finally:
            idle.put(worker)
        report.add(mutant, outcome, by, time.monotonic() - start, explained.reason(mutant))

    with ThreadPoolExecutor(len(workers)) as pool:
        for result in [pool.submit(judged, mutant) for mutant in mutants]:
            result.result()


def main():
    options = arguments()
    covering = Covering(HERE / "tests_of.txt")
    explained = Explained(HERE / "explained.txt")
    if options.list:
        for mutant in chosen(ROOT, covering, options):
            print(mutant.key)
        return
    base = Base(options.work / "base")
    if not options.keep_base:
        base.fill(ROOT)
    results = options.work / "results.tsv"
    mutants = asked_for(base.tree, covering, explained, results, options)
    if not options.resume:
        results.unlink(missing_ok=True)
    files = {mutant.file for mutant in mutants}
    changed = sorted(files)
    if options.every_test:
        files = set(covering.files())
    base.make(covering.targets(files, not options.no_system), options.jobs)
    base.read()

    report = Report(results, len(mutants), list(unborne(base.tree, explained, changed)))
    place = options.work / f"run{os.getpid()}"
    workers = [Worker(base, place / str(number)) for number in range(options.jobs)]
    judge = (Census if options.every_test else Judge)(base, covering, not options.no_system)
    try_all(mutants, judge, report, explained, workers)
    report.close()
    shutil.rmtree(place, ignore_errors=True)
    partial = options.filter or options.kind or options.only or options.number
    if not (partial or options.no_system or options.every_test):
        write_figures(results, chosen(base.tree, covering, options))
    sys.exit(1 if report.open or report.stale else 0)


main()
