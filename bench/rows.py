"""What a topic gives: a row per bar, tables with all that was measured, and the text for a bar that is missed."""

from dataclasses import dataclass, field


@dataclass
class Row:
    topic: str
    measured: str
    bar: str
    met: bool
    why: str = ""  # when it is missed, or something is to be known


@dataclass
class Table:
    title: str
    head: list
    lines: list
    command: str
    note: str = ""


@dataclass
class Result:
    rows: list = field(default_factory=list)
    tables: list = field(default_factory=list)
    plots: dict = field(default_factory=dict)  # file name: lines of data, drawn by plots.py


def ns(value):
    """A time in the unit that suits it."""
    if value < 1_000:
        return f"{value:.1f} ns"
    return f"{value / 1_000:.2f} us" if value < 1_000_000 else f"{value / 1_000_000:.2f} ms"


def mb(value):
    return f"{value / 1e6:.2f} MB"
