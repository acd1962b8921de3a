"""A TCP proxy in a sandbox between a client and a DNS server. It can refuse, truncate, delay or replace answers.

    proxy = Proxy(sandbox)                   # listens on 127.0.0.1:5300, forwards to 127.0.0.1:53
    proxy.behaviour = cut(20)
    proxy.exchanges                          # the exchanges so far, one for each query

A behaviour is a function of one Exchange. A thread of the proxy calls it for each query, in the sandbox's network
namespace. If the function returns False, the connection is closed.
"""

import contextlib
import socket
import threading

from netns import enter
from sandbox import PATIENCE

_OPCODE_UPDATE = 5  # RFC 2136 section 1.3


class Exchange:
    def __init__(self, proxy, client, query):
        self._proxy = proxy
        self._client = client
        self.query = query  # with the two bytes of its length

    @property
    def is_update(self):
        return self.query[4] >> 3 & 15 == _OPCODE_UPDATE

    def ask(self, length=None):
        """Sends the query, or its first `length` bytes, to the server. Returns the connection."""
        server = socket.create_connection(self._proxy.server, PATIENCE)
        server.sendall(self.query[:length])
        return server

    def answer(self):
        """Returns the server's answer, including the two bytes of its length."""
        with self.ask() as server:
            return _message(server)

    def send(self, data):
        self._client.sendall(data)

    def wait_for_client(self):
        """Waits until the client closes its connection."""
        self._client.settimeout(PATIENCE)
        self._client.recv(1)


def _exactly(connection, length):
    data = b""
    while len(data) < length:
        piece = connection.recv(length - len(data))
        if not piece:
            raise ConnectionError
        data += piece
    return data


def _message(connection):
    head = _exactly(connection, 2)
    return head + _exactly(connection, int.from_bytes(head, "big"))


def forward(exchange):
    exchange.send(exchange.answer())


def refuse(exchange):
    """Closes the connection at once. Also makes the proxy close each new connection at once."""
    return False


def drip(exchange):
    """Sends the answer byte by byte."""
    for byte in exchange.answer():
        exchange.send(bytes([byte]))


def silent(exchange):
    exchange.wait_for_client()
    return False


def cut(length):
    """Sends this many bytes of the answer and closes the connection."""

    def behaviour(exchange):
        exchange.send(exchange.answer()[:length])
        return False

    return behaviour


def instead(data):
    """Sends these bytes instead of an answer."""

    def behaviour(exchange):
        exchange.send(data)
        return False

    return behaviour


class Proxy:
    def __init__(self, sandbox, port=5300, server=("127.0.0.1", 53)):
        self.server = server
        self.behaviour = forward
        self.exchanges = []
        self._sandbox = sandbox
        self._ready = threading.Event()
        self._open = set()
        self._threads = [threading.Thread(target=self._accept, args=(port,), daemon=True)]
        self._threads[0].start()
        assert self._ready.wait(PATIENCE)

    def _accept(self, port):
        #  Threads that this thread starts use the same namespace.
        enter(self._sandbox)
        self._listener = socket.create_server(("127.0.0.1", port))
        self._ready.set()
        while True:
            try:
                client = self._listener.accept()[0]
            except OSError:
                return
            self._open.add(client)
            thread = threading.Thread(target=self._serve, args=(client,), daemon=True)
            self._threads.append(thread)
            thread.start()

    def _serve(self, client):
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            while self.behaviour is not refuse:
                exchange = Exchange(self, client, _message(client))
                self.exchanges.append(exchange)
                if self.behaviour(exchange) is False:
                    break
        except OSError:  # the client or the server closed the connection
            pass
        finally:
            self._open.discard(client)
            client.close()

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for client in list(self._open):
            with contextlib.suppress(OSError):  # already closed
                client.shutdown(socket.SHUT_RDWR)
        for thread in self._threads:
            thread.join(PATIENCE)
