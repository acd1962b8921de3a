"""run.py BUILD [TOPIC...]: measures all topics, prints the bars, and writes docs/maintainer/measured.md and its plots.

If topics are given, only these are measured, and no file is written.
"""

import os
import sys
import time
from pathlib import Path

import block_rows
import idle_rows
import latency_rows
import page
import plots
import start_rows
import text_rows
from measure import Figures

TOPICS = {
    "pair": block_rows.pair,
    "big": block_rows.big,
    "churn": block_rows.churn,
    "batch": block_rows.batch,
    "threads": block_rows.threads,
    "left": block_rows.left,
    "string": text_rows.string,
    "request": text_rows.request,
    "udp": text_rows.udp,
    "console": text_rows.console,
    "addresses": text_rows.addresses,
    "start": start_rows.start,
    "idle": idle_rows.idle,
    "latency": latency_rows.latency,
}
TESTS = Path(__file__).resolve().parent.parent / "tests"


def main():
    load = os.getloadavg()[0]
    build = Path(sys.argv[1]).resolve()
    os.environ["ADDRPUBD_BUILD"] = str(build)  # for the tests' modules, which some topics import
    sys.path += [str(TESTS / folder) for folder in ("support", "system", "servers")]
    chosen = sys.argv[2:]
    figures = Figures(build)
    results = []
    for topic in chosen or TOPICS:
        start = time.monotonic()
        results.append(TOPICS[topic](figures))
        print(f"-- {topic}, {time.monotonic() - start:.0f} s", flush=True)
    page.print_bars(results)
    if not chosen:
        folder = page.find().parent
        drawn = [plots.draw(name, lines, folder) for result in results for name, lines in result.plots.items()]
        print(f"{page.write(results, [name for name in drawn if name], load)} is written")


main()
