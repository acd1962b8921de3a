"""A scenario: a host with its network and both servers, and a model of the service.

    scenario = Scenario(addresses=["2001:db8::1"])    # may also have the start time and ini keys
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(10)
    assert scenario.puts() == [(0.1, b"2001:db8::1")]
    scenario.end()                                 # compares all calls and output with the model

Each event acts on both the service and the model. Between calls the service's clock does not advance.
"""

import datetime
import os

import surroundings
from clock import SECOND, START
from cycle_model import DNS, RDB, UNTOUCHED, Call, CycleModel
from host import SETTINGS, Host
from network import LO, Network
from recording import CONNECTED, DISCONNECTED, snapshot

__all__ = ["DNS", "RDB", "Scenario", "utc"]


class Scenario:
    def __init__(self, addresses=(), wall_start_ns=START, **settings):
        self.host = Host(wall_start_ns)
        self.sandbox = self.host.sandbox
        self.network = Network(self.sandbox)
        self.library = self.host.library
        self.settings = SETTINGS | settings
        self.host.settings(**settings)
        self.wall_start_ns = wall_start_ns
        self.process = self.control = self.model = None
        self.network.add(*addresses)

    def close(self):
        self.network.close()
        self.host.close()

    #  The service

    def start(self):
        """Starts the service in the foreground. Afterwards service and model are at their first sleep, and no server is
        connected."""
        assert self.process is None, "ended, or started twice"
        earlier, self.model = self.model, CycleModel(self.settings, self.wall_start_ns)
        if earlier is not None:  # the servers and their records are kept from the earlier run
            self.model.calls = self.calls()
            self.model.answers = earlier.answers
            self.model.query_class, self.model.import_class = earlier.query_class, earlier.import_class
        self.process = self.host.start("-run")
        self.control = self.host.clock.of(self.process)
        self.control.wait_parked()
        self.model.start()
        self.look()

    def end(self, signal_number=15):
        """Ends the service. Compares all its calls and all its output with those of the model."""
        self.process.kill(signal_number)
        output = self.process.all_output()
        assert self.process.wait() == 0
        self.process = None
        self.model.end(signal_number)
        self.compare_calls()
        assert output.splitlines() == bytes(self.model.output).splitlines()
        assert output == self.model.output

    def finish(self):
        """Ends the service if it still runs. Fails if it has ended by itself."""
        if self.process is not None:
            assert self.process.running(), "the service ended by itself"
            self.end()

    def compare_calls(self):
        """Compares all calls so far with the model's. They are compared one by one, so that a failure message is
        short."""
        calls = self.calls()
        for place, (call, expected) in enumerate(zip(calls, self.model.calls, strict=False)):
            assert call == expected, f"call {place}"
        assert len(calls) == len(self.model.calls)

    def run(self, seconds):
        """Runs the service and the model for this many seconds."""
        self.control.advance(seconds)
        self.model.run(seconds)
        self.process.output_so_far()  # empties the pipe

    #  Events of the host

    def add(self, *addresses, link=LO):
        self.network.add(*addresses, link=link)
        self.look()

    def remove(self, *addresses, link=LO):
        self.network.remove(*addresses, link=link)
        self.look()

    def set_link(self, link, up):
        self.network.set_link(link, up)
        self.look()

    def step(self, seconds):
        """Changes the wall clock by this many seconds, which may be negative."""
        self.control.step(seconds)
        self.model.wall_step += round(seconds * SECOND)

    def set_clock(self, seconds):
        """Sets the wall clock to this many seconds since the epoch."""
        self.step(seconds - self.wall_ns() / SECOND)

    def allow_listing(self, allowed):
        """Sets whether the service can list its addresses. The service needs a free descriptor to list them."""
        limit = "1024" if allowed else "0"
        self.sandbox.run("prlimit", "--pid", str(self.process.pid), f"--nofile={limit}:")
        self.look(allowed)

    def look(self, allowed=True):
        """Copies the addresses of the host to the model, or states there that they cannot be listed."""
        self.model.addresses = self.network.addresses() if allowed else None

    #  Events of the servers

    def up(self, *servers):
        for server in servers:
            self.event(server, CONNECTED)

    def down(self, *servers):
        for server in servers:
            self.event(server, DISCONNECTED)

    def event(self, server, code):
        self.library.event(self._handle(server), code)
        self.model.event(server, code)

    def reply(self, text):
        self.library.reply(text)
        self.model.reply(text)

    def answer(self, function, result):
        """Sets the result of the function from now on."""
        self._command(f"result {function} * {result}")
        self.model.answers[function] = result

    def tag_class(self, queried=2, imported=UNTOUCHED):
        """Sets the class of the tag in queries and after an import, from now on."""
        self._command(f"class rdb_tagget * {queried}", f"class rdb_taginport * {imported}")
        self.model.query_class, self.model.import_class = queried, imported

    def _command(self, *commands):
        """Gives commands to the library for all later runs and, if the service runs, for the current run."""
        self.library.before_start(*commands)
        if self.process is not None:
            assert all([self.library.tell(command) for command in commands])

    def _handle(self, server):
        return 1 if server == DNS and self.settings["rdburl"] else 0

    #  Calls of the service

    def calls(self):
        """Returns all calls of the service so far, in the form of the model's calls. All must come from the main
        thread."""
        calls = self.library.calls()
        assert all(call.main_thread for call in calls)
        return [Call.of(call) for call in calls]

    def wall_ns(self):
        return self.model.wall_ns()

    def elapsed(self, wall_ns):
        return round((wall_ns - self.wall_start_ns) / SECOND, 3)

    def seen(self, *functions):
        """Returns all calls of these functions, with their times in seconds since the start, by the wall clock."""
        calls = [Call.of(call) for call in self.library.calls(*functions)]
        return [(self.elapsed(call.wall_ns), call) for call in calls]

    def names(self):
        """Returns the names of the functions called, without those of the start at the beginning of the list."""
        calls = [call.call for call in self.library.calls()]
        while calls and calls[0] in ("rdb_create", "rdb_setmessagenotify", "rdb_connectex"):
            del calls[0]
        return calls

    def puts(self):
        return [(at, snapshot(call.payload).value) for at, call in self.seen("rdb_objputsnapshot")]

    def put_times(self):
        return [at for at, _ in self.puts()]

    def requests(self):
        return [(at, call.payload) for at, call in self.seen("rdb_callmsg")]

    def request_times(self):
        return [at for at, _ in self.requests()]

    def figures(self):
        """Returns the figures that must not grow: the process's own memory in kB, its descriptors and its threads.

        Under memcheck or an emulator the memory is that of the tool, so it is left out; memcheck itself detects leaks.
        """
        process = self.sandbox.path(f"/proc/{self.process.pid}")
        fields = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
        kinds = () if surroundings.MEMCHECK or surroundings.ARM64 else ("RssAnon", "VmData")
        memory = {name: int(fields[name].split()[0]) for name in kinds}
        return memory | {"descriptors": len(os.listdir(process / "fd")), "threads": int(fields["Threads"])}


def utc(*fields):
    """Returns the seconds since the epoch of a moment in UTC."""
    return int(datetime.datetime(*fields, tzinfo=datetime.timezone.utc).timestamp())
