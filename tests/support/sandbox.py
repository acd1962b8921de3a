"""Private mount, IPC, network and PID namespaces for one test, and the programs that run in them.

In a sandbox, /run (and so /var/run) and /mnt are empty file systems in memory. lo is up with its two usual addresses.
There are no System V queues. Process 1 is sandbox_agent.py, which also becomes the parent of orphans. Programs in the
sandbox cannot affect the machine's own /run, queues, network and addresses.
"""

import fcntl
import json
import os
import pty
import select
import signal
import socket
import subprocess
import time
from pathlib import Path

import surroundings

AGENT = Path(__file__).with_name("sandbox_agent.py")
#  Seconds that a test waits for an event before it fails. A correct program does not reach this limit, except on an
#  overloaded machine.
PATIENCE = 30.0 * surroundings.PATIENCE
PIPE_SIZE = 1 << 20  # so large that no program under test waits until the test reads


def permitted():
    """Returns whether this process may create the namespaces."""
    command = ["unshare", "--mount", "--ipc", "--net", "--pid", "--fork", "--mount-proc", "true"]
    try:
        return os.geteuid() == 0 and subprocess.run(command, capture_output=True, check=False).returncode == 0
    except FileNotFoundError:
        return False


def wait_until(condition, what):
    """Calls condition() repeatedly and returns its first true result. Fails after PATIENCE seconds."""
    give_up = time.monotonic() + PATIENCE
    while not (result := condition()):
        assert time.monotonic() < give_up, f"at the time limit, still waiting for {what}"
        time.sleep(0.001)
    return result


class Process:
    """A program inside the sandbox. `pid` is its process number in the sandbox."""

    def __init__(self, sandbox, pid, pidfd, output):
        self.sandbox = sandbox
        self.pid = pid
        self._pidfd = pidfd
        self._output = output  # read end of the pipe or master of the terminal; None if it is not read
        self._seen = b""
        self._closed = output is None

    def _read(self, seconds):
        """Reads the available output. If there is none, waits at most the given time."""
        if self._closed or not select.select([self._output], [], [], seconds)[0]:
            return
        try:
            piece = os.read(self._output, 1 << 16)
        except OSError:  # a terminal whose other side is closed
            piece = b""
        self._seen += piece
        self._closed = not piece

    def output_so_far(self):
        """Returns all output bytes so far."""
        before = None
        while before != self._seen and not self._closed:
            before = self._seen
            self._read(0)
        return self._seen

    def wait_for_output(self, ending):
        """Waits until the output contains `ending`. Returns all output so far."""
        give_up = time.monotonic() + PATIENCE
        while ending not in self._seen:
            assert not self._closed and time.monotonic() < give_up, f"no {ending!r} in {self._seen!r}"
            self._read(0.1)
        return self._seen

    def all_output(self):
        """Returns all bytes of the output. Waits until no process can write to it any more."""
        give_up = time.monotonic() + PATIENCE
        while not self._closed:
            assert time.monotonic() < give_up, f"output never ended: {self._seen!r}"
            self._read(0.1)
        return self._seen

    def stop_reading(self):
        """Closes the test's end of the pipe. The program's next write to it causes SIGPIPE."""
        os.close(self._output)
        self._output, self._closed = None, True

    def type(self, keys):
        """Sends keys to the terminal."""
        os.write(self._output, keys)

    def running(self):
        return not select.select([self._pidfd], [], [], 0)[0]

    def kill(self, number=signal.SIGTERM):
        self.sandbox.request({"op": "kill", "pid": self.pid, "signal": int(number)})

    def wait(self):
        """Waits until the program ends. Returns the exit status, or the negative number of the signal that ended it."""
        assert select.select([self._pidfd], [], [], PATIENCE)[0], f"process {self.pid} did not end"
        return self.sandbox.status_of(self.pid)

    def close(self):
        os.close(self._pidfd)
        if self._output is not None:
            os.close(self._output)


