"""The back end redis with a real Redis Cluster of three masters, most tests with three replicas. Hosts write while
masters end, slots are moved and nodes are cut off. Afterwards the cluster has the newest value of each host, and no
history has a change twice.

scripts/cluster-rounds makes three of the tests longer, by the environment variables CLUSTER_ROUNDS and CLUSTER_HOSTS.
"""

import os
import threading

import open_library
import pytest
from certificates import Authority
from host import BUILD
from rdb_client import CONNECTED, RdbClient, Syslog
from redis_bed import LIBRARY, SHIM, require
from redis_cluster import Cluster, key_of, slot_of
from sandbox import Sandbox, wait_until

OK = 0
BACKEND_FAILED = 1014
SERVER_REFUSED = 1017
ROUNDS = int(os.environ.get("CLUSTER_ROUNDS", "1"))
HOSTS = int(os.environ.get("CLUSTER_HOSTS", "12"))
HOSTS_OF_A_PROCESS = 16  # number of the library's handles in one process
HISTORY = "?history=100000"  # more changes than a host makes


class Fixture:
    def __init__(self, sandbox=None, **options):
        self.sandbox = sandbox or Sandbox()
        self.log = Syslog(self.sandbox)
        self.cluster = Cluster(self.sandbox, **options)
        self.clients = []

    def close(self):
        for client in self.clients:
            client.close()
        self.log.close()
        self.sandbox.close()

    def new_client(self):
        self.clients.append(RdbClient(self.sandbox, LIBRARY, SHIM))
        return self.clients[-1]

    def connected(self, url=None, user="default"):
        client = self.new_client()
        handle = client.open(url or self.cluster.url(), user, "any")
        client.wait_event(handle, CONNECTED)
        return client, handle


@pytest.fixture
def fixture():
    require()
    one = Fixture()
    yield one
    one.close()


class Host:
    """A host with its own handle. put() publishes the next value."""

    def __init__(self, client, url, name):
        self.client, self.name = client, name
        self.handle = client.open(url, "default", "any")
        self.values = []  # all values that were put, the newest last
        self.accepted = []  # the values whose put has succeeded
        self._has_tag = False

    def put(self):
        self.values.append(f"{self.name}-{len(self.values)}")
        return self.put_again()

    def put_again(self):
        """Puts the newest value. Like the service, puts nothing if the tag cannot be imported."""
        if not self._has_tag and (code := self.client.taginport(self.handle, self.name)) != OK:
            return code
        self._has_tag = True
        code = self.client.put(self.handle, self.name, self.values[-1])
        if code == OK:
            self.accepted.append(self.values[-1])
        return code


class Fleet:
    """Hosts that put new values until stop() is called. Each client process serves several of them, on one thread."""

    def __init__(self, fixture, url, count):
        self._stopping = threading.Event()
        self.hosts = []
        self._groups = []
        for first in range(0, count, HOSTS_OF_A_PROCESS):
            client = fixture.new_client()
            names = [f"host{number}" for number in range(first, min(count, first + HOSTS_OF_A_PROCESS))]
            self._groups.append([Host(client, url, name) for name in names])
            self.hosts += self._groups[-1]
        for host in self.hosts:
            host.client.wait_event(host.handle, CONNECTED)
            assert host.put() == OK
        self._failed = []
        self._threads = []
        self._before = {}
        self.uncertain = set()

    def start(self):
        self._before = {host: len(host.accepted) for host in self.hosts}
        self._stopping.clear()
        self._threads = [threading.Thread(target=self._work, args=(group,)) for group in self._groups]
        for thread in self._threads:
            thread.start()

    def _work(self, group):
        try:
            while not self._stopping.is_set():
                for host in group:
                    host.put()
        except BaseException as error:
            self._failed.append(error)

    def wait_accepted(self, count=2):
        """Waits until each host has put further values with success."""
        before = {host: len(host.accepted) for host in self.hosts}
        wait_until(
            lambda: self._failed or all(len(host.accepted) >= before[host] + count for host in self.hosts),
            "successful puts of all hosts",
        )

    def note_loss(self):
        """Must be called when a replica has taken over. The replica may lack values that the master accepted but did
        not send to the replica. The newest value of a host may be one of them, even if its put has not returned yet."""
        for host in self.hosts:
            self.uncertain |= {*host.accepted[self._before[host] :], host.values[-1]}

    def stop(self):
        """Ends the puts of new values. Then repeats the newest value of each host until its put has succeeded. The
        service also repeats its value, after the event 60001."""
        self._stopping.set()
        for thread in self._threads:
            thread.join()
        assert not self._failed, self._failed
        for host in self.hosts:
            if host.accepted[-1] != host.values[-1]:
                wait_until(lambda host=host: host.put_again() == OK, f"the last put of {host.name}")


