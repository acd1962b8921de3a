"""The open client library with a real Redis server that is or becomes a replica, loads its data, or has a key of
another program. The tests check the logged reason and which server is used next."""

import pytest
from rdb_client import CONNECTED, DISCONNECTED
from redis_bed import Fixture, Server, require
from sandbox import wait_until

OK = 0
BACKEND_FAILED = 1014
SERVER_REFUSED = 1017


@pytest.fixture
def fixture():
    require()
    one = Fixture()
    yield one
    one.close()


def name_stands_for(fixture, *addresses):
    """Makes "database" a name with these addresses. Returns the hosts file that defines the name."""
    names = fixture.sandbox.path("/mnt/hosts")
    names.write_text("".join(f"{address} database\n" for address in addresses))
    fixture.sandbox.run("mount", "--bind", "/mnt/hosts", "/etc/hosts")
    return names


@pytest.mark.parametrize(
    "stale, words",
    [
        ("yes", "the server is a read-only replica (READONLY)"),
        ("no", "the server is a replica that has lost its master (MASTERDOWN)"),
    ],
    ids=["read_only", "master_down"],
)
@pytest.mark.failover
def test_4251_after_a_server_becomes_a_replica_its_name_is_resolved_again(fixture, stale, words):
    names = name_stands_for(fixture, "127.0.0.1")
    other = Server(fixture.sandbox, "127.0.0.2", "/mnt/other")
    other.start()
    fixture.server.start("--replica-serve-stale-data", stale)
    fixture.connected(host="database")
    fixture.register("first")
    fixture.server.command("REPLICAOF", "127.0.0.1", "1")
    assert fixture.put("second") == BACKEND_FAILED
    wait_until(lambda: len(fixture.client.waits()) >= 4, "four attempts")
    assert fixture.client.events(fixture.handle) == [CONNECTED, DISCONNECTED]
    assert len(fixture.log.lines("rdbapi: redis://")) == len(fixture.log.lines(words)) == 1
    names.write_text("127.0.0.2 database\n")
    wait_until(lambda: other.value() == "second", "the value at the other server")
    fixture.wait_connected()
    assert fixture.client.events(fixture.handle) == [CONNECTED, DISCONNECTED, CONNECTED]
    fixture.server.command("REPLICAOF", "NO", "ONE")
    assert fixture.server.history() == ["first"]


@pytest.mark.refusal
def test_4252_a_key_of_another_program_is_logged_once(fixture):
    fixture.server.start()
    fixture.connected()
    fixture.register("first")
    fixture.server.command("DEL", "rdb:value:{host1}")
    fixture.server.command("SET", "rdb:value:{host1}", "mine")
    fixture.log.wait("a key of another type is in the way")
    for _ in range(3):
        assert fixture.client.tagget(fixture.handle, "host1")[0] == OK
        assert fixture.put("first") == SERVER_REFUSED
    assert len(fixture.log.lines("rdbapi: redis://")) == 1
    fixture.server.command("DEL", "rdb:value:{host1}")
    fixture.wait_held("first")
    fixture.log.wait("works again")
    assert len(fixture.log.lines("rdbapi: redis://")) == 2


@pytest.fixture
def two(fixture):
    """The server at the second address of the name. fixture.server, which the test starts, is at the first address."""
    other = Server(fixture.sandbox, "127.0.0.2", "/mnt/other")
    other.start()
    name_stands_for(fixture, "127.0.0.1", "127.0.0.2")
    return other


@pytest.mark.parametrize("stale, answer", [("yes", "PONG"), ("no", "MASTERDOWN")], ids=["read_only", "master_down"])
@pytest.mark.failover
def test_4253_after_a_replica_at_the_first_address_the_next_address_is_used(fixture, two, stale, answer):
    fixture.server.start("--replica-serve-stale-data", stale, "--replicaof", "127.0.0.1 1", answer=answer)
    fixture.connected(host="database")
    fixture.register("first")
    assert two.value() == "first"
    assert fixture.log.lines("rdbapi: redis://") == []
    assert fixture.client.events(fixture.handle) == [CONNECTED]


@pytest.mark.parametrize("stale", ["yes", "no"], ids=["read_only", "master_down"])
@pytest.mark.failover
def test_4254_a_server_that_becomes_a_replica_is_replaced_without_a_disconnect(fixture, two, stale):
    fixture.server.start("--replica-serve-stale-data", stale)
    fixture.connected(host="database")
    fixture.register("first")
    two.command("HSET", "rdb:tag:{host1}", "class", 2, "type", 6, "importflag", 1, "imported_ms", 1)
    fixture.server.command("REPLICAOF", "127.0.0.1", "1")
    assert fixture.put("second") == OK
    assert fixture.put("third") == OK
    assert two.value() == "third"
    assert fixture.log.lines("rdbapi: redis://") == []
    assert fixture.client.events(fixture.handle) == [CONNECTED]


@pytest.mark.failover
def test_4255_while_a_server_loads_its_data_the_next_address_is_used(fixture, two):
    fixture.server.start("--save", "3600 1", "--rdbcompression", "no")
    for key in range(100):
        fixture.server.command("SET", f"key{key}", "x" * 1000)
    fixture.server.command("SAVE")
    fixture.server.kill()
    slow = ["--key-load-delay", "10000000", "--loading-process-events-interval-bytes", "1024"]
    fixture.server.start(*slow, answer="LOADING")
    fixture.connected(host="database")
    fixture.register("first")
    assert two.value() == "first"
    assert fixture.log.lines("rdbapi: redis://") == []


@pytest.mark.failover
def test_4256_two_replicas_are_logged_once_and_a_new_master_is_used(fixture, two):
    fixture.server.start("--replicaof", "127.0.0.1 1")
    two.command("REPLICAOF", "127.0.0.1", "1")
    fixture.connected(host="database")
    assert fixture.client.taginport(fixture.handle, "host1") == BACKEND_FAILED
    fixture.log.wait("the server is a read-only replica (READONLY)")
    two.command("REPLICAOF", "NO", "ONE")
    fixture.wait_connected()
    fixture.register("first")
    assert two.value() == "first"
    assert len(fixture.log.lines("READONLY")) == 1
