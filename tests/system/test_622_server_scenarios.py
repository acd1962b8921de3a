"""Scenarios of the servers: connects and disconnects in various orders, and servers that refuse for some time."""

import itertools

import pytest
from world import DNS, RDB, Scenario

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"
HOUR = 3600


def begin(scenario, *servers):
    """Starts the service, connects these servers and runs until the first cycle."""
    scenario.start()
    scenario.up(*servers)
    scenario.run(0.1)


def every(seconds, until):
    """Returns 0.1, the time of the first cycle, then each multiple of `seconds` up to `until`."""
    return [0.1] + [float(at) for at in range(seconds, until + 1, seconds)]


@pytest.mark.retry
def test_6221_each_server_gets_the_list_once_after_reconnecting_in_any_order(new_scenario):
    """A server gets the list once if it has reconnected between two cycles and is still connected in the next cycle."""
    happenings = [(Scenario.down, RDB), (Scenario.down, DNS), (Scenario.up, RDB), (Scenario.up, DNS)]
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario, RDB, DNS)
    scenario.run(9.9)
    for order in itertools.permutations(happenings):
        before = (len(scenario.puts()), len(scenario.requests()))
        for happen, server in order:
            happen(scenario, server)
            scenario.run(0.3)
        scenario.run(28.8)
        after = (len(scenario.puts()), len(scenario.requests()))
        is_up = [order.index((Scenario.up, server)) > order.index((Scenario.down, server)) for server in (RDB, DNS)]
        assert [new - old for new, old in zip(after, before, strict=True)] == is_up, order
        scenario.up(RDB, DNS)
        scenario.run(30)


def test_6222_an_unstable_connection_is_served_in_each_cycle_in_which_it_is_up(new_scenario):
    minutes = 10
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario, RDB, DNS)
    for second in range(60 * minutes):
        (scenario.up if second % 2 else scenario.down)(RDB)
        scenario.run(1)
    cycles_before_the_end = 6 * minutes
    assert len(scenario.puts()) == 1 + cycles_before_the_end
    assert scenario.request_times() == every(600, 600)


