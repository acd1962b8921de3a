"""Replaces a block of figures in docs/maintainer/verification.md by the figures of a run that has just ended.

A block begins with "<!-- figures: NAME -->" and ends with "<!-- end: NAME -->". Only a complete run replaces a block. A
run with fewer targets or less time does not.
"""

import datetime
import re
from pathlib import Path

PAGE = Path(__file__).resolve().parents[2] / "docs/maintainer/verification.md"


def table(rows):
    """Returns a Markdown table. rows: lists of cells of equal length; the first list is the heading."""
    head, *others = [[str(cell) for cell in row] for row in rows]
    return "\n".join("| " + " | ".join(row) + " |" for row in [head, ["---"] * len(head), *others])


def write(name, command, text, page=PAGE):
    """Replaces the block by the date, the command and the text. Raises ValueError if the block does not exist."""
    today = datetime.datetime.now(datetime.UTC).date()
    block = f"<!-- figures: {name} -->\nMeasured on {today} by `{command}`.\n\n{text.strip()}\n<!-- end: {name} -->"
    old = page.read_text(encoding="utf-8")
    new, found = re.subn(rf"<!-- figures: {name} -->.*?<!-- end: {name} -->", lambda _: block, old, flags=re.DOTALL)
    if found != 1:
        raise ValueError(f"{page} has {found} blocks {name}, not one")
    page.write_text(new, encoding="utf-8")
