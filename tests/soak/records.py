"""The log records of one service, from a UDP log server or from its console output.

    records.take() -> [Record, ...]     records since the last call

The time of a record from a datagram is the time at which the log server received the datagram. The time of a console
record is the time that the service has written into it.
"""

import datetime
import json
import re
import socket
import threading
import time
from dataclasses import dataclass

from netns import inside

LEVELS = {10: "err", 20: "wrn", 30: "inf", 31: "mor", 40: "dbg"}
_LINE = re.compile(r"\[(\d+/\d+/\d+ \d\d:\d\d:\d\d\.\d{6})\] \[(\w+)\] (.*)", re.DOTALL)
BUFFER = 64 << 20  # receive buffer in bytes, so large that no datagram is lost


@dataclass
class Record:
    time: float
    level: str  # empty for a console line that is not a record
    text: str


class UdpLog:
    """A log server in the sandbox's network."""

    def __init__(self, sandbox):
        self._socket = inside(sandbox, lambda: socket.socket(socket.AF_INET, socket.SOCK_DGRAM))
        self._socket.setsockopt(socket.SOL_SOCKET, 33, BUFFER)  # SO_RCVBUFFORCE
        self._socket.bind(("127.0.0.1", 0))
        self.url = f"udp://127.0.0.1:{self._socket.getsockname()[1]}/soak?level=dbg"
        self._records = []
        self._lock = threading.Lock()
        threading.Thread(target=self._receive, daemon=True).start()

    def _receive(self):
        while True:
            data = self._socket.recv(1 << 16)
            header, _, text = data.partition(b"\n")
            fields = json.loads(header)
            level = LEVELS[fields["level"]] if (fields["order"], fields["cabin"]) == ("wlog", "soak") else "?"
            with self._lock:
                self._records.append(Record(time.time(), level, text.decode()))

    def take(self):
        with self._lock:
            taken, self._records = self._records, []
        return taken

    def lost(self):
        """Returns the number of datagrams that the kernel dropped: SK_MEMINFO_DROPS of SO_MEMINFO."""
        return int.from_bytes(self._socket.getsockopt(socket.SOL_SOCKET, 55, 64)[32:36], "little")


class ConsoleLog:
    """The output of a foreground run. `process` is the process of the run; its output must be a pipe."""

    url = "stdout"

    def __init__(self):
        self.process = None
        self._taken = 0  # bytes

    def take(self):
        new = self.process.output_so_far()[self._taken :]
        new = new[: new.rfind(b"\n") + 1]
        self._taken += len(new)
        return self._records(new.decode().split("\n"))

    @staticmethod
    def _records(lines):
        found = []
        for line in lines:
            if match := _LINE.fullmatch(line):
                moment = datetime.datetime.strptime(match[1], "%Y/%m/%d %H:%M:%S.%f").timestamp()
                found.append(Record(moment, match[2], match[3]))
            elif line.strip():
                found.append(Record(0.0, "", line))
        return found
