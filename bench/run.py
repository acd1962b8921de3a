"""run.py BUILD [TOPIC...]: measures all topics, prints the table, writes docs/maintainer/measured.md and draws its plots.

With topics named, those alone are measured and nothing is written.
"""

import sys
from pathlib import Path

import block_rows
import page
import plots
import program_rows
import text_rows
from measure import Counts, Times

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
    "version": program_rows.version,
    "idle": program_rows.idle,
    "latency": program_rows.latency,
}


def main():
    build = Path(sys.argv[1]).resolve()
    chosen = sys.argv[2:] or list(TOPICS)
    times, counts = Times(build), Counts(build)
    results = []
    for topic in chosen:
        print(f"-- {topic}", flush=True)
        results.append(TOPICS[topic](times, counts))
    page.print_table([row for result in results for row in result.rows])
    if len(chosen) < len(TOPICS):
        return
    docs = Path(__file__).resolve().parent.parent / "docs/maintainer"
    drawn = [plots.draw(name, lines, docs) for result in results for name, lines in result.plots.items()]
    page.write(results, TOPICS, [name for name in drawn if name], docs)
    print("docs/maintainer/measured.md is written")


main()
