"""Real DNS servers inside a sandbox, and the contents of their zone.

Each server serves the zone ZONE from a separate folder, on 127.0.0.1 and ::1 unless its class states another address.
By default it accepts updates signed with the key HOST_KEY; SecondaryBind accepts no updates. BIND and Knot accept
updates only for the names in `allowed`: AAAA and HTTPS records at these names, and HTTPS records at the _PORT._https
names below them. Knot accepts only the ports 8443 and 9443 in such names, and also accepts AAAA records there. The key
READER, which no client has, may transfer the zone. A server starts with the zone file `zone`. By default this is
ZONE_FILE, which has other record types at NAME, and records of other names.

    server = Bind(sandbox)
    server.start()
    server.published()       # the records in the zone that the client writes for NAME, in the form of records(...)
    server.others()          # all other records
"""

import base64
import hashlib
import signal

import dns.query
import dns.rdata
import dns.rdatatype
import dns.tsigkeyring
from certificates import Authority
from netns import inside
from sandbox import PATIENCE, wait_until

ZONE = "example.test"
NAME = "host1." + ZONE
OTHER_NAME = "host2." + ZONE
HOST_KEY = "host1-key"
READER = "reader"
TTL = 60

ZONE_FILE = f"""$ORIGIN {ZONE}.
$TTL 3600
@ IN SOA ns hostmaster 1 3600 600 86400 30
@ IN NS ns
@ IN MX 10 mail
@ IN TXT "the zone itself"
ns IN A 192.0.2.53
mail IN AAAA 2001:db8:53::25
host1 IN A 192.0.2.1
host1 IN MX 10 mail
host1 IN TXT "kept by hand; with blanks"
host1 IN CAA 0 issue "ca.example"
_25._tcp.host1 IN TLSA 3 1 1 0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef
inner.host1 IN AAAA 2001:db8:53::1
host10 IN AAAA 2001:db8:53::10
host IN AAAA 2001:db8:53::99
host2 IN TXT "beside"
_8443._https.host10 IN HTTPS 1 host10.{ZONE}. ipv6hint=2001:db8:53::10
www IN HTTPS 1 host1.{ZONE}. alpn=h2
"""


def secret(name):
    """Returns the secret of a key, in base64. It is the same in every test run."""
    return base64.b64encode(hashlib.sha256(name.encode()).digest()).decode()


def _line(owner, ttl, kind, data):
    return f"{owner} {ttl} {kind} {dns.rdata.from_text('IN', kind, data).to_text()}"


def records(addresses, ports=(), name=NAME, ttl=TTL):
    """Returns the records of a name with these addresses and HTTPS ports, as lines in a fixed order."""
    if not addresses:
        return []
    hint = "ipv6hint=" + ",".join(addresses[:16])
    lines = [_line(f"{name}.", ttl, "AAAA", address) for address in addresses]
    if 443 in ports:
        lines.append(_line(f"{name}.", ttl, "HTTPS", f"1 . {hint}"))
    else:
        lines += [_line(f"{name}.", ttl, "HTTPS", f"{i} . port={port} {hint}") for i, port in enumerate(ports, 1)]
    lines += [_line(f"_{p}._https.{name}.", ttl, "HTTPS", f"1 {name}. {hint}") for p in ports if p != 443]
    return sorted(lines)


def belongs(line, name=NAME):
    """Returns whether a line of the zone is a record that the client writes for `name`."""
    owner, _, kind = line.split()[:3]
    return (owner == name + "." and kind in ("AAAA", "HTTPS")) or owner.endswith("._https." + name + ".")


