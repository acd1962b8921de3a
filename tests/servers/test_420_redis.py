"""The open client library with a real Redis server. After any failure the server must have the last value."""

import random
import threading
import time

import pytest
from rdb_client import DISCONNECTED
from redis_bed import Fixture, require
from sandbox import wait_until

OK = 0
NOT_CONNECTED = 1005
NO_SUCH_TAG = 1011
TAG_FIELDS = ["class", "2", "type", "6", "importflag", "1", "imported_ms"]


@pytest.fixture
def fixture():
    require()
    one = Fixture()
    yield one
    one.close()


@pytest.fixture
def registered(fixture):
    """A server without passwords and a connected client, which has put the value "first"."""
    fixture.server.start()
    fixture.connected()
    fixture.register("first")
    return fixture


def test_420_a_first_registration_creates_the_three_keys(fixture):
    fixture.server.start()
    fixture.connected("/3")
    assert fixture.client.tagget(fixture.handle, "host1")[0] == NO_SUCH_TAG
    assert fixture.put("2001:db8::1") == NO_SUCH_TAG
    before = time.time_ns() // 1000000
    fixture.register("2001:db8::1")
    after = time.time_ns() // 1000000
    assert fixture.client.tagget(fixture.handle, "host1") == (OK, 2, 6)
    fixture.end_client()
    keys = fixture.server.command("-n", 3, "--scan").splitlines()
    assert sorted(keys) == ["rdb:history:host1", "rdb:tag:host1", "rdb:value:host1"]
    assert fixture.server.command("-n", 3, "HGETALL", "rdb:tag:host1").splitlines()[:7] == TAG_FIELDS
    value = fixture.server.command("-n", 3, "HGETALL", "rdb:value:host1").splitlines()
    assert value[0] == "time_ms" and before <= int(value[1]) <= after
    assert value[2:] == ["type", "6", "value", "2001:db8::1"]
    assert fixture.server.command("DBSIZE") == "0"


def test_421_a_change_and_the_removal_of_all_addresses_are_kept_in_the_history(registered):
    for value in ("2001:db8::2,2001:db8::3", "null", "null"):
        assert registered.put(value) == OK
    assert registered.server.value() == "null"
    assert registered.server.history() == ["first", "2001:db8::2,2001:db8::3", "null", "null"]


@pytest.mark.retry
def test_422_a_server_that_is_restarted_empty_is_filled_again(registered):
    registered.server.kill()
    registered.client.wait_event(registered.handle, DISCONNECTED)
    registered.server.start()
    registered.wait_held("first")
    registered.wait_connected()
    assert registered.server.command("HGETALL", "rdb:tag:host1").splitlines()[:7] == TAG_FIELDS
    assert registered.server.history() == ["first"]


@pytest.mark.retry
def test_423_a_server_killed_during_updates_neither_loses_nor_repeats_a_value(fixture):
    persistent = ["--appendonly", "yes", "--appendfsync", "always"]
    fixture.server.start(*persistent)
    fixture.connected()
    fixture.register("0")
    moments = random.Random(423)
    for number in range(1, 21):
        fixture.wait_connected()
        killer = threading.Timer(moments.uniform(0, 0.003), fixture.server.kill)
        killer.start()
        code = fixture.put(str(number))
        killer.join()
        fixture.client.wait_event(fixture.handle, DISCONNECTED, number)
        fixture.server.start(*persistent)
        back = fixture.client.now()
        if code == NOT_CONNECTED:  # the put was refused at once, or the client repeats it before the connect event
            fixture.wait_connected()
            if fixture.server.value() != str(number):
                assert fixture.put(str(number)) == OK
        fixture.wait_held(str(number), since=back)
    assert fixture.server.history() == [str(number) for number in range(21)]


