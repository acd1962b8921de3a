"""Scenarios of the settings: names at the record's limit, port lists of every length, all at their largest at once."""

import json

import pytest
from recording import expected_import, expected_query, expected_snapshot
from world import DNS, RDB

ADDRESS = "2001:db8::1"


def publish(world):
    """Lets the service import its tag, put and send once."""
    world.start()
    world.answer("rdb_tagget", 1)
    world.up(RDB, DNS)
    world.run(0.1)


def records(world):
    """The three records of the first cycle."""
    functions = ("rdb_tagget", "rdb_taginport", "rdb_objputsnapshot")
    return tuple(call.payload for _, call in world.seen(*functions))


@pytest.mark.parametrize("length", [1, 78, 79, 80, 81, 1000])
def test_6261_a_name_is_cut_at_79_bytes_in_all_records_and_nowhere_else(new_world, length):
    name = ("0123456789" * 100)[:length]
    cut = name[:79].encode()
    world = new_world(addresses=[ADDRESS], hostname=name)
    publish(world)
    assert records(world) == (expected_query(cut), expected_import(cut), expected_snapshot(cut, ADDRESS.encode()))
    assert json.loads(world.requests()[0][1])["item"]["name"] == name
    world.end()
    assert b" rdb_objputsnapshot " + name.encode() + b" success," in world.model.output


def test_6262_names_that_differ_from_the_80th_byte_on_share_one_tag_and_keep_two_dns_names(new_world):
    front = "h" * 79
    worlds = [new_world(addresses=[ADDRESS], hostname=front + end) for end in ("a", "b")]
    for world in worlds:
        publish(world)
    first, second = worlds
    assert records(first) == records(second)
    assert first.requests() != second.requests()


PORTS = {
    "none": [],
    "the first and the last": [1, 65535],
    "all multiples of 64": list(range(64, 65536, 64)),
    "two thousand times the same": [443] * 2000,
}


@pytest.mark.parametrize("ports", PORTS.values(), ids=PORTS)
def test_6263_every_request_carries_all_ports_in_their_order(new_world, ports):
    world = new_world(addresses=[ADDRESS], dnshttpsports=" , ".join(map(str, ports)))
    world.start()
    world.up(DNS)
    world.run(1200)
    assert [json.loads(text)["item"]["httpsports"] for _, text in world.requests()] == [ports] * 3


def test_6264_name_ports_and_addresses_may_all_be_large_at_once(new_world):
    name = "n" * 5000
    ports = list(range(60000, 63000))
    addresses = [f"fd00:1111:2222:3333:4444:5555:6666:{number:x}" for number in range(0x1000, 0x1000 + 800)]
    world = new_world(addresses=addresses, hostname=name, dnshttpsports=",".join(map(str, ports)))
    publish(world)
    ((_, text),) = world.requests()
    item = json.loads(text)["item"]
    assert (item["name"], item["httpsports"], sorted(item["ipv6s"])) == (name, ports, addresses)
    assert len(text) > 50_000
