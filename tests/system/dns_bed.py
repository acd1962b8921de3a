"""A DNS server, a proxy before it and the open client library as its client, all in one sandbox."""

import json
import shutil

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
    """Skips the test unless the server and its client are there."""
    if not shutil.which(Server.program) or not shutil.which("dig"):
        pytest.skip(f"{Server.program} or dig is not installed ({Server.package}, bind9-dnsutils)")
    if not LIBRARY.exists() or b"libldns" not in LIBRARY.read_bytes():
        pytest.skip("the open client library was built without its back end dns")


class Bed:
    """Nothing runs at first but the proxy, on port 5300; the client's child starts with its first connection."""

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
        """Begins to connect a new client."""
        self.new_client(sockets, environment)
        self._connection = (f"dns://{server}/{zone}{options}", HOST_KEY, password or secret(HOST_KEY))
        self.handle = self.client.open(*self._connection)

    def connect_anew(self):
        """Gives the handle back and connects another one of the same client, whose back-off begins anew."""
        assert self.client.destroy(self.handle) == 0
        self.handle = self.client.open(*self._connection)
        self.wait_connected()

    def connected(self, *arguments, **options):
        """Connects a new client and waits until it is."""
        self.connect(*arguments, **options)
        self.wait_connected()

    def wait_connected(self):
        self.client.wait_event(self.handle, CONNECTED)

    def wait_connected_again(self):
        """Waits until the newest event is that the client is connected."""
        wait_until(lambda: self.client.events(self.handle)[-1] == CONNECTED, "the connection")

    def change_server(self, **changed):
        """Sets attributes of the running server and makes it follow them."""
        for name, value in changed.items():
            setattr(self.server, name, value)
        self.server.reconfigure()

    def ask(self, addresses, ports=(), name=NAME):
        """Hands over a request. Returns the ID of its reply."""
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
        """Hands over a request and waits for its reply. Returns (code, message)."""
        return self.reply(self.ask(addresses, ports, name))

    def holds(self, addresses, ports=(), **options):
        """Tells whether the server holds exactly this."""
        return self.server.published() == records(addresses, ports, **options)

    def wait_held(self, addresses, ports=(), **options):
        """Waits until the server, which is as it should be, holds exactly this by the client's first attempt."""
        self.client.wait_first_attempt(lambda: self.holds(addresses, ports, **options), f"{addresses} {ports}")

    def backoffs(self):
        """The waits that ran out, in seconds, as they were asked for."""
        return [asked / 1000 for asked, ran_out in self.client.waits() if ran_out]

    def wait_attempts(self, count):
        """Waits until so many more back-off waits have run out."""
        before = len(self.backoffs())
        wait_until(lambda: len(self.backoffs()) >= before + count, f"{count} attempts")
