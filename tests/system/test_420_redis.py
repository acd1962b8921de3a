"""The open client library with a real Redis server: after whatever happens, the server holds what was last put."""

import random
import threading
import time

import pytest
from rdb_client import DISCONNECTED
from redis_bed import Bed, require
from sandbox import wait_until

OK = 0
NOT_CONNECTED = 1005
NO_SUCH_TAG = 1011
TAG_FIELDS = ["class", "2", "type", "6", "importflag", "1", "imported_ms"]


@pytest.fixture
def bed():
    require()
    one = Bed()
    yield one
    one.close()


@pytest.fixture
def registered(bed):
    """A server without passwords that holds the value "first" of a connected client."""
    bed.server.start()
    bed.connected()
    bed.register("first")
    return bed


def test_420_a_first_registration_makes_the_three_keys(bed):
    bed.server.start()
    bed.connected("/3")
    assert bed.client.tagget(bed.handle, "host1")[0] == NO_SUCH_TAG
    assert bed.put("2001:db8::1") == NO_SUCH_TAG
    before = time.time_ns() // 1000000
    bed.register("2001:db8::1")
    after = time.time_ns() // 1000000
    assert bed.client.tagget(bed.handle, "host1") == (OK, 2, 6)
    bed.end_client()
    keys = bed.server.command("-n", 3, "--scan").splitlines()
    assert sorted(keys) == ["rdb:history:host1", "rdb:tag:host1", "rdb:value:host1"]
    assert bed.server.command("-n", 3, "HGETALL", "rdb:tag:host1").splitlines()[:7] == TAG_FIELDS
    value = bed.server.command("-n", 3, "HGETALL", "rdb:value:host1").splitlines()
    assert value[0] == "time_ms" and before <= int(value[1]) <= after
    assert value[2:] == ["type", "6", "value", "2001:db8::1"]
    assert bed.server.command("DBSIZE") == "0"


def test_421_a_change_and_the_removal_of_all_addresses_are_kept_in_the_history(registered):
    for value in ("2001:db8::2,2001:db8::3", "null", "null"):
        assert registered.put(value) == OK
    assert registered.server.value() == "null"
    assert registered.server.history() == ["first", "2001:db8::2,2001:db8::3", "null", "null"]


def test_422_a_server_that_is_restarted_empty_is_filled_again(registered):
    registered.server.kill()
    registered.client.wait_event(registered.handle, DISCONNECTED)
    registered.server.start()
    registered.wait_held("first")
    registered.wait_connected()
    assert registered.server.command("HGETALL", "rdb:tag:host1").splitlines()[:7] == TAG_FIELDS
    assert registered.server.history() == ["first"]


def test_423_a_server_killed_in_the_middle_of_updates_loses_and_repeats_none(bed):
    persistent = ["--appendonly", "yes", "--appendfsync", "always"]
    bed.server.start(*persistent)
    bed.connected()
    bed.register("0")
    moments = random.Random(423)
    for number in range(1, 21):
        bed.wait_connected()
        killer = threading.Timer(moments.uniform(0, 0.003), bed.server.kill)
        killer.start()
        code = bed.put(str(number))
        killer.join()
        bed.client.wait_event(bed.handle, DISCONNECTED, number)
        bed.server.start(*persistent)
        back = bed.client.now()
        if code == NOT_CONNECTED:  # either refused at once, or taken and then made before the connection is told
            bed.wait_connected()
            if bed.server.value() != str(number):
                assert bed.put(str(number)) == OK
        bed.wait_held(str(number), since=back)
    assert bed.server.history() == [str(number) for number in range(21)]


def test_424_answers_cut_short_anywhere_lose_and_repeat_none(bed):
    bed.server.start()
    bed.proxy("pass")
    bed.connected(port=6380)
    bed.register("start")
    cuts = range(0, 300, 20)
    for lost, length in enumerate(cuts, 1):
        bed.wait_connected()
        bed.proxy(f"cut {length}")
        bed.put(f"{length}")
        bed.put(f"{length}b")  # uses up what the answers to the first have left
        bed.proxy("cut 0")
        bed.client.tagget(bed.handle, "host1")
        bed.client.wait_event(bed.handle, DISCONNECTED, lost)
        bed.proxy("pass")
        bed.wait_connected()
        assert bed.put(f"{length}c") == OK
        assert bed.server.value() == f"{length}c"
    history = bed.server.history()
    assert len(history) == len(set(history))
    assert [value for value in history if value.endswith("c")] == [f"{length}c" for length in cuts]


def test_425_answers_that_drip_are_taken_and_silence_ends_the_connection(bed):
    bed.server.start()
    bed.proxy("drip")
    bed.connected(port=6380, sockets=50)
    bed.register("first")
    assert bed.server.value() == "first"
    bed.proxy("hold")
    assert bed.put("second") != OK
    bed.client.wait_event(bed.handle, DISCONNECTED)
    bed.log.wait("redis://127.0.0.1:6380/0: the server does not answer in time")
    bed.proxy("pass")
    bed.wait_held("second")
    assert bed.server.history() == ["first", "second"]


def test_426_what_is_flushed_under_a_live_connection_comes_back(registered):
    registered.server.command("FLUSHALL")
    registered.wait_held("first")
    assert registered.server.command("EXISTS", "rdb:tag:host1") == "1"
    assert DISCONNECTED not in registered.client.events(registered.handle)


def test_427_expired_keys_come_back_from_a_living_host_and_not_from_a_dead_one(bed):
    bed.server.start()
    bed.connected("?expire=900")
    bed.register("first")
    keys = [f"rdb:{kind}:host1" for kind in ("tag", "value", "history")]
    assert all(890 <= int(bed.server.command("TTL", key)) <= 900 for key in keys)
    for key in keys:
        bed.server.command("EXPIRE", key, 700)
    assert bed.put("first") == OK
    assert all(890 <= int(bed.server.command("TTL", key)) <= 900 for key in keys)
    for key in keys:
        bed.server.command("PEXPIRE", key, 1)
    bed.wait_held("first")
    bed.end_client()
    for key in keys:
        bed.server.command("PEXPIRE", key, 1)
    wait_until(lambda: bed.server.command("DBSIZE") == "0", "an empty server")


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
