"""A client library under test in a child process of a sandbox, with its events, replies and syslog lines.

    log = Syslog(sandbox)                        # optional; create it before the programs that write to it
    client = RdbClient(sandbox, LIBRARY, SHIM)   # LIBRARY: a librdbapix64.so, SHIM: libhurryshim.so or None
    handle = client.open(url, user, password)    # create, notify and connect
    client.wait_event(handle, CONNECTED)
    assert client.put(handle, "host1", "2001:db8::1") == 0
    client.wait_reply(client.request(handle, text))
    client.close()                               # kills the child if it still runs

Each call is made on the child's main thread and returns the result of the library. Events and replies come from the
library's threads in the order of delivery. client.journal has all of them:

    {"event": CODE, "handle": H}
    {"reply": ID, "text": TEXT}        ID: the result of request()

With the shim, the worker's own waits last a fiftieth of their time by default, at least 1 ms. The shim records the
requested times (hurryshim.cpp). client.waits() lists them; client.attempts() lists the worker's actions between them.
Exchanges of messages with a server keep their real time limits. For servers that do not answer, sockets=N divides the
time limits of waits on sockets by N.
`environment` is added to the child's environment; an LD_PRELOAD in it is kept.

Syslog provides a separate /dev in the sandbox, with the usual devices and the socket /dev/log, which a thread of the
test reads. lines() returns the texts without priority and time, such as "python3: rdbapi: dns://...: works again".
"""

import contextlib
import json
import os
import re
import signal
import socket
import threading
import time
from pathlib import Path

from sandbox import PATIENCE, wait_until

AGENT = Path(__file__).with_name("rdb_client_agent.py")
LONGEST_WAIT = 60000  # ms; limit of a back-off and, by default, of the wait for the next check
LONGEST_BACKOFF_OF_SIX = 40000  # ms; limit of the back-off after six failures
CONNECTED = 60001
DISCONNECTED = 60003

_PRIVATE_DEV = """
set -e
mkdir /run/dev
mount -t tmpfs -o mode=755 tmpfs /run/dev
mkdir /run/dev/pts /run/dev/shm
for device in null zero full random urandom tty; do
    touch /run/dev/$device
    mount --bind /dev/$device /run/dev/$device
done
mount --bind /dev/pts /run/dev/pts
ln -s /proc/self/fd /run/dev/fd
ln -s pts/ptmx /run/dev/ptmx
mount --move /run/dev /dev
"""
_MARK = b"read up to here"
_HEADER = re.compile(r"^<(\d+)>(?:\w{3} [ \d]\d \d\d:\d\d:\d\d )?")


class Syslog:
    """The syslog messages of the programs of one sandbox. At most one object per sandbox."""

    def __init__(self, sandbox, reading=True):
        sandbox.run("/bin/sh", "-c", _PRIVATE_DEV)
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(sandbox.path("/dev/log")))
        sandbox.path("/dev/log").chmod(0o666)
        self._marker = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._marker.connect(self._socket.getsockname())
        self._texts = []
        self._mark_read = threading.Event()
        self._thread = threading.Thread(target=self._read, daemon=True)
        if reading:
            self._thread.start()

    def _read(self):
        while data := self._socket.recv(1 << 16):
            if data == _MARK:
                self._mark_read.set()
            else:
                self._texts.append(data.rstrip(b"\n\0").decode(errors="backslashreplace"))

    def fill(self):
        """Fills the socket, like a daemon that does not read. A program that waits for room in the socket would wait
        forever."""
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as sender:
            sender.setblocking(False)
            sender.connect(self._socket.getsockname())
            with contextlib.suppress(BlockingIOError):
                while True:
                    sender.send(b"<27>full")

    def read(self):
        """Starts to read the socket."""
        self._thread.start()

    def raw(self):
        """Returns all texts so far, with priority and time. Texts that were sent before this call are included."""
        if self._thread.is_alive():
            self._mark_read.clear()
            self._marker.send(_MARK)
            assert self._mark_read.wait(PATIENCE), "the messages of syslog are not read"
        return list(self._texts)

    def lines(self, part=""):
        """Returns the texts so far that contain `part`, without priority and time."""
        return [line for text in self.raw() if part in (line := _HEADER.sub("", text))]

    def wait(self, part, count=1):
        """Waits until at least `count` lines contain `part`. Returns these lines."""
        return wait_until(lambda: found if len(found := self.lines(part)) >= count else None, f"syslog: {part!r}")

    def close(self):
        self._socket.shutdown(socket.SHUT_RDWR)
        if self._thread.ident is not None:
            self._thread.join()
        self._marker.close()
        self._socket.close()


