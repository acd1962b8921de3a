"""The measured servers, on the loopback of a private network.

Each server listens on 127.0.0.1 and has its files in memory. cpu() is the processor time of all threads in seconds,
with a resolution of one nanosecond (/proc/PID/task/*/schedstat). resident() is VmRSS in bytes.
"""

import base64
import hashlib
import signal
import socket
import subprocess
import time
from pathlib import Path

ZONE = "example.test"
KEY = "fleet"
SECRET = base64.b64encode(hashlib.sha256(KEY.encode()).digest()).decode()
PATIENCE = 60.0  # seconds within which a server must start


def host(number):
    return f"host{number:07}.{ZONE}"


def own_address(number):
    """Returns the address that the host with this number publishes until it gets a new address."""
    return f"2001:db8:{number >> 16:x}:{number & 0xFFFF:x}::1"


class Server:
    port = 0
    folder = ""

    def __init__(self):
        self.process = None
        subprocess.run(["mount", "-t", "tmpfs", "none", self.folder], check=True)

    def write(self, name, text):
        Path(self.folder, name).write_text(text)

    def start(self):
        """Starts the server. Returns the monotonic time of its first answer."""
        with Path(self.folder, "log").open("ab") as log:
            self.process = subprocess.Popen(self.command(), cwd=self.folder, stdout=log, stderr=log)
        give_up = time.monotonic() + PATIENCE
        while not self.answers():
            if self.process.poll() is not None or time.monotonic() > give_up:
                raise RuntimeError(f"{self.command()[0]}: {Path(self.folder, 'log').read_text()[-2000:]}")
            time.sleep(0.01)
        return time.monotonic()

    def end(self, number=signal.SIGTERM):
        if self.process is not None:
            self.process.send_signal(number)
            self.process.wait()
        self.process = None

    def cpu(self):
        files = Path(f"/proc/{self.process.pid}/task").glob("*/schedstat")
        return sum(int(file.read_text().split()[0]) for file in files) / 1e9

    def resident(self):
        lines = Path(f"/proc/{self.process.pid}/status").read_text().splitlines()
        return next(int(line.split()[1]) * 1024 for line in lines if line.startswith("VmRSS"))

    def ask(self, request, enough):
        """Sends request. Returns the answer as soon as enough(answer) is true."""
        with socket.create_connection(("127.0.0.1", self.port), 5) as connection:
            connection.sendall(request)
            answer = b""
            while not enough(answer):
                piece = connection.recv(1 << 16)
                if not piece:
                    raise OSError("closed")
                answer += piece
        return answer


class Redis(Server):
    """A Redis server without persistence. The whole fleet uses one user."""

    port = 6379
    folder = "/mnt"

    def command(self):
        return ["redis-server", f"{self.folder}/conf"]

    def start(self):
        self.write("conf", f'bind 127.0.0.1\ndir {self.folder}\nsave ""\nmaxclients 20000\n')
        return super().start()

    def answers(self):
        try:
            return self.ask(b"PING\r\n", lambda answer: answer.endswith(b"\r\n")) == b"+PONG\r\n"
        except OSError:
            return False

    def call(self, *words):
        """Returns the output of redis-cli."""
        command = ["redis-cli", *map(str, words)]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout.strip()

    def statistics(self):
        """Returns the fields of INFO by name, and the bytes of this request and of its answer."""
        request = b"INFO everything\r\n"

        def whole(answer):
            head, found, text = answer.partition(b"\r\n")
            return found and len(text) == int(head[1:]) + 2

        answer = self.ask(request, whole)
        pairs = (line.split(":", 1) for line in answer.decode().splitlines() if ":" in line)
        return dict(pairs), (len(request), len(answer))

    def info(self):
        return self.statistics()[0]


