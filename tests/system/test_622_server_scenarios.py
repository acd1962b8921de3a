"""Scenarios of the servers: links that come and go in every order, and servers that refuse for a while."""

import itertools

import pytest
from world import DNS, RDB, World

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"
HOUR = 3600


def begin(world, *servers):
    """Starts the service, brings these servers up and runs to the first cycle."""
    world.start()
    world.up(*servers)
    world.run(0.1)


def every(seconds, until):
    """The first cycle's time and every so many seconds."""
    return [0.1] + [float(at) for at in range(seconds, until + 1, seconds)]


def test_6221_in_whatever_order_both_are_lost_and_back_each_is_told_again_once(new_world):
    """The last event of a server decides; one that came back at all within the gate is told once, if it is still up."""
    happenings = [(World.down, RDB), (World.down, DNS), (World.up, RDB), (World.up, DNS)]
    world = new_world(addresses=[ADDRESS])
    begin(world, RDB, DNS)
    world.run(9.9)
    for order in itertools.permutations(happenings):
        before = (len(world.puts()), len(world.requests()))
        for happen, server in order:
            happen(world, server)
            world.run(0.3)
        world.run(28.8)
        after = (len(world.puts()), len(world.requests()))
        is_up = [order.index((World.up, server)) > order.index((World.down, server)) for server in (RDB, DNS)]
        assert [new - old for new, old in zip(after, before, strict=True)] == is_up, order
        world.up(RDB, DNS)
        world.run(30)


def test_6222_a_link_that_flaps_every_second_is_served_in_each_cycle_that_finds_it_up(new_world):
    minutes = 10
    world = new_world(addresses=[ADDRESS])
    begin(world, RDB, DNS)
    for second in range(60 * minutes):
        (world.up if second % 2 else world.down)(RDB)
        world.run(1)
    cycles_before_the_end = 6 * minutes
    assert len(world.puts()) == 1 + cycles_before_the_end
    assert world.request_times() == every(600, 600)


