"""Scenarios that a plausible mistake would fail: each names the mistake."""

import signal

from recording import expected_snapshot
from world import DNS, RDB, utc

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"


def test_6901_a_service_started_in_the_first_seconds_of_1970_waits_for_the_tenth(new_world):
    """The gate takes the time of the last cycle, 0 at the start, for a time. Mistake: 0 taken for never."""
    world = new_world(addresses=[ADDRESS], wall_start_ns=2 * 10**9)
    world.start()
    world.up(RDB, DNS)
    world.run(7.9)
    assert world.puts() == []
    world.run(0.1)
    assert world.put_times() == world.request_times() == [8.0]


def test_6902_in_the_first_ten_minutes_of_1970_a_reconnection_repeats_nothing(new_world):
    """The cleared marks are times as well: 0 is less than 600 seconds ago. Mistake: a flag beside the mark."""
    world = new_world(addresses=[ADDRESS], wall_start_ns=20 * 10**9)
    world.start()
    world.up(RDB, DNS)
    for _ in range(56):
        world.run(10)
        world.down(RDB, DNS)
        world.up(RDB, DNS)
    assert world.put_times() == world.request_times() == [0.1]
    world.run(20)
    assert world.put_times() == world.request_times() == [0.1, 580.0]


def test_6903_the_put_mark_in_tenths_of_seconds_outgrows_32_bits_at_any_time_of_today(new_world):
    """Mistake: a mark of 32 bits, which wraps every 429,496,729.6 seconds and makes a put due or fresh for years."""
    wraps = 2**32 / 10
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    world.set_clock(4 * wraps - 300)
    world.run(1200)
    assert len(world.puts()) == len(world.requests()) == 3
    world.step(wraps)
    world.run(0.1)
    assert len(world.puts()) == len(world.requests()) == 4


def test_6904_differences_of_2_to_the_32_seconds_are_no_small_ones(new_world):
    """Mistake: the gates computed in 32 bits."""
    far = 2**32
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    for step in (far, -far, far + 5, -far - 5):
        world.run(10)
        world.step(step)
        world.run(0.1)
    assert len(world.puts()) == len(world.requests()) == 5


def test_6905_null_is_not_remembered_as_sent(new_world):
    """Mistake: the request's memory cleared with the addresses, so that every return is sent at once."""
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    for _ in range(5):
        world.run(20)
        world.remove(ADDRESS)
        world.run(20)
        world.add(ADDRESS)
    assert len(world.puts()) == 10
    assert world.request_times() == [0.1]


def test_6906_null_is_put_again_when_the_server_is_back_though_nothing_is_sent(new_world):
    """Mistake: an empty list taken for nothing to do."""
    world = new_world()
    world.start()
    world.up(RDB, DNS)
    world.run(10)
    world.up(RDB, DNS)
    world.run(10)
    assert world.puts() == [(0.1, b"null"), (20.0, b"null")]
    assert world.requests() == []


def test_6907_a_shorter_list_leaves_nothing_of_a_longer_one_in_the_record(new_world):
    """Mistake: a record that is not cleared. One address is 39 characters long, then 11, then null."""
    long_address = "2001:1db8:1111:2222:3333:4444:5555:6666"
    world = new_world(addresses=[long_address])
    world.start()
    world.up(RDB)
    world.run(10)
    world.remove(long_address)
    world.add(ADDRESS)
    world.run(10)
    world.remove(ADDRESS)
    world.run(10)
    values = [long_address.encode(), ADDRESS.encode(), b"null"]
    assert [call.payload for _, call in world.seen("rdb_objputsnapshot")] == [
        expected_snapshot(b"host1", value) for value in values
    ]


def test_6908_a_refused_request_counts_as_sent_and_a_failed_put_as_made(new_world):
    """Mistake: an eager retry every ten seconds, which floods a server in trouble."""
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.answer("rdb_objputsnapshot", 1)
    world.answer("rdb_callmsg", 1)
    world.up(RDB, DNS)
    world.run(590)
    assert world.put_times() == world.request_times() == [0.1]


def test_6909_the_sleep_of_100_milliseconds_goes_on_after_a_stop_and_a_continuation(new_world):
    """Mistake: an interrupted sleep that is begun anew, so that a service stopped often never wakes."""
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB)
    for _ in range(10):
        world.run(0.01)
        world.process.kill(signal.SIGSTOP)
        world.process.kill(signal.SIGCONT)
    assert world.put_times() == [0.1]


def test_6910_both_marks_are_cleared_by_their_own_server_only(new_world):
    """Mistake: one mark for both. The rdb server is back at 100 s, the other one at 200 s."""
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    world.run(100)
    world.up(RDB)
    world.run(100)
    world.up(DNS)
    world.run(700)
    assert world.put_times() == [0.1, 110.0, 710.0]
    assert world.request_times() == [0.1, 210.0, 810.0]


def test_6911_midnight_of_a_leap_day_and_of_a_new_year_is_a_second_like_any_other(new_world):
    """Mistake: dates where seconds count."""
    for midnight in (utc(2028, 2, 29), utc(2028, 3, 1), utc(2027, 1, 1), utc(2100, 3, 1)):
        world = new_world(addresses=[ADDRESS], wall_start_ns=(midnight - 5) * 10**9)
        world.start()
        world.up(RDB)
        world.run(5)
        world.add(OTHER)
        world.run(5)
        assert world.put_times() == [0.1, 10.0]
