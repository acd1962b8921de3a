"""A reader of the hosts file, and an editor of the lines outside the service's block."""

import fcntl
import ipaddress
import os
import random
import re
import threading
from pathlib import Path

PAUSE = 0.02  # seconds between two checks


def own_pattern(name):
    return re.compile(rb"([0-9a-f:.]+) %b # addrpubd %b\n" % ((re.escape(name.encode()),) * 2))


def lines_of(text):
    return re.findall(rb"[^\n]*\n|[^\n]+", text)


def split(text, pattern):
    """Returns the addresses in the service's lines, and all other bytes."""
    own, foreign = [], []
    for line in lines_of(text):
        match = pattern.fullmatch(line)
        if match and _is_address(match[1].decode()):
            own.append(match[1].decode())
        else:
            foreign.append(line)
    return own, b"".join(foreign)


def _is_address(text):
    try:
        return bool(ipaddress.ip_address(text))
    except ValueError:
        return False


class HostsFile:
    """`path`: the hosts file of the service. `name`: its host name. `complain(text)` receives the errors."""

    def __init__(self, path, name, seed, complain):
        self.path = Path(path)
        self._lock_path = self.path.with_name(f".{self.path.name}.addrpubd.lock")
        self._name, self._pattern = name, own_pattern(name)
        self._random = random.Random(seed)
        self._complain = complain
        self._versions = [self._first_lines()]  # versions of the other lines, in the order in which they were written
        self.path.write_bytes(self._versions[0])
        self.reads = self.edits = 0
        self._blocks = set()  # blocks read since the last call of blocks()
        self._ending = threading.Event()
        self._thread = threading.Thread(target=self._watch, daemon=True)
        self._thread.start()

    def _first_lines(self):
        name = self._name
        almost = f"2001:db8::1 {name} # addrpubd {name} \n2001:db8::2  {name} # addrpubd {name}\n2001:db8::3 {name}\n"
        others = "127.0.0.1 localhost\r\n# caf\u00e9\n2001:db8::4 other # addrpubd other\n\n"
        return others.encode() + almost.encode() + b"# \xff\xfe no text, no end\n# "

    def end(self):
        self._ending.set()
        self._thread.join()

    def block(self):
        """Returns the addresses of the service's lines."""
        return split(self.path.read_bytes(), self._pattern)[0]

    def blocks(self):
        """Returns all blocks read since the last call, each as a tuple."""
        seen, self._blocks = self._blocks, set()
        return seen

    def _watch(self):
        last = None
        while not self._ending.wait(PAUSE):
            oldest = len(self._versions) - 1
            try:
                text = self.path.read_bytes()
            except OSError as error:
                self._complain(f"the hosts file cannot be read: {error}")
                continue
            self.reads += 1
            if text == last:
                continue
            last = text
            own, foreign = split(text, self._pattern)
            self._blocks.add(tuple(own))
            if foreign not in self._versions[max(oldest - 1, 0) :]:
                self._complain(f"the other lines of the hosts file have changed: {foreign[-300:]!r}")

    def check_others(self):
        foreign = split(self.path.read_bytes(), self._pattern)[1]
        if foreign != self._versions[-1]:
            self._complain(f"the other lines of the hosts file are not the newest version: {foreign[-300:]!r}")

    def edit(self):
        """Changes the other lines: appends a line or replaces the file."""
        if self._random.random() < 0.5:
            self._append()
        else:
            self._replace()
        self.edits += 1

    #  The line is written with a single write, so that a reader sees either the whole line or nothing.
    def _append(self):
        line = f"2001:db8:ffff::{self.edits:x} edited{self.edits}\n".encode()
        self._versions.append(self._versions[-1] + line)
        with self.path.open("ab", buffering=0) as file:
            file.write(line)

    #  Holds the lock of the client library, so that no block is written between the read and the replacement. Otherwise
    #  the replacement could restore an older block.
    def _replace(self):
        descriptor = os.open(self._lock_path, os.O_RDWR | os.O_CREAT, 0o600)
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX)
            text = self.path.read_bytes()
            new = self._shorten(text)
            self._versions.append(split(new, self._pattern)[1])
            fresh = self.path.with_name("editor.tmp")
            fresh.write_bytes(new)
            fresh.rename(self.path)
        finally:
            os.close(descriptor)

    def _stays(self, line):
        if line.startswith(b"# front"):
            return False
        return b" edited" not in line or self._random.random() < 0.7

    #  Removes some of the lines that _append has added, and replaces the line at the start that an earlier call has
    #  inserted.
    def _shorten(self, text):
        kept = [line for line in lines_of(text) if self._stays(line)]
        return b"# front %d\n" % self.edits + b"".join(kept)
