"""The table of the n-th failures: a call of the executable fails, and this is how the run ends.

It is in tests/data/nth_failure_*.tsv, a file for each subject. Fields are parted by tabs; where several values stand in
one of the first six, the line is a run for each combination:

    situation   the command and what it meets (nth_failure.py), several parted by " | "
    process     first: the one that was started; child: the one that -start forks
    call
    nth         the call that fails, counted among the calls that the executable itself makes in that process: all of
                them, or of more than six at least the first three, one in the middle and the last
    how         once: that call alone; always: that one and all later ones
    error       errno, or the result where that is the error; 0: a short result, such as nothing written
    outcome     beside the undisturbed run, whatever the order of its lines:
                    same             nothing differs
                    -line | +line    what is missing, and what comes instead, "2x" for twice
                    all: line | line all lines but empty ones, where that is shorter
                A line is one of standard output, of a log datagram ("udp:"), a call that reached the client
                library (">"), or a fact ("="). ERROR is the number in the sixth field. The undisturbed service has
                three cycles, each after both servers have connected. At the end of each run all processes have
                ended, nobody holds the lock and no queue is left, unless a fact says so.
"""

import itertools
from pathlib import Path
from typing import NamedTuple

FOLDER = Path(__file__).parents[1] / "data"


class Row(NamedTuple):
    """One run."""

    situation: str
    where: str
    function: str
    nth: int
    how: str
    error: str
    outcome: str

    def __str__(self):
        return f"{self.situation}:{self.where}:{self.function}-{self.nth}-{self.how}-{self.error}"


def read_table():
    return [row for file in sorted(FOLDER.glob("nth_failure_*.tsv")) for row in _read(file)]


def _read(file):
    for line in file.read_text().splitlines():
        if line and not line.startswith("//"):
            yield from _runs(*line.split("\t"))


def _runs(situations, where, function, calls, hows, errors, outcome):
    for situation, nth, how, error in itertools.product(
        situations.split(" | "), calls.split(), hows.split(), errors.split()
    ):
        yield Row(situation, where, function, int(nth), how, error, outcome.replace("ERROR", error))
