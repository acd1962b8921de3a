"""Prints the table on the terminal, and writes the part of docs/maintainer/measured.md between its two markers."""

import datetime
import os
import platform
import subprocess
from pathlib import Path

from measure import ROUNDS

BEGIN = "<!-- figures: bench -->\n"
END = "<!-- end: bench -->\n"
BUSY = 0.3  # load per processor above which times are called unreliable


def find():
    return next((Path(__file__).resolve().parent.parent / "docs").rglob("measured.md"))


def print_bars(results):
    bars = [bar for result in results for bar in result.bars]
    width = max((len(bar.topic) for bar in bars), default=0)
    for bar in bars:
        times = f"; time {bar.times}" if bar.times else ""
        print(f"{'met   ' if bar.met else 'MISSED'}  {bar.topic:{width}}  {bar.measured}  [{bar.goal}]{times}")
    for cost in [cost for result in results for cost in result.costs]:
        print(f"layout  {cost.topic:{width}}  {cost.measured}  [{cost.goal}]; floor {cost.floor}")


def machine():
    lines = Path("/proc/cpuinfo").read_text().splitlines()
    model = next((line.split(":")[1].strip() for line in lines if line.startswith("model name")), "unknown processor")
    compiler = subprocess.run(["g++", "--version"], capture_output=True, text=True, check=True).stdout.splitlines()[0]
    library = " ".join(platform.libc_ver())
    return f"{os.cpu_count()} processors ({model}), Linux {platform.release()}, {library}, {compiler}"


def markdown(head, lines):
    rows = [head, ["---"] * len(head), *lines]
    return "".join("| " + " | ".join(map(str, row)) + " |\n" for row in rows)


def conditions(load):
    """Returns when and where the figures were made. load: the load average before the run."""
    busy = load > BUSY * os.cpu_count()
    remark = "**Other programs used the machine during this run: its times are unreliable.**" if busy else ""
    return (
        f"Made by `scripts/bench` on {datetime.date.today()}, on a machine with {machine()}. Times are medians of "
        f"{ROUNDS} rounds. The load average before the run was {load:.1f}. {remark}".rstrip() + "\n"
    )


def bar_sections(bars):
    """Returns the table of all bars, and the bars that are missed with their reasons."""
    missed = [bar for bar in bars if not bar.met]
    lines = [[b.topic, b.measured, b.goal, "met" if b.met else "**missed**", b.times] for b in bars]
    text = f"\n## Bars\n\n{len(bars) - len(missed)} of {len(bars)} bars are met.\n\n"
    text += markdown(["topic", "measured", "bar", "", "time beside"], lines)
    if missed:
        text += "\n## Bars that are missed\n\n"
        text += "".join(
            f"- **{bar.topic}**: {bar.measured}; bar: {bar.goal}. {bar.why}".rstrip() + "\n" for bar in missed
        )
    return text


def cost_section(costs):
    lines = [[cost.topic, cost.measured, cost.goal, cost.floor, cost.why] for cost in costs]
    text = "\n## Costs of the fixed layout\n\nThe layout of the allocator and of its classes is fixed. This layout "
    text += "makes these goals impossible; the floor is the minimum that the layout allows.\n\n"
    return text + markdown(["topic", "measured", "goal", "floor", "reason"], lines)


def table_section(table):
    text = f"\n## {table.title}\n\n" + markdown(table.head, table.lines)
    return text + (f"\n{table.note}\n" if table.note else "")


def write(results, plots, load):
    """Replaces the part between the markers. plots: names of the drawn files."""
    file = find()
    before, _, rest = file.read_text().partition(BEGIN)
    _, _, after = rest.partition(END)
    text = conditions(load)
    text += bar_sections([bar for result in results for bar in result.bars])
    text += cost_section([cost for result in results for cost in result.costs])
    text += "".join(table_section(table) for result in results for table in result.tables)
    text += "".join(f"\n![{name}]({name})\n" for name in plots)
    file.write_text(before + BEGIN + text + END + after)
    return file
