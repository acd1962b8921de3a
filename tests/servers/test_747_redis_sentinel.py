"""The back end redis with three real Sentinels, which watch a master and its replica."""

import open_library
import pytest
from certificates import Authority
from host import BUILD
from rdb_client import CONNECTED, DISCONNECTED, RdbClient, Syslog
from redis_bed import LIBRARY, REFUSED, SHIM, Server, require
from sandbox import Sandbox, wait_until

OK = 0
BACKEND_FAILED = 1014
PORT = 26379
SENTINELS = ("127.0.1.1", "127.0.1.2", "127.0.1.3")

_CONF = """port {port}
bind {address}
dir {folder}
logfile ""
sentinel announce-ip {address}
sentinel monitor mymaster 127.0.0.1 6379 2
sentinel down-after-milliseconds mymaster 500
sentinel failover-timeout mymaster 3000
sentinel parallel-syncs mymaster 1
"""


class Sentinel(Server):
    def __init__(self, sandbox, address):
        self.folder = f"/mnt/sentinel{address[-1]}"
        self.address = address
        super().__init__(sandbox, address, self.folder)

    def start(self, *options, answer="PONG"):
        text = _CONF.format(port=PORT, address=self.address, folder=self.folder)
        text += f"unixsocket {self._socket}\n" + "".join(f"{option}\n" for option in options)
        self._sandbox.path(f"{self.folder}/conf").write_text(text)
        self._process = self._sandbox.spawn("redis-server", f"{self.folder}/conf", "--sentinel")
        wait_until(lambda: self._ask("PING").split(" ")[0] == answer, "a Sentinel")

    def master(self):
        return self.command("SENTINEL", "get-master-addr-by-name", "mymaster").splitlines()[0]

    def others(self):
        """Returns the numbers of replicas and of other Sentinels that this Sentinel knows."""
        fields = self.command("SENTINEL", "MASTER", "mymaster").splitlines()
        pairs = dict(zip(fields[::2], fields[1::2], strict=True))
        return int(pairs["num-slaves"]), int(pairs["num-other-sentinels"])


class Fixture:
    def __init__(self):
        self.sandbox = Sandbox()
        self.log = Syslog(self.sandbox)
        self.servers = [Server(self.sandbox, f"127.0.0.{n}", f"/mnt/redis{n}") for n in (1, 2)]
        self.sentinels = [Sentinel(self.sandbox, address) for address in SENTINELS]
        self.client = RdbClient(self.sandbox, LIBRARY, SHIM)
        self.handle = None

    def close(self):
        self.client.close()
        self.log.close()
        self.sandbox.close()

    def start(self):
        """Starts all servers and waits until the Sentinels can decide on a fail-over."""
        for number, server in enumerate(self.servers, 1):
            server.start("--replica-announce-ip", f"127.0.0.{number}", "--repl-diskless-sync-delay", "0")
        self.servers[1].command("REPLICAOF", "127.0.0.1", "6379")
        wait_until(lambda: "master_link_status:up" in self.servers[1].command("INFO", "replication"), "the replica")
        for sentinel in self.sentinels:
            sentinel.start()
        wait_until(lambda: all(one.others() == (1, 2) for one in self.sentinels), "the Sentinels to know each other")

    def open(self, sentinels=SENTINELS, rest="/mymaster", user="default", scheme="redis+sentinel"):
        self.handle = self.client.open(f"{scheme}://{','.join(sentinels)}{rest}", user, "any")

    def register(self, value):
        self.client.wait_event(self.handle, CONNECTED)
        assert self.client.taginport(self.handle, "host1") == OK
        assert self.client.put(self.handle, "host1", value) == OK


@pytest.fixture
def fixture():
    require()
    one = Fixture()
    yield one
    one.close()


def is_replica(server):
    """Returns whether the server is a replica. Also returns False if the server does not answer: while the Sentinels
    reconfigure a server, it closes its connections."""
    return server.command("ROLE").startswith("slave\n")


@pytest.mark.failover
def test_747_a_promoted_replica_is_found_when_the_master_ends(fixture):
    fixture.start()
    fixture.open()
    fixture.register("first")
    master, replica = fixture.servers
    wait_until(lambda: replica.value() == "first", "the replica to have the value")
    master.kill()
    fixture.client.wait_event(fixture.handle, DISCONNECTED)
    wait_until(lambda: fixture.sentinels[0].master() == "127.0.0.2", "the fail-over")
    fixture.client.wait_event(fixture.handle, CONNECTED, 2)
    assert fixture.client.put(fixture.handle, "host1", "second") == OK
    assert replica.history() == ["first", "second"]
    master.start("--replica-announce-ip", "127.0.0.1", "--repl-diskless-sync-delay", "0")
    wait_until(lambda: is_replica(master), "the old master to become a replica")
    assert fixture.client.put(fixture.handle, "host1", "third") == OK
    assert replica.history() == ["first", "second", "third"]


