"""What the soak does to the service's files, and for how long that may be seen in the log.

    with troubles.during("lock"): ...
"""

import contextlib
import errno
import os
import re
import threading
import time
from dataclasses import dataclass

#  docs/user/operations.md: the library finds a server again at most so long after it is back. In seconds.
FOUND_AGAIN = 60.0
KINDS = ("lock", "full", "restart")
#  A call that began before the end of a trouble may end with an error so much later: as long as the longest call.
ERRORS_AFTER = 5.0

#  The errors that a database or a hosts file that cannot be written explains: docs/user/codes.md.
_EXPLAINED = re.compile(
    r"rdb_(tagget|taginport|objputsnapshot) \S+ failed, errcode (1005|1008|1014)"
    r"|updateDomain errorcode 1005"
    r"|(rdb|dns) server \S+ disconnected\."
)


@dataclass
class Trouble:
    kind: str
    start: float
    end: float = float("inf")
    over: float = float("inf")  # when all was seen to be well again


class Troubles:
    def __init__(self):
        self.all = []
        self._threads = []

    @contextlib.contextmanager
    def during(self, kind):
        trouble = Trouble(kind, time.time())
        self.all.append(trouble)
        try:
            yield
        finally:
            trouble.end = time.time()

    def begin(self, kind, action):
        """Runs action on a thread of its own, as a trouble of this kind."""

        def work():
            with self.during(kind):
                action()

        thread = threading.Thread(target=work)
        thread.start()
        self._threads.append(thread)

    def wait(self):
        """Waits until all of them are over."""
        for thread in self._threads:
            thread.join()
        self._threads.clear()

    def count(self, kind):
        return sum(trouble.kind == kind for trouble in self.all)

    def near(self, low, high, after, kinds=KINDS):
        """The start of the first trouble that could be felt between the two moments; None when there is none."""
        starts = [
            trouble.start
            for trouble in self.all
            if trouble.kind in kinds and trouble.start <= high and min(trouble.end + after, trouble.over) >= low
        ]
        return min(starts, default=None)

    def last_end(self):
        """When the last trouble ended that is not over; 0 when there is none."""
        return max((trouble.end for trouble in self.all if trouble.over == float("inf")), default=0.0)

    def all_is_well(self):
        """What was troubled works again. Calls that were begun before have ended as well."""
        now = time.time()
        for trouble in self.all:
            if trouble.end + ERRORS_AFTER < now:
                trouble.over = min(trouble.over, now)

    def explain(self, text, moment):
        """Tells whether an error in the log comes from a trouble with the files."""
        if _EXPLAINED.fullmatch(text) is None:
            return False
        return self.near(moment, moment, ERRORS_AFTER, ("lock", "full")) is not None


def fill(folder, seconds):
    """Leaves no byte on the folder's file system for so long. What is removed there meanwhile is taken as well."""
    path = f"{folder}/filler"
    until = time.monotonic() + seconds
    with open(path, "wb", buffering=0) as file:
        while time.monotonic() < until:
            for size in (1 << 16, 1 << 12):
                _write_all(file.fileno(), bytes(size))
            time.sleep(0.02)
    os.unlink(path)


def _write_all(descriptor, piece):
    try:
        while os.write(descriptor, piece) > 0:
            pass
    except OSError as error:
        if error.errno != errno.ENOSPC:
            raise
