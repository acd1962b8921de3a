"""Process 1 of a sandbox: it starts programs inside for the test outside.

It communicates over the SOCK_SEQPACKET socket whose descriptor is its only argument. Each request and each answer is
one JSON object; descriptors are passed as SCM_RIGHTS:

    {"op": "spawn", "argv", "env", "cwd", "tty", "uid", "umask"} + [stdin, stdout, stderr]  ->  {"pid"} + [pidfd]
    {"op": "adopt", "pid"}          ->  {"pid"} + [pidfd]     a process that the test did not start itself
    {"op": "status", "pid"}         ->  {"status"}            exit status, negative signal number, or null
    {"op": "kill", "pid", "signal"} ->  {}

When the test closes its end of the socket, this process ends, and with it all processes of the sandbox.
"""

import fcntl
import json
import os
import signal
import socket
import sys
import termios


def child(request, descriptors):
    """Executes the requested program. Never returns."""
    for number in (signal.SIGPIPE, signal.SIGXFSZ, signal.SIGINT):
        signal.signal(number, signal.SIG_DFL)
    for target, descriptor in enumerate(descriptors):
        os.dup2(descriptor, target)
    os.closerange(3, 1024)
    if request["tty"]:
        os.setsid()
        fcntl.ioctl(0, termios.TIOCSCTTY, 0)
    if request["umask"] is not None:
        os.umask(request["umask"])
    os.chdir(request["cwd"])
    if request["uid"]:
        os.setgroups([])
        os.setgid(request["uid"])
        os.setuid(request["uid"])
    os.execvpe(request["argv"][0], request["argv"], request["env"])


def spawn(request, descriptors):
    pid = os.fork()
    if pid == 0:
        try:
            child(request, descriptors)
        finally:
            os._exit(127)
    for descriptor in descriptors:
        os.close(descriptor)
    return pid


def main():
    sock = socket.socket(fileno=int(sys.argv[1]))
    ended = {}
    root = os.open("/", os.O_PATH)
    socket.send_fds(sock, [b"{}"], [root])
    while True:
        data, descriptors, _, _ = socket.recv_fds(sock, 1 << 17, 3)
        if not data:
            return
        request = json.loads(data)
        answer, passed = {}, []
        if request["op"] in ("spawn", "adopt"):
            answer["pid"] = spawn(request, descriptors) if request["op"] == "spawn" else request["pid"]
            passed = [os.pidfd_open(answer["pid"])]
        elif request["op"] == "kill":
            os.kill(request["pid"], request["signal"])
        else:
            try:
                while (reaped := os.waitpid(-1, os.WNOHANG))[0]:
                    ended[reaped[0]] = os.waitstatus_to_exitcode(reaped[1])
            except ChildProcessError:
                pass
            answer["status"] = ended.get(request["pid"])
        socket.send_fds(sock, [json.dumps(answer).encode()], passed)
        for descriptor in passed:
            os.close(descriptor)


main()
