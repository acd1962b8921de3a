"""Long runs: a day of random events, ten thousand addresses, a day without changes. All calls must be those of the
model, and the memory use must not grow.

A day has 864,000 passes of 100 ms. At the end of the scenario all calls of the client library and all log records,
including their microseconds, are compared with those of the model. Addresses are real and are changed through netlink.
"""

import itertools

from random_life import RandomLife
from world import DNS, RDB

HOUR = 3600
PUBLISHING = ("rdb_tagget", "rdb_taginport", "rdb_objputsnapshot", "rdb_callmsg")
STRAY = {"RssAnon": 16}  # kB: how many pages are in use depends on the addresses of stack and heap


def grown(before, after):
    """Returns the figures that have grown by more than STRAY. A leak of two bytes per cycle is detected in a day."""
    return {
        name: (figure, after[name]) for name, figure in before.items() if after[name] > figure + STRAY.get(name, 0)
    }


def test_6281_a_day_of_random_events_agrees_with_the_model_and_nothing_grows(new_scenario):
    scenario = new_scenario()
    scenario.start()
    scenario.up(RDB, DNS)
    life = RandomLife(scenario, seed=20250411)
    life.live(HOUR, pause=7)
    early = scenario.figures()
    life.live(23 * HOUR, pause=7)
    assert scenario.control.sleeps == 864_001
    assert life.changes > 10_000
    assert grown(early, scenario.figures()) == {}
    scenario.end()
    assert min(scenario.names().count(function) for function in PUBLISHING) > 300


def test_6282_each_of_ten_thousand_successive_addresses_is_published(new_scenario):
    """From the third cycle on, the address changes before each cycle. So only the second cycle sends no request, and
    the ten thousandth request has the sequence number 10,000."""
    changes = 10_000
    addresses = [f"2001:db8::{number:x}" for number in range(1, changes + 1)]
    scenario = new_scenario(addresses=addresses[:1])
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(10)
    for number, (old, new) in enumerate(itertools.pairwise(addresses)):
        scenario.remove(old)
        scenario.add(new)
        scenario.run(10)
        if number == 360:
            early = scenario.figures()
    assert [value for _, value in scenario.puts()] == [address.encode() for address in addresses]
    times = [0.1] + [10.0 * number for number in range(2, changes + 1)]
    assert scenario.put_times() == scenario.request_times() == times
    assert b'"seqno":10000,' in scenario.requests()[-1][1]
    assert grown(early, scenario.figures()) == {}


def test_6283_a_day_without_a_change_has_one_put_and_one_request_every_600_seconds(new_scenario):
    day = 24 * HOUR
    scenario = new_scenario(addresses=["2001:db8::1"])
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(HOUR)
    early = scenario.figures()
    scenario.run(day - HOUR)
    assert scenario.put_times() == scenario.request_times() == [0.1] + [600.0 * n for n in range(1, 145)]
    assert grown(early, scenario.figures()) == {}
