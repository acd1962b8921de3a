"""A server name with two addresses, where one or both servers do not have the zone. test_440_bind.py and
test_442_knot.py run these tests, each with its own server at the first address."""

import pytest
from dns_bed import OK, SERVER_REFUSED
from dns_servers import SecondBind
from rdb_client import CONNECTED

A, B = "2001:db8::a", "2001:db8::b"


def name_stands_for(fixture, *addresses):
    """Makes "servers" a name with these addresses. The resolver returns ::1, then 127.0.0.1, then 127.0.0.2."""
    fixture.sandbox.path("/mnt/hosts").write_text("".join(f"{address} servers\n" for address in addresses))
    fixture.sandbox.run("mount", "--bind", "/mnt/hosts", "/etc/hosts")


class DnsAddressCases:
    Server = None

    @pytest.mark.failover
    def test_4461_after_a_server_without_the_zone_the_next_address_is_used(self, fixture):
        fixture.change_server(has_zone=False)
        second = SecondBind(fixture.sandbox)
        second.start()
        name_stands_for(fixture, "127.0.0.1", "127.0.0.2")
        fixture.connected("?check=0", server="servers")
        assert fixture.update([A], [443]) == (OK, "ok")
        assert [A] == [line.split()[3] for line in second.published() if " AAAA " in line]
        assert fixture.log.lines("rdbapi: dns://") == []

    @pytest.mark.failover
    def test_4462_an_update_moves_to_the_next_address_when_the_zone_is_removed(self, fixture):
        second = SecondBind(fixture.sandbox)
        second.start()
        name_stands_for(fixture, "127.0.0.1", "127.0.0.2")
        fixture.connected("?check=0", server="servers")
        assert fixture.update([A], [443]) == (OK, "ok")
        assert second.published() == []
        fixture.change_server(has_zone=False)
        assert fixture.update([B], [443]) == (OK, "ok")
        assert [B] == [line.split()[3] for line in second.published() if " AAAA " in line]
        assert fixture.log.lines("rdbapi: dns://") == []
        assert fixture.client.events(fixture.handle) == [CONNECTED]

    @pytest.mark.failover
    @pytest.mark.refusal
    def test_4463_if_no_server_has_the_zone_the_last_reason_is_reported(self, fixture):
        second = SecondBind(fixture.sandbox)
        second.start()
        name_stands_for(fixture, "127.0.0.1", "127.0.0.2")
        fixture.connected("?check=0", server="servers")
        fixture.change_server(has_zone=False)
        second.has_zone = False
        second.reconfigure()
        code, message = fixture.update([A], [443])
        assert (code, "NOTAUTH" in message) == (SERVER_REFUSED, True), message

    @pytest.mark.failover
    @pytest.mark.refusal
    def test_4464_a_name_whose_servers_lack_the_zone_never_connects_and_is_logged_once(self, fixture):
        fixture.change_server(has_zone=False)
        second = SecondBind(fixture.sandbox)
        second.has_zone = False
        second.start()
        name_stands_for(fixture, "127.0.0.1", "127.0.0.2")
        fixture.connect(server="servers")
        fixture.wait_attempts(3)
        (line,) = fixture.log.lines("rdbapi: dns://")
        assert "REFUSED" in line
        assert fixture.client.events(fixture.handle) == []