@pytest.mark.retry
def test_424_truncated_answers_neither_lose_nor_repeat_a_value(fixture):
    fixture.server.start()
    fixture.proxy("pass")
    fixture.connected(port=6380)
    fixture.register("start")
    cuts = range(0, 300, 20)
    for lost, length in enumerate(cuts, 1):
        fixture.wait_connected()
        fixture.proxy(f"cut {length}")
        fixture.put(f"{length}")
        fixture.put(f"{length}b")  # receives the rest of the answers to the first put
        fixture.proxy("cut 0")
        fixture.client.tagget(fixture.handle, "host1")
        fixture.client.wait_event(fixture.handle, DISCONNECTED, lost)
        fixture.proxy("pass")
        fixture.wait_connected()
        assert fixture.put(f"{length}c") == OK
        assert fixture.server.value() == f"{length}c"
    history = fixture.server.history()
    assert len(history) == len(set(history))
    assert [value for value in history if value.endswith("c")] == [f"{length}c" for length in cuts]


def test_425_slow_answers_are_accepted_and_missing_answers_end_the_connection(fixture):
    fixture.server.start()
    fixture.proxy("drip")
    fixture.connected(port=6380, sockets=50)
    fixture.register("first")
    assert fixture.server.value() == "first"
    fixture.proxy("hold")
    assert fixture.put("second") != OK
    fixture.client.wait_event(fixture.handle, DISCONNECTED)
    fixture.log.wait("redis://127.0.0.1:6380/0: the server does not answer in time")
    fixture.proxy("pass")
    fixture.wait_held("second")
    assert fixture.server.history() == ["first", "second"]


@pytest.mark.retry
def test_426_data_flushed_during_a_connection_is_restored(registered):
    registered.server.command("FLUSHALL")
    registered.wait_held("first")
    assert registered.server.command("EXISTS", "rdb:tag:host1") == "1"
    assert DISCONNECTED not in registered.client.events(registered.handle)


def test_427_expired_keys_are_restored_while_the_host_runs(fixture):
    fixture.server.start()
    fixture.connected("?expire=900")
    fixture.register("first")
    keys = [f"rdb:{kind}:host1" for kind in ("tag", "value", "history")]
    assert all(890 <= int(fixture.server.command("TTL", key)) <= 900 for key in keys)
    for key in keys:
        fixture.server.command("EXPIRE", key, 700)
    assert fixture.put("first") == OK
    assert all(890 <= int(fixture.server.command("TTL", key)) <= 900 for key in keys)
    for key in keys:
        fixture.server.command("PEXPIRE", key, 1)
    fixture.wait_held("first")
    fixture.end_client()
    for key in keys:
        fixture.server.command("PEXPIRE", key, 1)
    wait_until(lambda: fixture.server.command("DBSIZE") == "0", "an empty server")


def test_428_a_subscriber_sees_every_change_and_no_repetition(registered):
    subscriber = registered.sandbox.spawn("redis-cli", "PSUBSCRIBE", "rdb:changed:*")
    subscriber.wait_for_output(b"psubscribe\n")
    for value in ("first", "second", "second", "null", "first"):
        assert registered.put(value) == OK
    registered.server.command("PUBLISH", "rdb:changed:end", "end")
    lines = subscriber.wait_for_output(b"rdb:changed:end\nend").decode().splitlines()
    changes = [lines[i + 3] for i, line in enumerate(lines) if line == "pmessage"]
    assert changes == ["second", "null", "first", "end"]


def test_429_the_history_keeps_the_newest_ten_thousand(registered):
    fill = "for i = 1, 10050 do redis.call('XADD', KEYS[1], '*', 'type', '6', 'value', i) end"
    registered.server.command("EVAL", fill, 1, "rdb:history:host1")
    assert registered.put("newest") == OK
    assert registered.server.command("XLEN", "rdb:history:host1") == "10000"
    newest = registered.server.command("XREVRANGE", "rdb:history:host1", "+", "-", "COUNT", 1).splitlines()
    assert newest[1:] == ["type", "6", "value", "newest"]
