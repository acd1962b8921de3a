"""The open client library with a real Redis server. After a failure the server must have the last value."""

import itertools
import random
import threading
import time

import pytest
from rdb_client import CONNECTED, DISCONNECTED, RdbClient
from redis_bed import LIBRARY, SHIM, Fixture, require
from sandbox import wait_until

OK = 0
NOT_CONNECTED = 1005
NO_SUCH_TAG = 1011
BAD_REQUEST = 1013
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
    assert sorted(keys) == ["rdb:history:{host1}", "rdb:tag:{host1}", "rdb:value:{host1}"]
    assert fixture.server.command("-n", 3, "HGETALL", "rdb:tag:{host1}").splitlines()[:7] == TAG_FIELDS
    value = fixture.server.command("-n", 3, "HGETALL", "rdb:value:{host1}").splitlines()
    assert value[0::2] == ["time_ms", "confirmed_ms", "type", "value"]
    assert before <= int(value[1]) <= after and value[3] == value[1]
    assert value[5::2] == ["6", "2001:db8::1"]
    entry = fixture.server.command("-n", 3, "LRANGE", "rdb:history:{host1}", 0, -1)
    assert entry == f"{value[1]} 6 2001:db8::1"
    assert fixture.server.command("DBSIZE") == "0"


def test_421_a_change_and_the_removal_of_all_addresses_are_kept_in_the_history(registered):
    for value in ("2001:db8::2,2001:db8::3", "null", "null"):
        assert registered.put(value) == OK
    assert registered.server.value() == "null"
    assert registered.server.history() == ["first", "2001:db8::2,2001:db8::3", "null"]


@pytest.mark.retry
def test_422_a_server_that_is_restarted_empty_is_filled_again(registered):
    registered.server.kill()
    registered.client.wait_event(registered.handle, DISCONNECTED)
    registered.server.start()
    registered.wait_held("first")
    registered.wait_connected()
    assert registered.server.command("HGETALL", "rdb:tag:{host1}").splitlines()[:7] == TAG_FIELDS
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
def test_424_after_a_truncated_answer_the_next_value_is_kept_and_none_is_repeated(fixture):
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
        fixture.client.taginport(fixture.handle, "host1")
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
def test_426_data_flushed_during_a_connection_is_restored_by_one_script_call(registered):
    tag = fields(registered.server, "rdb:tag:{host1}")
    registered.server.command("FLUSHALL")
    registered.server.command("CONFIG", "RESETSTAT")
    registered.wait_held("first")
    restored = fields(registered.server, "rdb:tag:{host1}")
    assert int(restored.pop("imported_ms")) > int(tag.pop("imported_ms"))
    assert restored == tag
    assert calls(registered.server, "evalsha") == 1
    assert DISCONNECTED not in registered.client.events(registered.handle)


def test_4261_a_new_connection_sends_the_value_before_it_is_reported(registered):
    registered.server.command("CONFIG", "RESETSTAT")
    registered.server.command("CLIENT", "KILL", "TYPE", "normal")
    registered.client.wait_event(registered.handle, CONNECTED, 2)
    assert calls(registered.server, "evalsha") == 1
    assert registered.client.tagget(registered.handle, "host1") == (OK, 2, 6)
    assert registered.put("first") == OK
    assert calls(registered.server, "evalsha") == 1
    assert registered.server.history() == ["first"]
    wait_until(lambda: calls(registered.server, "hmget") > 2, "the first check")  # the script calls hmget twice
    assert calls(registered.server, "ping") == 1  # the login calls ping


def test_427_expired_keys_are_restored_while_the_host_runs(fixture):
    fixture.server.start()
    fixture.connected("?expire=900")
    fixture.register("first")
    keys = [f"rdb:{kind}:{{host1}}" for kind in ("tag", "value", "history")]
    assert all(890 <= int(fixture.server.command("TTL", key)) <= 900 for key in keys)
    for key in keys:
        fixture.server.command("PEXPIRE", key, 1)
    fixture.wait_held("first")
    fixture.end_client()
    for key in keys:
        fixture.server.command("PEXPIRE", key, 1)
    wait_until(lambda: fixture.server.command("DBSIZE") == "0", "an empty server")


