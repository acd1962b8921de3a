"""Long runs: a day of random life, ten thousand addresses, a day of rest; each call to the byte, and nothing grows.

The day is 864,000 turns of 100 ms. Every call of the client library and every record of the log, with its microseconds,
is compared with the model's when the world ends. Addresses are real ones, changed over netlink.
"""

import itertools

from random_life import RandomLife
from world import DNS, RDB

HOUR = 3600
PUBLISHING = ("rdb_tagget", "rdb_taginport", "rdb_objputsnapshot", "rdb_callmsg")
STRAY = {"RssAnon": 16}  # kB: where stack and heap begin decides when a page is touched first


def grown(before, after):
    """What has become more between the two. Two bytes lost in each cycle of a day would be seen."""
    return {
        name: (figure, after[name]) for name, figure in before.items() if after[name] > figure + STRAY.get(name, 0)
    }


def test_6281_a_day_of_random_life_is_what_the_model_predicts_and_nothing_grows(new_world):
    world = new_world()
    world.start()
    world.up(RDB, DNS)
    life = RandomLife(world, seed=20250411)
    life.live(HOUR, pause=7)
    early = world.figures()
    life.live(23 * HOUR, pause=7)
    assert world.hand.sleeps == 864_001
    assert life.changes > 10_000
    assert grown(early, world.figures()) == {}
    world.end()
    assert min(world.names().count(function) for function in PUBLISHING) > 300


def test_6282_ten_thousand_addresses_one_after_the_other_are_published_each(new_world):
    """Every cycle finds another address. The ten thousandth request is numbered so."""
    changes = 10_000
    addresses = [f"2001:db8::{number:x}" for number in range(1, changes + 1)]
    world = new_world(addresses=addresses[:1])
    world.start()
    world.up(RDB, DNS)
    world.run(10)
    for number, (old, new) in enumerate(itertools.pairwise(addresses)):
        world.remove(old)
        world.add(new)
        world.run(10)
        if number == 360:
            early = world.figures()
    assert [value for _, value in world.puts()] == [address.encode() for address in addresses]
    assert world.put_times() == world.request_times() == [0.1] + [10.0 * number for number in range(2, changes + 1)]
    assert b'"seqno":10000,' in world.requests()[-1][1]
    assert grown(early, world.figures()) == {}


def test_6283_a_day_without_a_change_is_one_put_and_one_request_every_600_seconds(new_world):
    day = 24 * HOUR
    world = new_world(addresses=["2001:db8::1"])
    world.start()
    world.up(RDB, DNS)
    world.run(HOUR)
    early = world.figures()
    world.run(day - HOUR)
    assert world.put_times() == world.request_times() == [0.1] + [600.0 * n for n in range(1, 145)]
    assert grown(early, world.figures()) == {}
