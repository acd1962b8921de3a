"""campaign.py [--build FOLDER] [--jobs N] [SECONDS] [TARGET...]: runs the fuzz targets, each for SECONDS (default 300).
campaign.py [--build FOLDER] --keep N [TARGET...]: adds inputs of earlier campaigns to tests/fuzz/corpus (found.py).

A target starts from its corpus (tests/fuzz/corpus) and from the inputs that earlier campaigns stored in
FOLDER/campaign/TARGET/corpus. It stores new inputs there as well. It stops at its first finding, which is stored next
to its log. The program prints a line for each running target every 30 seconds. At the end it prints a table, also to
FOLDER/campaign/table.txt. A run of all targets for 300 s or longer also writes the table into the verification page.
The exit status is 1 if there is a finding, or if a target fails in another way."""

import argparse
import os
import re
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(1, str(Path(__file__).resolve().parents[1] / "support"))

import found  # noqa: E402
import page_figures  # noqa: E402

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent.parent
FINDS = ("crash-", "leak-", "timeout-", "oom-")
PROGRESS_SECONDS = 30
USUAL_SECONDS = 300
COLUMNS = "{:<16}{:>9}{:>13}{:>9}{:>8}{:>8}{:>7}"
NAMES = ("target", "seconds", "executions", "exec/s", "edges", "corpus", "finds")
HEADER = COLUMNS.format(*NAMES)


class Run:
    """One running target."""

    def __init__(self, name, build, seconds):
        self.name = name
        self.folder = build / "campaign" / name
        self.log = self.folder / "log"
        kept = self.folder / "corpus"
        kept.mkdir(parents=True, exist_ok=True)
        command = [build / "tests" / f"{name}_fuzz", f"-max_total_time={seconds}", "-print_final_stats=1",
                   "-timeout=30", "-rss_limit_mb=3072", f"-artifact_prefix={self.folder}/"]
        words = HERE / "dictionaries" / f"{name}.dict"
        if words.exists():
            command.append(f"-dict={words}")
        self._begun = time.monotonic()
        self._begun_at = time.time()
        with self.log.open("wb") as log:
            self.process = subprocess.Popen([*command, kept, build / found.UNPACKED / name], stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=subprocess.STDOUT)
        self.seconds = 0

    def running(self):
        if self.process.poll() is None:
            return True
        self.seconds = self.seconds or round(time.monotonic() - self._begun)
        return False

    def finds(self):
        return sorted(file for file in self.folder.iterdir()
                      if file.name.startswith(FINDS) and file.stat().st_mtime >= self._begun_at - 1)

    def failed(self):
        return bool(self.finds()) or self.process.returncode != 0

    def cells(self):
        """Returns the cells of a row. Executions, covered edges and corpus size are from the last lines of the log."""
        text = self.log.read_text(errors="replace")
        seconds = self.seconds or round(time.monotonic() - self._begun)
        counted = (re.findall(r"^stat::number_of_executed_units: (\d+)", text, re.M)
                   or re.findall(r"^#(\d+)\t", text, re.M))
        covered = re.findall(r"^#\d+\t.*? cov: (\d+) .*?corp: (\d+)/", text, re.M)
        executions = int(counted[-1]) if counted else 0
        edges, corpus = covered[-1] if covered else (0, 0)
        rate = executions // max(seconds, 1)
        return self.name, seconds, executions, rate, edges, corpus, len(self.finds())

    def row(self):
        return COLUMNS.format(*self.cells())


def campaign(names, build, seconds, jobs):
    """Runs the targets, at most jobs at a time. Returns the runs in the order of names."""
    waiting, running, ended = list(names), [], []
    told = time.monotonic()
    try:
        while waiting or running:
            while waiting and len(running) < jobs:
                running.append(Run(waiting.pop(0), build, seconds))
            time.sleep(0.2)
            for run in [r for r in running if not r.running()]:
                running.remove(run)
                ended.append(run)
                print("ended   ", run.row(), flush=True)
            if time.monotonic() - told >= PROGRESS_SECONDS:
                told = time.monotonic()
                for run in running:
                    print("running ", run.row(), flush=True)
    finally:
        for run in running:
            run.process.kill()
            run.process.wait()
    return sorted(ended, key=lambda run: names.index(run.name))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("words", nargs="*", metavar="[SECONDS] [TARGET...]", help="all targets when none is named")
    parser.add_argument("--build", type=Path, default=ROOT / "build" / "asan")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="targets at once (default: the cores)")
    parser.add_argument("--keep", type=int, metavar="N", help="no campaign; add at most N inputs to each archive")
    chosen = parser.parse_args()
    targets = list(chosen.words)
    seconds = int(targets.pop(0)) if targets and targets[0].isdigit() else USUAL_SECONDS
    built = sorted(program.name.removesuffix("_fuzz") for program in (chosen.build / "tests").glob("*_fuzz"))
    unknown = sorted(set(targets) - set(built))
    if unknown or not built:
        parser.error(f"no such target: {' '.join(unknown)}; there are: {' '.join(built)}")
    if chosen.keep is not None:
        for name in targets or built:
            print(f"{name}: {found.keep(chosen.build, name, chosen.keep)} inputs added")
        return 0

    print("        ", HEADER)
    runs = campaign(targets or built, chosen.build, seconds, max(chosen.jobs, 1))
    table = "\n".join([HEADER, *(run.row() for run in runs)])
    (chosen.build / "campaign" / "table.txt").write_text(table + "\n")
    print(table)
    if not targets and seconds >= USUAL_SECONDS:
        page_figures.write("fuzz", "scripts/fuzz", page_figures.table([NAMES, *(run.cells() for run in runs)]))
    for run in runs:
        for find in run.finds():
            print(f"find: {chosen.build}/tests/{run.name}_fuzz {find}")
        if run.failed():
            print(f"see {run.log}")
    return int(any(run.failed() for run in runs))


if __name__ == "__main__":
    sys.exit(main())
