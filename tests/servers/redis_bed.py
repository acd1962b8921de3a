"""A Redis server, a proxy between client and server, and the open client library as the client, in one sandbox."""

import errno
import os
import shutil
import signal
import subprocess
from pathlib import Path

import open_library
import pytest
from host import BUILD
from rdb_client import CONNECTED, RdbClient, Syslog
from sandbox import Sandbox, wait_until

LIBRARY = BUILD / "librdbapix64.so"
SHIM = BUILD / "tests/libhurryshim.so"
PROXY = Path(__file__).with_name("redis_proxy.py")
DATA = "/mnt/redis"
REFUSED = os.strerror(errno.ECONNREFUSED)  # in the language of the programs under test (surroundings.py)


def require():
    """Skips the test unless the server and redis-cli are installed and the back end redis was built."""
    if not shutil.which("redis-server") or not shutil.which("redis-cli"):
        pytest.skip("redis-server or redis-cli is not installed (redis-server)")
    if not open_library.has(BUILD, "redis"):
        pytest.skip("the open client library was built without its back end redis")


class Server:
    """redis-server on port 6379 of an address. It stores nothing on disk unless its options request it."""

    def __init__(self, sandbox, address="127.0.0.1", folder=DATA):
        self._sandbox = sandbox
        self._address = address
        self._folder = folder
        self._socket = f"{folder}.sock"
        self._process = None
        self.program = ["redis-server"]
        self.login = []  # options with which command() logs in
        sandbox.path(folder).mkdir()

    def start(self, *options, answer="PONG"):
        """Starts the server. `answer`: first word of its answer to PING when it is ready for the test."""
        always = ["--port", "6379", "--bind", self._address, "--unixsocket", self._socket, "--dir", self._folder]
        always += ["--save", "", "--loglevel", "warning"]
        self._process = self._sandbox.spawn(*self.program, *always, *options)
        wait_until(lambda: self._ask("PING").split(" ")[0] == answer, "redis-server")

    def kill(self):
        """Kills the server. Data that is not on disk is lost."""
        self._process.kill(signal.SIGKILL)
        self._process.wait()

    def _ask(self, *words):
        command = ["redis-cli", "-s", self._sandbox.path(self._socket), *self.login, "--no-auth-warning", *words]
        return subprocess.run(command, capture_output=True, text=True, check=False).stdout.rstrip("\n")

    def command(self, *words):
        """Executes a command. Returns the answer as redis-cli prints it to a pipe: one line per element."""
        answer = self._ask(*(str(word) for word in words))
        assert not answer.startswith(("ERR", "NO", "WRONG")), (words, answer)
        return answer

    def value(self, name="host1", database=0):
        return self.command("-n", database, "HGET", f"rdb:value:{{{name}}}", "value")

    def history(self, name="host1"):
        """Returns the values of the history, oldest first."""
        entries = self.command("LRANGE", f"rdb:history:{{{name}}}", 0, -1).splitlines()
        return [entry.split(" ", 2)[2] for entry in entries]


class Proxy:
    """The program redis_proxy.py, on port 6380."""

    def __init__(self, sandbox):
        inside, self._orders = os.pipe()
        self._process = sandbox.spawn("/usr/bin/python3", "-I", "-S", PROXY, stdin=inside)
        os.close(inside)
        self._process.wait_for_output(b".")

    def close(self):
        os.close(self._orders)

    def order(self, mode):
        """Sets how the proxy passes on answers from now on."""
        before = len(self._process.output_so_far())
        os.write(self._orders, mode.encode() + b"\n")
        wait_until(lambda: len(self._process.output_so_far()) > before, "the proxy")


class Fixture:
    """At first no program runs. The test starts the server; connect() starts a client process, proxy() the proxy."""

    def __init__(self, reading=True):
        self.sandbox = Sandbox()
        self.log = Syslog(self.sandbox, reading)
        self.server = Server(self.sandbox)
        self.client = None
        self.handle = None
        self._proxy = None

    def close(self):
        self.end_client()
        if self._proxy is not None:
            self._proxy.close()
        self.log.close()
        self.sandbox.close()

    def end_client(self):
        """Kills the client, if it runs."""
        if self.client is not None:
            self.client.close()
        self.client = None

    def connect(
        self, rest="", user="default", password="any", port=6379, sockets=None, host="127.0.0.1", environment=None
    ):
        """Creates a client and starts to connect it."""
        self.client = RdbClient(self.sandbox, LIBRARY, SHIM, sockets, environment)
        self.handle = self.client.open(f"redis://{host}:{port}{rest}", user, password)

    def connected(self, *arguments, **options):
        """Creates a client, connects it and waits until it is connected."""
        self.connect(*arguments, **options)
        self.wait_connected()

    def wait_connected(self):
        """Waits until the client's last event is that it is connected."""
        wait_until(lambda: self.client.events(self.handle)[-1:] == [CONNECTED], "the connection")

    def register(self, value, name="host1"):
        """Imports the tag and puts a value. The service does the same if the tag does not exist."""
        assert self.client.taginport(self.handle, name) == 0
        assert self.put(value, name) == 0

    def put(self, value, name="host1"):
        return self.client.put(self.handle, name, value)

    def wait_held(self, value, name="host1", database=0, since=None):
        """Waits until the server has `value`. The client's first attempt after `since` must succeed. `since` is a
        result of client.now(); default: now."""
        self.client.wait_first_attempt(lambda: self.server.value(name, database) == value, value, since)

    def proxy(self, mode):
        """Sets how the proxy on port 6380 passes on answers; redis_proxy.py lists the modes."""
        if self._proxy is None:
            self._proxy = Proxy(self.sandbox)
        self._proxy.order(mode)
