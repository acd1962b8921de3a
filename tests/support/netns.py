"""Runs code of this process in a sandbox's network namespace. Only the calling
thread enters the namespace; the threads that it starts later are in it, too.

A socket stays in the namespace in which its thread was when it created the socket.
"""

import ctypes
import os
import threading

_CLONE_NEWNET = 0x40000000


def enter(sandbox):
    """Moves the calling thread into the sandbox's network namespace, permanently."""
    namespace = os.open(sandbox.path("/proc/1/ns/net"), os.O_RDONLY)
    try:
        assert ctypes.CDLL(None, use_errno=True).setns(namespace, _CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
    finally:
        os.close(namespace)


def inside(sandbox, function):
    """Runs `function` on a new thread in the sandbox's network namespace. Returns its result or raises its
    exception."""
    result, raised = [], []

    def work():
        try:
            enter(sandbox)
            result.append(function())
        except BaseException as error:
            raised.append(error)

    thread = threading.Thread(target=work)
    thread.start()
    thread.join()
    if raised:
        raise raised[0]
    return result[0]
