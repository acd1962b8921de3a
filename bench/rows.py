"""The result of a topic: bars, costs of the fixed layout, tables and plots."""

from dataclasses import dataclass, field


@dataclass
class Bar:
    """A limit for a figure, which is met or missed. It limits no time of the real clock, because such times depend on
    the machine and its load."""

    topic: str
    measured: str
    goal: str
    met: bool
    times: str = ""  # times that are shown in addition
    why: str = ""  # the reason why the limit is missed


@dataclass
class Cost:
    """A figure above its goal because a memory layout or an order of operations is fixed. It is shown with the minimum
    that this layout or order allows."""

    topic: str
    measured: str
    goal: str
    floor: str
    why: str


@dataclass
class Table:
    title: str
    head: list
    lines: list
    note: str = ""


@dataclass
class Result:
    bars: list = field(default_factory=list)
    costs: list = field(default_factory=list)
    tables: list = field(default_factory=list)
    plots: dict = field(default_factory=dict)  # name of the file without .svg: lines of data, drawn by plots.py


def mb(value):
    return f"{value / 1e6:.2f} MB"
