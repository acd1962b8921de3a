"""The options skip= and only=, with BIND. They leave out addresses from the zone, because of their kernel flags,
interfaces or prefixes."""

import ipaddress
import socket
import struct

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import OK  # noqa: E402
from dns_cases import fixture  # noqa: E402
from dns_servers import Bind  # noqa: E402
from netns import inside  # noqa: E402
from sandbox import wait_until  # noqa: E402

__all__ = ["fixture"]

A, B = "2001:db8::a", "2001:db8::b"
PREFIX = "2001:db8:5::"
ELSEWHERE = "2001:db8:6::1"  # not an address of the host
ROUTER_ADVERTISEMENT, PREFIX_INFORMATION, AUTONOMOUS = 134, 3, 0x40  # RFC 4861 sections 4.2 and 4.6.2
DAY = 86400  # s
TEMPORARY = 0x01  # IFA_F_TEMPORARY of linux/if_addr.h


def deprecate(sandbox, address):
    sandbox.run("ip", "-6", "addr", "change", address, "dev", "lo", "valid_lft", "forever", "preferred_lft", "0")


def cable(sandbox):
    """Connects v0 to v1, the router's interface. v0 creates temporary addresses (RFC 8981) at once."""
    sandbox.run("ip", "link", "add", "v0", "type", "veth", "peer", "name", "v1")
    for value, setting in ((2, "v0/use_tempaddr"), (0, "v0/dad_transmits"), (0, "v1/accept_ra")):
        sandbox.run("/bin/sh", "-c", f"echo {value} > /proc/sys/net/ipv6/conf/{setting}")
    for end in ("v0", "v1"):
        sandbox.run("ip", "link", "set", end, "up")
    sandbox.add_address("fe80::1/64", "v1")


def advertise(sandbox):
    """Sends a router advertisement. Hosts on the link then create addresses of PREFIX."""
    head = struct.pack("!BBHBBHII", ROUTER_ADVERTISEMENT, 0, 0, 0, 0, 0, 0, 0)
    option = struct.pack("!BBBBIII", PREFIX_INFORMATION, 4, 64, AUTONOMOUS, DAY, DAY, 0)
    message = head + option + ipaddress.IPv6Address(PREFIX).packed

    def send():
        with socket.socket(socket.AF_INET6, socket.SOCK_RAW, socket.IPPROTO_ICMPV6) as router:
            router.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_HOPS, 255)
            router.sendto(message, ("ff02::1", 0, 0, socket.if_nametoindex("v1")))

    inside(sandbox, send)


def flags(sandbox):
    """Returns the kernel's flags of the addresses of PREFIX."""
    found = {}
    for line in sandbox.path("/proc/1/net/if_inet6").read_text().splitlines():
        digits, _, _, _, flag, _ = line.split()
        address = str(ipaddress.IPv6Address(bytes.fromhex(digits)))
        if address.startswith(PREFIX.removesuffix("::")):
            found[address] = int(flag, 16)
    return found


def advertised(sandbox):
    """Sends an advertisement. Returns the temporary and the other address of v0 in PREFIX, or None if v0 does not have
    both yet.

    The caller repeats this, because a link that has just come up receives nothing for a moment.
    """
    advertise(sandbox)
    found = flags(sandbox)
    return sorted(found, key=lambda one: -(found[one] & TEMPORARY)) if len(found) == 2 else None


class TestSkip:
    Server = Bind

    def test_447_a_deprecated_address_is_skipped(self, fixture):
        fixture.sandbox.add_address(f"{A}/64")
        fixture.sandbox.add_address(f"{B}/64")
        deprecate(fixture.sandbox, f"{B}/64")
        fixture.connected("?skip=deprecated")
        assert fixture.update([A, B, ELSEWHERE], [443]) == (OK, "ok")
        assert fixture.holds([A, ELSEWHERE], [443])

    def test_448_an_address_that_becomes_deprecated_is_removed_at_the_next_check(self, fixture):
        fixture.sandbox.add_address(f"{A}/64")
        fixture.sandbox.add_address(f"{B}/64")
        fixture.connected("?skip=deprecated")
        fixture.update([A, B], [443])
        assert fixture.holds([A, B], [443])
        deprecate(fixture.sandbox, f"{B}/64")
        fixture.wait_held([A], [443])

    def test_449_a_temporary_address_is_skipped(self, fixture):
        cable(fixture.sandbox)
        temporary, stable = wait_until(lambda: advertised(fixture.sandbox), "a temporary address")
        assert flags(fixture.sandbox)[temporary] & TEMPORARY and not flags(fixture.sandbox)[stable] & TEMPORARY
        fixture.connected("?skip=temporary")
        assert fixture.update([temporary, stable, ELSEWHERE], [443]) == (OK, "ok")
        assert fixture.holds([stable, ELSEWHERE], [443])

    def test_4479_addresses_of_an_interface_are_skipped_as_long_as_it_has_them(self, fixture):
        fixture.sandbox.run("ip", "link", "add", "wg0", "type", "veth", "peer", "name", "v1")
        fixture.sandbox.run("ip", "link", "set", "wg0", "up")
        fixture.sandbox.add_address(f"{A}/64")
        fixture.sandbox.add_address(f"{B}/64", "wg0")
        fixture.connected("?skip=if:wg*,ula")
        assert fixture.update([A, B, ELSEWHERE], [443]) == (OK, "ok")
        assert fixture.holds([A, ELSEWHERE], [443])
        fixture.sandbox.run("ip", "link", "del", "wg0")
        fixture.wait_held([A, B, ELSEWHERE], [443])

    def test_749_only_addresses_of_the_prefixes_are_published(self, fixture):
        fixture.connected("?only=2001:db8:0::/64,2001:db8:5::/48")
        assert fixture.update([A, B, ELSEWHERE], [443]) == (OK, "ok")
        assert fixture.holds([A, B], [443])
        assert fixture.update([ELSEWHERE], [443]) == (OK, "ok")
        assert fixture.holds([], [443])
