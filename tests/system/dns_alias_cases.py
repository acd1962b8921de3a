"""What the back end dns does about aliases (CNAME) with any server: one that stands at a name keeps all other records away
from it, one that a wildcard stands in for gives way to them. test_445_dns_aliases.py runs it with both servers.
"""

import pytest
from dns_bed import OK, SERVER_REFUSED
from dns_servers import NAME, ZONE_FILE

A, B = "2001:db8::a", "2001:db8::b"
PORTS = [443, 8443]

#  A wildcard answers only for names that the zone does not have, nor has anything below.
WITHOUT_NAME = "".join(line for line in ZONE_FILE.splitlines(True) if not line.split()[0].endswith("host1"))
WILDCARD = WITHOUT_NAME + "* IN CNAME mail\n"


def alias_at(name):
    return WITHOUT_NAME + f"{name}. IN CNAME mail\n"


def words(name):
    return f"a CNAME stands at {name} and keeps its other records away"


def serve(bed, zone):
    """Lets the server come back with this zone, having forgotten all else."""
    bed.server.kill()
    bed.server.zone = zone
    bed.server.forget()
    bed.server.start()


class DnsAliasCases:
    Server = None

    def test_01_lost_records_that_a_wildcards_alias_stands_in_for_are_made_again(self, bed):
        serve(bed, WILDCARD)
        assert "CNAME" in bed.server.dig(NAME, "AAAA", "+noall", "+answer")
        bed.connected()
        assert bed.update([A], PORTS) == (OK, "ok")
        assert bed.holds([A], PORTS)
        serve(bed, WILDCARD)
        bed.wait_held([A], PORTS)
        assert bed.log.lines("CNAME") == []

    @pytest.mark.parametrize("options", ("", "?check=0"), ids=("checked", "unchecked"))
    @pytest.mark.parametrize("name", (NAME, f"_8443._https.{NAME}"), ids=("host", "port"))
    def test_02_an_update_that_meets_an_alias_changes_nothing_and_says_so_once(self, bed, name, options):
        serve(bed, alias_at(name))
        before = bed.server.lines()
        bed.connected(options)
        for address in (A, B):
            assert bed.update([address], PORTS) == (SERVER_REFUSED, words(name))
            bed.wait_attempts(2)
        assert bed.server.lines() == before
        (line,) = bed.log.lines("rdbapi: dns://")
        assert line.endswith(words(name))
        serve(bed, WITHOUT_NAME)
        bed.wait_held([B], PORTS)
        bed.log.wait("works again")

    def test_03_an_alias_that_took_the_place_of_held_records_is_said_once_by_checks_and_updates(self, bed):
        bed.connected()
        assert bed.update([A], PORTS) == (OK, "ok")
        serve(bed, alias_at(NAME))
        bed.log.wait(words(NAME))
        bed.wait_connected_again()
        for address in (A, B):
            assert bed.update([address], PORTS) == (SERVER_REFUSED, words(NAME))
            bed.wait_attempts(2)
        assert len(bed.log.lines("CNAME")) == 1
        assert bed.log.lines("works again") == []

    def test_04_an_alias_may_stand_at_a_name_that_gets_no_records(self, bed):
        serve(bed, alias_at(NAME))
        before = bed.server.lines()
        bed.connected("?skip=ula")
        assert bed.update(["fd00::c"], PORTS) == (OK, "ok")
        bed.wait_attempts(2)
        assert bed.server.lines() == before
        assert bed.log.lines("rdbapi: dns://") == []
