"""The resources of a service, and whether they grow. They are measured while the service is idle and connected to
the database and the hosts file. At these times no call has a file open, so the service always has the same descriptors.
"""

import statistics
import time

WARM_UP = 180.0  # seconds after which no figure may grow; in a shorter soak, a third of its duration
SEVERAL = 3  # a figure is the median of this many samples

#  Allowed growth between the end of the warm-up and the end of a run. RssAnon and VmData are in kB. RssAnon grows when
#  the main thread and two threads of the client library need their maximum memory at the same time for the first time.
#  VmData grows because the C library keeps up to 1 MB of free memory. Both include memory that SQLite keeps for a
#  growing database; growths() adds the size of the database.
STRAY = {"RssAnon": 192, "VmData": 1024, "descriptors": 0, "threads": 0}
MEMORY = ("RssAnon", "VmData")


class Figures:
    """`seconds`: duration of the soak."""

    def __init__(self, service, seconds):
        self._service = service
        self._warm_up = min(WARM_UP, seconds / 3)
        self._runs = {}  # number of the start -> [(moment, figures)]

    def sample(self):
        if found := self._service.figures():
            self._runs.setdefault(self._service.starts, []).append((time.monotonic(), found))

    def last(self, name):
        samples = self._runs.get(self._service.starts)
        return samples[-1][1][name] if samples else 0

    def most(self, name):
        return max((found[name] for samples in self._runs.values() for _, found in samples), default=0)

    def processor_time(self):
        return sum(samples[-1][1]["cpu"] for samples in self._runs.values())

    def _course(self, name, samples):
        """Returns the figure after the warm-up, in the middle and at the end, or nothing if the run was too short."""
        after = [found[name] for moment, found in samples if moment >= samples[0][0] + self._warm_up]
        if len(after) < 2 * SEVERAL:
            return None
        middle = (len(after) - SEVERAL) // 2
        pieces = after[:SEVERAL], after[middle : middle + SEVERAL], after[-SEVERAL:]
        return [round(statistics.median(piece)) for piece in pieces]

    def growths(self, database):
        """Returns complaints about figures that grew in a run. `database`: size of the database in kB."""
        found = []
        for samples in self._runs.values():
            for name, stray in STRAY.items():
                course = self._course(name, samples)
                if course and course[2] > course[0] + stray + (database if name in MEMORY else 0):
                    found.append(f"{name} grew: {course}")
        return found

    def rows(self):
        """Returns the table rows for the longest run."""
        longest = max(self._runs.values(), key=len)
        courses = [(name, self._course(name, longest)) for name in STRAY]
        return [(f"{name} early, in the middle, late", ", ".join(map(str, c))) for name, c in courses if c]
