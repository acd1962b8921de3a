"""Waits for another process, and wakes it, through a word of shared memory (futex(2))."""

import ctypes

_libc = ctypes.CDLL(None, use_errno=True)
_SYS_FUTEX, _FUTEX_WAIT, _FUTEX_WAKE = 202, 0, 1


class _Timespec(ctypes.Structure):
    _fields_ = [("seconds", ctypes.c_long), ("nanoseconds", ctypes.c_long)]


def _address(structure, field):
    return ctypes.c_void_p(ctypes.addressof(structure) + getattr(type(structure), field).offset)


def wake(structure, field):
    """Wakes all waiters on the field of the ctypes structure."""
    _libc.syscall(_SYS_FUTEX, _address(structure, field), _FUTEX_WAKE, 1 << 20, None, None, 0)


def wait(structure, field, seen, patience):
    """Waits until the field differs from seen, for at most patience seconds. Returns whether it differs."""
    tenth = _Timespec(0, 100_000_000)
    while getattr(structure, field) == seen and patience > 0:
        _libc.syscall(_SYS_FUTEX, _address(structure, field), _FUTEX_WAIT, seen, ctypes.byref(tenth), None, 0)
        patience -= 0.1
    return getattr(structure, field) != seen
