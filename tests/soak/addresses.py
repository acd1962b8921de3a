"""The addresses of one sandbox. They are changed through netlink (rtnetlink(7)) and recorded in a ledger. Also computes
the list that the service has to publish.
"""

import ipaddress
import socket
import struct
import time

from ledger import Ledger
from network import LO, Network

FOREVER = 0xFFFFFFFF  # an infinite lifetime
MANAGE_TEMPORARY = 0x100  # IFA_F_MANAGETEMPADDR: the kernel also creates temporary addresses (RFC 8981)
_NODAD, _NO_PREFIX_ROUTE = 0x02, 0x200
_IFA_ADDRESS, _IFA_LOCAL, _IFA_CACHEINFO, _IFA_FLAGS = 1, 2, 6, 8
_RTM_NEWADDR, _RTM_DELADDR, _RTM_GETADDR = 20, 21, 22
_DONE = 3  # NLMSG_DONE
_DUMP = 0x300  # NLM_F_DUMP
_CREATE_NEW = 0x400 | 0x200
_IFADDRMSG = struct.Struct("=BBBBI")
VALUE_LIMIT = 999  # bytes of a value in the database, docs/user/wire-formats.md

_LEFT_OUT = [ipaddress.ip_network(text) for text in ("::1/128", "ff00::/8", "fe80::/9", "::ffff:0:0/96")]
_COMPATIBLE = ipaddress.ip_network("::/96")


def publishable(text):
    """Returns whether the service publishes the address (docs/user/operations.md). The unspecified address is not
    IPv4-compatible."""
    address = ipaddress.ip_address(text)
    if any(address in network for network in _LEFT_OUT):
        return False
    return address not in _COMPATIBLE or int(address) == 0


def as_value(listed):
    """Returns the database value for a list."""
    return (",".join(listed) or "null")[:VALUE_LIMIT]


class Addresses(Network):
    """Changes and records the addresses. An expiring address disappears at the end of its lifetime, or with the address
    from which it was derived. One thread only.
    """

    def __init__(self, sandbox, veth):
        super().__init__(sandbox)
        self.links = (LO, veth)
        self.ledger = Ledger()
        self.mine = {}  # (link, address) -> prefix length, of the addresses that are to be removed
        self._fading = {}  # (link, address) -> time at which it was last seen
        self._known = set(self._places())

    def put(self, address, link, preferred=FOREVER, valid=FOREVER, flags=0, prefix=128):
        """Adds an address. If it expires or has temporary addresses, look() must be called afterwards."""
        before = time.time()
        self._message(_RTM_NEWADDR, _CREATE_NEW, (link, address, prefix), (preferred, valid), flags)
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
        self._message(_RTM_DELADDR, 0, (link, address, prefix), (FOREVER, FOREVER), 0)
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
        texts = [socket.inet_ntop(socket.AF_INET6, address) for address in self.addresses()]
        return [text for text in texts if publishable(text)]

    def _places(self):
        """Returns all pairs (link, address)."""
        found = []
        self._send(_RTM_GETADDR, _DUMP, _IFADDRMSG.pack(socket.AF_INET6, 0, 0, 0, 0))
        while True:
            for kind, body in self._messages():
                if kind == _DONE:
                    return found
                link = _IFADDRMSG.unpack_from(body)[4]
                found.append((link, socket.inet_ntop(socket.AF_INET6, self._own_address(body))))

    def _message(self, kind, create, place, lifetimes, flags):
        link, address, prefix = place
        body = _IFADDRMSG.pack(socket.AF_INET6, prefix, 0, 0, link)
        packed = socket.inet_pton(socket.AF_INET6, address)
        for attribute in (_IFA_LOCAL, _IFA_ADDRESS):
            body += struct.pack("=HH", 20, attribute) + packed
        body += struct.pack("=HHI", 8, _IFA_FLAGS, flags | _NODAD | _NO_PREFIX_ROUTE)
        body += struct.pack("=HHIIII", 20, _IFA_CACHEINFO, *lifetimes, 0, 0)
        self._change(kind, create, body)
