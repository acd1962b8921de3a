"""Work in a sandbox's network namespace from this process: a thread goes into it, and so do the threads that it starts.

A socket belongs for ever to the namespace that its thread was in when it made it.
"""

import ctypes
import os
import threading

_CLONE_NEWNET = 0x40000000


def enter(sandbox):
    """Takes the calling thread into the sandbox's network namespace, for good."""
    namespace = os.open(sandbox.path("/proc/1/ns/net"), os.O_RDONLY)
    try:
        assert ctypes.CDLL(None, use_errno=True).setns(namespace, _CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
    finally:
        os.close(namespace)


def inside(sandbox, function):
    """Runs function there, on a thread of its own, and returns its result or raises what it raised."""
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
