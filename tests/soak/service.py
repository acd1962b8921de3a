"""One service with the open client library, in a sandbox of the system tests: its commands and its resources."""

import os
from pathlib import Path

import open_library
from host import BUILD, DIRECTORY, PlainHost
from records import ConsoleLog, UdpLog

PORTS = [443, 8443]


class Service(PlainHost):
    """`data`: the folder of the database and of the hosts file. It has the same path inside the sandbox."""

    def __init__(self, data, name):
        super().__init__()
        self.name = name
        self.database, self.hosts = f"{data}/rdb.db", f"{data}/hosts"
        self.install(*open_library.files(BUILD))
        self.udp = UdpLog(self.sandbox)
        self.log = self.udp
        self.pid = 0
        self.starts = 0
        self._process = None  # the process of a foreground run

    def _configure(self):
        urls = {"rdburl": f"sqlite://{self.database}", "dnsurl": f"hosts://{self.hosts}"}
        self.settings(hostname=self.name, logurl=self.log.url, **urls)

    def start_in_background(self):
        """Starts the service in the background, with the UDP log. Returns an error text, empty on success."""
        self.log = self.udp
        self._configure()
        said = self.command("-start")
        self._started()
        return "" if said == b"\n\nstart...\rStart success!\n\nfinished\n" else f"-start said {said!r}"

    def start_in_foreground(self):
        """Starts the service in the foreground, with its output on a pipe. Returns an error text, empty on success."""
        self.log = ConsoleLog()
        self._configure()
        self._process = self.log.process = self.sandbox.spawn("stdbuf", "-oL", "./addrpubd", "-run", cwd=DIRECTORY)
        self._process.wait_for_output(b"Start success!")
        self._started()
        return ""

    def _started(self):
        self.pid = int(self.pidfile())
        self.starts += 1

    def end(self):
        """Ends the service with -stop. Returns an error text, empty on success."""
        expected = b"\nstop addrpubd... pid = %d\n\naddrpubd stoped gracefully!\n\n" % self.pid
        said = self.command("-stop")
        if said != expected:
            return f"-stop said {said!r}"
        if self._process is not None and (status := self._process.wait()) != 0:
            return f"the console run ended with status {status}"
        self._process = None
        said = self.command("-status")
        if said != b"\naddrpubd not run!\n\n":
            return f"-status after -stop said {said!r}"
        return "" if int(self.pidfile()) == self.pid else "the pid file changed with -stop"

    def look(self):
        """Runs -status. Returns an error text, empty on success."""
        said = self.command("-status")
        return "" if said == b"\naddrpubd is runing!\n\n" else f"-status said {said!r}"

    def start_again(self):
        """Runs a second -start, which must be refused. Returns an error text, empty on success."""
        said = self.command("-start")
        expected = b"\naddrpubd alreay runging! pid = %d\n" % self.pid
        if said != expected:
            return f"a second -start said {said!r}"
        return "" if int(self.pidfile()) == self.pid else "the pid file changed with a second -start"

    def figures(self):
        """Returns memory in kB, descriptors, threads and processor seconds, or None if the service does not run."""
        try:
            process = self.sandbox.path(f"/proc/{self.pid}")
            fields = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
            times = (process / "stat").read_text().rsplit(")", 1)[1].split()
            return {
                "RssAnon": int(fields["RssAnon"].split()[0]),
                "VmData": int(fields["VmData"].split()[0]),
                "VmRSS": int(fields["VmRSS"].split()[0]),
                "descriptors": len(os.listdir(process / "fd")),
                "threads": int(fields["Threads"]),
                "cpu": (int(times[11]) + int(times[12])) / os.sysconf("SC_CLK_TCK"),
            }
        except (OSError, KeyError, ValueError):
            return None

    def left_behind(self):
        """Returns what should not have remained after the stop, and the number of lost datagrams, as texts."""
        found = []
        entries = [entry for entry in os.listdir(self.sandbox.path("/proc")) if entry.isdigit() and entry != "1"]
        for entry in entries:
            command = self.sandbox.path(f"/proc/{entry}/cmdline").read_bytes()
            if command:
                found.append(f"process {entry}: {command!r}")
        if len(self.sandbox.path("/proc/sysvipc/msg").read_text().splitlines()) > 1:
            found.append("a message queue")
        if self.pidfile() != b"%d\n" % self.pid:
            found.append("another text in the pid file")
        data = Path(self.database).parent
        expected = {"rdb.db", "rdb.db-shm", "rdb.db-wal", "hosts", ".hosts.addrpubd.lock"}
        found += [f"the file {name}" for name in os.listdir(data) if name not in expected]
        if self.udp.lost():
            found.append(f"{self.udp.lost()} datagrams that the log server lost")
        return found