def check(cluster, fleet):
    """Checks that the cluster has the newest value of each host, and that each history has the accepted changes once
    and in order. Only changes that note_loss has recorded as uncertain may be missing."""
    for host in fleet.hosts:
        assert cluster.value(host.name) == host.values[-1]
        history = cluster.history(host.name)
        assert history[-1] == host.values[-1]
        assert len(set(history)) == len(history), f"{host.name}: a change is there twice"
        assert history == [value for value in host.values if value in set(history)]
        missing = sorted(set(host.accepted) - set(history) - fleet.uncertain)
        assert not missing, f"{host.name}: accepted changes are missing"


def test_746_names_reach_the_masters_of_their_slots(fixture):
    client, handle = fixture.connected()
    names = [f"host{number}" for number in range(20)]
    for name in names:
        assert client.taginport(handle, name) == OK
    assert client.put_all(handle, [(name, f"of-{name}") for name in names]) == OK
    assert [fixture.cluster.value(name) for name in names] == [f"of-{name}" for name in names]
    assert {fixture.cluster.master_of(name).number for name in names} == {1, 2, 3}
    assert fixture.log.lines("rdbapi:") == []


def test_7461_the_slots_of_keys_are_those_of_the_server(fixture):
    node = fixture.cluster.nodes[0]
    rows = (BUILD.parents[1] / "tests/data/redis_slots.tsv").read_text().splitlines()[1:]
    assert len(rows) > 600
    for row in rows:
        key, slot = row.split("\t")
        assert node.call("CLUSTER", "KEYSLOT", bytes.fromhex(key)) == int(slot)


def test_7462_a_change_is_published_to_the_subscribers_of_its_slot(fixture):
    client, handle = fixture.connected()
    assert client.taginport(handle, "host1") == OK
    node = fixture.cluster.master_of("host1")
    subscriber = node.new_connection()
    channel = key_of("changed", "host1")
    assert subscriber.call("SSUBSCRIBE", channel) == ["ssubscribe", channel, 1]
    assert client.put(handle, "host1", "2001:db8::1") == OK
    assert subscriber.read() == ["smessage", channel, "2001:db8::1"]
    subscriber.close()


@pytest.mark.failover
def test_7463_a_replica_takes_over_from_a_master_that_ends(fixture):
    fleet = Fleet(fixture, fixture.cluster.url(3, rest=HISTORY), HOSTS)
    for _ in range(ROUNDS):
        fleet.start()
        fleet.wait_accepted()
        node = fixture.cluster.master_of("host1")
        node.kill()
        fixture.cluster.wait_taken_over(node)
        fleet.note_loss()
        fleet.wait_accepted()
        fleet.stop()
        check(fixture.cluster, fleet)
        node.start()
        fixture.cluster.wait_ok()


def test_7464_slots_move_between_masters_while_hosts_write(fixture):
    cluster = fixture.cluster
    fleet = Fleet(fixture, cluster.url(rest=HISTORY), HOSTS)
    for _ in range(2 * ROUNDS):
        fleet.start()
        for host in fleet.hosts[:4]:
            cluster.move(host.name, cluster.other_master(host.name))
        fleet.wait_accepted()
        fleet.stop()
        check(cluster, fleet)
    assert all(host.accepted == host.values for host in fleet.hosts)
    assert fixture.log.lines("rdbapi:") == []


@pytest.mark.parametrize("reachable", [False, True], ids=["from_all", "from_the_other_nodes"])
@pytest.mark.failover
def test_7465_a_node_that_was_cut_off_and_returns(fixture, reachable):
    """A node that the hosts can still reach accepts values until it notices that it is cut off. These values are
    lost."""
    cluster = fixture.cluster
    fleet = Fleet(fixture, cluster.url(3, rest=HISTORY), HOSTS)
    for _ in range(ROUNDS):
        fleet.start()
        node = cluster.master_of("host1")
        cluster.cut_off(node, reachable)
        cluster.wait_taken_over(node)
        wait_until(lambda: node.state() == "fail", "the node to notice that it is alone")
        fleet.note_loss()
        fleet.wait_accepted()
        cluster.reunite(node)
        cluster.wait_ok()
        fleet.wait_accepted()
        fleet.stop()
        check(cluster, fleet)


