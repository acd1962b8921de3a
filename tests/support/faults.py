"""The test's interface to the fault shim. failshim.h describes the rules.

    faults = Faults(sandbox, library)
    plan = faults.plan("fcntl", 2, "once", "EIO")
    process = host.start("-run", env=faults.env(host.clock, plan))
    ...
    faults.reached()        # how often the plan made a call fail or stopped the process
"""

import errno
import shutil
import socket

INSIDE = "/mnt/libfailshim.so"
REACHED = "/mnt/failshim.reached"


def number_of(error):
    """Returns the number of an error. The error is the name of an errno, the name of a resolver error, or a number."""
    if hasattr(errno, error):
        return getattr(errno, error)
    return getattr(socket, error) if hasattr(socket, error) else int(error)


class Faults:
    def __init__(self, sandbox, library):
        self._reached = sandbox.path(REACHED)
        shutil.copy(library, sandbox.path(INSIDE))

    def plan(self, function, nth, how, error="0", where="first"):
        """Creates a plan and clears the count of the previous one."""
        self._reached.unlink(missing_ok=True)
        return f"{function} {nth} {how} {number_of(error)} {where}"

    def env(self, clock, plan):
        """Returns the environment for a plan. It preloads the fault shim before the clock shim."""
        preload = f"{INSIDE}:{clock.env['LD_PRELOAD']}"
        return {"LD_PRELOAD": preload, "FAILSHIM_PLAN": plan, "FAILSHIM_REACHED": REACHED}

    def reached(self):
        return len(self._reached.read_text().splitlines()) if self._reached.exists() else 0
