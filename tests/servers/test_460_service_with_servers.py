"""The service with a real Redis and a real BIND: the host's name resolves to the host's addresses.

Of the clients in Debian 12, Firefox uses the port of an HTTPS record; curl 7.88 does not support these records.
test_465 therefore acts as a client of RFC 9460 section 3 itself: it queries the record, takes port and address,
connects, and verifies the certificate for the name.
"""

import shutil
import time

import open_library
import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

import dns.rdata  # noqa: E402
from dns.rdtypes.svcbbase import ParamKey  # noqa: E402
from dns_bed import SHIM, require  # noqa: E402
from dns_servers import HOST_KEY, NAME, ZONE, Bind, records, secret  # noqa: E402
from host import BUILD, DIRECTORY, Host  # noqa: E402
from sandbox import wait_until  # noqa: E402

A, B, C = "2001:db8::a", "2001:db8::b", "fd00::c"
REDIS_PASSWORD = "a-password-of-redis"
REDIS_CONFIGURATION = f"""bind 127.0.0.1
dir /mnt/redis
appendonly yes
user default off
user addrpubd on >{REDIS_PASSWORD} ~rdb:* &rdb:* +@all
"""
SETTINGS = {
    "hostname": NAME,
    "rdburl": "redis://127.0.0.1",
    "rdbuser": "addrpubd",
    "rdbpswd": REDIS_PASSWORD,
    "dnsurl": f"dns://127.0.0.1/{ZONE}",
    "dnsuser": HOST_KEY,
    "dnspswd": secret(HOST_KEY),
    "dnshttpsports": "8443",
}


FIREFOX = "firefox-esr"
FIREFOX_PREFERENCES = """user_pref("network.http.speculative-parallel-limit", 0);
user_pref("network.captive-portal-service.enabled", false);
user_pref("network.connectivity-service.enabled", false);
"""


class Scene:
    """Both servers run; the service does not run yet. The clock of the service starts at the real time, because
    signatures contain the time."""

    def __init__(self):
        self.host = Host(time.time_ns())
        self.sandbox = self.host.sandbox
        open_library.install(BUILD, self.sandbox.path(DIRECTORY))
        self.host.settings(**SETTINGS)
        self.sandbox.path("/mnt/resolv.conf").write_text("nameserver 127.0.0.1\n")
        self.sandbox.run("mount", "--bind", "/mnt/resolv.conf", "/etc/resolv.conf")
        self.sandbox.path("/mnt/redis").mkdir()
        self.sandbox.path("/mnt/redis/conf").write_text(REDIS_CONFIGURATION)
        self.names = Bind(self.sandbox)
        self.start_servers()

    def start_servers(self):
        self.redis = self.sandbox.spawn("redis-server", "/mnt/redis/conf", cwd="/mnt/redis")
        self.redis.wait_for_output(b"Ready to accept connections")
        self.names.start()

    def kill_servers(self):
        self.redis.kill(9)
        self.redis.wait()
        self.names.kill()

    def run_service(self):
        """Starts the service on a terminal and waits until both servers are connected. No cycle has run yet."""
        preload = f"{SHIM.resolve()} {self.host.clock.env['LD_PRELOAD']}"
        process = self.host.start("-run", tty=True, env={"LD_PRELOAD": preload, "HURRYSHIM_FILE": "/dev/null"})
        control = self.host.clock.of(process)
        control.wait_parked()
        process.wait_for_output(b"connect rdb server redis://127.0.0.1 success.\r\n")
        process.wait_for_output(b"connect dns server dns://127.0.0.1/example.test success.\r\n")
        return process, control

    def change(self, add=(), remove=()):
        for address in add:
            self.sandbox.add_address(address + "/64")
        for address in remove:
            self.sandbox.remove_address(address + "/64")

    def dig(self, kind, name=NAME):
        """Returns the answers to a query, sorted."""
        return sorted(self.names.dig("+short", kind, name).splitlines())

    def database(self, *command):
        """Returns the answer of the database to a command."""
        client = ["redis-cli", "--no-auth-warning", "--user", "addrpubd", "--pass", REDIS_PASSWORD]
        return self.sandbox.run(*client, *command).decode().strip()

    def value(self):
        """Returns the addresses in the database, sorted; the value may be "null"."""
        return sorted(self.database("HGET", f"rdb:value:{{{NAME}}}", "value").split(","))

    def writes(self):
        """Returns a count that each change of the database increases."""
        found = dict(line.split(":", 1) for line in self.database("INFO", "persistence").split() if ":" in line)
        return int(found["rdb_changes_since_last_save"])

    def wait_published(self, *addresses):
        """Waits until both servers have these addresses."""
        wait_until(lambda: self.dig("AAAA") == sorted(addresses), f"{addresses} in the name service")
        wait_until(lambda: self.value() == sorted(addresses), f"{addresses} in the database")


@pytest.fixture
def scene():
    require(Bind)
    if not shutil.which("redis-server") or not open_library.has(BUILD, "redis"):
        pytest.skip("redis-server is not installed, or the open client library was built without its back end redis")
    one = Scene()
    yield one
    one.host.close()


def test_461_changed_addresses_are_published_in_dns_and_in_the_database(scene):
    scene.change(add=[A, "fe80::a"])
    _, control = scene.run_service()
    control.advance(0.1)
    scene.wait_published(A)
    for add, remove, left in (([B, C], [], [A, B, C]), ([], [A, C], [B]), ([A], [B], [A])):
        scene.change(add, remove)
        control.advance(10)
        scene.wait_published(*left)


