"""Sends several signals at the same time: stops the process, sends the signals to its threads, and continues the
process.

signals_at_once.py PID SIGNAL:THREAD...     THREAD is the index of a thread of the process, 0 for the main thread
"""

import ctypes
import os
import signal
import sys
from pathlib import Path

SYS_TGKILL = 234


def main():
    pid = int(sys.argv[1])
    os.kill(pid, signal.SIGSTOP)
    while Path(f"/proc/{pid}/stat").read_text().rsplit(") ", 1)[1][0] != "T":
        pass
    threads = sorted(int(name) for name in os.listdir(f"/proc/{pid}/task"))
    for word in sys.argv[2:]:
        number, thread = map(int, word.split(":"))
        assert ctypes.CDLL(None).syscall(SYS_TGKILL, pid, threads[thread], number) == 0
    os.kill(pid, signal.SIGCONT)


main()
