"""Disturbances (locks, full disks, restarts), and how long each may affect the service.

    with troubles.during("lock"): ...
"""

import contextlib
import errno
import os
import re
import threading
import time
from dataclasses import dataclass

#  Maximum time in seconds until the library detects that a database or hosts file works again
#  (docs/user/operations.md).
FOUND_AGAIN = 60.0
KINDS = ("lock", "full", "restart")
#  A call that started before the end of a disturbance may fail later, but not later than this many seconds. The
#  longest call takes 3 s.
ERRORS_AFTER = 5.0

#  Errors whose cause is a database or hosts file that cannot be written (docs/user/codes.md).
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
    over: float = float("inf")  # time after which the disturbance has no effect


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
        """Runs `action` on a new thread. The action counts as a disturbance of this kind."""

        def work():
            with self.during(kind):
                action()

        thread = threading.Thread(target=work)
        thread.start()
        self._threads.append(thread)

    def wait(self):
        """Waits until all disturbances have ended."""
        for thread in self._threads:
            thread.join()
        self._threads.clear()

    def count(self, kind):
        return sum(trouble.kind == kind for trouble in self.all)

    def near(self, low, high, after, kinds=KINDS):
        """Returns the start of the first disturbance that may have an effect between `low` and `high`, or None. A
        disturbance may have an effect until `after` seconds after its end."""
        starts = [
            trouble.start
            for trouble in self.all
            if trouble.kind in kinds and trouble.start <= high and min(trouble.end + after, trouble.over) >= low
        ]
        return min(starts, default=None)

    def last_end(self):
        """Returns the end of the last disturbance that still has effects, or 0."""
        return max((trouble.end for trouble in self.all if trouble.over == float("inf")), default=0.0)

    def all_is_well(self):
        """Must be called when both files work again and all earlier calls of the library have ended. Disturbances that
        ended more than ERRORS_AFTER ago then have no further effect."""
        now = time.time()
        for trouble in self.all:
            if trouble.end + ERRORS_AFTER < now:
                trouble.over = min(trouble.over, now)

    def explain(self, text, moment):
        """Returns whether a lock or a full disk explains this error in the log."""
        if _EXPLAINED.fullmatch(text) is None:
            return False
        return self.near(moment, moment, ERRORS_AFTER, ("lock", "full")) is not None


def fill(folder, seconds):
    """Fills the folder's file system for this many seconds, including space that becomes free meanwhile."""
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
