"""The unit allows every system call and address family that the service uses with a Redis server and a DNS server, even
while these servers are down."""

import re

import open_library
import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_servers import HOST_KEY, NAME, ZONE, Bind, secret  # noqa: E402
from installation import BUILD, settings  # noqa: E402
from sandbox import wait_until  # noqa: E402
from system_calls import STRACE, allowed, calls_in, program_trace  # noqa: E402

REQUIRES = ("systemd-analyze", "strace", "redis-server", "redis-cli", "named")
NAMESPACES = True

UNIT = "lib/systemd/system/addrpubd.service"
SHIM = BUILD / "tests/libhurryshim.so"  # shortens the waits for servers that are down
ADDRESS = "2001:db8::10"
SETTINGS = f"""hostname = {NAME}
logurl = stdout
rdburl = redis://localhost
rdbuser = default
rdbpswd = file:/mnt/rdbpswd
dnsurl = dns://localhost/{ZONE}
dnsuser = {HOST_KEY}
dnspswd = file:/mnt/dnspswd
dnshttpsports = 443
"""


class Servers:
    """Redis and BIND. Each start has no data of an earlier start."""

    def __init__(self, machine):
        self._machine = machine
        self._names = Bind(machine)
        self._redis = None

    def start(self):
        self._names.forget()
        self._names.start()
        self._redis = self._machine.spawn("redis-server", "--bind", "127.0.0.1", "--save", "", cwd="/mnt")
        self._redis.wait_for_output(b"Ready to accept connections")

    def kill(self):
        self._redis.kill(9)
        self._redis.wait()
        self._names.kill()

    def wait_published(self):
        """Waits until both servers have the address."""
        wait_until(lambda: ADDRESS in self._names.dig("+short", "AAAA", NAME).split(), "the address at BIND")
        value = ("redis-cli", "HGET", f"rdb:value:{{{NAME}}}", "value")
        wait_until(lambda: self._machine.run(*value).decode().strip() == ADDRESS, "the address at Redis")


@pytest.fixture
def unit(installed):
    return settings(installed.path(installed.prefix / UNIT).read_text())


@pytest.fixture
def trace(machine, installed):
    """Returns the strace output of the service from its first instruction to its end. Meanwhile the servers restart
    without data."""
    if not open_library.has(installed.path(installed.folder), "redis", "dns"):
        pytest.skip("the open client library was built without its back ends redis and dns")
    machine.add_address(f"{ADDRESS}/64")
    machine.path("/mnt/rdbpswd").write_text("any\n")
    machine.path("/mnt/dnspswd").write_text(f"{secret(HOST_KEY)}\n")
    machine.path(str(installed.ini)).write_text(SETTINGS)
    servers = Servers(machine)
    servers.start()
    command = [*STRACE, "-E", f"LD_PRELOAD={SHIM}", "stdbuf", "-oL", "./addrpubd", "-run"]
    process = machine.spawn(*command, cwd=installed.folder)
    servers.wait_published()
    servers.kill()
    process.wait_for_output(b"rdb server redis://localhost disconnected")
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
