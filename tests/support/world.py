"""A host, its network and both servers, with a model beside it that lives through the same.

    world = World(addresses=["2001:db8::1"])    # conditions; ini keys may follow
    world.start()
    world.up(RDB, DNS)
    world.run(10)
    assert world.puts() == [(0.1, b"2001:db8::1")]
    world.end()                                 # compares everything that happened with the model

Whatever is done to the world is done to the service and to the model. The service stands still in between.
"""

import datetime
import os
import shutil

import surroundings
from clock import SECOND, START
from cycle_model import DNS, RDB, CycleModel
from host import BUILD, DIRECTORY, SETTINGS, Host
from journal import UNTOUCHED, Journal
from network import LO, Network
from recording import CONNECTED, DISCONNECTED, snapshot

__all__ = ["DNS", "RDB", "World", "utc"]


class World:
    def __init__(self, addresses=(), wall_start_ns=START, **settings):
        self.host = Host(wall_start_ns)
        self.sandbox = self.host.sandbox
        shutil.copy(BUILD / "tests/journal/librdbapix64.so", self.sandbox.path(DIRECTORY))
        self.network = Network(self.sandbox)
        self.journal = Journal(self.sandbox, DIRECTORY)
        self.settings = SETTINGS | settings
        self.host.settings(**settings)
        self.wall_start_ns = wall_start_ns
        self.process = self.hand = self.model = None
        self.network.add(*addresses)

    def close(self):
        self.network.close()
        self.host.close()

    #  The service

    def start(self):
        """Starts the service on the console. It and the model stand at its first sleep, with no server connected."""
        assert self.process is None, "ended, or started twice"
        earlier, self.model = self.model, CycleModel(self.settings, self.wall_start_ns)
        if earlier is not None:  # the servers and what they have seen outlive the service
            self.model.calls = self.journal.calls()
            self.model.answers = earlier.answers
            self.model.query_class, self.model.import_class = earlier.query_class, earlier.import_class
        self.process = self.host.start("-run", env=self.journal.env)
        self.hand = self.host.clock.of(self.process)
        self.hand.wait_parked()
        self.model.start()
        self.look()

    def end(self, signal_number=15):
        """Ends the service and compares all calls and all output with the model's."""
        self.process.kill(signal_number)
        output = self.process.all_output()
        assert self.process.wait() == 0
        self.process = None
        self.model.end(signal_number)
        self.compare_calls()
        assert output.splitlines() == bytes(self.model.output).splitlines()
        assert output == self.model.output

    def finish(self):
        """Ends the service if it has not been ended; it must not have ended by itself."""
        if self.process is not None:
            assert self.process.running(), "the service ended by itself"
            self.end()

    def compare_calls(self):
        """Compares all calls so far with the model's, one by one to keep a failure short."""
        calls = self.journal.calls()
        for place, (call, expected) in enumerate(zip(calls, self.model.calls, strict=False)):
            assert call == expected, f"call {place}"
        assert len(calls) == len(self.model.calls)

    def run(self, seconds):
        """Lets this much time pass."""
        self.hand.advance(seconds)
        self.model.run(seconds)
        self.process.output_so_far()  # empties the pipe

    #  What happens to the host

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
        """Sets the wall clock by this much, back when negative."""
        self.hand.step(seconds)
        self.model.wall_step += round(seconds * SECOND)

    def set_clock(self, seconds):
        """Sets the wall clock to this many seconds since the epoch."""
        self.step(seconds - self.wall_ns() / SECOND)

    def allow_listing(self, allowed):
        """Whether the service can list its addresses: it needs a descriptor for that."""
        limit = "1024" if allowed else "0"
        self.sandbox.run("prlimit", "--pid", str(self.process.pid), f"--nofile={limit}:")
        self.look(allowed)

    def look(self, allowed=True):
        """Tells the model what the network has become."""
        self.model.addresses = self.network.addresses() if allowed else None

    #  What the servers do

    def up(self, *servers):
        for server in servers:
            self.event(server, CONNECTED)

    def down(self, *servers):
        for server in servers:
            self.event(server, DISCONNECTED)

    def event(self, server, code):
        self.journal.event(self._handle(server), code)
        self.model.event(server, code)

    def reply(self, text):
        self.journal.reply(text)
        self.model.reply(text)

    def answer(self, function, result):
        """What the function returns from now on."""
        self.journal.answer(function, result)
        self.model.answers[function] = result

    def tag_class(self, queried=2, imported=UNTOUCHED):
        """The class that the tag is found with, and has after an import, from now on."""
        self.journal.tag_class(queried, imported)
        self.model.query_class, self.model.import_class = queried, imported

    def _handle(self, server):
        return 1 if server == DNS and self.settings["rdburl"] else 0

    #  What is seen of the service

    def wall_ns(self):
        return self.model.wall_ns()

    def elapsed(self, wall_ns):
        return round((wall_ns - self.wall_start_ns) / SECOND, 3)

    def seen(self, *functions):
        """All calls of these functions, with the seconds from the start as the wall clock counts them."""
        calls = [call for call in self.journal.calls() if call.function in functions]
        return [(self.elapsed(call.wall_ns), call) for call in calls]

    def names(self):
        """The functions called since the start was complete."""
        calls = [call.function for call in self.journal.calls()]
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
        """What must not grow: the process's own memory in kB, its descriptors and its threads.

        Under memcheck the memory is memcheck's, which looks for what is lost itself.
        """
        process = self.sandbox.path(f"/proc/{self.process.pid}")
        fields = dict(line.split(":", 1) for line in (process / "status").read_text().splitlines())
        kinds = () if surroundings.MEMCHECK else ("RssAnon", "VmData")
        memory = {name: int(fields[name].split()[0]) for name in kinds}
        return memory | {"descriptors": len(os.listdir(process / "fd")), "threads": int(fields["Threads"])}


def utc(*fields):
    """Seconds since the epoch of a moment in UTC."""
    return int(datetime.datetime(*fields, tzinfo=datetime.timezone.utc).timestamp())
