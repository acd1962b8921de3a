"""Scenarios of the settings: names at the record's limit, short and long port lists, several very long values."""

import json

import pytest
from recording import expected_import, expected_query, expected_snapshot
from world import DNS, RDB

ADDRESS = "2001:db8::1"


def publish(scenario):
    """Lets the service import its tag, put and send once."""
    scenario.start()
    scenario.answer("rdb_tagget", 1)
    scenario.up(RDB, DNS)
    scenario.run(0.1)


def records(scenario):
    """Returns the three records of the first cycle."""
    functions = ("rdb_tagget", "rdb_taginport", "rdb_objputsnapshot")
    return tuple(call.payload for _, call in scenario.seen(*functions))


@pytest.mark.parametrize("length", [1, 78, 79, 80, 81, 1000])
def test_6261_only_in_records_a_name_is_shortened_to_79_bytes(new_scenario, length):
    name = ("0123456789" * 100)[:length]
    cut = name[:79].encode()
    scenario = new_scenario(addresses=[ADDRESS], hostname=name)
    publish(scenario)
    assert records(scenario) == (expected_query(cut), expected_import(cut), expected_snapshot(cut, ADDRESS.encode()))
    assert json.loads(scenario.requests()[0][1])["item"]["name"] == name
    scenario.end()
    assert b" rdb_objputsnapshot " + name.encode() + b" success," in scenario.model.output


def test_6262_names_with_the_same_79_bytes_share_a_tag_but_not_a_dns_name(new_scenario):
    front = "h" * 79
    scenarios = [new_scenario(addresses=[ADDRESS], hostname=front + end) for end in ("a", "b")]
    for scenario in scenarios:
        publish(scenario)
    first, second = scenarios
    assert records(first) == records(second)
    assert first.requests() != second.requests()


PORTS = {
    "none": [],
    "the first and the last": [1, 65535],
    "all multiples of 64": list(range(64, 65536, 64)),
    "two thousand times the same": [443] * 2000,
}


@pytest.mark.parametrize("ports", PORTS.values(), ids=PORTS)
def test_6263_every_request_contains_all_ports_in_order(new_scenario, ports):
    scenario = new_scenario(addresses=[ADDRESS], dnshttpsports=" , ".join(map(str, ports)))
    scenario.start()
    scenario.up(DNS)
    scenario.run(1200)
    assert [json.loads(text)["item"]["httpsports"] for _, text in scenario.requests()] == [ports] * 3


def test_6264_name_ports_and_addresses_may_all_be_very_long(new_scenario):
    name = "n" * 5000
    ports = list(range(60000, 63000))
    addresses = [f"fd00:1111:2222:3333:4444:5555:6666:{number:x}" for number in range(0x1000, 0x1000 + 800)]
    scenario = new_scenario(addresses=addresses, hostname=name, dnshttpsports=",".join(map(str, ports)))
    publish(scenario)
    ((_, text),) = scenario.requests()
    item = json.loads(text)["item"]
    assert (item["name"], item["httpsports"], sorted(item["ipv6s"])) == (name, ports, addresses)
    assert len(text) > 50_000
