"""Scenarios of the addresses: changes at each second, none at all, very many, real links that go down."""

import json

from recording import expected_snapshot
from world import DNS, RDB

ADDRESS, OTHER = "2001:db8::1", "2001:db8::2"
HOUR = 3600


def begin(world):
    """Starts the service, brings both servers up and runs to the second cycle, 10 s after the start."""
    world.start()
    world.up(RDB, DNS)
    world.run(10)


def published(world):
    """The texts put, in their order, when as many requests were sent at the same times."""
    assert world.request_times() == world.put_times()
    return [value.decode() for _, value in world.puts()]


def text_of(world):
    """The publishable addresses in the order of the system, as one text. The world has no others but ::1."""
    return ",".join(address for address in world.host.interface_list() if address != "::1")


def test_6241_a_change_in_whichever_tenth_of_the_gate_is_published_at_its_end(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    for tenth in range(100):
        world.run(tenth / 10)
        (world.remove if tenth % 2 else world.add)(OTHER)
        world.run(10 - tenth / 10)
    assert world.put_times() == world.request_times() == [0.1] + [10.0 * number for number in range(2, 102)]


def test_6242_an_address_that_comes_and_goes_within_a_gate_is_never_published(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    for _ in range(50):
        world.run(2)
        world.add(OTHER)
        world.run(7.9)
        world.remove(OTHER)
        world.run(0.1)
    assert published(world) == [ADDRESS]


def test_6243_of_many_changes_within_a_gate_the_last_list_is_published(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    for number in range(2, 90):
        world.add(f"2001:db8::{number:x}")
        world.run(0.1)
        world.remove(f"2001:db8::{number - 1:x}")
    world.run(2)
    assert published(world) == [ADDRESS, "2001:db8::59"]


def test_6244_a_renumbering_within_a_gate_is_never_seen_as_no_address(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    world.remove(ADDRESS)
    world.run(9.9)
    world.add(OTHER)
    world.run(0.1)
    assert published(world) == [ADDRESS, OTHER]


def test_6245_the_same_addresses_in_another_order_are_another_list(new_world):
    world = new_world(addresses=[ADDRESS, OTHER])
    begin(world)
    for address in (ADDRESS, OTHER):
        world.remove(address)
        world.add(address)
        world.run(10)
    assert published(world) in (
        [f"{OTHER},{ADDRESS}", f"{ADDRESS},{OTHER}", f"{OTHER},{ADDRESS}"],
        [f"{ADDRESS},{OTHER}", f"{OTHER},{ADDRESS}", f"{ADDRESS},{OTHER}"],
    )


def test_6246_a_host_without_an_address_says_so_every_600_seconds_and_sends_nothing(new_world):
    world = new_world()
    world.start()
    world.up(RDB, DNS)
    world.run(1800)
    assert world.puts() == [(at, b"null") for at in (0.1, 600.0, 1200.0, 1800.0)]
    assert world.requests() == []


def test_6247_an_address_lost_for_more_than_600_seconds_is_sent_again_when_it_is_back(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    world.remove(ADDRESS)
    world.run(700)
    world.add(ADDRESS)
    world.run(10)
    assert world.puts() == [(0.1, ADDRESS.encode()), (20.0, b"null"), (620.0, b"null"), (720.0, ADDRESS.encode())]
    assert world.request_times() == [0.1, 720.0]


def test_6248_an_address_that_comes_and_goes_in_turn_for_an_hour_is_sent_every_600_seconds_alone(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    for number in range(HOUR // 10):
        (world.add if number % 2 else world.remove)(ADDRESS)
        world.run(10)
    assert len(world.puts()) == 1 + HOUR // 10
    assert world.request_times() == [0.1, 610.0, 1210.0, 1810.0, 2410.0, 3010.0, 3610.0]


def test_6249_addresses_that_cannot_be_listed_for_a_minute_are_null_in_the_database_and_unchanged_for_dns(new_world):
    world = new_world(addresses=[ADDRESS])
    begin(world)
    world.allow_listing(False)
    world.run(60)
    world.allow_listing(True)
    world.run(10)
    assert world.puts() == [(0.1, ADDRESS.encode()), (20.0, b"null"), (80.0, ADDRESS.encode())]
    assert world.request_times() == [0.1]


def test_6250_a_thousand_addresses_are_put_up_to_999_characters_and_sent_whole(new_world):
    addresses = [f"2001:db8:1:2:3:4:5:{number:x}" for number in range(0x1000, 0x1000 + 1000)]
    world = new_world(addresses=addresses)
    world.start()
    world.up(RDB, DNS)
    world.run(0.1)
    text = text_of(world)
    ((_, put),) = world.seen("rdb_objputsnapshot")
    ((_, request),) = world.requests()
    assert put.payload == expected_snapshot(b"host1", text[:999].encode())
    assert json.loads(request)["item"]["ipv6s"] == text.split(",")
    assert sorted(text.split(",")) == addresses


def address_of(length, digit):
    """An address that is written with this many characters, 15 to 39: eight groups of digits, without a zero."""
    widths = [(length - 7 + group) // 8 for group in range(8)]
    return ":".join(digit * width for width in widths)


def test_6251_a_list_is_cut_from_1000_characters_on(new_world):
    """24 addresses of 39 characters and two that make the list as long as wanted."""
    longest = [f"2001:1db8:1111:2222:3333:4444:5555:{number:x}" for number in range(0x6601, 0x6601 + 24)]
    world = new_world(addresses=longest)
    begin(world)
    for length in range(997, 1003):
        rest = length - 24 * 40 - 1
        pair = address_of(rest // 2, "2"), address_of(rest - rest // 2, "3")
        world.add(*pair)
        world.run(10)
        text = text_of(world)
        assert len(text) == length
        assert world.puts()[-1][1] == text[:999].encode()
        world.remove(*pair)


def test_6252_a_thousand_addresses_that_come_and_go_leave_nothing_behind_in_the_record(new_world):
    flood = [f"fd00::{number:x}" for number in range(1, 1001)]
    world = new_world(addresses=[ADDRESS])
    begin(world)
    for _ in range(3):
        world.add(*flood)
        world.run(10)
        world.remove(*flood)
        world.run(10)
    puts = [call.payload for _, call in world.seen("rdb_objputsnapshot")]
    assert puts[0::2] == [expected_snapshot(b"host1", ADDRESS.encode())] * 4


V0, V1 = 10, 11  # the two ends of a real cable


def plug_in(world, *ends):
    """Makes the cable, brings these ends up and gives them OTHER, before the service starts."""
    cable = ("v0", "index", str(V0), "type", "veth", "peer", "name", "v1", "index", str(V1))
    world.sandbox.run("ip", "link", "add", *cable)
    for end in ends:
        world.network.set_link(end, up=True)
        world.network.add(OTHER, link=end)


def test_6253_a_cable_that_is_pulled_takes_its_address_with_it_and_the_others_stay(new_world):
    world = new_world(addresses=[ADDRESS])
    plug_in(world, V0)
    begin(world)
    world.set_link(V0, up=False)
    world.run(10)
    world.set_link(V0, up=True)
    world.run(10)
    world.add(OTHER, link=V0)
    world.run(10)
    assert published(world) == [f"{ADDRESS},{OTHER}", ADDRESS, f"{ADDRESS},{OTHER}"]


def test_6254_an_address_of_two_links_is_listed_once_less_when_one_of_them_goes_down(new_world):
    world = new_world(addresses=[OTHER])
    plug_in(world, V0, V1)
    begin(world)
    for link in (V1, V0):
        world.set_link(link, up=False)
        world.run(10)
    assert published(world) == [",".join([OTHER] * count) for count in (3, 2, 1)]


def test_6255_a_link_that_flaps_within_each_gate_is_published_as_the_cycle_finds_it(new_world):
    world = new_world()
    plug_in(world, V0)
    begin(world)
    for number in range(60):
        world.set_link(V0, up=False)
        world.run(3)
        world.set_link(V0, up=True)
        if number % 3:
            world.add(OTHER, link=V0)
        world.run(7)
    assert len(world.puts()) == 1 + 40
    assert {value for _, value in world.puts()} == {b"null", OTHER.encode()}


def test_6256_a_new_prefix_every_ten_seconds_gives_the_two_thousandth_request_its_number(new_world):
    prefixes = 2000
    world = new_world(addresses=["2001:db8:0::1"])
    world.start()
    world.up(DNS)
    for number in range(1, prefixes):
        world.run(10)
        world.remove(f"2001:db8:{number - 1:x}::1")
        world.add(f"2001:db8:{number:x}::1")
    world.run(10)
    assert [json.loads(text)["seqno"] for _, text in world.requests()] == list(range(1, prefixes + 1))
