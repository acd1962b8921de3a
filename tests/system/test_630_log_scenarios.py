"""Scenarios of the logs: an hour over UDP, no log at all, a change of the hour, other eras."""

import time
from pathlib import Path

import pytest
from world import DNS, RDB, utc

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"
RECEIVER = Path(__file__).with_name("udp_receiver.py")


def busy_hour(world):
    """An hour in which every kind of record is written."""
    world.start()
    world.up(RDB, DNS)
    world.run(600)
    world.answer("rdb_tagget", 3)
    world.answer("rdb_callmsg", 4)
    world.add(OTHER)
    world.run(600)
    world.answer("rdb_taginport", 5)
    world.run(600)
    world.answer("rdb_taginport", 0)
    world.answer("rdb_objputsnapshot", 6)
    world.allow_listing(False)
    world.run(600)
    world.allow_listing(True)
    world.down(RDB)
    world.run(600)
    world.reply(b'{"code":0}')
    world.down(DNS)
    world.run(600)


def datagrams(world, level, stream):
    """The records of the world's model up to this level, as a log server receives them."""
    head = b'{"order":"wlog","level":%d,"cabin":"' + stream + b'"}\n'
    return [head % record + text for record, text in world.model.records if record <= level]


def log_server(world):
    """Starts one. Returns a function that waits for the last of these datagrams and returns all that came."""
    receiver = world.sandbox.spawn("/usr/bin/python3", "-I", "-S", RECEIVER, "::1", "5140")
    receiver.wait_for_output(b"ready\n")

    def received(expected):
        output = receiver.wait_for_output(expected[-1].hex().encode() + b"\n")
        return [bytes.fromhex(line) for line in output.decode().splitlines()[1:]]

    return received


LEVELS = {"dbg": 40, "inf": 30, "err": 10}


@pytest.mark.parametrize(("level", "number"), LEVELS.items())
def test_6301_a_busy_hour_over_udp_is_the_models_record_for_record(new_world, level, number):
    world = new_world(addresses=[ADDRESS], logurl=f"udp://[::1]:5140/hour?level={level}")
    received = log_server(world)
    busy_hour(world)
    world.end()
    expected = datagrams(world, number, b"hour")
    assert received(expected) == expected


def test_6302_what_is_published_does_not_depend_on_the_log(new_world):
    calls = []
    for logurl in ("stdout", None, "no/such/log", "udp://[::1]:5140/nobody?level=all", "udp://[::1]:5140"):
        world = new_world(addresses=[ADDRESS], logurl=logurl)
        busy_hour(world)
        world.end()
        calls.append(world.journal.calls())
    assert calls[1:] == calls[:1] * 4
    assert len(calls[0]) > 70


def test_6303_a_log_server_that_comes_late_receives_what_is_written_from_then_on(new_world):
    world = new_world(addresses=[ADDRESS], logurl="udp://[::1]:5140/late")
    world.start()
    world.up(RDB)
    world.run(300)
    received = log_server(world)
    before = len(world.model.records)
    world.run(1000)
    world.end()
    expected = datagrams(world, 30, b"late")[before:]
    assert received(expected) == expected
    assert len(expected) == 3  # two puts and the end


def test_6304_the_hour_that_occurs_twice_in_autumn_is_logged_twice_and_delays_nothing(new_world, monkeypatch):
    """In New York, 2 November 2025 has two hours from 1:00 to 2:00. The model's stamps go by the same zone."""
    zone, before_the_change = "America/New_York", utc(2025, 11, 2, 5, 55)
    monkeypatch.setenv("TZ", zone)
    time.tzset()
    try:
        world = new_world(addresses=[ADDRESS], wall_start_ns=before_the_change * 10**9)
        world.start()
        world.up(RDB)
        world.run(3600)
        world.end()
    finally:
        monkeypatch.undo()
        time.tzset()
    put = b"[inf] rdb_objputsnapshot"
    stamps = [line[:25] for line in bytes(world.model.output).split(b"\n") if put in line]
    assert stamps[0] == b"[2025/11/2 01:55:00.10000"
    assert stamps[1] == b"[2025/11/2 01:05:00.00000"
    assert world.put_times() == [0.1] + [600.0 * number for number in range(1, 7)]


def test_6305_the_stamps_follow_the_clock_into_every_era(new_world):
    eras = [utc(1970, 1, 1, 12), utc(1999, 12, 31, 12), utc(2038, 1, 19, 12), utc(2106, 2, 8, 12), utc(2261, 7, 1, 12)]
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB)
    for moment in eras:
        world.set_clock(moment)
        world.run(0.1)
    world.end()
    put = b"[inf] rdb_objputsnapshot"
    years = [line[1:5] for line in bytes(world.model.output).split(b"\n") if put in line]
    assert years == [b"1970", b"1999", b"2038", b"2106", b"2261"]


def test_6306_a_record_of_forty_thousand_characters_is_printed_whole(new_world):
    addresses = [f"fd00:1111:2222:3333:4444:5555:6666:{number:x}" for number in range(0x1000, 0x1000 + 1000)]
    world = new_world(addresses=addresses)
    world.start()
    world.up(RDB, DNS)
    world.run(0.1)
    world.end()
    assert max(len(line) for line in bytes(world.model.output).split(b"\n")) > 40_000


def test_6307_over_udp_such_a_record_is_lost_and_the_next_ones_are_not(new_world):
    addresses = [f"fd00:1111:2222:3333:4444:5555:6666:{number:x}" for number in range(0x1000, 0x1000 + 1000)]
    world = new_world(addresses=addresses, logurl="udp://[::1]:5140/long?level=all")
    received = log_server(world)
    world.start()
    world.up(RDB, DNS)
    world.run(0.1)
    world.end()
    expected = [datagram for datagram in datagrams(world, 999, b"long") if len(datagram) < 30_720]
    assert received(expected) == expected
    assert len(world.model.records) - len(expected) == 2
