"""The back end dns with BIND: with several servers in the url, and without a server in the url. In the second case the
client uses the primary server of the zone."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import OK, SERVER_REFUSED  # noqa: E402
from dns_cases import fixture  # noqa: E402
from dns_servers import ZONE, ZONE_FILE, Bind, SecondaryBind, SecondBind  # noqa: E402
from rdb_client import CONNECTED  # noqa: E402

__all__ = ["fixture"]

A, B = "2001:db8::a", "2001:db8::b"
BOTH = "127.0.0.2,127.0.0.1"


def aaaa(server):
    return [line.split()[3] for line in server.published() if " AAAA " in line]


class TestSeveralServers:
    Server = Bind

    @pytest.mark.failover
    def test_755_a_secondary_in_the_url_is_skipped(self, fixture):
        secondary = SecondaryBind(fixture.sandbox)
        secondary.start()
        fixture.connected("?check=0", server=BOTH)
        assert fixture.update([A, B], [443]) == (OK, "ok")
        assert fixture.holds([A, B], [443])
        assert fixture.log.lines("rdbapi: dns://") == []
        assert fixture.client.events(fixture.handle) == [CONNECTED]

    @pytest.mark.failover
    def test_756_another_server_takes_over_when_one_ends(self, fixture):
        second = SecondBind(fixture.sandbox)
        second.start()
        fixture.connected("?check=0", server=BOTH)
        assert fixture.update([A], [443]) == (OK, "ok")
        assert aaaa(second) == [A]
        second.kill()
        assert fixture.update([B], [443]) == (OK, "ok")
        assert fixture.holds([B], [443])

    @pytest.mark.refusal
    def test_757_the_reason_names_each_server(self, fixture):
        secondary = SecondaryBind(fixture.sandbox)
        secondary.start()
        fixture.connected("?check=0", server=BOTH)
        fixture.change_server(takes_updates=False)
        code, message = fixture.update([A], [443])
        assert code == SERVER_REFUSED
        first, second = message.split("; ")
        assert first.startswith("127.0.0.2:53: ")
        assert second.startswith("127.0.0.1:53: REFUSED")


class NamedBind(Bind):
    """A primary server that the SOA record of its zone names. This server is also the sandbox's resolver."""

    zone = ZONE_FILE.replace("ns IN A 192.0.2.53", "ns IN A 127.0.0.1\nns2 IN A 127.0.0.2")

    def start(self):
        self.sandbox.path("/mnt/resolv.conf").write_text("nameserver 127.0.0.1\n")
        self.sandbox.run("mount", "--bind", "/mnt/resolv.conf", "/etc/resolv.conf")
        super().start()


class TestZonePrimary:
    Server = NamedBind

    def test_758_without_a_server_in_the_url_the_zones_primary_server_is_used(self, fixture):
        fixture.connected("?check=0", server="")
        assert fixture.update([A, B], [443]) == (OK, "ok")
        assert fixture.holds([A, B], [443])

    @pytest.mark.failover
    def test_759_an_update_goes_to_the_new_primary_server_when_it_moves(self, fixture):
        second = SecondBind(fixture.sandbox)
        second.start()
        fixture.connected("?check=0", server="")
        assert fixture.update([A], [443]) == (OK, "ok")
        assert aaaa(second) == []
        fixture.server.kill()
        fixture.server.zone = fixture.server.zone.replace("SOA ns ", "SOA ns2 ").replace(" 1 3600", " 9 3600")
        fixture.server.takes_updates = False
        fixture.server.forget()
        fixture.server.start()
        assert fixture.update([B], [443]) == (OK, "ok")
        assert aaaa(second) == [B]

    @pytest.mark.refusal
    def test_760_a_name_that_is_not_a_zone_is_reported(self, fixture):
        fixture.connect(server="", zone="none." + ZONE)
        fixture.wait_attempts(2)
        (line,) = fixture.log.lines("rdbapi: dns://")
        assert f"the primary server of none.{ZONE} cannot be found: " in line
        assert fixture.client.events(fixture.handle) == []
