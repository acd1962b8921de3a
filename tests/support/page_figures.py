"""Replaces a block of figures in docs/maintainer/verification.md by those of a run that has just ended.

A block begins with "<!-- figures: NAME -->" and ends with "<!-- end: NAME -->". Only a run of everything writes a block:
a trial with fewer targets or less time does not replace the figures of a whole run.
"""

import datetime
import re
from pathlib import Path

PAGE = Path(__file__).resolve().parents[2] / "docs/maintainer/verification.md"


def table(rows):
    """A Markdown table. rows: lists of cells of equal length; the first one is the head."""
    head, *others = [[str(cell) for cell in row] for row in rows]
    return "\n".join("| " + " | ".join(row) + " |" for row in [head, ["---"] * len(head), *others])


def write(name, command, text, page=PAGE):
    """Replaces the block by the text, with the date and the command before it. Raises ValueError without the block."""
    today = datetime.datetime.now(datetime.UTC).date()
    block = f"<!-- figures: {name} -->\nMeasured on {today} by `{command}`.\n\n{text.strip()}\n<!-- end: {name} -->"
    old = page.read_text(encoding="utf-8")
    new, found = re.subn(rf"<!-- figures: {name} -->.*?<!-- end: {name} -->", lambda _: block, old, flags=re.DOTALL)
    if found != 1:
        raise ValueError(f"{page} has {found} blocks {name}, not one")
    page.write_text(new, encoding="utf-8")