def test_6223_a_connection_that_is_up_only_between_cycles_is_never_served(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario, DNS)
    for _ in range(HOUR // 10):
        scenario.run(2)
        scenario.up(RDB)
        scenario.run(6)
        scenario.down(RDB)
        scenario.run(2)
    assert scenario.puts() == []
    assert scenario.request_times() == every(600, HOUR)


def test_6224_a_single_connection_up_for_one_pass_in_twelve_seconds_is_served(new_scenario):
    """Without a connected server no cycle runs. So a cycle is due when the server connects again after 12 seconds."""
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    for _ in range(HOUR // 12):
        scenario.up(RDB)
        scenario.run(0.1)
        scenario.down(RDB)
        scenario.run(11.9)
    assert scenario.put_times() == [round(12 * n + 0.1, 3) for n in range(HOUR // 12)]


@pytest.mark.retry
def test_6225_a_reconnected_server_gets_only_the_current_list(new_scenario):
    scenario = new_scenario(addresses=["2001:db8::f"])
    begin(scenario, RDB, DNS)
    scenario.down(DNS)
    for number in range(10):
        scenario.add(f"2001:db8::{number}")
        scenario.run(10)
    scenario.up(DNS)
    scenario.run(10)
    (_, first), (_, second) = scenario.requests()
    assert (first.count(b"2001:"), second.count(b"2001:")) == (2, 12)  # a request contains its first address twice
    assert len(scenario.puts()) == 11


@pytest.mark.retry
def test_6226_a_failing_put_is_repeated_at_changes_and_every_600_seconds(new_scenario):
    change_at = 1805
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.answer("rdb_objputsnapshot", 7)
    scenario.up(RDB)
    scenario.run(change_at)
    scenario.add(OTHER)
    scenario.run(HOUR - change_at)
    assert scenario.put_times() == [0.1, 600.0, 1200.0, 1800.0, 1810.0, 2410.0, 3010.0]


@pytest.mark.retry
@pytest.mark.refusal
def test_6227_a_tag_that_cannot_be_imported_delays_both_servers(new_scenario):
    trouble = 300
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.answer("rdb_tagget", 5)
    scenario.answer("rdb_taginport", 6)
    scenario.up(RDB, DNS)
    scenario.run(trouble)
    assert scenario.names() == ["rdb_tagget", "rdb_taginport"] * (trouble // 10 + 1)
    scenario.answer("rdb_taginport", 0)
    scenario.run(10)
    assert scenario.put_times() == scenario.request_times() == [trouble + 10.0]


def test_6228_an_unusable_tag_has_no_effect_until_the_put_is_due(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario, RDB, DNS)
    scenario.answer("rdb_tagget", 5)
    scenario.answer("rdb_taginport", 6)
    for _ in range(70):
        scenario.run(10)
        scenario.up(DNS)
    assert scenario.put_times() == [0.1]
    assert scenario.request_times() == [0.1] + [10.0 * number for number in range(2, 60)]  # the put is due at 600 s


def test_6229_a_tag_changed_by_others_is_imported_when_the_next_put_is_due(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario, RDB)
    scenario.tag_class(queried=0)
    scenario.run(599.8)
    assert "rdb_taginport" not in scenario.names()
    scenario.run(0.1)
    assert scenario.names()[-3:] == ["rdb_tagget", "rdb_taginport", "rdb_objputsnapshot"]


def test_6230_a_tag_that_stays_unusable_is_imported_twice_and_put(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.tag_class(queried=1, imported=1)
    scenario.up(RDB)
    scenario.run(1200)
    assert scenario.names() == ["rdb_tagget", "rdb_taginport", "rdb_taginport", "rdb_objputsnapshot"] * 3


@pytest.mark.retry
@pytest.mark.refusal
def test_6231_refused_requests_are_repeated_every_600_seconds_with_new_numbers(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.answer("rdb_callmsg", -3)
    scenario.up(DNS)
    scenario.run(HOUR)
    assert scenario.request_times() == every(600, HOUR)
    assert [b'"seqno":%d,' % n in text for n, (_, text) in enumerate(scenario.requests(), 1)] == [True] * 7


@pytest.mark.retry
@pytest.mark.refusal
def test_6232_cycles_continue_when_queries_puts_and_requests_fail_and_recover(new_scenario):
    failing = ("rdb_tagget", "rdb_objputsnapshot", "rdb_callmsg")
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    for function in failing:
        scenario.answer(function, -1)
    scenario.up(RDB, DNS)
    scenario.run(HOUR)
    for function in failing:
        scenario.answer(function, 0)
    scenario.up(RDB, DNS)
    scenario.run(10)
    assert [call.result for _, call in scenario.seen(*failing)] == [-1] * 21 + [0] * 3


@pytest.mark.parametrize(("without", "served", "function"), [("dns", RDB, "puts"), ("rdb", DNS, "requests")])
def test_6233_a_single_configured_server_is_served(new_scenario, without, served, function):
    scenario = new_scenario(addresses=[ADDRESS], **{without + key: None for key in ("url", "user", "pswd")})
    begin(scenario, served)
    scenario.run(10)
    scenario.add(OTHER)
    scenario.run(HOUR - 10.1)
    assert [at for at, _ in getattr(scenario, function)()] == [0.1, 20.0, 620.0, 1220.0, 1820.0, 2420.0, 3020.0]
    assert {call.handle for _, call in scenario.seen("rdb_objputsnapshot", "rdb_callmsg")} == {0}


def test_6234_a_day_without_any_server_makes_no_call_at_all(new_scenario):
    day = 24 * HOUR
    scenario = new_scenario(addresses=[ADDRESS], rdburl=None, dnsurl=None)
    scenario.start()
    scenario.run(day)
    assert (scenario.control.sleeps, scenario.calls()) == (day * 10 + 1, [])


def test_6235_the_service_waits_a_day_for_servers_that_never_connect(new_scenario):
    day = 24 * HOUR
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.run(day)
    assert scenario.names() == []
    scenario.up(DNS, RDB)
    scenario.run(0.1)
    assert scenario.put_times() == scenario.request_times() == [day + 0.1]
