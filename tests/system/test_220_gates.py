"""The times at which cycles run and at which puts and requests are repeated, to the second.

The service wakes every 100 ms. Its clock starts at a fraction of a second such that some passes are at whole seconds.
The first cycle runs 0.1 s after the start.
"""

import pytest
from host import DNS, RDB

FIRST = 0.1


@pytest.fixture
def cycled(host):
    """Returns (host, clock control) after the first cycle of a service with one address and both servers connected."""
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run(RDB, DNS)
    control.advance(FIRST)
    assert counts(host) == (1, 1)
    return host, control


def counts(host):
    """Returns the numbers of puts and requests so far."""
    return len(host.library.puts()), len(host.library.requests())


def change_addresses(host):
    host.sandbox.add_address(f"2001:db8::{len(host.interface_list()):x}:1/64")


def test_221_the_first_cycle_runs_in_the_first_pass_with_a_connection(host):
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run()
    control.advance(5.0)
    assert counts(host) == (0, 0)
    host.library.connect(RDB)
    control.advance(0.1)
    assert counts(host) == (1, 0)


def test_222_a_change_is_published_at_10_seconds_not_at_9(cycled):
    host, control = cycled
    change_addresses(host)
    control.advance(9.9 - FIRST)
    assert counts(host) == (1, 1)
    control.advance(0.1)
    assert counts(host) == (2, 2)


def test_223_the_ten_seconds_count_from_each_cycle(cycled):
    host, control = cycled
    for cycle in range(2, 7):
        change_addresses(host)
        control.advance(9.9 if cycle > 2 else 9.9 - FIRST)
        assert counts(host) == (cycle - 1, cycle - 1)
        control.advance(0.1)
        assert counts(host) == (cycle, cycle)


def test_224_an_unchanged_list_is_published_again_after_600_seconds_not_earlier(cycled):
    host, control = cycled
    control.advance(599.9 - FIRST)
    assert counts(host) == (1, 1)
    control.advance(0.1)
    assert counts(host) == (2, 2)


@pytest.mark.parametrize("seconds", [599, -599])
def test_225_a_clock_stepped_by_599_seconds_repeats_nothing(cycled, seconds):
    host, control = cycled
    control.step(seconds)
    control.advance(0.1)
    assert counts(host) == (1, 1)


@pytest.mark.parametrize("seconds", [600, -600, 601, 86400, -86400])
def test_226_a_clock_stepped_by_600_seconds_repeats_both_at_once(cycled, seconds):
    host, control = cycled
    control.step(seconds)
    control.advance(0.1)
    assert counts(host) == (2, 2)


def test_227_after_a_cycle_at_599_seconds_the_next_cycle_repeats_both(cycled):
    host, control = cycled
    control.step(599)
    control.advance(9.8)
    assert counts(host) == (1, 1)
    control.advance(0.1)
    assert counts(host) == (2, 2)


@pytest.mark.parametrize("seconds", [-9, -1, 1, 9])
def test_228_a_clock_step_of_9_seconds_or_less_starts_no_cycle(cycled, seconds):
    host, control = cycled
    change_addresses(host)
    control.step(seconds)
    control.advance(0.1)
    assert counts(host) == (1, 1)


@pytest.mark.parametrize("seconds", [-3600, -11, -10, 10, 11])
def test_229_a_clock_step_of_10_seconds_or_more_starts_a_cycle_at_once(cycled, seconds):
    host, control = cycled
    change_addresses(host)
    control.step(seconds)
    control.advance(0.1)
    assert counts(host) == (2, 2)


def test_230_a_step_back_of_9_seconds_delays_the_next_cycle(cycled):
    host, control = cycled
    change_addresses(host)
    control.step(-9)
    control.advance(18.9 - FIRST)
    assert counts(host) == (1, 1)
    control.advance(0.1)
    assert counts(host) == (2, 2)


def test_231_a_connect_event_of_the_rdb_server_repeats_only_the_put(cycled):
    host, control = cycled
    host.library.connect(RDB)
    control.advance(9.9 - FIRST)
    assert counts(host) == (1, 1)
    control.advance(0.1)
    assert counts(host) == (2, 1)


def test_232_a_connect_event_of_the_dns_server_repeats_only_the_request(cycled):
    host, control = cycled
    host.library.connect(DNS)
    control.advance(9.9 - FIRST)
    assert counts(host) == (1, 1)
    control.advance(0.1)
    assert counts(host) == (1, 2)


def test_233_each_repeated_connect_event_causes_one_repetition(cycled):
    host, control = cycled
    host.library.connect(RDB, RDB, DNS, DNS)
    control.advance(30)
    assert counts(host) == (2, 2)


def test_234_without_a_connection_no_cycle_is_counted(cycled):
    host, control = cycled
    host.library.disconnect(RDB, DNS)
    control.advance(25)
    host.library.connect(RDB)
    control.advance(0.1)
    assert counts(host) == (2, 1)


def test_235_a_reconnection_within_ten_seconds_waits_for_the_next_cycle(cycled):
    host, control = cycled
    host.library.disconnect(RDB, DNS)
    control.advance(3)
    host.library.connect(RDB, DNS)
    control.advance(6.8)
    assert counts(host) == (1, 1)
    control.advance(0.1)
    assert counts(host) == (2, 2)


def test_236_the_rdb_server_alone_is_served_while_the_dns_server_is_down(cycled):
    host, control = cycled
    host.library.disconnect(DNS)
    change_addresses(host)
    control.advance(10)
    assert counts(host) == (2, 1)


def test_237_the_dns_server_alone_is_served_while_the_rdb_server_is_down(cycled):
    host, control = cycled
    host.library.disconnect(RDB)
    change_addresses(host)
    control.advance(10)
    assert counts(host) == (1, 2)


def test_238_with_both_disconnected_no_cycle_runs(cycled):
    host, control = cycled
    host.library.disconnect(RDB, DNS)
    change_addresses(host)
    control.advance(1200)
    assert counts(host) == (1, 1)


def test_239_put_and_request_keep_their_own_600_seconds(cycled):
    host, control = cycled
    control.advance(309 - FIRST)
    host.library.connect(DNS)
    for at, expected in [(310, (1, 2)), (600, (2, 2)), (910, (2, 3)), (1200, (3, 3))]:
        before = counts(host)
        control.advance(at - control.now_ns / 1e9 - 0.1)
        assert counts(host) == before
        control.advance(0.1)
        assert counts(host) == expected


def test_240_an_unchanged_list_makes_no_call_at_all(cycled):
    host, control = cycled
    calls = host.library.names()
    control.advance(599)
    assert host.library.names() == calls


def test_241_a_list_is_compared_only_with_the_last_list(cycled):
    """A list that changes and then changes back is sent both times."""
    host, control = cycled
    host.sandbox.add_address("2001:db8::2/64")
    control.advance(10)
    host.sandbox.remove_address("2001:db8::2/64")
    control.advance(10)
    assert counts(host) == (3, 3)
    assert host.library.puts()[0] == host.library.puts()[2] == b"2001:db8::1"
