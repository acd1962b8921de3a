"""Replaces a block of figures in a page, by default docs/maintainer/verification.md, by the figures of a run that
has just ended. Scripts call it as a program:

    page_figures.py NAME COMMAND TEXT

A block begins with "<!-- figures: NAME -->" and ends with "<!-- end: NAME -->". Only a complete run may
replace a block, not a run with fewer targets or less time. The callers check this.
"""

import datetime
import re
import sys
from pathlib import Path

PAGE = Path(__file__).resolve().parents[2] / "docs/maintainer/verification.md"


def table(rows):
    """Returns a Markdown table. rows: lists of cells of equal length; the first list is the heading."""
    head, *others = [[str(cell) for cell in row] for row in rows]
    return "\n".join("| " + " | ".join(row) + " |" for row in [head, ["---"] * len(head), *others])


def write(name, command, text, page=PAGE):
    """Replaces the block by the date, the command and the text."""
    today = datetime.datetime.now(datetime.UTC).date()
    replace(name, f"Measured on {today} by `{command}`.\n\n{text.strip()}", page)


def replace(name, text, page):
    """Replaces the block by the text. Raises ValueError if the page does not have exactly one such block."""
    block = f"<!-- figures: {name} -->\n{text}\n<!-- end: {name} -->"
    old = page.read_text(encoding="utf-8")
    new, found = re.subn(rf"<!-- figures: {name} -->.*?<!-- end: {name} -->", lambda _: block, old, flags=re.DOTALL)
    if found != 1:
        raise ValueError(f"{page} has {found} blocks {name}, not one")
    page.write_text(new, encoding="utf-8")


if __name__ == "__main__":
    write(*sys.argv[1:])
