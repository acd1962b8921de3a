"""Measures programs: instructions counted by callgrind, and times with the spread of several rounds.

Instructions hardly differ between runs and between machines. Times differ more. So each time is the median of ROUNDS
rounds, and its spread is half the range of the rounds.
"""

import json
import re
import statistics
import subprocess
import tempfile
from pathlib import Path

ROUNDS = 5
ALLOCATORS = {
    "glibc": None,
    "jemalloc": "libjemalloc.so.2",
    "mimalloc": "libmimalloc.so.2.0",
    "tcmalloc": "libtcmalloc_minimal.so.4",
}
LIBRARIES = Path("/usr/lib/x86_64-linux-gnu")
COUNTED = "bench::counted(bench::measured_case const&)"  # in main.cpp
#  Callgrind counts "rep movsb", one instruction that copies a whole buffer, once for each byte. With this setting
#  memcpy is a loop of vector instructions on each machine.
NO_REP_MOVSB = "GLIBC_TUNABLES=glibc.cpu.hwcaps=-ERMS"


def installed_allocators():
    """Returns the name and the library of each installed allocator. Prints a line for each missing allocator."""
    found = {}
    for name, library in ALLOCATORS.items():
        if library is None or (LIBRARIES / library).exists():
            found[name] = library
        else:
            print(f"-- benchmark peer left out: {name} ({library}) is not installed")
    return found


def preloaded(library):
    return ["env", f"LD_PRELOAD={library}"] if library else []


def callgrind(file, *options):
    return ["valgrind", "--tool=callgrind", f"--callgrind-out-file={file}", *options]


def succeeds(*command):
    return subprocess.run(command, capture_output=True, check=False).returncode == 0


def duration(ns):
    """Returns a time with its unit."""
    if ns < 1_000:
        return f"{ns:.1f} ns"
    return f"{ns / 1_000:.2f} us" if ns < 1_000_000 else f"{ns / 1_000_000:.2f} ms"


class Figures:
    """The instructions and times per operation of each measured case."""

    def __init__(self, build):
        self.build = build
        self.allocators = installed_allocators()
        self._counts = {}
        self._rounds = {}
        self._writes = {}

    def measure(self, topic, seconds=0.03, allocators=False, timed=".*", clock="cpu_time", wrap=(), rename=("", "")):
        """Counts the instructions of the cases of a topic, and measures their times.

        allocators: also measures the cases of addrpubd_bench_plain with each installed allocator. Such a case is named
        after its allocator.
        timed: the cases whose times are measured, as a regular expression for the part of their names after the topic.
        clock: cpu_time, the processor time of the case's thread, or real_time, for cases with threads. Instructions of
        cases with threads are not counted.
        wrap: the command that runs the program.
        rename: a part of the cases' names and its replacement.
        """
        programs = [("addrpubd_bench", list(wrap), rename)]
        if allocators:
            programs += [
                ("addrpubd_bench_plain", preloaded(library), ("/malloc", f"/{name}"))
                for name, library in self.allocators.items()
            ]
        for program, wrapper, names in programs if clock == "cpu_time" else []:
            self._count(wrapper, self.build / program, topic, names)
        for _ in range(ROUNDS):
            for program, wrapper, names in programs:
                self._time([*wrapper, self.build / program], f"^{topic}/{timed}$", seconds, names, clock)

    def _count(self, wrapper, program, topic, names):
        with tempfile.TemporaryDirectory() as folder:
            out = Path(folder) / "out"
            tool = callgrind(out, f"--toggle-collect={COUNTED}", f"--dump-after={COUNTED}")
            command = [*wrapper, "env", NO_REP_MOVSB, *tool, program, "--once", f"{topic}/"]
            lines = subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()
            for part, line in enumerate(lines, 1):
                name, batch, _ = line.split()
                total = re.search(r"^totals: (\d+)", Path(f"{out}.{part}").read_text(), re.MULTILINE)
                self._counts[name.replace(*names)] = int(total[1]) / int(batch)

    def _time(self, command, pattern, seconds, names, clock):
        with tempfile.NamedTemporaryFile() as file:
            options = [f"--benchmark_filter={pattern}", f"--benchmark_min_time={seconds}"]
            subprocess.run([*command, *options, f"--benchmark_out={file.name}"], check=True, capture_output=True)
            text = Path(file.name).read_text()
        for case in json.loads(text)["benchmarks"]:
            self._rounds.setdefault(case["name"].replace(*names), []).append(case[clock])

    def count_writes(self, topic):
        """Counts the calls of write(2). This is not done under callgrind, whose own writes would be counted, too."""
        command = [self.build / "addrpubd_bench", "--once", f"{topic}/"]
        for line in subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines():
            name, batch, writes = line.split()
            self._writes[name] = int(writes) / int(batch)

    def __contains__(self, name):
        return name in self._rounds

    def instructions(self, name):
        return self._counts[name]

    def writes(self, name):
        return self._writes[name]

    def ratio(self, name, peer):
        """Returns the instructions of name divided by the instructions of peer."""
        return self._counts[name] / self._counts[peer]

    def time_ratio(self, name, peer):
        """Returns the median over the rounds of name's time divided by peer's time, with its spread."""
        ratios = [a / b for a, b in zip(self._rounds[name], self._rounds[peer], strict=True)]
        return f"{statistics.median(ratios):.2f} ± {(max(ratios) - min(ratios)) / 2:.2f}"

    def time(self, name):
        rounds = self._rounds[name]
        middle = statistics.median(rounds)
        return f"{duration(middle)} ± {50 * (max(rounds) - min(rounds)) / middle:.0f} %"

    def cell(self, name):
        """Returns the text that a table shows for a case."""
        return f"{self._counts[name]:,.0f} ({self.time(name)})"


def start_cost(*command, cwd=None, wrap=()):
    """Returns the instructions of a program from exec to exit in user space: all of them, and those outside the
    loader."""
    with tempfile.TemporaryDirectory() as folder:
        file = Path(folder) / "out"
        tool = callgrind(file, "--compress-strings=no")
        subprocess.run([*wrap, *tool, *map(str, command)], cwd=cwd, capture_output=True, check=False)
        costs = _costs_by_object(file.read_text())
    return sum(costs.values()), sum(cost for name, cost in costs.items() if "ld-linux" not in name)


def _costs_by_object(text):
    """Adds up the lines of a callgrind file that state a function's own cost. A line after a calls= line is skipped: it
    states the cost of a called function."""
    costs = {}
    current = ""
    skip = False
    for line in text.splitlines():
        if line.startswith("ob="):
            current = line[3:]
        elif line.startswith("calls="):
            skip = True
        elif re.match(r"[+\-*\d]", line):
            if not skip:
                costs[current] = costs.get(current, 0) + int(line.split()[1])
            skip = False
    return costs
