"""A name that stands for two servers, of which one is the wrong one. test_440_bind.py and test_450_knot.py run it with theirs
as the server whose address comes first."""

from dns_bed import OK, SERVER_REFUSED
from dns_servers import SecondBind
from rdb_client import CONNECTED

A, B = "2001:db8::a", "2001:db8::b"


def name_stands_for(bed, *addresses):
    """Makes "servers" a name of these addresses; the resolver puts ::1 before 127.0.0.1 and that before 127.0.0.2."""
    bed.sandbox.path("/mnt/hosts").write_text("".join(f"{address} servers\n" for address in addresses))
    bed.sandbox.run("mount", "--bind", "/mnt/hosts", "/etc/hosts")


class DnsAddressCases:
    Server = None

    def test_61_a_server_without_the_zone_is_passed_over_for_the_next_address(self, bed):
        bed.change_server(has_zone=False)
        second = SecondBind(bed.sandbox)
        second.start()
        name_stands_for(bed, "127.0.0.1", "127.0.0.2")
        bed.connected("?check=0", server="servers")
        assert bed.update([A], [443]) == (OK, "ok")
        assert [A] == [line.split()[3] for line in second.published() if " AAAA " in line]
        assert bed.log.lines("rdbapi: dns://") == []

    def test_62_an_update_moves_to_the_next_address_when_the_zone_was_taken_away(self, bed):
        second = SecondBind(bed.sandbox)
        second.start()
        name_stands_for(bed, "127.0.0.1", "127.0.0.2")
        bed.connected("?check=0", server="servers")
        assert bed.update([A], [443]) == (OK, "ok")
        assert second.published() == []
        bed.change_server(has_zone=False)
        assert bed.update([B], [443]) == (OK, "ok")
        assert [B] == [line.split()[3] for line in second.published() if " AAAA " in line]
        assert bed.log.lines("rdbapi: dns://") == []
        assert bed.client.events(bed.handle) == [CONNECTED]

    def test_63_when_all_addresses_are_wrong_the_reason_is_what_the_last_one_says(self, bed):
        second = SecondBind(bed.sandbox)
        second.start()
        name_stands_for(bed, "127.0.0.1", "127.0.0.2")
        bed.connected("?check=0", server="servers")
        bed.change_server(has_zone=False)
        second.has_zone = False
        second.reconfigure()
        code, message = bed.update([A], [443])
        assert (code, "NOTAUTH" in message) == (SERVER_REFUSED, True), message

    def test_64_a_name_whose_addresses_are_all_wrong_never_connects_and_is_said_once(self, bed):
        bed.change_server(has_zone=False)
        second = SecondBind(bed.sandbox)
        second.has_zone = False
        second.start()
        name_stands_for(bed, "127.0.0.1", "127.0.0.2")
        bed.connect(server="servers")
        bed.wait_attempts(3)
        (line,) = bed.log.lines("rdbapi: dns://")
        assert "REFUSED" in line
        assert bed.client.events(bed.handle) == []
