"""Selection and order of the host's published addresses, with real addresses."""

import pytest
from host import DNS, RDB


def published(host):
    """Returns the value of the first cycle's put."""
    process, control = host.run(RDB)
    control.advance(0.1)
    (value,) = host.library.puts()
    host.stop(process)
    return value.decode()


KEPT = {
    "global": "2001:db8::1",
    "unique local, fd00::/8": "fd00::1",
    "unique local, fc00::/8": "fc00::1",
    "6to4": "2002:c000:201::1",
    "NAT64": "64:ff9b::c000:201",
    "discard only": "100::1",
    "a small first group": "1::",
    "fe00::/9, first": "fe00::",
    "fe00::/9, last": "fe7f:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
    "one bit differs from IPv4-mapped": "::fffe:c000:201",
    "the first after IPv4-compatible": "::1:0:0",
    "1 in the fifth group": "::1:0:0:0",
}

SKIPPED = {
    "IPv4-compatible": "::192.0.2.1",
    "IPv4-compatible, the least": "::2",
    "IPv4-compatible, the greatest": "::255.255.255.255",
    "IPv4-mapped": "::ffff:192.0.2.1",
    "IPv4-mapped, all zero": "::ffff:0.0.0.0",
    "IPv4-mapped, all one": "::ffff:255.255.255.255",
    "link-local": "fe80::5",
    "link-local, first": "fe80::",
    "link-local, last": "febf:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
    "site-local, first": "fec0::",
    "site-local, last": "feff:ffff:ffff:ffff:ffff:ffff:ffff:ffff",
}


@pytest.mark.parametrize("address", KEPT.values(), ids=KEPT)
def test_201_an_address_of_this_kind_is_published(host, address):
    host.sandbox.add_address(f"{address}/128")
    assert published(host) == address


@pytest.mark.parametrize("address", SKIPPED.values(), ids=SKIPPED)
def test_202_an_address_of_this_kind_is_not_published(host, address):
    host.sandbox.add_address(f"{address}/128")
    assert len(host.interface_list()) == 2
    assert published(host) == "null"


def test_203_a_host_with_only_loopback_and_link_local_addresses_yields_null(host):
    host.sandbox.add_address("fe80::5/64")
    assert set(host.interface_list()) == {"::1", "fe80::5"}
    assert published(host) == "null"


def test_204_a_multicast_address_is_not_published(host):
    host.sandbox.run("ip", "link", "add", "v0", "type", "veth", "peer", "name", "v1")
    host.sandbox.run("ip", "link", "set", "v0", "up")
    host.sandbox.run("ip", "-6", "addr", "add", "ff02::5/128", "dev", "v0", "autojoin")
    assert "ff02::5" in host.interface_list()
    assert published(host) == "null"


def test_205_a_host_without_addresses_yields_null(host):
    host.sandbox.run("ip", "link", "set", "lo", "down")
    assert host.interface_list() == []
    assert published(host) == "null"


def test_206_ipv4_addresses_are_not_published(host):
    host.sandbox.run("ip", "addr", "add", "192.0.2.1/24", "dev", "lo")
    assert published(host) == "null"


def test_207_the_list_is_in_the_order_of_the_interface_list(host):
    host.sandbox.run("ip", "link", "add", "v0", "type", "veth", "peer", "name", "v1")
    for address in [*KEPT.values(), *SKIPPED.values()]:
        for device in ("v1", "lo", "v0"):
            host.sandbox.add_address(f"{address}/128", device)
    expected = [address for address in host.interface_list() if address in KEPT.values()]
    assert len(expected) == 3 * len(KEPT)
    value = published(host)
    assert value == ",".join(expected)[:999]


def test_208_two_addresses_of_one_interface_are_joined_by_one_comma(host):
    host.sandbox.add_address("2001:db8::1/64")
    host.sandbox.add_address("2001:db8::2/64")
    expected = [address for address in host.interface_list() if address != "::1"]
    assert published(host) == ",".join(expected)
    assert len(expected) == 2


def test_209_an_address_on_two_interfaces_is_listed_twice(host):
    host.sandbox.run("ip", "link", "add", "v0", "type", "veth", "peer", "name", "v1")
    host.sandbox.add_address("2001:db8::1/64", "v0")
    host.sandbox.add_address("2001:db8::1/64", "v1")
    assert published(host) == "2001:db8::1,2001:db8::1"


def test_210_addresses_of_an_interface_that_is_down_are_published(host):
    host.sandbox.run("ip", "link", "add", "v0", "type", "veth", "peer", "name", "v1")
    host.sandbox.add_address("2001:db8::1/64", "v0")
    assert b" state DOWN " in host.sandbox.run("ip", "link", "show", "dev", "v0")
    assert published(host) == "2001:db8::1"


def test_211_a_deprecated_address_is_published(host):
    host.sandbox.add_address("2001:db8::1/64", "lo", "preferred_lft", "0")
    assert b"deprecated" in host.sandbox.run("ip", "-6", "addr", "show", "dev", "lo")
    assert published(host) == "2001:db8::1"


def test_212_a_tentative_address_is_published(host):
    host.sandbox.run("ip", "link", "add", "v0", "type", "veth", "peer", "name", "v1")
    host.sandbox.run("ip", "-6", "addr", "add", "2001:db8::1/64", "dev", "v0")
    assert b"tentative" in host.sandbox.run("ip", "-6", "addr", "show", "dev", "v0")
    assert published(host) == "2001:db8::1"


def test_213_the_local_end_of_a_point_to_point_address_is_published(host):
    host.sandbox.run("ip", "link", "add", "v0", "type", "veth", "peer", "name", "v1")
    host.sandbox.add_address("2001:db8::1", "v0", "peer", "2001:db8::2")
    assert published(host) == "2001:db8::1"


def test_214_addresses_are_written_lower_case_and_compressed(host):
    host.sandbox.add_address("2001:0DB8:0000:0000:00AB:0000:0000:00CD/64")
    assert published(host) == "2001:db8::ab:0:0:cd"


def test_215_both_servers_get_the_same_addresses_in_the_same_order(host):
    for number in range(1, 6):
        host.sandbox.add_address(f"2001:db8::{number}/64")
    _, control = host.run(RDB, DNS)
    control.advance(0.1)
    (value,), (request,) = host.library.puts(), host.library.requests()
    assert b'"ipv6s":["' + value.replace(b",", b'","') + b'"]' in request
