"""authority_server.py FILE: a server that begins a TLS handshake with the certificate in FILE, without its key.

A client of TLS 1.2 gets the certificate before the server has to prove that it has the key (RFC 5246 section 7.3). So
this server needs no key and can present the certificate of any authority. It prints its port on 127.0.0.1 and serves
one connection.
"""

import socket
import ssl
import sys

HANDSHAKE = 22
SERVER_HELLO, CERTIFICATE = 2, 11
TLS_1_2 = b"\x03\x03"
ECDHE_RSA_AES128_GCM_SHA256 = b"\xc0\x2f"
NO_COMPRESSION = b"\0"
SECURE_RENEGOTIATION = b"\xff\x01\x00\x01\x00"  # OpenSSL requires this extension (RFC 5746)


def counted(size, content):
    """Returns the length of `content`, as a number of `size` bytes, followed by `content`."""
    return len(content).to_bytes(size, "big") + content


def record(kind, content):
    return bytes([HANDSHAKE]) + TLS_1_2 + counted(2, bytes([kind]) + counted(3, content))


def main():
    with open(sys.argv[1], encoding="ascii") as file:
        certificate = ssl.PEM_cert_to_DER_cert(file.read())
    hello = TLS_1_2 + bytes(32) + counted(1, b"") + ECDHE_RSA_AES128_GCM_SHA256 + NO_COMPRESSION
    hello += counted(2, SECURE_RENEGOTIATION)
    with socket.create_server(("127.0.0.1", 0)) as server:
        print(server.getsockname()[1], flush=True)
        client, _ = server.accept()
    with client:
        client.sendall(record(SERVER_HELLO, hello) + record(CERTIFICATE, counted(3, counted(3, certificate))))
        while client.recv(4096):
            pass


if __name__ == "__main__":
    main()
