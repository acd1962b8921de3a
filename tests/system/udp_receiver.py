"""Receives datagrams on ADDRESS PORT and prints each as a line of hexadecimal digits. When it is ready, it prints
"ready"."""

import socket
import sys

family = socket.AF_INET6 if ":" in sys.argv[1] else socket.AF_INET
receiver = socket.socket(family, socket.SOCK_DGRAM)
receiver.bind((sys.argv[1], int(sys.argv[2])))
print("ready", flush=True)
while True:
    print(receiver.recv(1 << 16).hex(), flush=True)
