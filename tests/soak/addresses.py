"""The addresses of one sandbox, with a ledger of their changes. Also computes the list that the service has to
publish."""

import socket
import time

import cycle_model
from ledger import Ledger
from network import FOREVER, LO, MANAGE_TEMPORARY, Network

VALUE_LIMIT = 999  # bytes of a value in the database, docs/user/wire-formats.md


def as_value(listed):
    """Returns the database value for a list."""
    return (",".join(listed) or "null")[:VALUE_LIMIT]


def publishable(address):
    """Returns whether the service publishes the address, a text."""
    return cycle_model.publishable(socket.inet_pton(socket.AF_INET6, address))


def _text(address):
    return socket.inet_ntop(socket.AF_INET6, address)


class Addresses(Network):
    """Changes and records the addresses. An address with a lifetime disappears at the end of its lifetime; a temporary
    address disappears earlier if the address from which it was derived is removed. Only one thread may use an object.
    """

    def __init__(self, sandbox, veth):
        super().__init__(sandbox)
        self.links = (LO, veth)
        self.ledger = Ledger()
        self.mine = {}  # (link, address) -> prefix length, of the addresses that take() has to remove
        self._fading = {}  # (link, address) -> time at which it was last seen
        self._known = set(self._places())

    def put(self, address, link, preferred=FOREVER, valid=FOREVER, flags=0, prefix=128):
        """Adds an address. If the address expires or has temporary addresses, look() must be called repeatedly."""
        before = time.time()
        self.add_one(address, link, prefix, preferred, valid, flags)
        after = time.time()
        self.ledger.came(link, address, before, after)
        self._known.add((link, address))
        if valid == FOREVER:
            self.mine[link, address] = prefix
        else:
            self._fading[link, address] = after
        if flags & MANAGE_TEMPORARY:
            self._find_new(before)

    def take(self, link, address):
        prefix = self.mine.pop((link, address))
        before = time.time()
        self.remove(address, link=link, prefix=prefix)
        self.ledger.went(link, address, before, time.time())
        self._known.discard((link, address))
        if prefix != 128:
            self.look()

    def _find_new(self, before):
        places = self._places()
        now = time.time()
        for place in set(places) - self._known:
            self.ledger.came(*place, before, now)
            self._fading[place] = now
            self._known.add(place)

    def look(self):
        """Records which of the expiring addresses have disappeared."""
        if not self._fading:
            return
        now = time.time()
        places = set(self._places())
        after = time.time()
        for place, seen in list(self._fading.items()):
            if place in places:
                self._fading[place] = now
                continue
            del self._fading[place]
            self._known.discard(place)
            self.ledger.went(*place, seen, after)

    def listed(self):
        """Returns the list that the service has to publish now, in the right order."""
        return [text for address in self.addresses() if publishable(text := _text(address))]

    def _places(self):
        return [(link, _text(address)) for link, address in self.places()]
