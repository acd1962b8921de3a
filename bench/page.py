"""The table on the terminal and docs/maintainer/measured.md."""

import datetime
import os
import platform
import subprocess
from pathlib import Path

from measure import ROUNDS


def print_table(rows):
    width = max(len(row.topic) for row in rows)
    for row in rows:
        print(f"{'met   ' if row.met else 'MISSED'}  {row.topic:{width}}  {row.measured}  [{row.bar}]")


def machine():
    model = "unknown processor"
    for line in Path("/proc/cpuinfo").read_text().splitlines():
        if line.startswith("model name"):
            model = line.split(":")[1].strip()
    compiler = subprocess.run(["g++", "--version"], capture_output=True, text=True, check=True).stdout.splitlines()[0]
    library = " ".join(platform.libc_ver())
    return f"{os.cpu_count()} processors ({model}), Linux {platform.release()}, {library}, {compiler}"


INTRODUCTION = """# Measured

Every figure of the tables and bars was made by one run of

    scripts/bench

on {date}, on a machine with {machine}.

The script installs the peers from Debian, builds the release preset with the benchmarks in `build/bench`, runs all
topics and writes this page and its plots. `scripts/bench TOPIC...` runs single topics and writes nothing; they are {topics}.

Times are medians of {rounds} interleaved rounds and count the processor's time of the one thread that is looked at,
unless real time is named; ratios are medians of the rounds' ratios. The idle programs are looked at once, side by side,
and the memory left is that of one run. Nothing on this page is a test: machines differ, and a neighbour's load moves
times. Instructions are counted by callgrind, in user space, and repeat: they are what to look at when a time surprises.
Debian's Google Benchmark is a debug build; each case therefore loops by itself, many times at once. The reasons given
for what is missed also name counts of single functions, which were read from callgrind's output by hand.

What is compiled into the benchmark program, peers included, has the flags of this project's release preset, with its
hardening. The allocators, fmt, spdlog's library, inadyn and ddclient are Debian's binaries.

## The bars

| topic | measured | bar | |
|---|---|---|---|
"""


def write(results, topics, plots, folder):
    rows = [row for result in results for row in result.rows]
    text = INTRODUCTION.format(
        date=datetime.date.today(), machine=machine(), topics=", ".join(topics), rounds=ROUNDS
    )
    for row in rows:
        text += f"| {row.topic} | {row.measured} | {row.bar} | {'met' if row.met else '**missed**'} |\n"
    missed = [row for row in rows if not row.met]
    text += "\n## Missed, and why\n\n" if missed else "\nNo bar is missed.\n"
    text += "".join(f"- **{row.topic}**: {row.measured}. {row.why}\n" for row in missed)
    for result in results:
        for table in result.tables:
            text += table_text(table)
    text += "".join(f"\n![{name}]({name})\n" for name in plots)
    (folder / "measured.md").write_text(text)


def table_text(table):
    lines = [table.head, ["---"] * len(table.head), *table.lines]
    text = f"\n## {table.title}\n\n`{table.command}`\n\n"
    text += "".join("| " + " | ".join(map(str, line)) + " |\n" for line in lines)
    return text + (f"\n{table.note}\n" if table.note else "")