@pytest.mark.retry
def test_7466_keys_between_two_nodes_are_read_and_written(fixture):
    """A slot is marked as moving. Its keys are first at the source, then at the target, then some at each."""
    cluster = fixture.cluster
    client, handle = fixture.connected()
    assert client.taginport(handle, "host1") == OK
    assert client.put(handle, "host1", "first") == OK
    source, target = cluster.master_of("host1"), cluster.other_master("host1")
    slot = slot_of(key_of("tag", "host1"))
    cluster.start_moving(slot, source, target)
    assert client.put(handle, "host1", "second") == OK
    cluster.move_keys(slot, source, target)
    assert client.tagget(handle, "host1")[0] == OK
    assert client.put(handle, "host1", "third") == OK
    source.call("CLUSTER", "SETSLOT", slot, "STABLE")
    target.call("CLUSTER", "SETSLOT", slot, "STABLE")
    cluster.start_moving(slot, source, target)
    cluster.end_moving(slot, source, target)
    assert client.put(handle, "host1", "fourth") == OK
    assert cluster.history("host1") == ["first", "second", "third", "fourth"]
    back = cluster.nodes[source.number - 1]
    cluster.start_moving(slot, target, back)
    target.call("MIGRATE", back.address, 6379, key_of("value", "host1"), 0, 5000)
    assert client.put(handle, "host1", "fifth") == BACKEND_FAILED
    fixture.log.wait("refused: the cluster is moving the name's keys to another node (TRYAGAIN)")
    cluster.move_keys(slot, target, back)
    cluster.end_moving(slot, target, back)
    wait_until(lambda: cluster.value("host1") == "fifth", "the value after the move")


@pytest.mark.refusal
def test_7467_a_scheme_for_another_kind_of_server_is_reported(fixture):
    cluster = fixture.cluster
    name = next(f"host{n}" for n in range(100) if cluster.master_of(f"host{n}").number != 1)
    client = fixture.new_client()
    handle = client.open("redis://10.0.0.1", "default", "any")
    client.wait_event(handle, CONNECTED)
    assert client.taginport(handle, name) == SERVER_REFUSED
    fixture.log.wait("the server is part of a cluster: the scheme for it is redis+cluster or rediss+cluster (MOVED)")
    client.open("redis://10.0.0.1/3", "default", "any")
    fixture.log.wait("a cluster, which has only database 0: the scheme for it is redis+cluster or rediss+cluster")
    single = fixture.sandbox.spawn("redis-server", "--bind", "127.0.0.1", "--save", "")
    client.open("redis+cluster://127.0.0.1", "default", "any")
    fixture.log.wait("the server is not part of a cluster: the scheme for it is without +cluster")
    single.kill()
    single.wait()


@pytest.mark.refusal
def test_7468_the_permissions_of_the_page_are_enough_and_cluster_slots_is_needed(fixture):
    rights = "on nopass ~rdb:*:{host1} &rdb:changed:{host1} +ping +client|setname +cluster|slots +asking"
    rights += " +evalsha +eval +hmget +type +time +hset +rpush +ltrim +spublish +expire"
    for node in fixture.cluster.nodes:
        node.call("ACL", "SETUSER", "host1", *rights.split())
    client, handle = fixture.connected(fixture.cluster.url(rest="?expire=900"), user="host1")
    assert client.taginport(handle, "host1") == OK
    assert client.put(handle, "host1", "first") == OK
    cluster = fixture.cluster
    slot, source, target = slot_of("host1"), cluster.master_of("host1"), cluster.other_master("host1")
    cluster.start_moving(slot, source, target)
    cluster.move_keys(slot, source, target)
    assert client.put(handle, "host1", "second") == OK
    for node in cluster.nodes:
        node.call("ACL", "SETUSER", "host1", "-cluster|slots")
    client.open(cluster.url(), "host1", "any")
    fixture.log.wait("the user has not every permission that is needed (NOPERM)")


@pytest.fixture
def tls():
    require()
    if not open_library.has(BUILD, "rediss"):
        pytest.skip("the open client library was built without its back end rediss")
    sandbox = Sandbox()
    authority = Authority(sandbox, "/mnt/pki")
    files = authority.issue("node", ",".join(f"IP:10.0.0.{number}" for number in range(1, 4)))
    options = ["--port", "0", "--tls-port", "6379", "--tls-cluster", "yes", "--tls-auth-clients", "no"]
    options += ["--tls-cert-file", files.certificate, "--tls-key-file", files.key]
    one = Fixture(sandbox, replicas=False, options=[*options, "--tls-ca-cert-file", authority.certificate])
    one.authority = authority
    yield one
    one.close()


def test_7469_a_cluster_over_tls_is_reached_at_the_addresses_that_its_nodes_name(tls):
    url = tls.cluster.url(1, "rediss+cluster", f"?ca={tls.authority.certificate}")
    client, handle = tls.connected(url)
    for number in range(6):
        assert client.taginport(handle, f"host{number}") == OK
        assert client.put(handle, f"host{number}", "over TLS") == OK
        assert tls.cluster.value(f"host{number}") == "over TLS"
    assert {tls.cluster.master_of(f"host{number}").number for number in range(6)} == {1, 2, 3}
    assert tls.log.lines("rdbapi:") == []