class Server:
    """Common base class of the servers."""

    ready = b""  # text that the server prints when it is ready
    reloaded = b""  # text that the server prints after it has reloaded its configuration
    program = ""
    package = ""
    folder = ""
    conf = "conf"
    zone = ZONE_FILE
    address = "127.0.0.1"  # address at which the tests query it

    def __init__(self, sandbox, algorithm="hmac-sha256"):
        self.sandbox = sandbox
        self.algorithm = algorithm
        self.keys = {HOST_KEY: secret(HOST_KEY), READER: secret(READER)}
        self.granted = HOST_KEY  # the key that may send updates
        self.allowed = [NAME]
        self.has_zone = True  # its configuration contains ZONE
        self.process = None
        sandbox.path(self.folder).mkdir(exist_ok=True)
        self.write_zone()

    def write(self, name, text):
        self.sandbox.path(f"{self.folder}/{name}").write_text(text)

    def write_zone(self):
        self.write("zone", self.zone)

    def start(self):
        self.write(self.conf, self.configuration())
        self.process = self.sandbox.spawn(*self.command(), cwd=self.folder)
        self.process.wait_for_output(self.ready)

    def kill(self):
        self.process.kill(signal.SIGKILL)
        self.process.wait()

    def reconfigure(self):
        """Makes the running server load its changed configuration."""
        self.write(self.conf, self.configuration())
        before = self.process.output_so_far().count(self.reloaded)
        self.process.kill(signal.SIGHUP)
        while self.process.output_so_far().count(self.reloaded) == before:
            assert self.process.running()

    def move_to_small_disk(self):
        """Restarts the server with its journal on a separate, empty disk. Returns the folder of that disk."""
        self.kill()
        small = f"{self.folder}/small"
        self.sandbox.path(small).mkdir()
        self.sandbox.run("mount", "-t", "tmpfs", "-o", f"size={self.small}", "tmpfs", small)
        self.use_folder("small")
        self.start()
        return self.sandbox.path(small)

    def dig(self, *words):
        """Returns the output of dig for a query to this server."""
        return self.sandbox.run("dig", f"@{self.address}", "+tries=1", *words).decode()

    def lines(self):
        """Returns the whole zone without its SOA record, as sorted lines OWNER TTL TYPE DATA."""
        return inside(self.sandbox, self._transfer)

    def _transfer(self):
        keyring = dns.tsigkeyring.from_text({READER: (self.algorithm, self.keys[READER])})
        found = []
        for message in dns.query.xfr(self.address, ZONE, relativize=False, timeout=PATIENCE, keyring=keyring):
            for rrset in message.answer:
                kind = dns.rdatatype.to_text(rrset.rdtype)
                if kind != "SOA":
                    found += [f"{rrset.name} {rrset.ttl} {kind} {data.to_text()}" for data in rrset]
        return sorted(found)

    def published(self, name=NAME):
        return [line for line in self.lines() if belongs(line, name)]

    def others(self, name=NAME):
        return [line for line in self.lines() if not belongs(line, name)]


