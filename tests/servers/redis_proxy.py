"""A proxy on port 6380 between a client and the Redis server on port 6379 of the same sandbox.

A line of standard input sets how the server's answers are passed on from then on:

    pass      unchanged
    drip      one byte at a time, each in a separate segment
    hold      answers are not passed on
    cut N     N more bytes are passed on. Then the connections to the client and to the server are closed, and the mode
              becomes pass
    first N   the first N bytes of each connection are passed on, and no bytes after them

Requests always pass. The proxy writes "." to standard output when it listens, and after each line that it has applied.
"""

import os
import select
import socket
import sys


class Proxy:
    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 6380))
        self.mode = "pass"
        self.left = 0
        self.partners = {}  # maps a socket to the socket of the other side
        self.clients = set()
        self.passed = {}  # maps a client's socket to the number of answer bytes passed on so far

    def accept(self):
        client, _ = self.listener.accept()
        try:
            server = socket.create_connection(("127.0.0.1", 6379))
        except OSError:
            client.close()
            return
        client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.partners |= {client: server, server: client}
        self.clients.add(client)
        self.passed[client] = 0

    def close(self, one):
        other = self.partners.pop(one)
        del self.partners[other]
        for side in (one, other):
            self.clients.discard(side)
            self.passed.pop(side, None)
            side.close()

    def carry(self, source):
        try:
            data = source.recv(1 << 16)
        except OSError:
            data = b""
        if not data:
            self.close(source)
            return
        target = self.partners[source]
        try:
            if target in self.clients:
                self.answer(target, data)
            else:
                target.sendall(data)
        except OSError:
            self.close(source)

    def answer(self, client, data):
        if self.mode == "hold":
            return
        if self.mode == "first":
            data = data[: max(0, self.left - self.passed[client])]
        self.passed[client] += len(data)
        if self.mode == "drip":
            for byte in data:
                client.sendall(bytes([byte]))
            return
        if self.mode == "cut":
            client.sendall(data[: self.left])
            self.left -= len(data)
            if self.left <= 0:
                self.mode = "pass"
                self.close(client)
            return
        client.sendall(data)

    def obey(self, line):
        self.mode, *number = line.split()
        self.left = int(number[0]) if number else 0
        os.write(1, b".")

    def run(self):
        os.write(1, b".")
        while True:
            for ready in select.select([0, self.listener, *self.partners], [], [])[0]:
                if ready == 0:
                    line = sys.stdin.readline()
                    if not line:
                        return
                    self.obey(line)
                elif ready is self.listener:
                    self.accept()
                elif ready in self.partners:
                    self.carry(ready)


Proxy().run()
