"""Hosts of the fleet: processes of the program fleet, with up to 16 hosts each, that use the real client library."""

import os
import subprocess
import threading
import time
from pathlib import Path

MAX_HOSTS = 16  # handles of the library in one process
PATIENCE = 120.0


class Hosts:
    """Connected hosts; count is their number.

    hurried: divides the waits of the library's workers between two exchanges, such as the wait for the next check, by
    50. All hosts make their first check after the whole interval.
    speed: lets the monotonic clock of the hosts, and so these waits, run this many times as fast. Each host makes its
    first check at a random time. The times of events are those of this clock.
    first: the number of the first host.
    events: ("connected" | "lost" | "published", host, seconds of the hosts' monotonic clock), of all hosts.
    """

    def __init__(self, build, kind, url, count, user="default", password="none", hurried=False, first=0, speed=None):
        environment = dict(os.environ)
        if hurried or speed:
            environment["LD_PRELOAD"] = str(Path(build, "tests/libhurryshim.so"))
        if hurried:
            environment["HURRYSHIM_FILE"] = os.devnull
        if speed:
            environment |= {"HURRYSHIM_WORKER": str(speed), "HURRYSHIM_CLOCK": "1"}
        self.events = []
        self._done = []
        self._processes = []
        self._threads = []
        for start in range(0, count, MAX_HOSTS):
            command = ["./fleet", kind, url, user, password, str(min(MAX_HOSTS, count - start)), str(first + start)]
            process = subprocess.Popen(
                command, cwd=build, env=environment, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True
            )
            self._processes.append(process)
            self._threads.append(threading.Thread(target=self._read, args=(process,), daemon=True))
            self._threads[-1].start()
        self.wait("connected", count)

    def _read(self, process):
        for line in process.stdout:
            word, first, second = line.split()
            if word == "done":
                self._done.append((int(first), int(second)))
            else:
                self.events.append((word, int(first), float(second)))

    def times(self, word, since=0.0):
        """Returns the sorted times of an event: for each host, its first time at `since` or later."""
        found = {}
        for kind, number, when in list(self.events):
            if kind == word and when >= since:
                found.setdefault(number, when)
        return sorted(found.values())

    def wait(self, word, count, since=0.0):
        """Waits until the event has occurred at `count` hosts. Returns the times."""
        give_up = time.monotonic() + PATIENCE
        while len(found := self.times(word, since)) < count:
            if time.monotonic() > give_up:
                raise RuntimeError(f"{len(found)} of {count} hosts: {word}")
            time.sleep(0.02)
        return found

    def order(self, text):
        for process in self._processes:
            process.stdin.write(text + "\n")
            process.stdin.flush()

    def publish(self, names=1, seconds=0, fresh=False, refresh=False):
        """Makes all hosts publish. Returns the number of calls. All of them must succeed.

        refresh: with redis each host only puts the value, as the library does to refresh it."""
        self._done.clear()
        self.order(f"publish {names} {seconds} {int(fresh)} {int(refresh)}")
        while len(self._done) < len(self._processes):
            if any(process.poll() is not None for process in self._processes):
                raise RuntimeError("a process of the fleet ended")
            time.sleep(0.005)
        if failed := sum(failed for _, failed in self._done):
            raise RuntimeError(f"{failed} publications failed")
        return sum(calls for calls, _ in self._done)

    def end(self):
        for process in self._processes:
            process.stdin.close()
        for process, thread in zip(self._processes, self._threads, strict=True):
            process.wait()
            thread.join()