def test_462_a_host_without_addresses_keeps_its_name_and_puts_null(scene):
    scene.change(add=[A])
    _, control = scene.run_service()
    control.advance(0.1)
    scene.wait_published(A)
    scene.change(remove=[A])
    control.advance(10)
    wait_until(lambda: scene.value() == ["null"], "null in the database")
    assert scene.dig("AAAA") == [A]


def test_463_https_records_contain_the_ports_and_the_addresses(scene):
    scene.change(add=[A])
    _, control = scene.run_service()
    control.advance(0.1)
    scene.wait_published(A)
    scene.change(add=[B], remove=[A])
    control.advance(10)
    scene.wait_published(B)
    assert scene.dig("HTTPS") == [f"1 . port=8443 ipv6hint={B}"]
    assert scene.dig("HTTPS", f"_8443._https.{NAME}") == [f"1 {NAME}. ipv6hint={B}"]
    assert scene.names.published() == records([B], [8443])


def test_464_programs_of_the_host_resolve_the_name_through_the_c_library(scene):
    scene.change(add=[A])
    _, control = scene.run_service()
    control.advance(0.1)
    scene.wait_published(A)
    found = scene.sandbox.run("getent", "ahostsv6", NAME).decode().split()
    assert (found[0], "STREAM" in found) == (A, True)


def test_465_a_client_that_follows_the_https_record_reaches_the_port(scene):
    scene.change(add=[A])
    _, control = scene.run_service()
    control.advance(0.1)
    scene.wait_published(A)
    _, certificate = serve_pages(scene, f"[{A}]:8443")
    record = dns.rdata.from_text("IN", "HTTPS", scene.dig("HTTPS")[0])
    port = record.params[ParamKey.PORT].port
    (address,) = record.params[ParamKey.IPV6HINT].addresses
    command = ["openssl", "s_client", "-connect", f"[{address}]:{port}", "-servername", NAME]
    command += ["-verify_hostname", NAME, "-verify_return_error", "-CAfile", certificate]
    assert b"Verification: OK" in scene.sandbox.run(*command)


def serve_pages(scene, address):
    """Starts an HTTPS server for NAME. Returns the server and the file of its certificate."""
    key, certificate = "/mnt/key.pem", "/mnt/certificate.pem"
    new = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc", "-days", "1"]
    new += ["-subj", f"/CN={NAME}", "-addext", f"subjectAltName=DNS:{NAME}", "-keyout", key, "-out", certificate]
    scene.sandbox.run(*new)
    command = ["openssl", "s_server", "-www", "-accept", address, "-key", key, "-cert", certificate]
    command += ["-servername", NAME, "-key2", key, "-cert2", certificate]  # makes the server print the requested name
    server = scene.sandbox.spawn(*command, tty=True)
    server.wait_for_output(b"ACCEPT")
    return server, certificate


def test_468_firefox_takes_the_port_from_the_https_record(scene):
    if not shutil.which(FIREFOX):
        pytest.skip("Firefox is not installed (firefox-esr)")
    scene.change(add=[A])
    _, control = scene.run_service()
    control.advance(0.1)
    scene.wait_published(A)
    server, _ = serve_pages(scene, f"[{A}]:8443")
    home = scene.sandbox.path("/mnt/home")
    home.mkdir()
    (home / "user.js").write_text(FIREFOX_PREFERENCES)
    command = [FIREFOX, "--headless", "--no-remote", "--profile", "/mnt/home", f"https://{NAME}/"]
    scene.sandbox.spawn(*command, env={"HOME": "/mnt/home"})
    server.wait_for_output(f'Hostname in TLS extension: "{NAME}"'.encode())


@pytest.mark.retry
def test_466_both_servers_get_the_addresses_again_after_losing_their_data(scene):
    scene.change(add=[A])
    process, control = scene.run_service()
    control.advance(0.1)
    scene.wait_published(A)
    scene.kill_servers()
    process.wait_for_output(b"rdb server redis://127.0.0.1 disconnected")
    scene.change(add=[B], remove=[A])
    control.advance(10)
    shutil.rmtree(scene.sandbox.path("/mnt/redis/appendonlydir"))
    scene.names.forget()
    scene.start_servers()
    process.wait_for_output(b"connect dns server")
    wait_until(lambda: process.output_so_far().count(b" success.\r\n") >= 4, "both connections")
    control.advance(10)
    scene.wait_published(B)


def test_4661_an_unchanged_list_is_repeated_without_a_write_to_the_database(scene):
    """Only writes to the database are counted. The service may read the database and update the name server."""
    scene.change(add=[A])
    process, control = scene.run_service()
    control.advance(0.1)
    scene.wait_published(A)
    process.wait_for_output(b'"seqno":1,"code":0,"message":"ok"}\r\n')
    before = scene.writes()
    control.advance(600)
    process.wait_for_output(b'"seqno":2,"code":0,"message":"ok"}\r\n')
    assert process.output_so_far().count(b"rdb_objputsnapshot host1.example.test success") == 2
    assert scene.writes() == before


def test_467_ctrl_c_ends_the_service_while_both_servers_are_connected(scene):
    scene.change(add=[A])
    process, control = scene.run_service()
    control.advance(0.1)
    process.wait_for_output(b'"message":"ok"}\r\n')  # without this wait the reply may be logged after the last line
    process.type(b"\x03")
    assert process.wait() == 0
    assert process.output_so_far().endswith(b"stop addrpubd service success.\r\n")
