"""Queries or holds a write lock on a whole file.

    lock.py ask FILE                          prints the holder's pid (0 if there is no lock, -1 if the lock has no
                                              pid), the lock's start and its length
    lock.py hold FILE KIND SIGTERM            holds the lock until killed; prints "held" when it has the lock

KIND is process for a lock that belongs to the process, or description for a lock that belongs to the open file and has
no pid.
SIGTERM is the reaction to that signal: default, ignore, or release, which releases the lock, prints "released" and
continues.
"""

import fcntl
import os
import signal
import struct
import sys

FLOCK = "hhqqi4x"
F_OFD_SETLK = 37


def flock(kind):
    return struct.pack(FLOCK, kind, os.SEEK_SET, 0, 0, 0)


def main():
    fd = os.open(sys.argv[2], os.O_RDWR | os.O_CREAT, 0o644)
    if sys.argv[1] == "ask":
        kind, _, start, length, pid = struct.unpack(FLOCK, fcntl.fcntl(fd, fcntl.F_GETLK, flock(fcntl.F_WRLCK)))
        print(0 if kind == fcntl.F_UNLCK else pid, start, length)
        return
    set_lock = F_OFD_SETLK if sys.argv[3] == "description" else fcntl.F_SETLK
    if sys.argv[4] == "ignore":
        signal.signal(signal.SIGTERM, signal.SIG_IGN)
    if sys.argv[4] == "release":

        def release(*_):
            fcntl.fcntl(fd, set_lock, flock(fcntl.F_UNLCK))
            os.write(1, b"released\n")

        signal.signal(signal.SIGTERM, release)
    fcntl.fcntl(fd, set_lock, flock(fcntl.F_WRLCK))
    os.write(1, b"held\n")
    while True:
        signal.pause()


main()
