"""Scenarios of the addresses: changes at various times of a cycle, no addresses, many addresses, links that go down."""

import json

from recording import expected_snapshot
from world import DNS, RDB

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"
HOUR = 3600


def begin(scenario):
    """Starts the service, connects both servers and runs until the second cycle, 10 s after the start."""
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(10)


def published(scenario):
    """Returns the values that were put, in order. Requests must have been sent at the same times."""
    assert scenario.request_times() == scenario.put_times()
    return [value.decode() for _, value in scenario.puts()]


def text_of(scenario):
    """Returns the publishable addresses in the system's order, as one text. The only other address of the host is
    ::1."""
    return ",".join(address for address in scenario.host.interface_list() if address != "::1")


def test_6241_a_change_at_any_time_between_cycles_is_published_in_the_next_one(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    for tenth in range(100):
        scenario.run(tenth / 10)
        (scenario.remove if tenth % 2 else scenario.add)(OTHER)
        scenario.run(10 - tenth / 10)
    assert scenario.put_times() == scenario.request_times() == [0.1] + [10.0 * number for number in range(2, 102)]


def test_6242_an_address_that_exists_only_between_cycles_is_never_published(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    for _ in range(50):
        scenario.run(2)
        scenario.add(OTHER)
        scenario.run(7.9)
        scenario.remove(OTHER)
        scenario.run(0.1)
    assert published(scenario) == [ADDRESS]


def test_6243_of_many_changes_between_cycles_the_last_list_is_published(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    for number in range(2, 90):
        scenario.add(f"2001:db8::{number:x}")
        scenario.run(0.1)
        scenario.remove(f"2001:db8::{number - 1:x}")
    scenario.run(2)
    assert published(scenario) == [ADDRESS, "2001:db8::59"]


def test_6244_renumbering_between_cycles_never_yields_null(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    scenario.remove(ADDRESS)
    scenario.run(9.9)
    scenario.add(OTHER)
    scenario.run(0.1)
    assert published(scenario) == [ADDRESS, OTHER]


def test_6245_a_different_order_is_a_different_list(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS, OTHER])
    begin(scenario)
    for address in (ADDRESS, OTHER):
        scenario.remove(address)
        scenario.add(address)
        scenario.run(10)
    assert published(scenario) in (
        [f"{OTHER},{ADDRESS}", f"{ADDRESS},{OTHER}", f"{OTHER},{ADDRESS}"],
        [f"{ADDRESS},{OTHER}", f"{OTHER},{ADDRESS}", f"{ADDRESS},{OTHER}"],
    )


def test_6246_without_an_address_null_is_put_every_600_seconds_and_nothing_is_sent(new_scenario):
    scenario = new_scenario()
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(1800)
    assert scenario.puts() == [(at, b"null") for at in (0.1, 600.0, 1200.0, 1800.0)]
    assert scenario.requests() == []


def test_6247_an_address_missing_for_more_than_600_seconds_is_sent_again(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    scenario.remove(ADDRESS)
    scenario.run(700)
    scenario.add(ADDRESS)
    scenario.run(10)
    assert scenario.puts() == [(0.1, ADDRESS.encode()), (20.0, b"null"), (620.0, b"null"), (720.0, ADDRESS.encode())]
    assert scenario.request_times() == [0.1, 720.0]


def test_6248_an_address_that_comes_and_goes_is_sent_only_every_600_seconds(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    for number in range(HOUR // 10):
        (scenario.add if number % 2 else scenario.remove)(ADDRESS)
        scenario.run(10)
    assert len(scenario.puts()) == 1 + HOUR // 10
    assert scenario.request_times() == [0.1, 610.0, 1210.0, 1810.0, 2410.0, 3010.0, 3610.0]


def test_6249_without_an_interface_list_null_is_put_and_nothing_is_sent(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    scenario.allow_listing(False)
    scenario.run(60)
    scenario.allow_listing(True)
    scenario.run(10)
    assert scenario.puts() == [(0.1, ADDRESS.encode()), (20.0, b"null"), (80.0, ADDRESS.encode())]
    assert scenario.request_times() == [0.1]


def test_6250_a_list_of_a_thousand_addresses_is_shortened_only_in_the_put(new_scenario):
    addresses = [f"2001:db8:1:2:3:4:5:{number:x}" for number in range(0x1000, 0x1000 + 1000)]
    scenario = new_scenario(addresses=addresses)
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(0.1)
    text = text_of(scenario)
    ((_, put),) = scenario.seen("rdb_objputsnapshot")
    ((_, request),) = scenario.requests()
    assert put.payload == expected_snapshot(b"host1", text[:999].encode())
    assert json.loads(request)["item"]["ipv6s"] == text.split(",")
    assert sorted(text.split(",")) == addresses


def address_of(length, digit):
    """Returns an address with this number of characters, 15 to 39. It has eight groups of digits and no zero."""
    widths = [(length - 7 + group) // 8 for group in range(8)]
    return ":".join(digit * width for width in widths)


def test_6251_a_list_of_1000_characters_or_more_is_shortened(new_scenario):
    """The list has 24 addresses of 39 characters, and two addresses that give it the required length."""
    longest = [f"2001:1db8:1111:2222:3333:4444:5555:{number:x}" for number in range(0x6601, 0x6601 + 24)]
    scenario = new_scenario(addresses=longest)
    begin(scenario)
    for length in range(997, 1003):
        rest = length - 24 * 40 - 1
        pair = address_of(rest // 2, "2"), address_of(rest - rest // 2, "3")
        scenario.add(*pair)
        scenario.run(10)
        text = text_of(scenario)
        assert len(text) == length
        assert scenario.puts()[-1][1] == text[:999].encode()
        scenario.remove(*pair)


def test_6252_a_short_list_replaces_a_long_one_completely(new_scenario):
    flood = [f"fd00::{number:x}" for number in range(1, 1001)]
    scenario = new_scenario(addresses=[ADDRESS])
    begin(scenario)
    for _ in range(3):
        scenario.add(*flood)
        scenario.run(10)
        scenario.remove(*flood)
        scenario.run(10)
    puts = [call.payload for _, call in scenario.seen("rdb_objputsnapshot")]
    assert puts[0::2] == [expected_snapshot(b"host1", ADDRESS.encode())] * 4


V0, V1 = 10, 11  # the two ends of a veth pair


def plug_in(scenario, *ends):
    """Creates the veth pair, brings these ends up and adds OTHER to them, before the service starts."""
    cable = ("v0", "index", str(V0), "type", "veth", "peer", "name", "v1", "index", str(V1))
    scenario.sandbox.run("ip", "link", "add", *cable)
    for end in ends:
        scenario.network.set_link(end, up=True)
        scenario.network.add(OTHER, link=end)


def test_6253_a_link_that_goes_down_loses_only_its_own_address(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    plug_in(scenario, V0)
    begin(scenario)
    scenario.set_link(V0, up=False)
    scenario.run(10)
    scenario.set_link(V0, up=True)
    scenario.run(10)
    scenario.add(OTHER, link=V0)
    scenario.run(10)
    assert published(scenario) == [f"{ADDRESS},{OTHER}", ADDRESS, f"{ADDRESS},{OTHER}"]


def test_6254_an_address_of_two_links_is_listed_once_per_link(new_scenario):
    scenario = new_scenario(addresses=[OTHER])
    plug_in(scenario, V0, V1)
    begin(scenario)
    for link in (V1, V0):
        scenario.set_link(link, up=False)
        scenario.run(10)
    assert published(scenario) == [",".join([OTHER] * count) for count in (3, 2, 1)]


def test_6255_the_address_of_an_unstable_link_is_published_if_it_exists_in_the_cycle(new_scenario):
    scenario = new_scenario()
    plug_in(scenario, V0)
    begin(scenario)
    for number in range(60):
        scenario.set_link(V0, up=False)
        scenario.run(3)
        scenario.set_link(V0, up=True)
        if number % 3:
            scenario.add(OTHER, link=V0)
        scenario.run(7)
    assert len(scenario.puts()) == 1 + 40
    assert {value for _, value in scenario.puts()} == {b"null", OTHER.encode()}


def test_6256_with_a_new_prefix_every_ten_seconds_the_two_thousandth_request_has_number_2000(new_scenario):
    prefixes = 2000
    scenario = new_scenario(addresses=["2001:db8:0::1"])
    scenario.start()
    scenario.up(DNS)
    for number in range(1, prefixes):
        scenario.run(10)
        scenario.remove(f"2001:db8:{number - 1:x}::1")
        scenario.add(f"2001:db8:{number:x}::1")
    scenario.run(10)
    assert [json.loads(text)["seqno"] for _, text in scenario.requests()] == list(range(1, prefixes + 1))
