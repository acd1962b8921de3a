"""Sends the datagram "end" to ADDRESS PORT."""

import socket
import sys

family = socket.AF_INET6 if ":" in sys.argv[1] else socket.AF_INET
socket.socket(family, socket.SOCK_DGRAM).sendto(b"end", (sys.argv[1], int(sys.argv[2])))
