"""Runs programs and gives what they cost: medians over interleaved rounds, and instructions counted by callgrind."""

import json
import re
import statistics
import subprocess
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

ROUNDS = 5
PRELOADS = {
    "glibc": None,
    "jemalloc": "libjemalloc.so.2",
    "mimalloc": "libmimalloc.so.2.0",
    "tcmalloc": "libtcmalloc_minimal.so.4",
}
LIBRARIES = Path("/usr/lib/x86_64-linux-gnu")


def present_preloads():
    """The allocators that are installed, with a line for each one that is not."""
    found = {}
    for name, library in PRELOADS.items():
        if library is None or (LIBRARIES / library).exists():
            found[name] = library
        else:
            print(f"-- benchmark peer left out: {name} ({library}) is not installed")
    return found


def preloaded(library):
    return ["env", f"LD_PRELOAD={library}"] if library else []


class Times:
    """Nanoseconds of each case, a figure per round. Cases of the plain program are named after the allocator."""

    def __init__(self, build):
        self.build = build
        self._rounds = {}
        self.preloads = present_preloads()

    def run(self, pattern, prefix=(), seconds=0.03, rename=None, allocators=False, clock="cpu_time"):
        """Measures the cases that match pattern: one pass per round over all of them, and over all allocators.

        The clock is that of the thread's processor time, so that what else runs on the machine counts little; a case
        with threads of its own wants real_time.
        """
        for _ in range(ROUNDS):
            self._pass("addrpubd_bench", prefix, pattern, seconds, rename, clock)
            for name, library in self.preloads.items() if allocators else ():
                self._pass("addrpubd_bench_plain", preloaded(library), pattern, seconds, ("malloc", name), clock)

    def _pass(self, program, prefix, pattern, seconds, rename, clock):
        with tempfile.NamedTemporaryFile() as file:
            command = [*prefix, self.build / program, f"--benchmark_filter={pattern}"]
            command += [f"--benchmark_min_time={seconds}", f"--benchmark_out={file.name}"]
            subprocess.run(command, check=True, capture_output=True)
            text = Path(file.name).read_text()
        for case in json.loads(text)["benchmarks"] if text else []:
            name = case["name"] if rename is None else case["name"].replace(*rename)
            self._rounds.setdefault(name, []).append(case[clock])

    def __getitem__(self, name):
        return statistics.median(self._rounds[name])

    def __contains__(self, name):
        return name in self._rounds

    def ratio(self, name, beside):
        """The median over the rounds of name's time in units of the other's."""
        return statistics.median(a / b for a, b in zip(self._rounds[name], self._rounds[beside], strict=True))


def collected(*command, cwd=None, prefix=()):
    """Instructions that a program executes in user space, its loader's included."""
    return sum(by_object(*command, cwd=cwd, prefix=prefix).values())


def by_object(*command, cwd=None, prefix=()):
    """The same, by the object (program or library) that they belong to."""
    with tempfile.TemporaryDirectory() as folder:
        file = Path(folder) / "out"
        tool = [*prefix, "valgrind", "--tool=callgrind", f"--callgrind-out-file={file}", "--compress-strings=no"]
        subprocess.run([*tool, *map(str, command)], cwd=cwd, capture_output=True, check=False)
        return _sum_objects(file.read_text())


def _sum_objects(text):
    """Sums the self cost lines of a callgrind file: those that do not follow a calls= line."""
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


class Counts:
    """Instructions of one time of a case: the difference of two runs, so that starting and ending count nothing."""

    def __init__(self, build):
        self._build = build
        self._counts = {}

    def run(self, cases, times, program="addrpubd_bench", prefix=()):
        def count(case):
            command = [self._build / program, "--count", case]
            few, many = (collected(*command, n, prefix=prefix) for n in (times, 3 * times))
            return (many - few) / (2 * times)

        with ThreadPoolExecutor(2) as pool:
            self._counts.update(zip(cases, pool.map(count, cases), strict=True))

    def __getitem__(self, case):
        return self._counts[case]

    def __contains__(self, case):
        return case in self._counts

    def ratio(self, case, beside):
        return self._counts[case] / self._counts[beside]
