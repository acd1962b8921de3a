"""The test's interface to the clock shim. clockshim.h describes the shared memory and its rules.

    clock = Clock(sandbox, library)         # before the programs start
    process = sandbox.spawn(..., env=clock.env)
    control = clock.of(process)
    control.advance(10)                     # returns when the program has done all work that is due in these 10 seconds
"""

import ctypes
import datetime
import mmap
import shutil

from sandbox import PATIENCE, wait_until

SLOTS = 63
SECOND = 1_000_000_000
START = int(datetime.datetime(2025, 4, 11, 9, 5, 3, tzinfo=datetime.timezone.utc).timestamp()) * SECOND + 42_117_000

_libc = ctypes.CDLL(None, use_errno=True)
_SYS_FUTEX, _FUTEX_WAIT, _FUTEX_WAKE = 202, 0, 1


class _Slot(ctypes.Structure):
    _fields_ = [
        ("pid", ctypes.c_int32),
        ("changed", ctypes.c_uint32),
        ("parked", ctypes.c_uint32),
        ("unused", ctypes.c_uint32),
        ("now", ctypes.c_int64),
        ("limit", ctypes.c_int64),
        ("wall_step", ctypes.c_int64),
        ("parked_limit", ctypes.c_int64),
        ("sleeps", ctypes.c_uint64),
        ("last_sleep", ctypes.c_int64),
    ]


class _Control(ctypes.Structure):
    _fields_ = [
        ("taken", ctypes.c_uint32),
        ("unused", ctypes.c_uint32),
        ("wall_start", ctypes.c_int64),
        ("initial_limit", ctypes.c_int64),
        ("reserved", ctypes.c_uint64 * 5),
        ("slots", _Slot * SLOTS),
    ]


class _Timespec(ctypes.Structure):
    _fields_ = [("seconds", ctypes.c_long), ("nanoseconds", ctypes.c_long)]


def _address(structure, field):
    return ctypes.c_void_p(ctypes.addressof(structure) + getattr(type(structure), field).offset)


class ClockControl:
    """Controls the clock of one process. Times are in seconds, with a resolution of one nanosecond; those whose names
    end in _ns are in nanoseconds."""

    def __init__(self, slot, process):
        self._slot = slot
        self._process = process

    @property
    def sleeps(self):
        return self._slot.sleeps

    @property
    def last_sleep_ns(self):
        return self._slot.last_sleep

    @property
    def now_ns(self):
        """Returns the nanoseconds that the process has slept. A child after fork continues with its parent's time."""
        return self._slot.now

    def wait_parked(self):
        """Waits until the process has done everything that is due by its time limit."""
        give_up = PATIENCE
        while (seen := self._slot.parked, self._slot.parked_limit != self._slot.limit)[1]:
            assert self._process.running(), f"the process ended: {self._process.output_so_far()!r}"
            assert give_up > 0, "the process never came to its limit"
            wait = _Timespec(0, SECOND // 10)
            _libc.syscall(_SYS_FUTEX, _address(self._slot, "parked"), _FUTEX_WAIT, seen, ctypes.byref(wait), None, 0)
            give_up -= 0.1

    def let_run(self, seconds):
        """Raises the time limit by this many seconds and returns at once."""
        self._slot.limit += round(seconds * SECOND)
        self._slot.changed += 1
        _libc.syscall(_SYS_FUTEX, _address(self._slot, "changed"), _FUTEX_WAKE, 1 << 20, None, None, 0)

    def advance(self, seconds):
        """Advances the clock by this many seconds and waits until the process has done all work that is due by then."""
        self.wait_parked()
        self.let_run(seconds)
        self.wait_parked()

    def step(self, seconds):
        """Changes the wall clock by this many seconds, which may be negative. Sleeps keep their length."""
        self._slot.wall_step += round(seconds * SECOND)


class Clock:
    """The clocks of all processes of a sandbox that are started with `env`. At first the time limit of each process is
    `initial_limit` seconds after wall_start_ns."""

    def __init__(self, sandbox, library, wall_start_ns=START, initial_limit=0):
        inside = "/mnt/libclockshim.so"
        shutil.copy(library, sandbox.path(inside))
        file = sandbox.path("/mnt/clock")
        file.write_bytes(bytes(ctypes.sizeof(_Control)))
        file.chmod(0o666)
        with file.open("r+b") as opened:
            self._map = mmap.mmap(opened.fileno(), ctypes.sizeof(_Control))
        self._control = _Control.from_buffer(self._map)
        self._control.wall_start = wall_start_ns
        self._control.initial_limit = round(initial_limit * SECOND)
        self.env = {"LD_PRELOAD": inside, "CLOCKSHIM_FILE": "/mnt/clock"}

    def of(self, process):
        """Returns the clock control of a process. Waits until the process has a clock."""
        slot = wait_until(lambda: self._slot_of(process.pid), f"the clock of process {process.pid}")
        return ClockControl(slot, process)

    def pids(self):
        """Returns the pids of all processes that have or had a clock of this sandbox, in the order in which they got
        it."""
        return [slot.pid for slot in self._control.slots if slot.pid]

    def _slot_of(self, pid):
        taken = [slot for slot in self._control.slots if slot.pid == pid]
        return taken[-1] if taken else None
