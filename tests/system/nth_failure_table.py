"""The table of the n-th failures. In each run one call of a function fails, or this call and all later ones of the
function. The table describes how the run ends.

The table is in tests/data/nth_failure_*.tsv, one file per subject. Fields are separated by tabs. If situation, nth, how
or error has several values, the line describes one run for each combination. Values are separated by blanks, situations
by " | ":

    situation   the command and its conditions (SITUATIONS in nth_failure.py)
    process     first: the process that was started; child: the process that -start forks
    call        the function whose call fails
    nth         which call fails, counted among the calls of the executable in that process. If there are more than
                six calls, rows exist for at least the first three, one in the middle and the last
    how         once: only that call; always: that call and all later ones
    error       errno, or the result if the function returns its error; 0: a short result, such as nothing written
    outcome     the difference from the undisturbed run; the order of lines is ignored:
                    same             no difference
                    -line | +line    missing and additional lines, "2x" for twice
                    all: line | line all lines that are not empty, if that is shorter
                A line is a line of output, of a log datagram ("udp:"), a call of the client library (">"), or a fact
                ("="). ERROR means the value of the field error. The undisturbed service runs three cycles, each
                after both servers have connected. At the end of each run all processes have ended, the lock is free
                and no queue exists, unless a fact states otherwise.
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
