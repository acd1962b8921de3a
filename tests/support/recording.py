"""The test's interface to the recording client library. recording_control.cpp describes the commands and the file."""

import json
import socket
from types import SimpleNamespace

from sandbox import PATIENCE, wait_until

CONNECTED = 60001
DISCONNECTED = 60003

_HEX_FIELDS = ("url", "account", "password", "text", "record")


class Recording:
    """One recording library, in the folder of the sandbox from which the service loads it."""

    def __init__(self, sandbox, directory, name="rdb"):
        self._log = sandbox.path(f"{directory}/{name}.calls")
        self._control = sandbox.path(f"{directory}/{name}.control")
        self._script = sandbox.path(f"{directory}/{name}.script")
        self._script.write_text("")
        self._socket = None
        self._calls, self._read = [], 0  # the calls so far, and the bytes of the file that contain them
        self.env = {
            "RECORDING_RDB_LOG": f"{directory}/{name}.calls",
            "RECORDING_RDB_CONTROL": f"{directory}/{name}.control",
            "RECORDING_RDB_SCRIPT": f"{directory}/{name}.script",
        }

    def close(self):
        if self._socket is not None:
            self._socket.close()
        self._socket = None

    def before_start(self, *commands):
        """Sets commands that apply from the library's first call on, in all later runs."""
        with self._script.open("a") as script:
            script.writelines(command + "\n" for command in commands)

    def tell(self, command):
        """Sends a command to the running library and waits for its answer. Returns whether the library has executed the
        command."""
        try:
            return self._ask(command)
        except BrokenPipeError:  # the process of the connection has ended; another one runs
            self.close()
            return self._ask(command)

    def _ask(self, command):
        if self._socket is None:
            wait_until(self._control.exists, "the library's socket")
            self._socket = wait_until(self._connect, "the library to listen")
        self._socket.sendall(command.encode() + b"\n")
        return self._socket.recv(3) == b"ok\n"

    def _connect(self):
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        sock.settimeout(PATIENCE + 1)
        try:
            sock.connect(str(self._control))
        except ConnectionRefusedError:  # bound, not listening yet
            sock.close()
            return None
        return sock

    def event(self, handle, code, value=0):
        assert self.tell(f"event {handle} {code} {value}")

    def connect(self, *handles):
        for handle in handles:
            self.event(handle, CONNECTED)

    def disconnect(self, *handles):
        for handle in handles:
            self.event(handle, DISCONNECTED)

    def reply(self, text):
        """Delivers a reply to the last request that was not refused."""
        assert self.tell(f"reply {text.hex()}")

    def calls(self, *functions):
        """Returns all calls so far, or those of the named functions, in order. Texts and records are bytes."""
        if self._log.exists():
            with self._log.open("rb") as log:
                log.seek(self._read)
                new = log.read()
            self._read += len(new)
            for line in new.splitlines():
                fields = json.loads(line)
                fields |= {name: bytes.fromhex(fields[name]) for name in _HEX_FIELDS}
                self._calls.append(SimpleNamespace(**fields))
        return [call for call in self._calls if not functions or call.call in functions]

    def names(self):
        """Returns the calls so far as (function, handle)."""
        return [(call.call, call.handle) for call in self.calls()]

    def puts(self):
        """Returns the values put so far, taken from the snapshot records."""
        return [snapshot(call.record).value for call in self.calls("rdb_objputsnapshot")]

    def requests(self):
        """Returns the texts of the requests so far."""
        return [call.text for call in self.calls("rdb_callmsg")]


def snapshot(record):
    """Returns the fields of a snapshot record, except those that are always zero."""
    length = int.from_bytes(record[102:104], "little")
    return SimpleNamespace(
        name=record[:80].split(b"\0")[0],
        time=int.from_bytes(record[80:88], "little", signed=True),
        valuetype=record[96],
        length=length,
        value=record[104 : 104 + length],
    )


def expected_snapshot(name, value):
    """Returns the 1104 bytes of the record that puts `value` as the value of the tag `name`."""
    name, value = name[:79], value[:999]
    head = name.ljust(80, b"\0") + bytes(8) + bytes(8) + b"\6" + bytes(5) + len(value).to_bytes(2, "little")
    return head + value.ljust(1000, b"\0")


def expected_query(name):
    """Returns the 256 bytes of the record that queries the tag `name`."""
    return bytes(12) + name[:79].ljust(80, b"\0") + bytes(164)


def expected_import(name):
    """Returns the 256 bytes of the record that imports the tag `name`."""
    return bytes(4) + b"\6" + bytes(7) + name[:79].ljust(80, b"\0") + bytes(97) + b"\2" + b"\0" + b"\1" + bytes(64)
