"""When the cycle runs, and when it writes and sends again, to the second.

The service wakes every 100 ms; its clock starts at a fraction of a second that makes whole seconds begin with a turn.
The first cycle runs 0.1 s after the start.
"""

import pytest
from host import DNS, RDB

FIRST = 0.1


@pytest.fixture
def cycled(host):
    """A host with one address, both servers up and the first cycle just done: (host, hand)."""
    host.sandbox.add_address("2001:db8::1/64")
    _, hand = host.run(RDB, DNS)
    hand.advance(FIRST)
    assert counts(host) == (1, 1)
    return host, hand


def counts(host):
    """How often the service has put and sent so far."""
    return len(host.library.puts()), len(host.library.requests())


def change_addresses(host):
    host.sandbox.add_address(f"2001:db8::{len(host.interface_list()):x}:1/64")


def test_221_the_first_cycle_runs_at_the_first_turn_with_a_connection(host):
    host.sandbox.add_address("2001:db8::1/64")
    _, hand = host.run()
    hand.advance(5.0)
    assert counts(host) == (0, 0)
    host.library.connect(RDB)
    hand.advance(0.1)
    assert counts(host) == (1, 0)


def test_222_a_change_is_published_at_10_seconds_not_at_9(cycled):
    host, hand = cycled
    change_addresses(host)
    hand.advance(9.9 - FIRST)
    assert counts(host) == (1, 1)
    hand.advance(0.1)
    assert counts(host) == (2, 2)


def test_223_the_ten_seconds_count_from_each_cycle(cycled):
    host, hand = cycled
    for cycle in range(2, 7):
        change_addresses(host)
        hand.advance(9.9 if cycle > 2 else 9.9 - FIRST)
        assert counts(host) == (cycle - 1, cycle - 1)
        hand.advance(0.1)
        assert counts(host) == (cycle, cycle)


def test_224_an_unchanged_list_is_published_again_at_600_seconds_not_before(cycled):
    host, hand = cycled
    hand.advance(599.9 - FIRST)
    assert counts(host) == (1, 1)
    hand.advance(0.1)
    assert counts(host) == (2, 2)


@pytest.mark.parametrize("seconds", [599, -599])
def test_225_a_clock_stepped_by_599_seconds_repeats_nothing(cycled, seconds):
    host, hand = cycled
    hand.step(seconds)
    hand.advance(0.1)
    assert counts(host) == (1, 1)


@pytest.mark.parametrize("seconds", [600, -600, 601, 86400, -86400])
def test_226_a_clock_stepped_by_600_seconds_repeats_both_at_once(cycled, seconds):
    host, hand = cycled
    hand.step(seconds)
    hand.advance(0.1)
    assert counts(host) == (2, 2)


def test_227_a_cycle_at_599_seconds_leaves_the_refresh_to_the_next_one(cycled):
    host, hand = cycled
    hand.step(599)
    hand.advance(9.8)
    assert counts(host) == (1, 1)
    hand.advance(0.1)
    assert counts(host) == (2, 2)


@pytest.mark.parametrize("seconds", [-9, -1, 1, 9])
def test_228_a_clock_stepped_by_9_seconds_or_less_does_not_open_the_gate(cycled, seconds):
    host, hand = cycled
    change_addresses(host)
    hand.step(seconds)
    hand.advance(0.1)
    assert counts(host) == (1, 1)


@pytest.mark.parametrize("seconds", [-3600, -11, -10, 10, 11])
def test_229_a_clock_stepped_by_10_seconds_or_more_opens_the_gate_at_once(cycled, seconds):
    host, hand = cycled
    change_addresses(host)
    hand.step(seconds)
    hand.advance(0.1)
    assert counts(host) == (2, 2)


def test_230_after_a_step_back_of_9_seconds_the_cycle_waits_until_10_past_the_old_mark(cycled):
    host, hand = cycled
    change_addresses(host)
    hand.step(-9)
    hand.advance(18.9 - FIRST)
    assert counts(host) == (1, 1)
    hand.advance(0.1)
    assert counts(host) == (2, 2)


def test_231_a_connect_event_of_the_rdb_server_repeats_the_put_alone_at_the_next_cycle(cycled):
    host, hand = cycled
    host.library.connect(RDB)
    hand.advance(9.9 - FIRST)
    assert counts(host) == (1, 1)
    hand.advance(0.1)
    assert counts(host) == (2, 1)


def test_232_a_connect_event_of_the_dns_server_repeats_the_request_alone_at_the_next_cycle(cycled):
    host, hand = cycled
    host.library.connect(DNS)
    hand.advance(9.9 - FIRST)
    assert counts(host) == (1, 1)
    hand.advance(0.1)
    assert counts(host) == (1, 2)


def test_233_each_repeated_connect_event_repeats_once(cycled):
    host, hand = cycled
    host.library.connect(RDB, RDB, DNS, DNS)
    hand.advance(30)
    assert counts(host) == (2, 2)


def test_234_without_a_connection_the_gate_stays_open(cycled):
    host, hand = cycled
    host.library.disconnect(RDB, DNS)
    hand.advance(25)
    host.library.connect(RDB)
    hand.advance(0.1)
    assert counts(host) == (2, 1)


def test_235_a_reconnection_within_ten_seconds_waits_for_the_gate(cycled):
    host, hand = cycled
    host.library.disconnect(RDB, DNS)
    hand.advance(3)
    host.library.connect(RDB, DNS)
    hand.advance(6.8)
    assert counts(host) == (1, 1)
    hand.advance(0.1)
    assert counts(host) == (2, 2)


def test_236_the_rdb_server_alone_is_served_while_the_dns_server_is_down(cycled):
    host, hand = cycled
    host.library.disconnect(DNS)
    change_addresses(host)
    hand.advance(10)
    assert counts(host) == (2, 1)


def test_237_the_dns_server_alone_is_served_while_the_rdb_server_is_down(cycled):
    host, hand = cycled
    host.library.disconnect(RDB)
    change_addresses(host)
    hand.advance(10)
    assert counts(host) == (1, 2)


def test_238_a_disconnect_of_both_idles(cycled):
    host, hand = cycled
    host.library.disconnect(RDB, DNS)
    change_addresses(host)
    hand.advance(1200)
    assert counts(host) == (1, 1)


def test_239_put_and_request_keep_their_own_600_seconds(cycled):
    host, hand = cycled
    hand.advance(309 - FIRST)
    host.library.connect(DNS)
    for at, expected in [(310, (1, 2)), (600, (2, 2)), (910, (2, 3)), (1200, (3, 3))]:
        before = counts(host)
        hand.advance(at - hand.now_ns / 1e9 - 0.1)
        assert counts(host) == before
        hand.advance(0.1)
        assert counts(host) == expected


def test_240_an_unchanged_list_makes_no_call_at_all(cycled):
    host, hand = cycled
    calls = host.library.names()
    hand.advance(599)
    assert host.library.names() == calls


def test_241_the_remembered_list_is_the_last_one_not_any_one(cycled):
    """A list that changes and changes back is new both times."""
    host, hand = cycled
    host.sandbox.add_address("2001:db8::2/64")
    hand.advance(10)
    host.sandbox.remove_address("2001:db8::2/64")
    hand.advance(10)
    assert counts(host) == (3, 3)
    assert host.library.puts()[0] == host.library.puts()[2] == b"2001:db8::1"
