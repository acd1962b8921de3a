"""Scenarios that detect plausible mistakes. Each docstring describes the mistake."""

import signal

import pytest
from recording import expected_snapshot
from world import DNS, RDB, utc

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"


def test_6901_a_service_started_in_1970_waits_for_the_tenth_second(new_scenario):
    """The time of the last cycle is initially 0, which is an ordinary time. Mistake: treating 0 as "never"."""
    scenario = new_scenario(addresses=[ADDRESS], wall_start_ns=2 * 10**9)
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(7.9)
    assert scenario.puts() == []
    scenario.run(0.1)
    assert scenario.put_times() == scenario.request_times() == [8.0]


def test_6902_in_the_first_ten_minutes_of_1970_a_reconnection_causes_no_repetition(new_scenario):
    """A mark is the time of the last put or request. A connect event sets the mark to 0, a time that is less than 600
    seconds ago here. Mistake: a separate "cleared" flag instead of 0."""
    scenario = new_scenario(addresses=[ADDRESS], wall_start_ns=20 * 10**9)
    scenario.start()
    scenario.up(RDB, DNS)
    for _ in range(56):
        scenario.run(10)
        scenario.down(RDB, DNS)
        scenario.up(RDB, DNS)
    assert scenario.put_times() == scenario.request_times() == [0.1]
    scenario.run(20)
    assert scenario.put_times() == scenario.request_times() == [0.1, 580.0]


def test_6903_the_put_mark_in_tenths_of_seconds_needs_64_bits(new_scenario):
    """Mistake: the time of the last put, in tenths of seconds, as a number of 32 bits. It overflows every 429,496,729.6
    seconds, so that a put is due too early or too late."""
    wraps = 2**32 / 10
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.set_clock(4 * wraps - 300)
    scenario.run(1200)
    assert len(scenario.puts()) == len(scenario.requests()) == 3
    scenario.step(wraps)
    scenario.run(0.1)
    assert len(scenario.puts()) == len(scenario.requests()) == 4


def test_6904_a_difference_of_2_to_the_32_seconds_is_not_treated_as_0(new_scenario):
    """Mistake: time differences computed with 32 bits."""
    far = 2**32
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    for step in (far, -far, far + 5, -far - 5):
        scenario.run(10)
        scenario.step(step)
        scenario.run(0.1)
    assert len(scenario.puts()) == len(scenario.requests()) == 5


def test_6905_null_is_not_remembered_as_sent(new_scenario):
    """Mistake: storing null as the last sent list. Then the list that was sent before null is sent again at once."""
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    for _ in range(5):
        scenario.run(20)
        scenario.remove(ADDRESS)
        scenario.run(20)
        scenario.add(ADDRESS)
    assert len(scenario.puts()) == 10
    assert scenario.request_times() == [0.1]


def test_6906_null_is_put_again_after_a_reconnect(new_scenario):
    """Mistake: nothing is put for an empty list."""
    scenario = new_scenario()
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(10)
    scenario.up(RDB, DNS)
    scenario.run(10)
    assert scenario.puts() == [(0.1, b"null"), (20.0, b"null")]
    assert scenario.requests() == []


def test_6907_a_shorter_list_replaces_a_longer_one_completely(new_scenario):
    """Mistake: a record that is not cleared. The list is an address of 39 characters, then of 11 characters, then
    null."""
    long_address = "2001:1db8:1111:2222:3333:4444:5555:6666"
    scenario = new_scenario(addresses=[long_address])
    scenario.start()
    scenario.up(RDB)
    scenario.run(10)
    scenario.remove(long_address)
    scenario.add(ADDRESS)
    scenario.run(10)
    scenario.remove(ADDRESS)
    scenario.run(10)
    values = [long_address.encode(), ADDRESS.encode(), b"null"]
    assert [call.payload for _, call in scenario.seen("rdb_objputsnapshot")] == [
        expected_snapshot(b"host1", value) for value in values
    ]


@pytest.mark.refusal
def test_6908_a_failed_put_or_request_is_not_retried_every_cycle(new_scenario):
    """Mistake: a retry every ten seconds, which overloads a failing server."""
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.answer("rdb_objputsnapshot", 1)
    scenario.answer("rdb_callmsg", 1)
    scenario.up(RDB, DNS)
    scenario.run(590)
    assert scenario.put_times() == scenario.request_times() == [0.1]


def test_6909_the_sleep_of_100_milliseconds_continues_after_sigstop_and_sigcont(new_scenario):
    """Mistake: an interrupted sleep starts again from its beginning, so that a service that is often stopped never
    wakes."""
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB)
    for _ in range(10):
        scenario.run(0.01)
        scenario.process.kill(signal.SIGSTOP)
        scenario.process.kill(signal.SIGCONT)
    assert scenario.put_times() == [0.1]


def test_6910_each_mark_is_cleared_only_by_its_own_server(new_scenario):
    """Mistake: one time of the last put or request for both servers. In the test the rdb server reconnects at 100 s,
    the DNS server at 200 s."""
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(100)
    scenario.up(RDB)
    scenario.run(100)
    scenario.up(DNS)
    scenario.run(700)
    assert scenario.put_times() == [0.1, 110.0, 710.0]
    assert scenario.request_times() == [0.1, 210.0, 810.0]


def test_6911_midnight_of_a_leap_day_or_new_year_has_no_effect(new_scenario):
    """Mistake: computing with dates instead of seconds."""
    for midnight in (utc(2028, 2, 29), utc(2028, 3, 1), utc(2027, 1, 1), utc(2100, 3, 1)):
        scenario = new_scenario(addresses=[ADDRESS], wall_start_ns=(midnight - 5) * 10**9)
        scenario.start()
        scenario.up(RDB)
        scenario.run(5)
        scenario.add(OTHER)
        scenario.run(5)
        assert scenario.put_times() == [0.1, 10.0]
