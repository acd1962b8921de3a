"""The open client library with a real Redis server that becomes a replica, or holds somebody else's key: what it says of
it, and where it goes."""

import pytest
from rdb_client import CONNECTED, DISCONNECTED
from redis_bed import Bed, Server, require
from sandbox import wait_until

OK = 0
BACKEND_FAILED = 1014
SERVER_REFUSED = 1017


@pytest.fixture
def bed():
    require()
    one = Bed()
    yield one
    one.close()


def name_stands_for(bed, *addresses):
    """Makes "database" a name of these addresses. Returns the file that says so."""
    names = bed.sandbox.path("/mnt/hosts")
    names.write_text("".join(f"{address} database\n" for address in addresses))
    bed.sandbox.run("mount", "--bind", "/mnt/hosts", "/etc/hosts")
    return names


@pytest.mark.parametrize(
    "stale, words",
    [
        ("yes", "the server is a read-only replica (READONLY)"),
        ("no", "the server is a replica that has lost its master (MASTERDOWN)"),
    ],
    ids=["read_only", "master_down"],
)
def test_425_a_server_that_becomes_a_replica_is_left_for_the_one_that_its_name_stands_for(bed, stale, words):
    names = name_stands_for(bed, "127.0.0.1")
    other = Server(bed.sandbox, "127.0.0.2", "/mnt/other")
    other.start()
    bed.server.start("--replica-serve-stale-data", stale)
    bed.connected(host="database")
    bed.register("first")
    bed.server.command("REPLICAOF", "127.0.0.1", "1")
    assert bed.put("second") == BACKEND_FAILED
    wait_until(lambda: len(bed.client.waits()) >= 4, "four attempts")
    assert bed.client.events(bed.handle) == [CONNECTED, DISCONNECTED]
    assert len(bed.log.lines("rdbapi: redis://")) == len(bed.log.lines(words)) == 1
    names.write_text("127.0.0.2 database\n")
    wait_until(lambda: other.value() == "second", "the value at the other server")
    bed.wait_connected()
    assert bed.client.events(bed.handle) == [CONNECTED, DISCONNECTED, CONNECTED]
    bed.server.command("REPLICAOF", "NO", "ONE")
    assert bed.server.history() == ["first"]


def test_426_a_foreign_key_that_a_check_finds_is_said_once_whatever_else_succeeds(bed):
    bed.server.start()
    bed.connected()
    bed.register("first")
    bed.server.command("DEL", "rdb:value:host1")
    bed.server.command("SET", "rdb:value:host1", "mine")
    bed.log.wait("a key of another type is in the way")
    for _ in range(3):
        assert bed.client.tagget(bed.handle, "host1")[0] == OK
        assert bed.put("first") == SERVER_REFUSED
    assert len(bed.log.lines("rdbapi: redis://")) == 1
    bed.server.command("DEL", "rdb:value:host1")
    bed.wait_held("first")
    bed.log.wait("works again")
    assert len(bed.log.lines("rdbapi: redis://")) == 2


@pytest.fixture
def two(bed):
    """The server of the name's second address; that of the first is bed.server, which the test starts."""
    other = Server(bed.sandbox, "127.0.0.2", "/mnt/other")
    other.start()
    name_stands_for(bed, "127.0.0.1", "127.0.0.2")
    return other


@pytest.mark.parametrize("stale, answer", [("yes", "PONG"), ("no", "MASTERDOWN")], ids=["read_only", "master_down"])
def test_427_a_replica_at_the_first_address_is_left_for_the_next_one(bed, two, stale, answer):
    bed.server.start("--replica-serve-stale-data", stale, "--replicaof", "127.0.0.1 1", answer=answer)
    bed.connected(host="database")
    bed.register("first")
    assert two.value() == "first"
    assert bed.log.lines("rdbapi: redis://") == []
    assert bed.client.events(bed.handle) == [CONNECTED]


@pytest.mark.parametrize("stale", ["yes", "no"], ids=["read_only", "master_down"])
def test_428_a_server_that_becomes_a_replica_is_left_without_losing_the_connection(bed, two, stale):
    bed.server.start("--replica-serve-stale-data", stale)
    bed.connected(host="database")
    bed.register("first")
    two.command("HSET", "rdb:tag:host1", "class", 2, "type", 6, "importflag", 1, "imported_ms", 1)
    bed.server.command("REPLICAOF", "127.0.0.1", "1")
    assert bed.put("second") == OK
    assert bed.put("third") == OK
    assert two.value() == "third"
    assert bed.log.lines("rdbapi: redis://") == []
    assert bed.client.events(bed.handle) == [CONNECTED]


def test_429_a_server_that_is_loading_its_data_is_left_for_the_next_address(bed, two):
    bed.server.start("--save", "3600 1", "--rdbcompression", "no")
    for key in range(100):
        bed.server.command("SET", f"key{key}", "x" * 1000)
    bed.server.command("SAVE")
    bed.server.kill()
    slow = ["--key-load-delay", "10000000", "--loading-process-events-interval-bytes", "1024"]
    bed.server.start(*slow, answer="LOADING")
    bed.connected(host="database")
    bed.register("first")
    assert two.value() == "first"
    assert bed.log.lines("rdbapi: redis://") == []


def test_430_of_two_replicas_the_reason_is_said_once_and_a_new_master_ends_it(bed, two):
    bed.server.start("--replicaof", "127.0.0.1 1")
    two.command("REPLICAOF", "127.0.0.1", "1")
    bed.connected(host="database")
    assert bed.client.taginport(bed.handle, "host1") == BACKEND_FAILED
    bed.log.wait("the server is a read-only replica (READONLY)")
    two.command("REPLICAOF", "NO", "ONE")
    bed.wait_connected()
    bed.register("first")
    assert two.value() == "first"
    assert len(bed.log.lines("READONLY")) == 1
