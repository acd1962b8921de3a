"""Prints the IPv6 addresses of this network namespace in the order of getifaddrs, one per line."""

import ctypes
import socket


class SockaddrIn6(ctypes.Structure):
    _fields_ = [
        ("family", ctypes.c_uint16),
        ("port", ctypes.c_uint16),
        ("flow", ctypes.c_uint32),
        ("address", ctypes.c_ubyte * 16),
    ]


class Ifaddrs(ctypes.Structure):
    pass


Ifaddrs._fields_ = [
    ("next", ctypes.POINTER(Ifaddrs)),
    ("name", ctypes.c_char_p),
    ("flags", ctypes.c_uint),
    ("address", ctypes.POINTER(SockaddrIn6)),
]

entry = ctypes.POINTER(Ifaddrs)()
assert ctypes.CDLL(None).getifaddrs(ctypes.byref(entry)) == 0
while entry:
    address = entry.contents.address
    if address and address.contents.family == socket.AF_INET6:
        print(socket.inet_ntop(socket.AF_INET6, bytes(address.contents.address)))
    entry = entry.contents.next