class Sandbox:
    def __init__(self):
        ours, theirs = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self._socket = ours
        self._socket.settimeout(PATIENCE)
        self._processes = []
        self._place = surroundings.nowhere()
        command = ["unshare", "--mount", "--ipc", "--net", "--pid", "--fork", "--mount-proc"]
        command += ["/usr/bin/python3", "-I", "-S", str(AGENT), str(theirs.fileno())]
        self._unshare = subprocess.Popen(command, pass_fds=[theirs.fileno()], stdin=subprocess.DEVNULL)
        theirs.close()
        _, descriptors, _, _ = socket.recv_fds(self._socket, 16, 1)
        self._root = descriptors[0]
        self.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", "/run")
        self.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", "/mnt")
        self.run("ip", "link", "set", "lo", "up")
        self._place = surroundings.place_in(self)

    def close(self):
        for process in self._processes:
            process.close()
        self._socket.close()
        self._unshare.wait(PATIENCE)
        os.close(self._root)

    def request(self, message, descriptors=()):
        socket.send_fds(self._socket, [json.dumps(message).encode()], list(descriptors))
        data, passed, _, _ = socket.recv_fds(self._socket, 1 << 12, 1)
        return json.loads(data), passed

    def path(self, inside):
        """Returns the path outside the sandbox of a file inside. Paths with absolute symbolic links are not
        supported."""
        return Path(f"/proc/{os.getpid()}/fd/{self._root}{inside}")

    def spawn(self, *argv, env=None, cwd="/", tty=False, uid=0, umask=None, stdin=None, unread=False):
        """Starts a program. Its output goes to a pipe or, with `tty`, to a separate terminal.

        With `unread`, the read end of the pipe is closed before the program starts.
        """
        if tty:
            ours, theirs = pty.openpty()
        else:
            ours, theirs = os.pipe()
            fcntl.fcntl(ours, fcntl.F_SETPIPE_SZ, PIPE_SIZE)
        given = stdin if stdin is not None else (theirs if tty else os.open("/dev/null", os.O_RDONLY))
        environment = self._place.environment(argv, env or {})
        message = {"op": "spawn", "argv": self._place.command(argv, cwd), "env": environment}
        message |= {"cwd": str(cwd), "tty": tty, "uid": uid, "umask": umask}
        if unread:
            os.close(ours)
            ours = None
        answer, passed = self.request(message, [given, theirs, theirs])
        os.close(theirs)
        if given not in (theirs, stdin):
            os.close(given)
        process = Process(self, answer["pid"], passed[0], ours)
        self._processes.append(process)
        return process

    def adopt(self, pid):
        """Returns a process of the sandbox that the test did not start itself, such as a service in the background."""
        _, passed = self.request({"op": "adopt", "pid": pid})
        process = Process(self, pid, passed[0], None)
        self._processes.append(process)
        return process

    def status_of(self, pid):
        """Waits for the end of a child of process 1: a program that the test started, or an orphan. Returns its exit
        status, or the negative number of the signal that ended it."""
        found = wait_until(lambda: [s] if (s := self._status(pid)) is not None else None, f"the end of {pid}")
        return found[0]

    def _status(self, pid):
        return self.request({"op": "status", "pid": pid})[0]["status"]

    def result(self, *argv, **options):
        """Runs a program. Returns its exit status and its output."""
        process = self.spawn(*argv, **options)
        output = process.all_output()
        status = process.wait()
        self._processes.remove(process)
        process.close()
        return status, output

    def run(self, *argv, **options):
        """Runs a program, which must succeed. Returns its output."""
        status, output = self.result(*argv, **options)
        assert status == 0, f"{argv}: status {status}, output {output!r}"
        return output

    def add_address(self, address, device="lo", *options):
        """Adds an address to a device. It is usable at once, without duplicate address detection."""
        self.run("ip", "-6", "addr", "add", address, "dev", device, *options, "nodad")

    def remove_address(self, address, device="lo"):
        self.run("ip", "-6", "addr", "del", address, "dev", device)
