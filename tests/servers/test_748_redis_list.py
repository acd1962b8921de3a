"""The back end redis with a url that names two real servers, without Sentinels."""

import pytest
from rdb_client import CONNECTED, DISCONNECTED
from redis_bed import REFUSED, Fixture, Server, require
from sandbox import wait_until

OK = 0
OTHER = "127.0.0.2"
LIST = f"127.0.0.1:6379,{OTHER}:6379"


@pytest.fixture
def fixture():
    require()
    one = Fixture()
    one.other = Server(one.sandbox, OTHER, "/mnt/other")
    yield one
    one.close()


@pytest.mark.failover
def test_748_a_promoted_replica_takes_over_when_the_primary_ends(fixture):
    fixture.server.start("--replicaof", OTHER, "6379", "--repl-diskless-sync-delay", "0")
    fixture.other.start("--repl-diskless-sync-delay", "0")
    wait_until(lambda: "master_link_status:up" in fixture.server.command("INFO", "replication"), "the replica")
    fixture.connected(host=f"127.0.0.1:6379,{OTHER}")
    fixture.register("first")
    wait_until(lambda: fixture.server.value() == "first", "the replica to have the value")
    fixture.other.kill()
    reason = fixture.log.wait("127.0.0.1:6379: the server is not a primary but a replica")[0]
    assert f"{OTHER}:6379: cannot be reached: {REFUSED}" in reason
    fixture.server.command("REPLICAOF", "NO", "ONE")
    fixture.wait_connected()
    assert fixture.put("second") == OK
    assert fixture.server.history() == ["first", "second"]
    assert fixture.client.events(fixture.handle) == [CONNECTED, DISCONNECTED, CONNECTED]


@pytest.mark.failover
def test_7481_a_primary_that_takes_no_writes_is_replaced_without_a_disconnect(fixture):
    fixture.server.start()
    fixture.other.start()
    fixture.connected(host=f"127.0.0.1:6379,{OTHER}")
    fixture.register("first")
    fixture.other.command("HSET", "rdb:tag:{host1}", "class", 2, "type", 6, "importflag", 1, "imported_ms", 1)
    fixture.server.command("CONFIG", "SET", "maxmemory", "1")
    assert fixture.put("second") == OK
    assert (fixture.server.value(), fixture.other.value()) == ("first", "second")
    assert fixture.client.events(fixture.handle) == [CONNECTED]
    assert fixture.log.lines("rdbapi: redis://") == []


@pytest.mark.refusal
def test_7482_without_a_primary_the_reason_names_the_failure_of_each_server(fixture):
    fixture.server.start("--replicaof", "127.0.0.1", "1")
    fixture.connect(host=f"127.0.0.1:6379,{OTHER}")
    fixture.log.wait(
        f"rdbapi: redis://{LIST}/0: 127.0.0.1:6379: the server is not a primary but a replica; "
        f"{OTHER}:6379: cannot be reached: {REFUSED}"
    )
    fixture.other.start()
    fixture.wait_connected()
    fixture.register("first")
    assert fixture.other.value() == "first"
