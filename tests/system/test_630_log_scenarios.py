"""Scenarios of the logs: an hour of UDP records, no log, the end of daylight saving time, other eras."""

import time
from pathlib import Path

import pytest
from world import DNS, RDB, utc

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"
RECEIVER = Path(__file__).with_name("udp_receiver.py")


def busy_hour(scenario):
    """An hour in which requests succeed and fail, and servers connect and disconnect."""
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(600)
    scenario.answer("rdb_tagget", 3)
    scenario.answer("rdb_callmsg", 4)
    scenario.add(OTHER)
    scenario.run(600)
    scenario.answer("rdb_taginport", 5)
    scenario.run(600)
    scenario.answer("rdb_taginport", 0)
    scenario.answer("rdb_objputsnapshot", 6)
    scenario.allow_listing(False)
    scenario.run(600)
    scenario.allow_listing(True)
    scenario.down(RDB)
    scenario.run(600)
    scenario.reply(b'{"code":0}')
    scenario.down(DNS)
    scenario.run(600)


def datagrams(scenario, level, stream):
    """Returns the records of the scenario's model up to this level, in the form in which a log server receives them."""
    head = b'{"order":"wlog","level":%d,"cabin":"' + stream + b'"}\n'
    return [head % record + text for record, text in scenario.model.records if record <= level]


def log_server(scenario):
    """Starts a log server. Returns a function that waits for the last of the given datagrams and returns all received
    datagrams."""
    receiver = scenario.sandbox.spawn("/usr/bin/python3", "-I", "-S", RECEIVER, "::1", "5140")
    receiver.wait_for_output(b"ready\n")

    def received(expected):
        output = receiver.wait_for_output(expected[-1].hex().encode() + b"\n")
        return [bytes.fromhex(line) for line in output.decode().splitlines()[1:]]

    return received


LEVELS = {"dbg": 40, "inf": 30, "err": 10}


@pytest.mark.parametrize(("level", "number"), LEVELS.items())
def test_6301_an_hour_of_udp_records_agrees_with_the_model(new_scenario, level, number):
    scenario = new_scenario(addresses=[ADDRESS], logurl=f"udp://[::1]:5140/hour?level={level}")
    received = log_server(scenario)
    busy_hour(scenario)
    scenario.end()
    expected = datagrams(scenario, number, b"hour")
    assert received(expected) == expected


def test_6302_the_published_data_do_not_depend_on_the_log(new_scenario):
    calls = []
    for logurl in ("stdout", None, "no/such/log", "udp://[::1]:5140/nobody?level=all", "udp://[::1]:5140"):
        scenario = new_scenario(addresses=[ADDRESS], logurl=logurl)
        busy_hour(scenario)
        scenario.end()
        calls.append(scenario.calls())
    assert calls[1:] == calls[:1] * 4
    assert len(calls[0]) > 70


def test_6303_a_log_server_that_starts_late_gets_later_records(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS], logurl="udp://[::1]:5140/late")
    scenario.start()
    scenario.up(RDB)
    scenario.run(300)
    received = log_server(scenario)
    before = len(scenario.model.records)
    scenario.run(1000)
    scenario.end()
    expected = datagrams(scenario, 30, b"late")[before:]
    assert received(expected) == expected
    assert len(expected) == 3  # two puts and the end


def test_6304_the_end_of_daylight_saving_time_delays_nothing(new_scenario, monkeypatch):
    """In New York, 2 November 2025 has the hour from 1:00 to 2:00 twice. The model uses the same time zone."""
    zone, before_the_change = "America/New_York", utc(2025, 11, 2, 5, 55)
    monkeypatch.setenv("TZ", zone)
    time.tzset()
    try:
        scenario = new_scenario(addresses=[ADDRESS], wall_start_ns=before_the_change * 10**9)
        scenario.start()
        scenario.up(RDB)
        scenario.run(3600)
        scenario.end()
    finally:
        monkeypatch.undo()
        time.tzset()
    put = b"[inf] rdb_objputsnapshot"
    stamps = [line[:25] for line in bytes(scenario.model.output).split(b"\n") if put in line]
    assert stamps[0] == b"[2025/11/2 01:55:00.10000"
    assert stamps[1] == b"[2025/11/2 01:05:00.00000"
    assert scenario.put_times() == [0.1] + [600.0 * number for number in range(1, 7)]


def test_6305_time_stamps_are_correct_in_several_eras(new_scenario):
    eras = [utc(1970, 1, 1, 12), utc(1999, 12, 31, 12), utc(2038, 1, 19, 12), utc(2106, 2, 8, 12), utc(2261, 7, 1, 12)]
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB)
    for moment in eras:
        scenario.set_clock(moment)
        scenario.run(0.1)
    scenario.end()
    put = b"[inf] rdb_objputsnapshot"
    years = [line[1:5] for line in bytes(scenario.model.output).split(b"\n") if put in line]
    assert years == [b"1970", b"1999", b"2038", b"2106", b"2261"]


def test_6306_a_record_of_forty_thousand_characters_is_printed_completely(new_scenario):
    addresses = [f"fd00:1111:2222:3333:4444:5555:6666:{number:x}" for number in range(0x1000, 0x1000 + 1000)]
    scenario = new_scenario(addresses=addresses)
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(0.1)
    scenario.end()
    assert max(len(line) for line in bytes(scenario.model.output).split(b"\n")) > 40_000


def test_6307_over_udp_only_records_that_are_too_long_are_lost(new_scenario):
    addresses = [f"fd00:1111:2222:3333:4444:5555:6666:{number:x}" for number in range(0x1000, 0x1000 + 1000)]
    scenario = new_scenario(addresses=addresses, logurl="udp://[::1]:5140/long?level=all")
    received = log_server(scenario)
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(0.1)
    scenario.end()
    expected = [datagram for datagram in datagrams(scenario, 999, b"long") if len(datagram) < 30_720]
    assert received(expected) == expected
    assert len(scenario.model.records) - len(expected) == 2