def test_4271_the_library_confirms_a_value_and_its_expiry_by_itself(fixture):
    fixture.server.start()
    fixture.connected("?expire=900", environment={"HURRYSHIM_WORKER": "1000"})
    fixture.register("first")
    keys = [f"rdb:{kind}:{{host1}}" for kind in ("tag", "value", "history")]
    before = fields(fixture.server, keys[1])
    for key in keys:
        fixture.server.command("EXPIRE", key, 700)
    wait_until(lambda: all(890 <= int(fixture.server.command("TTL", key)) for key in keys), "the expiry to be set")
    after = fields(fixture.server, keys[1])
    assert int(after.pop("confirmed_ms")) > int(before.pop("confirmed_ms"))
    assert after == before
    assert fixture.server.history() == ["first"]
    assert calls(fixture.server, "hmget") > calls(fixture.server, "evalsha")  # most checks only read


def test_4272_a_refresh_finds_a_tag_that_another_program_has_changed(fixture):
    fixture.server.start()
    fixture.connected("?expire=900", environment={"HURRYSHIM_WORKER": "1000"})
    fixture.register("first")
    fixture.server.command("HSET", "rdb:tag:{host1}", "class", 1)
    wait_until(lambda: fields(fixture.server, "rdb:tag:{host1}")["class"] == "2", "the tag to be imported again")
    assert fixture.server.history() == ["first"]


def test_428_a_subscriber_sees_every_change_and_no_repetition(registered):
    subscriber = registered.sandbox.spawn("redis-cli", "PSUBSCRIBE", "rdb:changed:*")
    subscriber.wait_for_output(b"psubscribe\n")
    for value in ("first", "second", "second", "null", "first"):
        assert registered.put(value) == OK
    registered.server.command("PUBLISH", "rdb:changed:end", "end")
    lines = subscriber.wait_for_output(b"rdb:changed:end\nend").decode().splitlines()
    changes = [lines[i + 3] for i, line in enumerate(lines) if line == "pmessage"]
    assert changes == ["second", "null", "first", "end"]


@pytest.mark.parametrize("limit, kept", [("?history=3", 3), ("?history=0", 0), ("", 1000)], ids=["3", "0", "default"])
def test_429_the_history_keeps_the_newest_changes(fixture, limit, kept):
    fixture.server.start()
    fixture.connected(limit)
    fixture.register("first")
    fill = "for i = 1, 1050 do redis.call('RPUSH', KEYS[1], i .. ' 6 ' .. i) end"
    fixture.server.command("EVAL", fill, 1, "rdb:history:{host1}")
    assert fixture.put("newest") == OK
    assert fixture.put("newest") == OK
    assert fixture.server.history() == [*map(str, range(1050 - kept + 2, 1051)), "newest"][-kept:] * (kept > 0)


def fields(server, key):
    words = server.command("HGETALL", key).splitlines()
    return dict(zip(words[0::2], words[1::2], strict=True))


def test_4291_a_repetition_on_another_connection_only_confirms(registered):
    before = fields(registered.server, "rdb:value:{host1}")
    writes = registered.server.command("INFO", "commandstats")
    time.sleep(0.002)
    another = registered.client.open("redis://127.0.0.1:6379", "default", "any")
    registered.client.wait_event(another, CONNECTED)
    assert registered.client.put(another, "host1", "first") == OK
    after = fields(registered.server, "rdb:value:{host1}")
    assert int(after.pop("confirmed_ms")) > int(before.pop("confirmed_ms"))
    assert after == before
    assert registered.server.history() == ["first"]
    for command in ("rpush", "publish"):
        assert f"cmdstat_{command}:calls=1," in writes
        assert f"cmdstat_{command}:calls=1," in registered.server.command("INFO", "commandstats")


def calls(server, command):
    statistics = server.command("INFO", "commandstats").splitlines()
    return sum(int(line.split("=")[1].split(",")[0]) for line in statistics if line.startswith(f"cmdstat_{command}:"))


def test_4292_a_server_that_forgets_the_scripts_gets_them_again(registered):
    assert registered.put("second") == OK
    assert (calls(registered.server, "eval"), calls(registered.server, "evalsha")) == (2, 3)
    registered.server.command("SCRIPT", "FLUSH")
    for value in ("third", "fourth"):
        assert registered.put(value) == OK
    assert (calls(registered.server, "eval"), calls(registered.server, "evalsha")) == (3, 5)
    assert registered.server.history() == ["first", "second", "third", "fourth"]


