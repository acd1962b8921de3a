"""The option ptr= of the back end dns, with BIND and Knot: PTR records in a reverse zone of the same server."""

import json

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import OK, SERVER_REFUSED  # noqa: E402
from dns_cases import fixture  # noqa: E402
from dns_servers import HOST_KEY, NAME, Bind, Knot  # noqa: E402
from sandbox import wait_until  # noqa: E402

__all__ = ["fixture"]

A, B, C = "2001:db8::a", "2001:db8::b", "2001:db8::c"
ELSEWHERE = "2001:db9::1"
REVERSE = "8.b.d.0.1.0.0.2.ip6.arpa"
OPTION = f"?ptr={REVERSE}"
FOREIGN = "other.example.test."
REVERSE_FILE = f"""$ORIGIN {REVERSE}.
$TTL 3600
@ IN SOA ns.example.test. hostmaster.example.test. 1 3600 600 86400 30
@ IN NS ns.example.test.
{"a." + 23 * "0."}{REVERSE}. IN PTR {FOREIGN}
"""


class ReverseBind(Bind):
    reverse_updates = True

    def write_zone(self):
        super().write_zone()
        self.write("reverse", REVERSE_FILE)

    def zone_statement(self):
        policy = f'update-policy {{ grant "{HOST_KEY}" subdomain {REVERSE}. PTR; }};' if self.reverse_updates else ""
        return [*super().zone_statement(), f'zone "{REVERSE}" {{ type primary; file "reverse"; {policy} }};']


class ReverseKnot(Knot):
    def write_zone(self):
        super().write_zone()
        self.write("reverse", REVERSE_FILE)

    def configuration(self):
        acl = f"acl:\n  - id: reverse\n    key: {HOST_KEY}\n    action: update\n    update-type: [PTR]\n"
        zone = (
            f"\n  - domain: {REVERSE}\n    file: {self.folder}/reverse\n    acl: [reverse]\n"
            "    zonefile-sync: -1\n    zonefile-load: whole\n    journal-content: changes\n"
        )
        return super().configuration().replace("acl:\n", acl, 1).rstrip("\n") + zone


def pointers(fixture, address):
    return sorted(fixture.server.dig("+short", "-x", address).split())


class PointerCases:
    def test_770_addresses_have_records_that_leave_with_them(self, fixture):
        fixture.connected(OPTION)
        assert fixture.update([B, C, ELSEWHERE], [443]) == (OK, "ok")
        assert fixture.holds([B, C, ELSEWHERE], [443])
        assert [pointers(fixture, one) for one in (B, C)] == [[NAME + "."], [NAME + "."]]
        assert fixture.update([C], [443]) == (OK, "ok")
        assert [pointers(fixture, one) for one in (B, C)] == [[], [NAME + "."]]

    def test_771_records_that_point_elsewhere_are_kept(self, fixture):
        fixture.connected(OPTION)
        assert fixture.update([A], [443]) == (OK, "ok")
        assert pointers(fixture, A) == [NAME + ".", FOREIGN]
        assert fixture.update([B], [443]) == (OK, "ok")
        assert pointers(fixture, A) == [FOREIGN]

    def test_772_a_record_leaves_with_its_address_after_a_restart(self, fixture):
        fixture.connected(OPTION)
        assert fixture.update([B], [443]) == (OK, "ok")
        fixture.client.close()
        fixture.connected(OPTION)
        assert fixture.update([C], [443]) == (OK, "ok")
        assert [pointers(fixture, one) for one in (B, C)] == [[], [NAME + "."]]

    def test_773_a_record_that_the_server_lost_is_restored_by_a_check(self, fixture):
        fixture.connected(OPTION + "&check=1")
        assert fixture.update([B], [443]) == (OK, "ok")
        fixture.server.kill()
        fixture.server.forget()
        fixture.server.start()
        wait_until(lambda: pointers(fixture, B) == [NAME + "."], "the PTR record")
        wait_until(lambda: fixture.holds([B], [443]), "the records of the zone")


class TestBindPointers(PointerCases):
    Server = ReverseBind

    @pytest.mark.refusal
    def test_774_a_refusing_reverse_zone_is_reported_until_it_accepts(self, fixture):
        fixture.change_server(reverse_updates=False)
        fixture.connected(OPTION)
        number = fixture.ask([B], [443])
        reply = json.loads(fixture.client.wait_reply(number))
        assert reply["code"] == SERVER_REFUSED
        assert reply["message"].startswith(f"PTR records in {REVERSE}: REFUSED")
        assert fixture.holds([B], [443])
        fixture.change_server(reverse_updates=True)
        wait_until(lambda: pointers(fixture, B) == [NAME + "."], "the PTR record")


class TestKnotPointers(PointerCases):
    Server = ReverseKnot