@pytest.mark.failover
def test_7471_a_fail_over_on_request_is_followed(fixture):
    fixture.start()
    fixture.open(rest="/mymaster/3?expire=900")
    fixture.register("first")
    fixture.sentinels[1].command("SENTINEL", "FAILOVER", "mymaster")
    wait_until(lambda: all(one.master() == "127.0.0.2" for one in fixture.sentinels), "the fail-over")
    wait_until(lambda: is_replica(fixture.servers[0]), "the old master's role")
    fixture.client.wait_event(fixture.handle, CONNECTED, 2)
    assert fixture.client.put(fixture.handle, "host1", "second") == OK
    assert fixture.servers[1].value(database=3) == "second"


@pytest.mark.refusal
def test_7472_each_sentinel_that_does_not_help_is_named_with_its_reason(fixture):
    fixture.servers[0].start()
    fixture.sentinels[1].start("requirepass secret", answer="NOAUTH")
    fixture.sentinels[2].start("sentinel monitor other 127.0.0.1 1 2")
    fixture.open(rest="/nomaster")
    found = fixture.log.wait("nomaster/0: ")[0]
    assert f"127.0.1.1:{PORT}: cannot be reached: {REFUSED}; " in found
    assert f"127.0.1.2:{PORT}: the Sentinel requires a login, and gets none" in found
    assert found.endswith(f"127.0.1.3:{PORT}: the Sentinel does not know a master nomaster")
    fixture.open(["127.0.1.3"], "/other")
    found = fixture.log.wait("other/0: ")[0]
    assert found.endswith(
        f"127.0.1.3:{PORT}: the master that it names: 127.0.0.1:1: cannot be reached: {REFUSED}"
    )
    fixture.open(["127.0.0.1:6379"])
    fixture.log.wait("127.0.0.1:6379: the server is not a Sentinel")


@pytest.mark.refusal
def test_7473_a_sentinel_that_names_a_replica_is_not_believed(fixture):
    fixture.servers[0].start("--replicaof", "127.0.0.1", "1")
    fixture.sentinels[0].start()
    fixture.open(SENTINELS[:1])
    fixture.log.wait("the master that it names: 127.0.0.1:6379: the server is not a primary but a replica")
    fixture.servers[0].command("REPLICAOF", "NO", "ONE")
    fixture.register("first")
    assert fixture.servers[0].value() == "first"
    fixture.log.wait("works again")


@pytest.mark.refusal
def test_7474_the_permissions_of_the_page_are_enough_and_role_is_needed(fixture):
    fixture.servers[0].start()
    fixture.sentinels[0].start(
        "user default on nopass -@all +sentinel|get-master-addr-by-name", answer="NOPERM"
    )
    rights = "on nopass ~rdb:*:{host1} &rdb:changed:{host1} +ping +client|setname +role"
    rights += " +evalsha +eval +hmget +type +time +hset +rpush +ltrim +publish +expire"
    fixture.servers[0].command("ACL", "SETUSER", "host1", *rights.split())
    fixture.open(SENTINELS[:1], "/mymaster?expire=900", "host1")
    fixture.register("first")
    assert fixture.servers[0].value() == "first"
    fixture.servers[0].command("ACL", "SETUSER", "host1", "-role")
    fixture.open(SENTINELS[:1], user="host1")
    fixture.log.wait("the user has not every permission that is needed (NOPERM)")


def test_7475_sentinel_and_master_are_reached_over_tls(fixture):
    if not open_library.has(BUILD, "rediss"):
        pytest.skip("the open client library was built without its back end rediss")
    authority = Authority(fixture.sandbox, "/mnt/pki")
    files = authority.issue("server", f"IP:127.0.0.1,IP:{SENTINELS[0]}")
    tls = {"tls-cert-file": files.certificate, "tls-key-file": files.key, "tls-ca-cert-file": authority.certificate}
    tls |= {"tls-auth-clients": "no", "tls-replication": "yes", "port": "0"}
    options = [word for name, value in tls.items() for word in (f"--{name}", value)]
    fixture.servers[0].start(*options, "--tls-port", "6379")
    fixture.sentinels[0].start(*[f"{name} {value}" for name, value in tls.items()], f"tls-port {PORT}")
    fixture.open(SENTINELS[:1], f"/mymaster?ca={authority.certificate}", scheme="rediss+sentinel")
    fixture.register("over TLS")
    assert fixture.servers[0].value() == "over TLS"
    assert fixture.log.lines("rdbapi:") == []
