"""A provider of dynamic names for tests: an HTTPS server that answers update requests of the protocol dyndns2.

    dyndns_provider.py CERTIFICATE KEY FOLDER

Each request becomes one line of FOLDER/requests: path, user and password, and the client's User-Agent. The answer is
the text of FOLDER/answer, with status 401 if this text is "badauth", otherwise with status 200. The program prints
"listening" when it can be reached, at port 443 of 127.0.0.1.
"""

import base64
import http.server
import pathlib
import ssl
import sys

CERTIFICATE, KEY, FOLDER = sys.argv[1:]


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        _, _, login = self.headers.get("Authorization", "").partition(" ")
        words = (self.path, base64.b64decode(login).decode(), self.headers.get("User-Agent"))
        with pathlib.Path(FOLDER, "requests").open("a", encoding="utf-8") as file:
            print(*words, file=file)
        body = pathlib.Path(FOLDER, "answer").read_bytes()
        self.send_response(401 if body == b"badauth" else 200)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
context.load_cert_chain(CERTIFICATE, KEY)
server = http.server.ThreadingHTTPServer(("127.0.0.1", 443), Handler)
server.socket = context.wrap_socket(server.socket, server_side=True, do_handshake_on_connect=False)
print("listening", flush=True)
server.serve_forever()
