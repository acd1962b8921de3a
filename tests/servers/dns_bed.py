"""A DNS server, a proxy between client and server, and the open client library as the client, in one sandbox."""

import json
import shutil

import open_library
import pytest
from dns_proxy import Proxy
from dns_servers import HOST_KEY, NAME, ZONE, records, secret
from host import BUILD
from rdb_client import CONNECTED, RdbClient, Syslog
from sandbox import Sandbox, wait_until

LIBRARY = BUILD / "librdbapix64.so"
SHIM = BUILD / "tests/libhurryshim.so"
OK = 0
BAD_REQUEST = 1013
BACKEND_FAILED = 1014
SERVER_REFUSED = 1017


def require(Server):
    """Skips the test unless the server and dig are installed and the back end dns was built."""
    if not shutil.which(Server.program) or not shutil.which("dig"):
        pytest.skip(f"{Server.program} or dig is not installed ({Server.package}, bind9-dnsutils)")
    if not open_library.has(BUILD, "dns"):
        pytest.skip("the open client library was built without its back end dns")


class Fixture:
    """At first only the proxy runs, on port 5300. The test starts the server; connect() and new_client() start a client
    process."""

    def __init__(self, Server):
        self.sandbox = Sandbox()
        self.log = Syslog(self.sandbox)
        self.proxy = Proxy(self.sandbox)
        self.server = Server(self.sandbox)
        self.client = None
        self.handle = None
        self._seqno = 0

    def close(self):
        if self.client is not None:
            self.client.close()
        self.proxy.close()
        self.log.close()
        self.sandbox.close()

    def new_client(self, sockets=None, environment=None):
        self.client = RdbClient(self.sandbox, LIBRARY, SHIM, sockets, environment)
        self._seqno = 0
        return self.client

    def connect(self, options="", server="127.0.0.1", zone=ZONE, password=None, sockets=None, environment=None):
        """Creates a new client and starts to connect it."""
        self.new_client(sockets, environment)
        self._connection = (f"dns://{server}/{zone}{options}", HOST_KEY, password or secret(HOST_KEY))
        self.handle = self.client.open(*self._connection)

    def connect_anew(self):
        """Destroys the handle and connects another handle of the same client, whose back-off starts again."""
        assert self.client.destroy(self.handle) == 0
        self.handle = self.client.open(*self._connection)
        self.wait_connected()

    def connected(self, *arguments, **options):
        """Creates a new client, connects it and waits until it is connected."""
        self.connect(*arguments, **options)
        self.wait_connected()

    def wait_connected(self):
        self.client.wait_event(self.handle, CONNECTED)

    def wait_connected_again(self):
        """Waits until the client's last event is that it is connected."""
        wait_until(lambda: self.client.events(self.handle)[-1] == CONNECTED, "the connection")

    def change_server(self, **changed):
        """Sets attributes of the running server and makes the server use them."""
        for name, value in changed.items():
            setattr(self.server, name, value)
        self.server.reconfigure()

    def ask(self, addresses, ports=(), name=NAME):
        """Sends a request. Returns the ID of its reply."""
        self._seqno += 1
        item = {"name": name, "ipv6s": list(addresses), "httpsports": list(ports)}
        return self.client.request(
            self.handle, json.dumps({"request": "ws_dnsupdate", "seqno": self._seqno, "item": item})
        )

    def reply(self, number):
        """Waits for the reply to a request. Returns (code, message)."""
        reply = json.loads(self.client.wait_reply(number))
        assert reply["seqno"] == number
        return reply["code"], reply["message"]

    def update(self, addresses, ports=(), name=NAME):
        """Sends a request and waits for its reply. Returns (code, message)."""
        return self.reply(self.ask(addresses, ports, name))

    def holds(self, addresses, ports=(), **options):
        """Returns whether the server has exactly the records of this request."""
        return self.server.published() == records(addresses, ports, **options)

    def wait_held(self, addresses, ports=(), **options):
        """Waits until the server has exactly these records. The server must already work, because the client's
        first attempt must succeed."""
        self.client.wait_first_attempt(lambda: self.holds(addresses, ports, **options), f"{addresses} {ports}")

    def backoffs(self):
        """Returns the waits of the worker that have expired, in seconds as requested: pauses after failures and waits
        for a check."""
        return [asked / 1000 for asked, ran_out in self.client.waits() if ran_out]

    def wait_attempts(self, count):
        """Waits until this many further waits of the worker have expired."""
        before = len(self.backoffs())
        wait_until(lambda: len(self.backoffs()) >= before + count, f"{count} attempts")
