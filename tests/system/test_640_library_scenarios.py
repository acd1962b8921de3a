"""Scenarios of the client library: late replies, repeated events, slow calls."""

import pytest
from recording import CONNECTED, DISCONNECTED
from world import DNS, RDB

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"
HANDLES = (0, 1)  # handles of the two connections; that of the rdb server is first


def begin(scenario):
    """Starts the service, connects both servers and runs until the second cycle, 10 s after the start."""
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(10)


@pytest.mark.parametrize("late", [0.05, 9, 599, 7200])
def test_6401_a_late_reply_is_logged_and_changes_nothing(new_scenario, late):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    scenario.run(late)
    calls = scenario.calls()
    scenario.reply(b'{"seqno":1,"code":-1,"message":"refused"}')
    assert scenario.calls() == calls
    scenario.run(7300 - late)
    assert scenario.request_times() == [0.1] + [600.0 * number for number in range(1, 13)]


def test_6402_a_hundred_replies_to_one_request_are_a_hundred_records(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    for number in range(100):
        scenario.reply(b"%d" % number)
    scenario.end()
    assert scenario.model.output.count(b"[dbg] recv: ") == 100
    assert len(scenario.requests()) == 1


def test_6403_a_reply_after_the_connection_was_lost_does_not_restore_it(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    scenario.down(DNS)
    scenario.reply(b"ok")
    scenario.run(1200)
    assert scenario.request_times() == [0.1]


def test_6404_connect_events_in_every_pass_are_served_once_per_cycle(new_scenario):
    minute = 60
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    for _ in range(minute * 10):
        scenario.up(RDB, DNS)
        scenario.run(0.1)
    assert scenario.put_times() == scenario.request_times() == [0.1, 20.0, 30.0, 40.0, 50.0, 60.0, 70.0]


def test_6405_one_connect_event_after_a_hundred_disconnect_events_is_enough(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    for _ in range(100):
        scenario.down(RDB)
    scenario.up(RDB)
    scenario.run(10)
    assert scenario.put_times() == [0.1, 20.0]


def test_6406_event_codes_other_than_the_two_known_ones_are_ignored(new_scenario):
    codes = [*range(59_000, 61_001), 0, 1, -1, -(2**31), 2**31 - 1, CONNECTED + 2**16]
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    records = len(scenario.model.records)
    for code in codes:
        if code not in (CONNECTED, DISCONNECTED):
            scenario.event(RDB, code)
            scenario.event(DNS, code)
    scenario.run(580)
    assert len(scenario.model.records) == records
    assert scenario.put_times() == scenario.request_times() == [0.1]


def test_6407_a_slow_put_does_not_delay_the_next_cycle(host):
    """The ten seconds count from the start of a cycle. After a put of 25 seconds the next cycle is due at once."""
    host.library.before_start("hold rdb_objputsnapshot 0")
    host.sandbox.add_address(ADDRESS + "/64")
    process, control = host.run(*HANDLES)
    control.let_run(0.1)
    assert host.library.tell("held 30000")
    control.step(25)
    host.sandbox.add_address(OTHER + "/64")
    host.library.tell("release")
    control.wait_parked()
    assert (len(host.library.puts()), len(host.library.requests())) == (1, 1)
    control.advance(0.1)
    assert (len(host.library.puts()), len(host.library.requests())) == (2, 2)


@pytest.mark.parametrize("function", ["rdb_tagget", "rdb_taginport"])
def test_6408_a_disconnect_during_the_tag_check_does_not_prevent_the_put(host, function):
    host.library.before_start("class rdb_tagget 0 1", f"during {function} 0 {DISCONNECTED}")
    _, control = host.run(*HANDLES)
    control.advance(700)
    assert len(host.library.puts()) == 1


def test_6409_a_connect_event_during_the_tag_check_causes_no_second_put(host):
    """The event clears the mark, which is the time of the last put. The current put sets the mark again."""
    host.library.before_start(f"during rdb_tagget 0 {CONNECTED}")
    _, control = host.run(*HANDLES)
    control.advance(599.9)
    assert len(host.library.puts()) == 1
    control.advance(0.1)
    assert len(host.library.puts()) == 2


def test_6410_a_connect_event_during_the_request_causes_no_second_request(host):
    host.library.before_start(f"during rdb_callmsg 0 {CONNECTED}")
    host.sandbox.add_address(ADDRESS + "/64")
    _, control = host.run(*HANDLES)
    control.advance(599.9)
    assert len(host.library.requests()) == 1
    control.advance(0.1)
    assert len(host.library.requests()) == 2


def test_6411_an_event_during_a_failing_import_does_not_change_the_time_of_the_next_put(host):
    """The cycle ends before it sets the time of the last put. So a put is due in the next cycle, as it would be without
    the event."""
    host.library.before_start("result rdb_tagget * 5", "result rdb_taginport 1 6")
    host.library.before_start(f"during rdb_taginport 1 {CONNECTED}")
    host.sandbox.add_address(ADDRESS + "/64")
    _, control = host.run(*HANDLES)
    control.advance(599.9)
    assert len(host.library.puts()) == 1
    control.advance(0.1)  # the put is due, its import fails
    assert len(host.library.puts()) == 1
    control.advance(10)
    assert len(host.library.puts()) == 2


def test_6412_after_many_concurrent_events_the_service_ends_normally(new_scenario):
    """The times of the events are random, so the model is not used. The last events determine the final state."""
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    scenario.control.let_run(3600)
    for number in range(2000):
        for handle in HANDLES:
            scenario.library.event(handle, DISCONNECTED if number % 2 else CONNECTED)
    scenario.control.wait_parked()
    before = (len(scenario.puts()), len(scenario.requests()))
    scenario.control.advance(1200)
    assert (len(scenario.puts()), len(scenario.requests())) == before
    for handle in HANDLES:
        scenario.library.event(handle, CONNECTED)
    scenario.control.advance(10)
    assert (len(scenario.puts()), len(scenario.requests())) == (before[0] + 1, before[1] + 1)
    scenario.process.kill()
    assert scenario.process.wait() == 0
    scenario.process = None
