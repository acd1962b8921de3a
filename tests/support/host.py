"""The host of a test: a sandbox with the executable (PlainHost), or also with an ini file, the recording client library
and the clock (Host).
"""

import datetime
import os
import shutil
from pathlib import Path

from clock import START, Clock
from recording import Recording
from sandbox import Sandbox

BUILD = Path(os.environ.get("ADDRPUBD_BUILD", "."))
DIRECTORY = "/mnt/addrpubd"
INI = DIRECTORY + "/addrpubd.ini"
INTERFACE_LIST = Path(__file__).with_name("interface_list.py")
LOCK = Path(__file__).with_name("lock.py")
PIDFILE = "/run/addrpubd.pid"
ACCESS_ERROR = b"Access Error! Please use root account!\n"

SETTINGS = {
    "hostname": "host1",
    "logurl": "stdout",
    "rdburl": "rdb://192.0.2.1:900",
    "rdbuser": "ruser",
    "rdbpswd": "rpass",
    "dnsurl": "dns://192.0.2.2:901",
    "dnsuser": "duser",
    "dnspswd": "dpass",
    "dnshttpsports": "443, 8443",
}
RDB, DNS = 0, 1  # handles of the two connections if both are configured


class PlainHost:
    """A sandbox with the executable, without a client library."""

    def __init__(self):
        self.sandbox = Sandbox()
        self.sandbox.path(DIRECTORY).mkdir()
        self.sandbox.path(DIRECTORY).chmod(0o755)
        self.install(BUILD / "addrpubd")

    def install(self, *files):
        """Copies files to the folder of the executable."""
        for file in files:
            shutil.copy(file, self.sandbox.path(DIRECTORY))
            self.sandbox.path(f"{DIRECTORY}/{file.name}").chmod(0o755)

    def close(self):
        self.sandbox.close()

    @property
    def env(self):
        """The environment of the programs that start() starts."""
        return {}

    def settings(self, **changed):
        """Writes the ini file: SETTINGS with these changes. The value None omits a key."""
        lines = [f"{key} = {value}\n" for key, value in (SETTINGS | changed).items() if value is not None]
        self.ini("".join(lines).encode())

    def ini(self, content):
        """Writes these bytes as the ini file; None removes it."""
        file = self.sandbox.path(INI)
        if content is None:
            file.unlink()
        else:
            file.write_bytes(content)

    def start(self, *words, **options):
        """Starts the executable in its own folder."""
        return self.sandbox.spawn("./addrpubd", *words, env=self.env | options.pop("env", {}), cwd=DIRECTORY, **options)

    def command(self, *words, **options):
        """Runs the executable until it exits. The exit status must be 0. Returns its output."""
        process = self.start(*words, **options)
        output = process.all_output()
        assert process.wait() == 0
        return output

    def interface_list(self):
        """Returns all IPv6 addresses of the sandbox in the order of getifaddrs, as texts."""
        return self.sandbox.run("/usr/bin/python3", "-I", "-S", INTERFACE_LIST).decode().split()

    def pidfile(self):
        return self.sandbox.path(PIDFILE).read_bytes()

    def lock_holder(self):
        """Returns the pid of the process that locks the pid file, as the kernel reports it in the sandbox: 0 if there
        is no lock, -1 if the lock has no pid."""
        pid, start, length = self.sandbox.run("/usr/bin/python3", "-I", "-S", LOCK, "ask", PIDFILE).split()
        assert pid == b"0" or (start, length) == (b"0", b"0"), "the lock covers the whole file"
        return int(pid)

    def hold_lock(self, kind="process", sigterm="default"):
        """Starts another process that holds the lock on the pid file (lock.py). Returns it as soon as it holds the
        lock."""
        process = self.sandbox.spawn("/usr/bin/python3", "-I", "-S", LOCK, "hold", PIDFILE, kind, sigterm)
        process.wait_for_output(b"held\n")
        return process

    def lock_holders(self):
        """Returns the pids of all holders of a lock on the pid file, as the kernel lists them. A holder without a pid
        is -1.

        The kernel produces its list in several parts. If a lock passes to another process meanwhile, both may be
        listed. So two identical lists in a row are required.
        """
        before, holders = None, self._listed_holders()
        while holders != before:
            before, holders = holders, self._listed_holders()
        return holders

    def _listed_holders(self):
        file = self.sandbox.path(PIDFILE)
        if not file.exists():
            return []
        status = file.stat()  # the list also has locks on other devices
        name = f"{os.major(status.st_dev):02x}:{os.minor(status.st_dev):02x}:{status.st_ino}"
        lines = [line.split() for line in self.sandbox.path("/proc/locks").read_text().splitlines()]
        return sorted({int(line[4]) for line in lines if line[1] != "->" and line[5] == name})


class Host(PlainHost):
    """A host with the recording client library. The clock of each program stops at its first sleep."""

    def __init__(self, wall_start_ns=START):
        super().__init__()
        self.wall_start_ns = wall_start_ns
        self.install(BUILD / "tests/recording/librdbapix64.so")
        self.clock = Clock(self.sandbox, BUILD / "tests/libclockshim.so", wall_start_ns)
        self.library = Recording(self.sandbox, DIRECTORY)
        self.settings()

    def close(self):
        self.library.close()
        super().close()

    @property
    def env(self):
        return self.clock.env | self.library.env

    def run(self, *connected, **options):
        """Starts the service in the foreground and waits for its first sleep. Then reports the given connections as
        connected.

        Returns the process and its clock control. No time has passed, and no cycle has run.
        """
        process = self.start("-run", **options)
        control = self.clock.of(process)
        control.wait_parked()
        self.library.connect(*connected)
        return process, control

    def stop(self, process):
        """Ends the service with SIGTERM, as -stop does. Returns all its output. Its exit status must be 0."""
        process.kill()
        output = process.all_output()
        assert process.wait() == 0
        return output

    def log(self, process):
        """Ends the service. Returns its log records without time stamps, from the first one after "Start success!" to
        the last one before the stop."""
        output = self.stop(process)
        records = output.split(b"\n")
        start = records.index(b"Start success!") + 2
        return [record[record.index(b"] [") + 2 :] for record in records[start:] if record.startswith(b"[")][:-1]

    def line(self, level, text, at=0.0):
        """Returns one record of the console log, as printed this many seconds after the start."""
        ns = self.wall_start_ns + round(at * 1_000_000_000)
        t = datetime.datetime.fromtimestamp(ns // 1_000_000_000)
        stamp = f"{t.year}/{t.month}/{t.day} {t:%H:%M:%S}.{ns % 1_000_000_000 // 1000:06d}"
        return f"[{stamp}] [{level}] ".encode() + text + b"\n"
