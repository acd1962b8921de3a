"""Scenarios of the client library: replies that come late, events that repeat, calls that take long."""

import pytest
from recording import CONNECTED, DISCONNECTED
from world import DNS, RDB

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"
HANDLES = (0, 1)  # of the two connections, the rdb server's first


def begin(world):
    """Starts the service, brings both servers up and runs to the second cycle, 10 s after the start."""
    world.start()
    world.up(RDB, DNS)
    world.run(10)


@pytest.mark.parametrize("late", [0.05, 9, 599, 7200])
def test_6401_a_late_reply_is_logged_when_it_comes_and_changes_nothing(new_world, late):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    world.run(late)
    calls = world.journal.calls()
    world.reply(b'{"seqno":1,"code":-1,"message":"refused"}')
    assert world.journal.calls() == calls
    world.run(7300 - late)
    assert world.request_times() == [0.1] + [600.0 * number for number in range(1, 13)]


def test_6402_a_hundred_replies_to_one_request_are_a_hundred_records(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    for number in range(100):
        world.reply(b"%d" % number)
    world.end()
    assert world.model.output.count(b"[dbg] recv: ") == 100
    assert len(world.requests()) == 1


def test_6403_a_reply_after_the_connection_was_lost_does_not_bring_it_back(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    world.down(DNS)
    world.reply(b"ok")
    world.run(1200)
    assert world.request_times() == [0.1]


def test_6404_a_connection_reported_in_every_turn_is_served_once_in_each_cycle(new_world):
    minute = 60
    world = new_world(addresses=[ADDRESS])
    begin(world)
    for _ in range(minute * 10):
        world.up(RDB, DNS)
        world.run(0.1)
    assert world.put_times() == world.request_times() == [0.1, 20.0, 30.0, 40.0, 50.0, 60.0, 70.0]


def test_6405_a_loss_reported_a_hundred_times_is_made_good_by_one_connection(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    for _ in range(100):
        world.down(RDB)
    world.up(RDB)
    world.run(10)
    assert world.put_times() == [0.1, 20.0]


def test_6406_of_all_event_codes_only_two_matter(new_world):
    codes = [*range(59_000, 61_001), 0, 1, -1, -(2**31), 2**31 - 1, CONNECTED + 2**16]
    world = new_world(addresses=[ADDRESS])
    begin(world)
    records = len(world.model.records)
    for code in codes:
        if code not in (CONNECTED, DISCONNECTED):
            world.event(RDB, code)
            world.event(DNS, code)
    world.run(580)
    assert len(world.model.records) == records
    assert world.put_times() == world.request_times() == [0.1]


def test_6407_a_put_that_takes_long_delays_nothing_beyond_itself(host):
    """The cycle's second is the one in which it began: when the put is over after 25 seconds, the next cycle is due."""
    host.library.before_start("hold rdb_objputsnapshot 0")
    host.sandbox.add_address(ADDRESS + "/64")
    process, hand = host.run(*HANDLES)
    hand.let_run(0.1)
    assert host.library.tell("held 30000")
    hand.step(25)
    host.sandbox.add_address(OTHER + "/64")
    host.library.tell("release")
    hand.wait_parked()
    assert (len(host.library.puts()), len(host.library.requests())) == (1, 1)
    hand.advance(0.1)
    assert (len(host.library.puts()), len(host.library.requests())) == (2, 2)


@pytest.mark.parametrize("function", ["rdb_tagget", "rdb_taginport"])
def test_6408_a_connection_lost_while_the_tag_is_made_sure_of_is_put_to_all_the_same(host, function):
    host.library.before_start("class rdb_tagget 0 1", f"during {function} 0 {DISCONNECTED}")
    _, hand = host.run(*HANDLES)
    hand.advance(700)
    assert len(host.library.puts()) == 1


def test_6409_a_connection_reported_while_the_tag_is_made_sure_of_asks_for_nothing_more(host):
    """The put that is under way sets the mark after the event has cleared it."""
    host.library.before_start(f"during rdb_tagget 0 {CONNECTED}")
    _, hand = host.run(*HANDLES)
    hand.advance(599.9)
    assert len(host.library.puts()) == 1
    hand.advance(0.1)
    assert len(host.library.puts()) == 2


def test_6410_a_connection_reported_while_the_request_is_handed_over_asks_for_nothing_more(host):
    host.library.before_start(f"during rdb_callmsg 0 {CONNECTED}")
    host.sandbox.add_address(ADDRESS + "/64")
    _, hand = host.run(*HANDLES)
    hand.advance(599.9)
    assert len(host.library.requests()) == 1
    hand.advance(0.1)
    assert len(host.library.requests()) == 2


def test_6411_an_event_within_a_failing_import_is_not_forgotten(host):
    """The cycle ends before it sets a mark, so the next one finds a put that is due, as it would without the event."""
    host.library.before_start("result rdb_tagget * 5", "result rdb_taginport 1 6")
    host.library.before_start(f"during rdb_taginport 1 {CONNECTED}")
    host.sandbox.add_address(ADDRESS + "/64")
    _, hand = host.run(*HANDLES)
    hand.advance(599.9)
    assert len(host.library.puts()) == 1
    hand.advance(0.1)  # the put is due, its import fails
    assert len(host.library.puts()) == 1
    hand.advance(10)
    assert len(host.library.puts()) == 2


def test_6412_a_storm_of_events_while_the_service_runs_ends_in_order(new_world):
    """The events fall where they may, so the model is not asked. The last ones count."""
    world = new_world(addresses=[ADDRESS])
    begin(world)
    world.hand.let_run(3600)
    for number in range(2000):
        for handle in HANDLES:
            world.journal.event(handle, DISCONNECTED if number % 2 else CONNECTED)
    world.hand.wait_parked()
    before = (len(world.puts()), len(world.requests()))
    world.hand.advance(1200)
    assert (len(world.puts()), len(world.requests())) == before
    for handle in HANDLES:
        world.journal.event(handle, CONNECTED)
    world.hand.advance(10)
    assert (len(world.puts()), len(world.requests())) == (before[0] + 1, before[1] + 1)
    world.process.kill()
    assert world.process.wait() == 0
    world.process = None