class DnsServer(Server):
    """A DNS server whose zone contains a given number of hosts with one address each, as if their updates had written
    them."""

    port = 53
    journal = ""  # the files with the server's changes, as a pattern

    def fill(self, hosts):
        lines = ["$TTL 60", f"{ZONE}. IN SOA ns hostmaster 1 3600 600 86400 30", f"{ZONE}. IN NS ns.{ZONE}."]
        lines.append(f"ns.{ZONE}. IN A 127.0.0.1")
        for number in range(hosts):
            address = own_address(number)
            lines.append(f"{host(number)}. IN AAAA {address}\n{host(number)}. IN HTTPS 1 . ipv6hint={address}")
        self.write("zone", "\n".join(lines) + "\n")
        for file in Path(self.folder).glob(self.journal):
            file.unlink()

    def answers(self):
        #  A query for the zone's SOA record, preceded by its length. The answer must have a record and no error code.
        labels = b"".join(bytes([len(label)]) + label.encode() for label in ZONE.split("."))
        question = b"\0\7" + b"\0\0\0\1" + bytes(6) + labels + b"\0\0\6\0\1"
        try:
            answer = self.ask(len(question).to_bytes(2, "big") + question, lambda answer: len(answer) > 12)
        except OSError:
            return False
        return answer[5] & 15 == 0 and answer[9] > 0


class Bind(DnsServer):
    """policy: "zonesub": one key for the zone; "name": a key and two grants for each host; "selfsub": a key for each
    host and one grant for all."""

    folder = "/var/lib/bind"  # BIND's AppArmor profile allows it to read and write there
    journal = "zone.jnl"
    check_queries = 1  # BIND adds the AAAA records to the answer with the HTTPS records

    def __init__(self, policy="zonesub", hosts=1):
        super().__init__()
        self.policy = policy
        self.hosts = hosts

    def command(self):
        return ["named", "-f", "-n", "1", "-c", f"{self.folder}/conf"]

    def key_of(self, number):
        return host(number) if self.policy != "zonesub" else KEY

    def grants(self):
        if self.policy == "zonesub":
            return f'grant "{KEY}" zonesub AAAA HTTPS;'
        if self.policy == "selfsub":
            return f"grant *.{ZONE}. selfsub *.{ZONE}. AAAA HTTPS;"
        names = [host(number) for number in range(self.hosts)]
        return "\n".join(f'grant "{n}" name {n}. AAAA HTTPS; grant "{n}" wildcard *._https.{n}. HTTPS;' for n in names)

    def start(self):
        keys = [KEY] if self.policy == "zonesub" else [host(number) for number in range(self.hosts)]
        self.write(
            "conf",
            f'options {{ directory "{self.folder}"; pid-file none; lock-file none; session-keyfile none;\n'
            "listen-on { 127.0.0.1; }; listen-on-v6 { none; }; recursion no; dnssec-validation no; notify no;\n"
            "empty-zones-enable no; tcp-clients 5000; };\ncontrols { };\n"
            "logging { channel out { stderr; severity error; }; category default { out; }; };\n"
            + "\n".join(f'key "{name}" {{ algorithm hmac-sha256; secret "{SECRET}"; }};' for name in keys)
            + f'\nzone "{ZONE}" {{ type primary; file "zone"; update-policy {{ {self.grants()} }}; }};\n',
        )
        return super().start()


class Knot(DnsServer):
    folder = "/media"
    journal = "db/**/*.mdb"
    check_queries = 2

    def command(self):
        return ["knotd", "-c", f"{self.folder}/conf"]

    def key_of(self, _):
        return KEY

    def start(self):
        Path(self.folder, "db").mkdir(exist_ok=True)
        self.write(
            "conf",
            f"server:\n  rundir: {self.folder}\n  listen: 127.0.0.1@53\n  udp-workers: 1\n  tcp-workers: 1\n"
            "  background-workers: 1\n  tcp-max-clients: 5000\nlog:\n  - target: stderr\n    any: error\n"
            f"database:\n  storage: {self.folder}/db\n"
            f"key:\n  - id: {KEY}\n    algorithm: hmac-sha256\n    secret: {SECRET}\n"
            f"acl:\n  - id: update\n    key: {KEY}\n    action: update\n    update-type: [AAAA, HTTPS]\n"
            f"zone:\n  - domain: {ZONE}\n    file: {self.folder}/zone\n    acl: update\n    zonefile-sync: -1\n"
            "    zonefile-load: whole\n    journal-content: changes\n",
        )
        return super().start()
