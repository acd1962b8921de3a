"""One host of the soak: a service in a sandbox, random events, and checks of how the service reacts.

A round is a series of changes, in most rounds together with a disturbance, a command or an edit of the hosts file. Then
the addresses stay unchanged until the database and the hosts file have the list. They must have it within a time limit.
"""

import random
import threading
import time

from activities import Activities, Deck
from addresses import Addresses, as_value
from database import Database
from figures import Figures
from hostsfile import HostsFile
from rdb_client import Syslog
from service import Service
from troubles import FOUND_AGAIN, Troubles, fill
from witness import Witness

#  A cycle begins at most 10.1 s after the previous cycle (docs/user/operations.md). The rest allows for delays of the
#  machine.
LATE = 10.9
LOOK = 0.05  # seconds between two checks while waiting
CALLS_END = 5.2  # seconds after a disturbance; by then every call that it delayed has ended
LINK = """
ip link add soak0 type veth peer name soak1
cd /proc/sys/net/ipv6/conf/soak0
echo 1 >addr_gen_mode
echo 0 >accept_dad
echo 2 >use_tempaddr
echo 1 >../soak1/addr_gen_mode
ip link set soak0 up
ip link set soak1 up
"""


class Life:
    """`restart`: seconds from a start to the next restart, or None. `tiny`: whether the data is on a small file system,
    which is filled at times."""

    def __init__(self, title, data, seed, seconds, restart=None, tiny=False):
        self.title, self.complaints, self._data = title, [], data
        self._random = random.Random(seed)
        self._end_at = time.monotonic() + seconds
        self._restart_after, self._foreground = restart, False
        self.service = Service(data, f"{title}.example")
        self.syslog = Syslog(self.service.sandbox)
        self.addresses = Addresses(self.service.sandbox, self._make_link())
        self.troubles = Troubles()
        self.witness = Witness(self.service.name, self.addresses.ledger, self.troubles, self.complain)
        self.hosts = HostsFile(self.service.hosts, self.service.name, seed, self.complain)
        self.database = Database(self.service.database, self.service.name, self.complain, self._disk_is_full)
        self._activities = Activities(self.addresses, seed)
        extras = [self._nothing, self._lock, self.hosts.edit, self._status, self._second_start, self.hosts.edit]
        self._extras = Deck([*extras, self._full] if tiny else extras, self._random)
        self.figures = Figures(self.service, seconds)
        self.started = 0.0  # time of the last start of the service
        self.checks = self.restarts = self.commands = 0
        self.worst = {"untroubled": 0.0, "troubled": 0.0}  # maximum seconds from the last change, start or disturbance
        self.most = 0  # maximum number of addresses to publish
        self.size = 0  # size of the database in kB at the end of the soak
        self.thread = threading.Thread(target=self._run, name=title)

    def _make_link(self):
        self.service.sandbox.run("/bin/sh", "-e", "-c", LINK)
        return int(self.service.sandbox.run("ip", "-o", "link", "show", "dev", "soak0").split(b":")[0])

    def close(self):
        """Ends the sandbox and all its programs."""
        self.addresses.close()
        self.service.close()

    def complain(self, text):
        self.complaints.append(f"{time.strftime('%H:%M:%S')} {self.title}: {text}")

    def _disk_is_full(self):
        now = time.time()
        return self.troubles.near(now - 1, now, 1, ("full",)) is not None

    #  The run

    def _run(self):
        try:
            self._live()
        except Exception as error:
            self.complain(f"the soak itself failed: {error!r}")
            raise

    def _live(self):
        self._activities.begin()
        self._start()
        self._settle()
        self.database.watch()
        while time.monotonic() < self._end_at:
            self._extras.draw()()
            self._activities.next()
            if self._restart_after and time.time() - self.started > self._restart_after:
                self._restart()
            self.troubles.wait()
            self._settle()
        self._finish()

    def _finish(self):
        self.database.end()
        self.hosts.end()
        self._stop()
        self.size = self.database.check_whole()
        for thing in self.service.left_behind():
            self.complain(f"left behind: {thing}")
        self._check_syslog()
        for growth in self.figures.growths(self.size):
            self.complain(growth)

    #  Commands

    def _say(self, wrong):
        self.commands += 1
        if wrong:
            self.complain(wrong)

    def _start(self):
        self.witness.begin_run()
        self._say(self.service.start_in_foreground() if self._foreground else self.service.start_in_background())
        self.started = time.time()

    def _stop(self):
        self._say(self.service.end())
        time.sleep(0.2)  # a datagram reaches the receiver a moment later
        self.witness.take_records(self.service.log.take())
        self.witness.end_run()

    def _restart(self):
        with self.troubles.during("restart"):
            self._stop()
            self._activities.few()
            self._activities.pause(self._random.uniform(0, 3))
            self._foreground = not self._foreground
            self._start()
        self.restarts += 1

    def _nothing(self):
        pass

    def _status(self):
        self._say(self.service.look())

    def _second_start(self):
        self._say(self.service.start_again())

    #  Disturbances

    def _lock(self):
        seconds = self._random.uniform(3, 15)
        self._activities.few()
        self.troubles.begin("lock", lambda: self.database.lock(seconds))

    def _full(self):
        seconds = self._random.uniform(5, 20)
        self._activities.few()
        self.troubles.begin("full", lambda: fill(self._data, seconds))

    #  Checks

    def _settle(self):
        """Waits until both files have the list. Then checks all log records and file contents."""
        looks = 0
        while True:
            looks += 1
            self.addresses.look()
            self.witness.take_blocks_later(self.hosts.blocks())
            self.witness.take_records(self.service.log.take())
            listed = self.addresses.listed()
            self.most = max(self.most, len(listed))
            now = time.time()
            end = self.troubles.last_end()
            if now > end + CALLS_END and self._agrees(listed):
                break
            since = max(self.addresses.ledger.last_change(), self.started)
            if now > max(since + LATE, end + FOUND_AGAIN + LATE if end else 0.0):
                self._complain_of(listed)
                break
            time.sleep(LOOK)
        if looks > 1:
            self._note_delay(now, end)
        self.troubles.all_is_well()
        self._judge_all()
        self.figures.sample()
        self.checks += 1

    def _agrees(self, listed):
        if not all(self.witness.connected.values()) or self.database.value() != as_value(listed):
            return False
        return self.hosts.block() == self._block(listed)

    #  If the host has no address, the hosts file keeps its last lines. An address that is on two links has one line.
    def _block(self, listed):
        return list(dict.fromkeys(listed or self.witness.sent))

    def _complain_of(self, listed):
        value, block = self.database.value(), self.hosts.block()
        self.complain(
            f"too late: connected {self.witness.connected}, {len(listed)} addresses; the database "
            f"{'agrees' if value == as_value(listed) else 'has ' + str(value)[:200]}, the hosts file "
            f"{'agrees' if block == self._block(listed) else f'has {len(block)}'}; {' '.join(listed[:5])}"
        )

    def _note_delay(self, now, end):
        since = max(self.addresses.ledger.last_change(), self.started)
        kind = "troubled" if end else "untroubled"
        self.worst[kind] = max(self.worst[kind], now - max(since, end))

    def _judge_all(self):
        rows = self.database.new_rows()
        time.sleep(0.1)  # waits for the log record of the put that wrote the row
        self.witness.take_blocks_later(self.hosts.blocks())
        self.witness.take_records(self.service.log.take())
        self.witness.take_rows(rows + self.database.new_rows())
        self.witness.compare_puts_with_rows()
        self.witness.judge_blocks()
        self.hosts.check_others()
        if not self.checks % 10:
            self.database.check_whole()

    #  The library writes to syslog only the expected reasons of failures, and a line when a server works again.
    def _check_syslog(self):
        for line in self.syslog.lines("rdbapi: "):
            reason = line.split("rdbapi: ", 1)[1]
            known = ("works again", "database is locked", "disk", "No space", "unable to open", "not answered within")
            if not any(word in reason for word in known):
                self.complain(f"an unexpected line in syslog: {line}")
