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


@pytest.mark.parametrize(
    "stale, words",
    [
        ("yes", "the server is a read-only replica (READONLY)"),
        ("no", "the server is a replica that has lost its master (MASTERDOWN)"),
    ],
    ids=["read_only", "master_down"],
)
def test_425_a_server_that_becomes_a_replica_is_left_for_the_one_that_its_name_stands_for(bed, stale, words):
    names = bed.sandbox.path("/mnt/hosts")
    names.write_text("127.0.0.1 database\n")
    bed.sandbox.run("mount", "--bind", "/mnt/hosts", "/etc/hosts")
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
