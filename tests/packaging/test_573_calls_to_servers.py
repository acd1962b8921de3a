"""The unit allows every system call and address family that the service uses with a Redis server and a DNS server, with
and without TLS, even while these servers are down."""

import re

import open_library
import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_servers import HOST_KEY, NAME, ZONE, Bind, TlsBind, secret  # noqa: E402
from installation import BUILD, settings  # noqa: E402
from sandbox import wait_until  # noqa: E402
from system_calls import STRACE, allowed, calls_in, program_trace  # noqa: E402

REQUIRES = ("systemd-analyze", "strace", "redis-server", "redis-cli", "named")
NAMESPACES = True

UNIT = "lib/systemd/system/addrpubd.service"
SHIM = BUILD / "tests/libhurryshim.so"  # shortens the waits for servers that are down
ADDRESS = "2001:db8::10"
SETTINGS = """hostname = {name}
logurl = stdout
rdburl = {rdburl}
rdbuser = default
rdbpswd = file:/mnt/rdbpswd
dnsurl = {dnsurl}
dnsuser = {key}
dnspswd = file:/mnt/dnspswd
dnshttpsports = 443
"""


class Servers:
    """Redis and BIND. After a start they have no data of an earlier start."""

    rdburl = "redis://localhost"
    dnsurl = f"dns://localhost/{ZONE}"
    back_ends = ("redis", "dns")
    options = ("--bind", "127.0.0.1")
    client = ("redis-cli",)

    def __init__(self, machine):
        self._machine = machine
        self._names = self.make_names(machine)
        self._redis = None

    def make_names(self, machine):
        return Bind(machine)

    def settings(self):
        return SETTINGS.format(name=NAME, rdburl=self.rdburl, dnsurl=self.dnsurl, key=HOST_KEY)

    def start(self):
        self._names.forget()
        self._names.start()
        self._redis = self._machine.spawn("redis-server", *self.options, "--save", "", cwd="/mnt")
        self._redis.wait_for_output(b"Ready to accept connections")

    def kill(self):
        self._redis.kill(9)
        self._redis.wait()
        self._names.kill()

    def wait_published(self):
        """Waits until both servers have the address."""
        wait_until(lambda: ADDRESS in self._names.dig("+short", "AAAA", NAME).split(), "the address at BIND")
        value = (*self.client, "HGET", f"rdb:value:{{{NAME}}}", "value")
        wait_until(lambda: self._machine.run(*value).decode().strip() == ADDRESS, "the address at Redis")


class TlsServers(Servers):
    """Redis and BIND, both over TLS."""

    back_ends = ("rediss", "dns-tls")

    def make_names(self, machine):
        names = TlsBind(machine)
        files, authority = names.files, names.authority.certificate
        self.rdburl = f"rediss://localhost?ca={authority}"
        self.dnsurl = f"dns+tls://localhost/{ZONE}?ca={authority}"
        tls = ("--tls-cert-file", files.certificate, "--tls-key-file", files.key, "--tls-ca-cert-file", authority)
        self.options = (*Servers.options, "--port", "0", "--tls-port", "6379", *tls, "--tls-auth-clients", "no")
        self.client = ("redis-cli", "--tls", "--cacert", authority)
        return names


@pytest.fixture
def unit(installed):
    return settings(installed.path(installed.prefix / UNIT).read_text())


@pytest.fixture(params=[Servers, TlsServers])
def trace(request, machine, installed):
    """Returns the strace output of the service from its first instruction to its end. Meanwhile the servers restart
    without data."""
    if not open_library.has(installed.path(installed.folder), *request.param.back_ends):
        pytest.skip("the open client library was built without one of its back ends")
    machine.add_address(f"{ADDRESS}/64")
    machine.path("/mnt/rdbpswd").write_text("any\n")
    machine.path("/mnt/dnspswd").write_text(f"{secret(HOST_KEY)}\n")
    servers = request.param(machine)
    machine.path(str(installed.ini)).write_text(servers.settings())
    servers.start()
    command = [*STRACE, "-E", f"LD_PRELOAD={SHIM}", "stdbuf", "-oL", "./addrpubd", "-run"]
    process = machine.spawn(*command, cwd=installed.folder)
    servers.wait_published()
    servers.kill()
    process.wait_for_output(f"rdb server {servers.rdburl} disconnected".encode())
    servers.start()
    servers.wait_published()
    machine.run("kill", machine.path("/run/addrpubd.pid").read_text().strip())
    process.all_output()
    return program_trace(machine)


def test_573_the_unit_allows_all_system_calls_of_the_service_with_servers(trace, unit):
    calls = calls_in(trace)
    assert {"clone3", "connect", "sendto", "recvfrom", "poll"} <= calls, "the service has done its work"
    assert calls - allowed(unit["SystemCallFilter"]) == set()


def test_574_the_unit_allows_all_address_families_of_the_service_with_servers(trace, unit):
    families = set(re.findall(r" socket\((\w+)", trace))
    assert {"AF_INET", "AF_NETLINK"} <= families
    assert families <= set(unit["RestrictAddressFamilies"][0].split())


def test_575_the_service_binds_no_port_with_servers(trace, unit):
    assert unit["SocketBindDeny"] == ["any"]
    assert set(re.findall(r" bind\(.*sa_family=(\w+)", trace)) <= {"AF_NETLINK", "AF_UNIX"}