class Bind(Server):
    program = "named"
    package = "bind9"
    folder = "/var/lib/bind"  # the package's folder; the AppArmor profile of BIND allows access to it
    ready = reloaded = b"running\n"
    journal = "zone.jnl"
    small = "64k"

    addresses = ("127.0.0.1", "::1")
    types = "AAAA HTTPS"  # record types that the key `granted` may change at the names in `allowed`
    takes_updates = True

    def __init__(self, sandbox, **options):
        self.make_place(sandbox)
        super().__init__(sandbox, **options)

    def make_place(self, sandbox):
        sandbox.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", self.folder)

    def use_folder(self, folder):
        self.journal = f"{folder}/zone.jnl"

    def command(self):
        return ["named", "-f", "-n", "1", "-c", f"{self.folder}/conf"]

    def control(self, *words):
        """Calls rndc with these words and waits until the server has executed the command."""
        text = f'key "{READER}" {{ algorithm {self.algorithm}; secret "{self.keys[READER]}"; }};\n'
        self.write("rndc.conf", f'{text}options {{ default-server {self.addresses[0]}; default-key "{READER}"; }};\n')
        self.sandbox.run("rndc", "-c", f"{self.folder}/rndc.conf", *words)

    def forget(self):
        """Restores the initial zone of the stopped server."""
        self.sandbox.path(f"{self.folder}/zone.jnl").unlink(missing_ok=True)
        self.write_zone()

    def zone_statement(self):
        grants = []
        for name in self.allowed:
            grants += [f'grant "{self.granted}" name {name}. {self.types};']
            grants += [f'grant "{self.granted}" wildcard *._https.{name}. HTTPS;']
        return [
            f'zone "{ZONE}" {{ type primary; file "zone"; journal "{self.journal}";',
            f'allow-transfer {{ key "{READER}"; }};',
            f"update-policy {{ {' '.join(grants)} }}; }};" if self.takes_updates else "};",
        ]

    def configuration(self):
        keys = [f'key "{k}" {{ algorithm {self.algorithm}; secret "{s}"; }};' for k, s in self.keys.items()]
        ipv4 = " ".join(f"{address};" for address in self.addresses if ":" not in address)
        ipv6 = " ".join(f"{address};" for address in self.addresses if ":" in address)
        return "\n".join(
            [
                f'options {{ directory "{self.folder}"; pid-file none; lock-file none; session-keyfile none;',
                f"listen-on {{ {ipv4} }}; listen-on-v6 {{ {ipv6} }}; recursion no; dnssec-validation no; notify no;",
                "empty-zones-enable no; };",
                f'controls {{ inet {self.addresses[0]} port 953 allow {{ any; }} keys {{ "{READER}"; }}; }};',
                "logging { channel out { stderr; }; category default { out; }; category xfer-out { null; }; };",
                *keys,
                *(self.zone_statement() if self.has_zone else []),
                "",
            ]
        )


class TlsBind(Bind):
    """BIND that also accepts TLS at port 853, with a certificate of `authority`."""

    names = "DNS:localhost,IP:127.0.0.1"

    def __init__(self, sandbox):
        super().__init__(sandbox)
        self.authority = Authority(sandbox, f"{self.folder}/pki")
        self.files = self.authority.issue("server", self.names)

    def configuration(self):
        tls = f'tls pki {{ cert-file "{self.files.certificate}"; key-file "{self.files.key}"; }};\n'
        listen = "listen-on port 853 tls pki { 127.0.0.1; }; listen-on-v6"
        return tls + super().configuration().replace("listen-on-v6", listen)


class SecondBind(Bind):
    """A second primary BIND, on 127.0.0.2."""

    folder = "/var/lib/bind/second"
    address = "127.0.0.2"
    addresses = (address,)

    def make_place(self, sandbox):
        if not sandbox.path(f"{Bind.folder}/conf").exists():
            sandbox.run("mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", Bind.folder)
        sandbox.run("ip", "addr", "add", "127.0.0.2/8", "dev", "lo")  # BIND listens only on addresses of interfaces


class SecondaryBind(SecondBind):
    """A secondary of the first server. It accepts no updates."""

    forwarding = "none"

    def zone_statement(self):
        return [
            f'zone "{ZONE}" {{ type secondary; file "zone"; primaries {{ 127.0.0.1 key "{READER}"; }};',
            f"allow-update-forwarding {{ {self.forwarding}; }}; }};",
        ]

    def start(self):
        """Starts the server and waits until it has transferred the zone."""
        super().start()
        wait_until(lambda: self.dig("+short", "SOA", ZONE), "the transfer of the zone")

    def write_zone(self):
        pass


class ForwardingBind(SecondaryBind):
    """A secondary of the first server that forwards updates to it."""

    forwarding = "any"


