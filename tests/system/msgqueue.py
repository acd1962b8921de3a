"""Sends one message to the control queue of this IPC namespace: msgqueue.py TYPE TEXT [raw]

With raw, the text is sent without its terminating zero.
"""

import ctypes
import os
import sys

KEY = 23213
IPC_CREAT = 0o1000


def main():
    libc = ctypes.CDLL(None, use_errno=True)
    text = os.fsencode(sys.argv[2]) + (b"" if sys.argv[3:] == ["raw"] else b"\0")
    queue = libc.msgget(KEY, IPC_CREAT | 0o666)
    message = int(sys.argv[1]).to_bytes(8, "little") + text
    if queue < 0 or libc.msgsnd(queue, message, ctypes.c_size_t(len(text)), 0) != 0:
        sys.exit(os.strerror(ctypes.get_errno()))


main()
