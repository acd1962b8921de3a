"""Checks of the back end dns over UDP, with BIND and Knot."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import OK  # noqa: E402
from dns_cases import fixture  # noqa: E402
from dns_servers import ZONE, Bind, Knot  # noqa: E402
from rdb_client import CONNECTED  # noqa: E402
from sandbox import wait_until  # noqa: E402

__all__ = ["fixture"]

FEW = ["2001:db8::a", "2001:db8::b"]
MANY = [f"2001:db8::{number:x}" for number in range(1, 61)]  # more than fit into one datagram


def counted(fixture, protocol, name):
    """Returns a counter of the sandbox's network (/proc/net/snmp in proc(5))."""
    lines = fixture.sandbox.path("/proc/1/net/snmp").read_text().splitlines()
    names, values = (line.split() for line in lines if line.startswith(protocol + ":"))
    return int(values[names.index(name)])


def connections(fixture):
    return counted(fixture, "Tcp", "PassiveOpens")


def datagrams(fixture):
    return counted(fixture, "Udp", "InDatagrams")


class CheckCases:
    queries = 0  # queries for the AAAA and HTTPS records of one name

    def serial(self, fixture):
        return fixture.server.dig("+short", "+tcp", "SOA", ZONE).split()[2]

    def test_745_a_check_opens_no_connection(self, fixture):
        fixture.connected("?check=1")
        assert fixture.update(FEW, [443]) == (OK, "ok")
        opened, before = connections(fixture), datagrams(fixture)
        wait_until(lambda: datagrams(fixture) - before >= 20, "ten queries")
        assert connections(fixture) == opened
        assert fixture.client.events(fixture.handle) == [CONNECTED]

    def test_7451_a_check_takes_as_few_datagrams_as_the_server_allows(self, fixture):
        fixture.connected("?check=1")
        assert fixture.update(FEW, [443]) == (OK, "ok")
        begun = len(fixture.client.waits())
        wait_until(lambda: len(fixture.client.waits()) >= begun + 10, "checks")
        before, first = datagrams(fixture), len(fixture.client.waits())
        wait_until(lambda: len(fixture.client.waits()) >= first + 20, "checks")
        after, last = datagrams(fixture), len(fixture.client.waits())
        assert abs((after - before) / 2 / (last - first) - self.queries) < 0.2 * self.queries

    def test_7452_an_answer_that_is_too_long_is_checked_over_tcp(self, fixture):
        fixture.connected("?check=1")
        assert fixture.update(MANY, [443]) == (OK, "ok")
        serial, opened = self.serial(fixture), connections(fixture)
        wait_until(lambda: connections(fixture) >= opened + 5, "checks over TCP")
        assert self.serial(fixture) == serial
        assert fixture.client.events(fixture.handle) == [CONNECTED]
        assert fixture.log.lines("rdbapi: dns://") == []


class TestBindChecks(CheckCases):
    Server = Bind
    queries = 1


class TestKnotChecks(CheckCases):
    Server = Knot
    queries = 2