@pytest.mark.retry
def test_4293_scripts_and_data_lost_at_random_moments_are_restored(registered):
    ending = threading.Event()

    def flush():
        moments = random.Random(4293)
        while not ending.wait(moments.uniform(0, 0.01)):
            registered.server.command(*moments.choice([["SCRIPT", "FLUSH"], ["FLUSHALL"]]))

    flusher = threading.Thread(target=flush)
    flusher.start()
    for number in range(200):
        assert registered.put(str(number)) in (OK, NO_SUCH_TAG)
    ending.set()
    flusher.join()
    registered.wait_held("199")
    assert DISCONNECTED not in registered.client.events(registered.handle)


@pytest.mark.retry
def test_4294_an_answer_lost_at_any_byte_repeats_nothing(fixture):
    fixture.server.start()
    fixture.proxy("pass")
    fixture.connected(port=6380)
    fixture.register("start")
    answer = len(b"*1\r\n$4\r\ndone\r\n")
    for lost, length in enumerate(range(answer), 1):
        fixture.wait_connected()
        fixture.proxy(f"cut {length}" if length else "cut 0")
        assert fixture.put(f"{length}") != OK
        fixture.client.wait_event(fixture.handle, DISCONNECTED, lost)
        fixture.wait_connected()
        assert fixture.put(f"{length}") == OK
    assert fixture.server.history() == ["start", *map(str, range(answer))]


def test_4295_with_concurrent_writers_each_entry_of_the_history_is_a_change(fixture):
    fixture.server.start()
    fixture.connected()
    fixture.register("0")
    writers = 4
    clients = [RdbClient(fixture.sandbox, LIBRARY, SHIM) for _ in range(writers)]
    handles = [client.open("redis://127.0.0.1:6379", "default", "any") for client in clients]
    for client, handle in zip(clients, handles, strict=True):
        client.wait_event(handle, CONNECTED)

    def write(number):
        moments = random.Random(number)
        for _ in range(100):
            assert clients[number].put(handles[number], "host1", str(moments.randrange(3))) == OK

    threads = [threading.Thread(target=write, args=(number,)) for number in range(writers)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    for client in clients:
        client.close()
    history = fixture.server.history()
    assert len(history) > writers
    assert all(one != next_one for one, next_one in itertools.pairwise(history))
    assert history[-1] == fixture.server.value()
    assert calls(fixture.server, "publish") == len(history)


def test_4296_a_put_of_several_names_is_made_as_a_whole_or_not_at_all(registered):
    assert registered.client.taginport(registered.handle, "host2") == OK
    #  The library repeats the last value of each name by itself. For host1 this is the value that the server has.
    records = [("host1", "a"), ("unknown", "b"), ("host1", "first")]
    assert registered.client.put_all(registered.handle, records) == NO_SUCH_TAG
    assert registered.server.history() == ["first"]
    assert registered.client.put_all(registered.handle, [("host1", "a"), ("host2", "b"), ("host1", "first")]) == OK
    assert registered.server.history() == ["first", "a", "first"]
    assert registered.server.value("host2") == "b"


def test_4297_a_node_of_a_cluster_keeps_all_keys_of_a_name(fixture):
    fixture.server.start("--cluster-enabled", "yes")
    fixture.server.command("CLUSTER", "ADDSLOTSRANGE", 0, 16383)
    wait_until(lambda: "cluster_state:ok" in fixture.server.command("CLUSTER", "INFO"), "the cluster")
    fixture.connected("?expire=900")
    fixture.register("first")
    assert fixture.put("second") == OK
    assert fixture.server.history() == ["first", "second"]


def test_4298_a_name_without_a_slot_of_its_own_is_refused_before_it_is_sent(registered):
    sent = calls(registered.server, "hmget"), calls(registered.server, "evalsha")
    assert registered.client.tagget(registered.handle, "}host")[0] == BAD_REQUEST
    assert registered.client.taginport(registered.handle, "}host") == BAD_REQUEST
    assert registered.put("x", "}host") == BAD_REQUEST
    assert (calls(registered.server, "hmget"), calls(registered.server, "evalsha")) == sent
    registered.log.wait("the name }host cannot be used: it is empty or starts with }")
    assert DISCONNECTED not in registered.client.events(registered.handle)