def test_6223_a_link_that_is_up_only_between_the_cycles_is_never_served(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world, DNS)
    for _ in range(HOUR // 10):
        world.run(2)
        world.up(RDB)
        world.run(6)
        world.down(RDB)
        world.run(2)
    assert world.puts() == []
    assert world.request_times() == every(600, HOUR)


def test_6224_a_link_alone_that_is_up_for_one_turn_in_twelve_seconds_is_served_each_time(new_world):
    """While no server is up no cycle runs, so the gate stands open when the link is back."""
    world = new_world(addresses=[ADDRESS])
    world.start()
    for _ in range(HOUR // 12):
        world.up(RDB)
        world.run(0.1)
        world.down(RDB)
        world.run(11.9)
    assert world.put_times() == [round(12 * n + 0.1, 3) for n in range(HOUR // 12)]


def test_6225_one_that_was_away_gets_the_list_of_now_and_no_older_one(new_world):
    world = new_world(addresses=["2001:db8::f"])
    begin(world, RDB, DNS)
    world.down(DNS)
    for number in range(10):
        world.add(f"2001:db8::{number}")
        world.run(10)
    world.up(DNS)
    world.run(10)
    (_, first), (_, second) = world.requests()
    assert (first.count(b"2001:"), second.count(b"2001:")) == (2, 12)  # a list and its first address again
    assert len(world.puts()) == 11


def test_6226_a_put_that_fails_for_an_hour_is_tried_at_changes_and_every_600_seconds(new_world):
    change_at = 1805
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.answer("rdb_objputsnapshot", 7)
    world.up(RDB)
    world.run(change_at)
    world.add(OTHER)
    world.run(HOUR - change_at)
    assert world.put_times() == [0.1, 600.0, 1200.0, 1800.0, 1810.0, 2410.0, 3010.0]


def test_6227_a_tag_that_cannot_be_imported_keeps_both_servers_waiting(new_world):
    trouble = 300
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.answer("rdb_tagget", 5)
    world.answer("rdb_taginport", 6)
    world.up(RDB, DNS)
    world.run(trouble)
    assert world.names() == ["rdb_tagget", "rdb_taginport"] * (trouble // 10 + 1)
    world.answer("rdb_taginport", 0)
    world.run(10)
    assert world.put_times() == world.request_times() == [trouble + 10.0]


def test_6228_a_tag_in_trouble_does_not_matter_while_the_put_is_fresh(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world, RDB, DNS)
    world.answer("rdb_tagget", 5)
    world.answer("rdb_taginport", 6)
    for _ in range(70):
        world.run(10)
        world.up(DNS)
    assert world.put_times() == [0.1]
    assert world.request_times() == [0.1] + [10.0 * number for number in range(2, 60)]  # at 600 s the put is due


def test_6229_a_tag_that_somebody_spoils_is_repaired_when_the_next_put_is_due(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world, RDB)
    world.tag_class(queried=0)
    world.run(599.8)
    assert "rdb_taginport" not in world.names()
    world.run(0.1)
    assert world.names()[-3:] == ["rdb_tagget", "rdb_taginport", "rdb_objputsnapshot"]


def test_6230_a_tag_that_no_import_makes_usable_is_imported_twice_and_put_all_the_same(new_world):
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.tag_class(queried=1, imported=1)
    world.up(RDB)
    world.run(1200)
    assert world.names() == ["rdb_tagget", "rdb_taginport", "rdb_taginport", "rdb_objputsnapshot"] * 3


def test_6231_requests_refused_for_an_hour_are_tried_every_600_seconds_with_growing_numbers(new_world):
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.answer("rdb_callmsg", -3)
    world.up(DNS)
    world.run(HOUR)
    assert world.request_times() == every(600, HOUR)
    assert [b'"seqno":%d,' % n in text for n, (_, text) in enumerate(world.requests(), 1)] == [True] * 7


def test_6232_when_everything_fails_the_cycle_goes_on_and_all_is_well_after_the_repair(new_world):
    failing = ("rdb_tagget", "rdb_objputsnapshot", "rdb_callmsg")
    world = new_world(addresses=[ADDRESS])
    world.start()
    for function in failing:
        world.answer(function, -1)
    world.up(RDB, DNS)
    world.run(HOUR)
    for function in failing:
        world.answer(function, 0)
    world.up(RDB, DNS)
    world.run(10)
    assert [call.result for _, call in world.seen(*failing)] == [-1] * 21 + [0] * 3


@pytest.mark.parametrize(("without", "served", "function"), [("dns", RDB, "puts"), ("rdb", DNS, "requests")])
def test_6233_one_server_alone_is_served_as_if_there_were_no_other(new_world, without, served, function):
    world = new_world(addresses=[ADDRESS], **{without + key: None for key in ("url", "user", "pswd")})
    begin(world, served)
    world.run(10)
    world.add(OTHER)
    world.run(HOUR - 10.1)
    assert [at for at, _ in getattr(world, function)()] == [0.1, 20.0, 620.0, 1220.0, 1820.0, 2420.0, 3020.0]
    assert {call.handle for _, call in world.seen("rdb_objputsnapshot", "rdb_callmsg")} == {0}


def test_6234_a_day_without_any_server_makes_no_call_at_all(new_world):
    day = 24 * HOUR
    world = new_world(addresses=[ADDRESS], rdburl=None, dnsurl=None)
    world.start()
    world.run(day)
    assert (world.hand.sleeps, world.journal.calls()) == (day * 10 + 1, [])


def test_6235_servers_that_never_come_up_are_waited_for_a_day(new_world):
    day = 24 * HOUR
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.run(day)
    assert world.names() == []
    world.up(DNS, RDB)
    world.run(0.1)
    assert world.put_times() == world.request_times() == [day + 0.1]