class Knot(Server):
    program = "knotd"
    package = "knot"
    folder = "/mnt/knot"
    ready = b"server started"
    reloaded = b"configuration reloaded"
    storage = "db"
    small = "1m"

    def use_folder(self, folder):
        self.storage = folder

    def __init__(self, *arguments, **options):
        super().__init__(*arguments, **options)
        self.sandbox.path(f"{self.folder}/{self.storage}").mkdir()

    def command(self):
        return ["knotd", "-c", f"{self.folder}/conf"]

    def forget(self):
        """Restores the initial zone of the stopped server."""
        for file in self.sandbox.path(f"{self.folder}/{self.storage}").rglob("*.mdb"):
            file.unlink()
        self.write_zone()

    def configuration(self):
        #  All records of a message must be covered by one rule, so the port names are listed with the host names.
        children = ("", "_8443._https.", "_9443._https.")
        names = [f"{child}{name}." for name in self.allowed for child in children]
        zone = [
            f"zone:\n  - domain: {ZONE}\n    file: {self.folder}/zone\n    acl: [update, transfer]",
            "    zonefile-sync: -1\n    zonefile-load: whole\n    journal-content: changes",
        ]
        keys = [f'  - id: {k}\n    algorithm: {self.algorithm}\n    secret: "{s}"' for k, s in self.keys.items()]
        return "\n".join(
            [
                f"server:\n  rundir: {self.folder}\n  listen: [127.0.0.1@53, ::1@53]",
                "  udp-workers: 1\n  tcp-workers: 1\n  background-workers: 1",
                "log:\n  - target: stderr\n    server: info\n    zone: error",
                f"database:\n  storage: {self.folder}/{self.storage}",
                "key:",
                *keys,
                f"acl:\n  - id: update\n    key: {self.granted}\n    action: update",
                "    update-type: [AAAA, HTTPS]\n    update-owner: name\n    update-owner-match: equal",
                f"    update-owner-name: [{', '.join(names)}]",
                f"  - id: transfer\n    key: {READER}\n    action: transfer",
                *(zone if self.has_zone else []),
                "",
            ]
        )


class PowerDns(Server):
    """PowerDNS. Its keys and zones are in an SQLite database. A key may change the whole zone."""

    program = "pdns_server"
    package = "pdns-server, pdns-backend-sqlite3"
    folder = "/mnt/pdns"
    conf = "pdns.conf"
    ready = b"ready to distribute questions"
    schema = "/usr/share/pdns-backend-sqlite3/schema/schema.sqlite3.sql"
    takes_updates = True

    def command(self):
        return ["pdns_server", f"--config-dir={self.folder}"]

    def tool(self, *words):
        return self.sandbox.run("pdnsutil", f"--config-dir={self.folder}", *words)

    def write_zone(self):
        super().write_zone()
        self.write(self.conf, self.configuration())
        self.sandbox.run("sqlite3", f"{self.folder}/db", f".read {self.schema}")
        self.tool("load-zone", ZONE, f"{self.folder}/zone")
        self.tool("set-meta", ZONE, "TSIG-ALLOW-AXFR", READER)
        self.write_keys()

    def write_keys(self):
        """Writes the current keys into the database. The running server reads them from there."""
        for name, text in self.keys.items():
            self.tool("import-tsig-key", name, self.algorithm, text)
        self.tool("set-meta", ZONE, "TSIG-ALLOW-DNSUPDATE", self.granted)

    def configuration(self):
        return "\n".join(
            [
                f"launch=gsqlite3\ngsqlite3-database={self.folder}/db\ngsqlite3-dnssec=yes",
                f"local-address=127.0.0.1,::1\nsocket-dir={self.folder}\nguardian=no\ndaemon=no\ndisable-syslog=yes",
                f"dnsupdate={'yes' if self.takes_updates else 'no'}\nallow-dnsupdate-from=127.0.0.0/8,::1",
                "cache-ttl=0\nquery-cache-ttl=0\nnegquery-cache-ttl=0",
                "domain-metadata-cache-ttl=0\nzone-cache-refresh-interval=0",
                "loglevel=5",
                "",
            ]
        )
