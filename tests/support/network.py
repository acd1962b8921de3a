"""The addresses and links of a sandbox. They are changed through netlink (rtnetlink(7)), in some microseconds per
change.
"""

import os
import socket
import struct

from netns import inside

LO = 1  # index of the loopback device in every sandbox

_NLMSG_ERROR, _NLMSG_DONE = 2, 3
_RTM_NEWLINK, _RTM_NEWADDR, _RTM_DELADDR, _RTM_GETADDR = 16, 20, 21, 22
_REQUEST, _ACK, _DUMP = 0x1, 0x4, 0x300
_CREATE_NEW = 0x400 | 0x200
_IFA_ADDRESS, _IFA_LOCAL, _IFA_CACHEINFO, _IFA_FLAGS = 1, 2, 6, 8
_IFA_F_NODAD, _IFA_F_NOPREFIXROUTE = 0x02, 0x200
FOREVER = 0xFFFFFFFF  # an infinite lifetime
MANAGE_TEMPORARY = 0x100  # IFA_F_MANAGETEMPADDR: the kernel also creates temporary addresses (RFC 8981)
_IFF_UP = 0x1
_HEADER = struct.Struct("=IHHII")
_IFADDRMSG = struct.Struct("=BBBBI")
_IFINFOMSG = struct.Struct("=BxHiII")


class Network:
    def __init__(self, sandbox):
        self._socket = inside(
            sandbox, lambda: socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
        )
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)

    def close(self):
        self._socket.close()

    def add(self, *addresses, link=LO):
        """Adds addresses, given as texts, to a link. They are usable at once."""
        for address in addresses:
            self.add_one(address, link)

    def add_one(self, address, link=LO, prefix=128, preferred=FOREVER, valid=FOREVER, flags=0):
        """Adds an address with a prefix length, two lifetimes in seconds and flags (IFA_F_...). There is no duplicate
        address detection and no route for the prefix."""
        attributes = struct.pack("=HHI", 8, _IFA_FLAGS, flags | _IFA_F_NODAD | _IFA_F_NOPREFIXROUTE)
        attributes += struct.pack("=HHIIII", 20, _IFA_CACHEINFO, preferred, valid, 0, 0)
        self._address(_RTM_NEWADDR, _CREATE_NEW, (address, link, prefix), attributes)

    def remove(self, *addresses, link=LO, prefix=128):
        for address in addresses:
            self._address(_RTM_DELADDR, 0, (address, link, prefix))

    def set_link(self, link, up):
        """Brings a link up or down. A link that is brought down loses its addresses."""
        body = _IFINFOMSG.pack(socket.AF_UNSPEC, 0, link, _IFF_UP if up else 0, _IFF_UP)
        self._change(_RTM_NEWLINK, 0, body)

    def addresses(self):
        """Returns all IPv6 addresses, 16 bytes each, in the order of the system's list."""
        return [address for _, address in self.places()]

    def places(self):
        """Returns all pairs (index of the link, address), in the same order."""
        self._send(_RTM_GETADDR, _DUMP, _IFADDRMSG.pack(socket.AF_INET6, 0, 0, 0, 0))
        found = []
        while True:
            for kind, body in self._messages():
                if kind == _NLMSG_DONE:
                    return found
                if kind == _RTM_NEWADDR:
                    found.append((_IFADDRMSG.unpack_from(body)[4], self._own_address(body)))

    @staticmethod
    def _own_address(body):
        at, attributes = _IFADDRMSG.size, {}
        while at < len(body):
            length, kind = struct.unpack_from("=HH", body, at)
            attributes[kind] = body[at + 4 : at + length]
            at += length + 3 & ~3
        return attributes.get(_IFA_LOCAL, attributes[_IFA_ADDRESS])

    def _address(self, kind, flags, place, attributes=b""):
        address, link, prefix = place
        body = _IFADDRMSG.pack(socket.AF_INET6, prefix, 0, 0, link)
        for attribute in (_IFA_LOCAL, _IFA_ADDRESS):
            body += struct.pack("=HH", 20, attribute) + socket.inet_pton(socket.AF_INET6, address)
        self._change(kind, flags, body + attributes)

    def _change(self, kind, flags, body):
        self._send(kind, _ACK | flags, body)
        ((answer, content),) = self._messages()
        error = struct.unpack_from("=i", content)[0]
        assert (answer, error) == (_NLMSG_ERROR, 0), os.strerror(-error)

    def _send(self, kind, flags, body):
        self._socket.send(_HEADER.pack(_HEADER.size + len(body), kind, _REQUEST | flags, 1, 0) + body)

    def _messages(self):
        data, at, found = self._socket.recv(1 << 16), 0, []
        while at < len(data):
            length, kind, *_ = _HEADER.unpack_from(data, at)
            found.append((kind, data[at + _HEADER.size : at + length]))
            at += length + 3 & ~3
        return found
