"""The child of rdb_client.py: loads the client library given by its argument and makes the requested calls.

A line of standard input is one call, ["NAME", argument...]. A line of standard output is {"result": ...}, {"event":
..., "handle": ...} or {"reply": ..., "text": ...}. The program exits at the end of its input.
"""

import ctypes
import json
import os
import sys
import threading

_NOTIFY = ctypes.CFUNCTYPE(None, ctypes.c_int32, ctypes.c_int64, ctypes.c_void_p)
_REPLY = ctypes.CFUNCTYPE(None, ctypes.c_void_p, ctypes.c_int32, ctypes.c_void_p)


class Tag(ctypes.Structure):
    _fields_ = [
        ("reserved0", ctypes.c_uint8 * 4),
        ("valuetype", ctypes.c_uint8),
        ("reserved5", ctypes.c_uint8 * 7),
        ("name", ctypes.c_char * 80),
        ("reserved92", ctypes.c_uint8 * 97),
        ("tagclass", ctypes.c_uint8),
        ("reserved190", ctypes.c_uint8),
        ("importflag", ctypes.c_uint8),
        ("reserved192", ctypes.c_uint8 * 64),
    ]


class Snapshot(ctypes.Structure):
    _fields_ = [
        ("name", ctypes.c_char * 80),
        ("time", ctypes.c_int64),
        ("reserved88", ctypes.c_uint8 * 8),
        ("valuetype", ctypes.c_uint8),
        ("reserved97", ctypes.c_uint8 * 5),
        ("valuelen", ctypes.c_uint16),
        ("value", ctypes.c_char * 1000),
    ]


assert (ctypes.sizeof(Tag), ctypes.sizeof(Snapshot)) == (256, 1104)


class Library:
    """The calls, under the names used on standard input."""

    def __init__(self, path):
        self._functions = ctypes.CDLL(path)
        self._lock = threading.Lock()
        self._kept = []  # callbacks must exist until the process ends, because the library may use them

    def write(self, **record):
        line = json.dumps(record).encode() + b"\n"
        with self._lock:
            os.write(1, line)

    def create(self):
        return self._functions.rdb_create()

    def notify(self, handle):
        callback = _NOTIFY(lambda event, value, user: self.write(event=event, handle=handle))
        self._kept.append(callback)
        return self._functions.rdb_setmessagenotify(handle, callback, None)

    def connect(self, handle, url, user, password):
        return self._functions.rdb_connectex(handle, url.encode(), user.encode(), password.encode(), 0)

    def tagget(self, handle, name):
        tag = Tag(name=name.encode())
        code = self._functions.rdb_tagget(handle, ctypes.byref(tag))
        return [code, tag.tagclass, tag.valuetype]

    def taginport(self, handle, name):
        tag = Tag(name=name.encode(), valuetype=6, tagclass=2, importflag=1)
        figure = ctypes.c_int32()
        return self._functions.rdb_taginport(handle, 16, ctypes.byref(tag), ctypes.byref(figure))

    def put(self, handle, records):
        array = (Snapshot * len(records))()
        for record, (name, value) in zip(array, records, strict=True):
            text = value.encode()
            record.name, record.valuetype, record.valuelen, record.value = name.encode(), 6, len(text), text
        return self._functions.rdb_objputsnapshot(handle, array, len(records))

    def callmsg(self, handle, text, number):
        def reply(data, length, user):
            self.write(reply=number, text=ctypes.string_at(data, length).decode(errors="backslashreplace"))

        callback = _REPLY(reply)
        self._kept.append(callback)
        request = text.encode()
        return self._functions.rdb_callmsg(handle, request, len(request), callback, None)

    def disconnect(self, handle):
        return self._functions.rdb_disconnect(handle)

    def destroy(self, handle):
        return self._functions.rdb_destory(handle)


def main():
    library = Library(sys.argv[1])
    for line in sys.stdin:
        name, *arguments = json.loads(line)
        library.write(result=getattr(library, name)(*arguments))


main()
