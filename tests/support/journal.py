"""The test's interface to the journal client library. journal_rdb.h describes the shared memory and the file."""

import ctypes
import mmap
import struct
from typing import NamedTuple

import futex
from sandbox import PATIENCE

FUNCTIONS = (
    "rdb_create",
    "rdb_setmessagenotify",
    "rdb_connectex",
    "rdb_callmsg",
    "rdb_tagget",
    "rdb_taginport",
    "rdb_objputsnapshot",
    "rdb_disconnect",
    "rdb_destory",
)
UNTOUCHED = -1  # tag class if rdb_taginport does not change it
_ENTRY = struct.Struct("<qiiiiII")


class Call(NamedTuple):
    """One call of the client library. journal_rdb.h explains number and payload."""

    wall_ns: int
    function: str
    handle: int
    result: int
    number: int
    payload: bytes


class _Control(ctypes.Structure):
    _fields_ = [
        ("results", ctypes.c_int32 * len(FUNCTIONS)),
        ("query_class", ctypes.c_int32),
        ("import_class", ctypes.c_int32),
        ("unused", ctypes.c_int32),
        ("posted", ctypes.c_uint32),
        ("delivered", ctypes.c_uint32),
        ("post", ctypes.c_int32),
        ("handle", ctypes.c_int32),
        ("code", ctypes.c_int32),
        ("length", ctypes.c_int32),
        ("text", ctypes.c_char * 4024),
    ]


class Journal:
    """One journal library, in the folder of the sandbox from which the service loads it."""

    def __init__(self, sandbox, directory):
        self._file = sandbox.path(f"{directory}/rdb.journal")
        page = sandbox.path(f"{directory}/rdb.page")
        page.write_bytes(bytes(ctypes.sizeof(_Control)))
        with page.open("r+b") as opened:
            self._control = _Control.from_buffer(mmap.mmap(opened.fileno(), ctypes.sizeof(_Control)))
        self._control.query_class = 2
        self._control.import_class = UNTOUCHED
        self.env = {
            "JOURNAL_RDB_FILE": f"{directory}/rdb.journal",
            "JOURNAL_RDB_CONTROL": f"{directory}/rdb.page",
        }

    def answer(self, function, result):
        """Sets the result of the function from now on."""
        self._control.results[FUNCTIONS.index(function)] = result

    def tag_class(self, queried=2, imported=UNTOUCHED):
        """Sets the tag classes that rdb_tagget and rdb_taginport store from now on."""
        self._control.query_class, self._control.import_class = queried, imported

    def event(self, handle, code):
        """Delivers an event on the library's thread. Returns when the service has handled it."""
        self._control.handle, self._control.code = handle, code
        self._post(0)

    def reply(self, text):
        """Delivers a reply to the last request."""
        assert len(text) <= ctypes.sizeof(self._control) - _Control.text.offset
        self._control.length = len(text)
        ctypes.memmove(ctypes.addressof(self._control) + _Control.text.offset, text, len(text))
        self._post(1)

    def _post(self, what):
        self._control.post = what
        before = self._control.delivered
        self._control.posted += 1
        futex.wake(self._control, "posted")
        assert futex.wait(self._control, "delivered", before, PATIENCE), "the library never delivered"

    def calls(self):
        """Returns all calls so far. All of them must come from the main thread."""
        content = self._file.read_bytes() if self._file.exists() else b""
        found, at = [], 0
        while at < len(content):
            wall, function, handle, result, number, size, main_thread = _ENTRY.unpack_from(content, at)
            at += _ENTRY.size
            assert main_thread == 1
            found.append(Call(wall, FUNCTIONS[function], handle, result, number, content[at : at + size]))
            at += size
        return found