class RdbClient:
    _count = 0

    def __init__(self, sandbox, library, shim=None, sockets=None, environment=None):
        RdbClient._count += 1
        self._waits = f"/mnt/waits.{RdbClient._count}"
        environment = dict(environment or {})
        if shim is not None:
            preloaded = environment.get("LD_PRELOAD")
            environment["LD_PRELOAD"] = f"{shim} {preloaded}" if preloaded else str(shim)
            environment["HURRYSHIM_FILE"] = self._waits
        if sockets is not None:
            environment["HURRYSHIM_SOCKETS"] = str(sockets)
        inside, self._commands = os.pipe()
        argv = ["/usr/bin/python3", "-I", "-S", AGENT, Path(library).resolve()]
        self._sandbox = sandbox
        self.process = sandbox.spawn(*argv, env=environment, stdin=inside)
        os.close(inside)
        self._taken = 0  # bytes of the child's output that were processed
        self._results = []
        self._requests = 0
        self.journal = []

    def _read(self):
        output = self.process.output_so_far()
        end = output.rfind(b"\n") + 1
        for line in output[self._taken : end].splitlines():
            record = json.loads(line)
            (self._results if "result" in record else self.journal).append(record)
        self._taken = end

    def _call(self, name, *arguments):
        os.write(self._commands, json.dumps([name, *arguments]).encode() + b"\n")
        give_up = time.monotonic() + PATIENCE
        while not self._results:
            assert time.monotonic() < give_up, f"{name} did not return"
            assert self.process.running(), f"{name} ended the child: {self.process.output_so_far()[self._taken :]!r}"
            time.sleep(0.001)
            self._read()
        return self._results.pop(0)["result"]

    def create(self):
        return self._call("create")

    def notify(self, handle):
        return self._call("notify", handle)

    def connect(self, handle, url, user, password):
        return self._call("connect", handle, url, user, password)

    def tagget(self, handle, name):
        """Returns (code, tag class, value type)."""
        return tuple(self._call("tagget", handle, name))

    def taginport(self, handle, name):
        return self._call("taginport", handle, name)

    def put(self, handle, name, value):
        return self.put_all(handle, [(name, value)])

    def put_all(self, handle, records):
        """Puts several values, (name, value), in one call."""
        return self._call("put", handle, records)

    def callmsg(self, handle, text):
        """Returns (code, ID of the reply)."""
        self._requests += 1
        return self._call("callmsg", handle, text, self._requests), self._requests

    def disconnect(self, handle):
        return self._call("disconnect", handle)

    def destroy(self, handle):
        return self._call("destroy", handle)

    def open(self, url, user, password):
        """Returns a new handle that is connecting."""
        handle = self.create()
        assert handle >= 0
        assert self.notify(handle) == 0
        assert self.connect(handle, url, user, password) == 0
        return handle

    def request(self, handle, text):
        """Makes a callmsg, which must be accepted. Returns the ID of the reply."""
        code, number = self.callmsg(handle, text)
        assert code == 0, f"rdb_callmsg: {code}"
        return number

    def events(self, handle):
        """Returns the event codes of a handle so far."""
        self._read()
        return [record["event"] for record in self.journal if record.get("handle") == handle]

    def replies(self):
        """Returns the replies so far as (ID, text)."""
        self._read()
        return [(record["reply"], record["text"]) for record in self.journal if "reply" in record]

    def wait_event(self, handle, code, count=1):
        """Waits until the handle has had the event at least `count` times in total."""
        wait_until(lambda: self.events(handle).count(code) >= count, f"event {code} of handle {handle}")

    def wait_reply(self, number):
        """Waits for the reply to a request. Returns its text."""
        found = wait_until(lambda: [t for n, t in self.replies() if n == number], f"the reply to request {number}")
        return found[0]

    def _wait_lines(self):
        file = self._sandbox.path(self._waits)
        return [line.split() for line in file.read_text().splitlines()] if file.exists() else []

    def waits(self):
        """Returns the worker's waits that have ended. Each is (requested milliseconds, whether the time expired)."""
        return [(int(asked), result == "0") for _, asked, *ended in self._wait_lines() for result in ended]

    def now(self):
        """Returns the number of lines that the shim has recorded: the current position, for attempts()."""
        return len(self._wait_lines())

    def attempts(self, since):
        """Returns the worker's own attempts after the position `since`. These are attempts that started
        after an expired wait and have ended. Each is represented by the milliseconds of the wait that follows it.
        """
        found, busy = [], False
        for what, asked, *result in self._wait_lines()[since:]:
            if what == "begin" and busy:
                found.append(int(asked))
            busy = what == "end" and result == ["0"]
        return found

    def wait_first_attempt(self, held, what, since=None):
        """Waits until held() is true. It must become true by the worker's first own attempt after the position
        `since` (default: now).

        held() must be true when the attempt has ended. The worker then waits: after a failed attempt for its back-off,
        after a successful one for the next check. From the seventh failure on, the back-off may be as long as the wait
        for a check. Then the length of the wait does not show success, only held() does. No wait exceeds a minute.
        """
        since = self.now() if since is None else since

        def condition():
            ended = self.attempts(since)
            result = held()
            assert result or not ended, f"an attempt ended without {what}, the next one is to come in {ended[0]} ms"
            return result

        wait_until(condition, what)
        in_vain = [asked for asked in self.attempts(since) if asked <= LONGEST_BACKOFF_OF_SIX]
        assert not in_vain, f"attempts ended without {what}, the next ones came in {in_vain} ms"
        assert all(asked <= LONGEST_WAIT for asked, _ in self.waits())

    def close(self):
        if self._commands is not None:
            os.close(self._commands)
        self._commands = None
        if self.process.running():
            self.process.kill(signal.SIGKILL)
            self.process.wait()
