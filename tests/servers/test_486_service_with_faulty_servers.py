"""The service with a real BIND, and with a database that accepts the connection but then refuses or does not answer.

In each case the query or the import of the tag fails in the first cycle, so this cycle sends no DNS update. The next
cycle, 10 s later by the service's clock, must send the addresses to the name server.
"""

import time

import open_library
import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

import dns_bed  # noqa: E402
import redis_bed  # noqa: E402
from dns_servers import HOST_KEY, NAME, ZONE, Bind, secret  # noqa: E402
from host import BUILD, DIRECTORY, Host  # noqa: E402
from sandbox import wait_until  # noqa: E402

A, B, C = "2001:db8::a", "2001:db8::b", "2001:db8::c"
CYCLE = 10  # seconds between two publish cycles
USER = ["ACL", "SETUSER", "host", "on", ">own", "~*", "&*", "+@all"]
ANSWERS_TO_LOGIN = b"+OK\r\n+OK\r\n+PONG\r\n+PONG\r\n"  # AUTH, CLIENT SETNAME, PING, PING of a check
SENTINEL = "port 6379\nbind 127.0.0.1\ndir /mnt/redis\nunixsocket /mnt/redis.sock\n"


class Scene:
    """BIND runs. The database and the service do not run yet."""

    def __init__(self):
        self.host = Host(time.time_ns())  # signatures contain the time
        self.sandbox = self.host.sandbox
        open_library.install(BUILD, self.sandbox.path(DIRECTORY))
        self.names = Bind(self.sandbox)
        self.names.start()
        self.redis = redis_bed.Server(self.sandbox)
        self.sandbox.add_address(A + "/64")
        self.process = None
        self.control = None
        self.url = None

    def run_service(self, url="redis://127.0.0.1", user="default", password="any", sockets=1):
        """Starts the service and waits until it logs both servers as connected. No cycle has run yet."""
        self.url = url
        dnsurl = f"dns://127.0.0.1/{ZONE}"
        self.host.settings(hostname=NAME, rdburl=url, rdbuser=user, rdbpswd=password, dnsurl=dnsurl, dnsuser=HOST_KEY)
        settings = self.sandbox.path(f"{DIRECTORY}/addrpubd.ini")
        settings.write_text(settings.read_text().replace("dnspswd = dpass", f"dnspswd = {secret(HOST_KEY)}"))
        environment = {"LD_PRELOAD": f"{dns_bed.SHIM.resolve()} {self.host.clock.env['LD_PRELOAD']}"}
        environment["HURRYSHIM_SOCKETS"] = str(sockets)
        self.process = self.host.start("-run", tty=True, env=environment)
        self.control = self.host.clock.of(self.process)
        self.control.wait_parked()
        self.wait_connected(1)
        self.process.wait_for_output(f"connect dns server {dnsurl} success.\r\n".encode())

    def wait_connected(self, times):
        text = f"connect rdb server {self.url} success.\r\n".encode()
        wait_until(lambda: self.process.output_so_far().count(text) >= times, f"connection {times} to the database")

    def wait_disconnected(self):
        self.process.wait_for_output(f"rdb server {self.url} disconnected.".encode())

    def addresses(self):
        return sorted(self.names.dig("+short", "AAAA", NAME).splitlines())

    def wait_told(self, *addresses):
        wait_until(lambda: self.addresses() == sorted(addresses), f"{addresses} in the name service")

    def first_cycle_fails(self):
        """Runs one cycle. Its query or import of the tag fails, so no DNS update is sent."""
        self.control.advance(0.1)
        self.wait_disconnected()
        assert self.addresses() == []

    def updated_within_the_limit(self):
        """Checks that the next cycle sends a DNS update, and that a later change is sent within the same time."""
        self.control.advance(CYCLE)
        self.wait_told(A)
        self.sandbox.add_address(B + "/64")
        self.control.advance(CYCLE)
        self.wait_told(A, B)


@pytest.fixture
def scene():
    dns_bed.require(Bind)
    redis_bed.require()
    one = Scene()
    yield one
    one.host.close()


def cluster_without_slots(scene):
    scene.redis.start("--cluster-enabled", "yes")


def memory_limit(scene):
    scene.redis.start("--maxmemory", "1")


def read_only_replica(scene):
    scene.redis.start("--replicaof", "127.0.0.1", "1")


def sentinel(scene):
    scene.sandbox.path("/mnt/redis/conf").write_text(SENTINEL)
    scene.sandbox.spawn("redis-server", "/mnt/redis/conf", "--sentinel").wait_for_output(b"Sentinel ID is")


@pytest.mark.parametrize("make", [cluster_without_slots, memory_limit, read_only_replica, sentinel])
@pytest.mark.refusal  # redis
def test_4861_a_redis_that_refuses_the_tag_does_not_block_dns_updates(scene, make):
    make(scene)
    scene.run_service()
    scene.first_cycle_fails()
    scene.updated_within_the_limit()
    assert scene.process.output_so_far().count(b"connect rdb server") == 1


@pytest.mark.refusal  # redis
def test_4862_a_redis_user_without_permission_does_not_block_dns_updates(scene):
    scene.redis.start()
    scene.redis.command(*USER, "-@all", "+ping")
    scene.run_service(user="host", password="own")
    scene.first_cycle_fails()
    scene.updated_within_the_limit()
    assert scene.process.output_so_far().count(b"connect rdb server") == 1


def test_4863_a_redis_that_is_silent_after_the_login_does_not_block_dns_updates(scene):
    scene.redis.start()
    proxy = redis_bed.Proxy(scene.sandbox)
    proxy.order(f"first {len(ANSWERS_TO_LOGIN)}")
    scene.run_service("redis://127.0.0.1:6380", sockets=10)
    scene.first_cycle_fails()
    scene.updated_within_the_limit()
    assert scene.process.output_so_far().count(b"connect rdb server") == 1
    proxy.close()


def test_4864_a_database_on_a_full_disk_does_not_block_dns_updates(scene):
    scene.sandbox.path("/mnt/data").mkdir()
    scene.sandbox.run("mount", "-t", "tmpfs", "-o", "size=256k", "tmpfs", "/mnt/data")
    scene.run_service("sqlite:///mnt/data/rdb.db")
    with pytest.raises(OSError):
        scene.sandbox.path("/mnt/data/filler").write_bytes(bytes(1 << 20))
    scene.first_cycle_fails()
    scene.updated_within_the_limit()


@pytest.mark.retry
def test_4865_the_database_gets_the_addresses_after_it_accepts_the_tag(scene):
    memory_limit(scene)
    scene.run_service()
    scene.first_cycle_fails()
    scene.updated_within_the_limit()
    scene.redis.command("CONFIG", "SET", "maxmemory", "0")
    scene.wait_connected(2)
    scene.control.advance(CYCLE)
    wait_until(lambda: sorted(scene.redis.value(NAME).split(",")) == [A, B], "the addresses in the database")
