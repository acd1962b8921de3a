"""One service in a sandbox: its folder, its commands, its resources."""

import os
import shutil
from pathlib import Path

import open_library
from records import ConsoleLog, UdpLog
from sandbox import wait_until

PID_FILE = "/run/addrpubd.pid"
PORTS = [443, 8443]


class Service:
    """folder has the same path inside the sandbox. data is the folder of the database and of the hosts file."""

    def __init__(self, sandbox, build, folder, data, name):
        self.sandbox, self.name = sandbox, name
        self.folder = Path(folder)
        self.database, self.hosts = f"{data}/rdb.db", f"{data}/hosts"
        self.folder.mkdir()
        shutil.copy(Path(build, "addrpubd"), self.folder)
        open_library.install(build, self.folder)
        self.udp = UdpLog(sandbox)
        self.log = self.udp
        self.pid = 0
        self.starts = 0
        self._process = None  # the process of a foreground run

    def _configure(self):
        (self.folder / "addrpubd.ini").write_text(
            f"hostname = {self.name}\ndnshttpsports = {', '.join(map(str, PORTS))}\nlogurl = {self.log.url}\n"
            f"rdburl = sqlite://{self.database}\nrdbuser = soak\nrdbpswd = soak\n"
            f"dnsurl = hosts://{self.hosts}\ndnsuser = soak\ndnspswd = soak\n"
        )

    def command(self, word):
        """Runs the executable with a command word. Returns its output."""
        return self.sandbox.run("./addrpubd", word, cwd=self.folder).decode()

    def start(self):
        """Starts the service in the background, with the UDP log. Returns an error text, empty on success."""
        self.log = self.udp
        self._configure()
        said = self.command("-start")
        self._started()
        return "" if said == "\n\nstart...\rStart success!\n\nfinished\n" else f"-start said {said!r}"

    def run(self):
        """Starts the service in the foreground, with its output in a file. Returns an error text, empty on success."""
        self.log = ConsoleLog(self.folder / f"console{self.starts}")
        self._configure()
        words = f"exec stdbuf -oL ./addrpubd -run >console{self.starts} 2>&1"
        self._process = self.sandbox.spawn("/bin/sh", "-c", words, cwd=self.folder)
        wait_until(self.log.has_started, "the console run")
        self._started()
        return ""

    def _started(self):
        self.pid = self.recorded_pid()
        self.starts += 1

    def recorded_pid(self):
        return int(self.sandbox.path(PID_FILE).read_text())

    def stop(self):
        """Ends the service with -stop. Returns an error text, empty on success."""
        expected = f"\nstop addrpubd... pid = {self.pid}\n\naddrpubd stoped gracefully!\n\n"
        said = self.command("-stop")
        if said != expected:
            return f"-stop said {said!r}"
        if self._process is not None and (status := self._process.wait()) != 0:
            return f"the console run ended with status {status}"
        self._process = None
        said = self.command("-status")
        if said != "\naddrpubd not run!\n\n":
            return f"-status after -stop said {said!r}"
        return "" if self.recorded_pid() == self.pid else "the pid file changed with -stop"

    def look(self):
        """Runs -status. Returns an error text, empty on success."""
        said = self.command("-status")
        return "" if said == "\naddrpubd is runing!\n\n" else f"-status said {said!r}"

    def start_again(self):
        """Runs a second -start, which must be refused. Returns an error text, empty on success."""
        said = self.command("-start")
        expected = f"\naddrpubd alreay runging! pid = {self.pid}\n"
        if said != expected:
            return f"a second -start said {said!r}"
        return "" if self.recorded_pid() == self.pid else "the pid file changed with a second -start"

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
        """Returns the names of things that should not remain after the stop."""
        found = []
        entries = [entry for entry in os.listdir(self.sandbox.path("/proc")) if entry.isdigit() and entry != "1"]
        for entry in entries:
            command = self.sandbox.path(f"/proc/{entry}/cmdline").read_bytes()
            if command:
                found.append(f"process {entry}: {command!r}")
        if len(self.sandbox.path("/proc/sysvipc/msg").read_text().splitlines()) > 1:
            found.append("a message queue")
        if self.sandbox.path(PID_FILE).read_text() != f"{self.pid}\n":
            found.append("another text in the pid file")
        data = Path(self.database).parent
        expected = {"rdb.db", "rdb.db-shm", "rdb.db-wal", "hosts", ".hosts.addrpubd.lock"}
        found += [f"the file {name}" for name in os.listdir(data) if name not in expected]
        if self.udp.lost():
            found.append(f"{self.udp.lost()} datagrams that the log server lost")
        return found
