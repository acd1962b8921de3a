"""The back end dns and aliases (CNAME). An alias at a name excludes all other records of this name. If a name has an
alias only because of a wildcard, records at the name replace the alias. test_445_dns_aliases.py runs these tests with
BIND and Knot.
"""

import pytest
from dns_bed import OK, SERVER_REFUSED
from dns_servers import NAME, ZONE_FILE

A, B = "2001:db8::a", "2001:db8::b"
PORTS = [443, 8443]

#  A wildcard answers only for names that do not exist in the zone and have no names below them.
WITHOUT_NAME = "".join(line for line in ZONE_FILE.splitlines(True) if not line.split()[0].endswith("host1"))
WILDCARD = WITHOUT_NAME + "* IN CNAME mail\n"


def alias_at(name):
    return WITHOUT_NAME + f"{name}. IN CNAME mail\n"


def words(name):
    return f"a CNAME stands at {name} and keeps its other records away"


def serve(fixture, zone):
    """Restarts the server with this zone and no other data."""
    fixture.server.kill()
    fixture.server.zone = zone
    fixture.server.forget()
    fixture.server.start()


class DnsAliasCases:
    Server = None

    @pytest.mark.retry
    def test_4471_lost_records_hidden_by_a_wildcard_alias_are_restored(self, fixture):
        serve(fixture, WILDCARD)
        assert "CNAME" in fixture.server.dig(NAME, "AAAA", "+noall", "+answer")
        fixture.connected()
        assert fixture.update([A], PORTS) == (OK, "ok")
        assert fixture.holds([A], PORTS)
        serve(fixture, WILDCARD)
        fixture.wait_held([A], PORTS)
        assert fixture.log.lines("CNAME") == []

    @pytest.mark.parametrize("options", ("", "?check=0"), ids=("checked", "unchecked"))
    @pytest.mark.parametrize("name", (NAME, f"_8443._https.{NAME}"), ids=("host", "port"))
    @pytest.mark.refusal
    def test_4472_an_update_at_an_alias_changes_nothing_and_is_logged_once(self, fixture, name, options):
        serve(fixture, alias_at(name))
        before = fixture.server.lines()
        fixture.connected(options)
        for address in (A, B):
            assert fixture.update([address], PORTS) == (SERVER_REFUSED, words(name))
            fixture.wait_attempts(2)
        assert fixture.server.lines() == before
        (line,) = fixture.log.lines("rdbapi: dns://")
        assert line.endswith(words(name))
        serve(fixture, WITHOUT_NAME)
        fixture.wait_held([B], PORTS)
        fixture.log.wait("works again")

    @pytest.mark.refusal
    def test_4473_an_alias_that_replaced_records_is_logged_once(self, fixture):
        fixture.connected()
        assert fixture.update([A], PORTS) == (OK, "ok")
        serve(fixture, alias_at(NAME))
        fixture.log.wait(words(NAME))
        fixture.wait_connected_again()
        for address in (A, B):
            assert fixture.update([address], PORTS) == (SERVER_REFUSED, words(NAME))
            fixture.wait_attempts(2)
        assert len(fixture.log.lines("CNAME")) == 1
        assert fixture.log.lines("works again") == []

    def test_4474_an_alias_at_a_name_without_records_is_allowed(self, fixture):
        serve(fixture, alias_at(NAME))
        before = fixture.server.lines()
        fixture.connected("?skip=ula")
        assert fixture.update(["fd00::c"], PORTS) == (OK, "ok")
        fixture.wait_attempts(2)
        assert fixture.server.lines() == before
        assert fixture.log.lines("rdbapi: dns://") == []
