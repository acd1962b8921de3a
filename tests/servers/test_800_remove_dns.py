"""addrpubd-check --remove with real DNS servers: it shows the records of the service, then deletes only these."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import OK  # noqa: E402
from dns_cases import fixture  # noqa: E402
from dns_servers import HOST_KEY, NAME, TTL, ZONE, Bind, PowerDns, records, secret  # noqa: E402
from remove_bed import Settings, marked  # noqa: E402
from test_770_dns_pointers import FOREIGN, REVERSE, ReverseBind, ReverseKnot, pointers  # noqa: E402

__all__ = ["fixture"]

A, B = "2001:db8::a", "2001:db8::b"
PORTS = [443, 8443]


def settings(fixture, options="", password=None, **more):
    url = f"dns://127.0.0.1/{ZONE}{options}"
    values = {"dnsurl": url, "dnsuser": HOST_KEY, "dnspswd": password or secret(HOST_KEY)} | more
    return Settings(fixture.sandbox, "host1", **values)


def publish(fixture, addresses, ports, options=""):
    """Publishes as the service does, and ends the client."""
    fixture.connected(options)
    assert fixture.update(addresses, ports) == (OK, "ok")
    fixture.client.close()
    fixture.client = None


class RemoveCases:
    def test_800_without_a_confirmation_the_records_are_only_shown(self, fixture):
        publish(fixture, [A, B], PORTS)
        before = fixture.server.lines()
        status, output = settings(fixture, ports="443, 8443").remove()
        assert status == 1
        assert sorted(marked("delete", output)) == sorted(
            [f"{NAME} AAAA {A}", f"{NAME} AAAA {B}", f"{NAME} HTTPS 1 . ipv6hint={A},{B}"]
            + [f"_8443._https.{NAME} HTTPS 1 {NAME}. ipv6hint={A},{B}"]
        )
        assert {f"{NAME} {kind}: it is of another type" for kind in ("A", "MX", "TXT", "CAA")} == set(
            marked("keep", output)
        )
        assert output[-1] == "nothing was deleted: add --yes to delete 4 records"
        assert fixture.server.lines() == before

    def test_801_the_records_of_the_service_leave_and_all_others_stay(self, fixture):
        others = fixture.server.others()
        publish(fixture, [A, B], PORTS)
        status, output = settings(fixture, ports="443, 8443").remove("--yes")
        assert (status, len(marked("deleted", output))) == (0, 4), output
        assert fixture.server.published() == []
        assert fixture.server.others() == others

    def test_802_without_records_of_the_service_nothing_is_found(self, fixture):
        status, output = settings(fixture).remove("--yes")
        assert status == 0, output
        assert marked("delete", output) == []

    def test_803_a_port_that_is_not_in_the_settings_must_be_named(self, fixture):
        publish(fixture, [A], PORTS)
        assert settings(fixture).remove("--yes")[0] == 0
        assert fixture.server.published() == [line for line in records([A], PORTS) if line.startswith("_8443")]
        assert settings(fixture).remove("--yes", "--port", "8443")[0] == 0
        assert fixture.server.published() == []

    @pytest.mark.refusal
    def test_804_a_wrong_secret_deletes_nothing_and_is_not_shown(self, fixture):
        publish(fixture, [A], PORTS)
        before = fixture.server.lines()
        status, output = settings(fixture, password=secret("wrong")).remove("--yes")
        assert status == 1
        assert marked("failed", output) != []
        assert secret("wrong") not in "\n".join(output)
        assert fixture.server.lines() == before


class PointerCases:
    """Tests with a reverse zone on the same server."""

    def test_805_only_ptr_records_that_point_to_the_host_leave(self, fixture):
        option = f"?ptr={REVERSE}"
        publish(fixture, [A, B], [443], option)
        assert pointers(fixture, A) == [NAME + ".", FOREIGN]
        status, output = settings(fixture, option).remove("--yes")
        assert status == 0, output
        assert (pointers(fixture, A), pointers(fixture, B)) == ([FOREIGN], [])
        assert [line for line in marked("keep", output) if "PTR" in line] == [
            "a." + 23 * "0." + f"{REVERSE} PTR {FOREIGN[:-1]}: it points to another name"
        ]


class TestBindRemoval(RemoveCases, PointerCases):
    Server = ReverseBind

    @pytest.mark.refusal
    def test_806_a_refusing_reverse_zone_keeps_its_records_which_are_named(self, fixture):
        option = f"?ptr={REVERSE}"
        publish(fixture, [B], [443], option)
        fixture.change_server(reverse_updates=False)
        status, output = settings(fixture, option).remove("--yes")
        assert status == 1
        assert marked("remains", output) == ["b." + 23 * "0." + f"{REVERSE} PTR {NAME}"]
        assert marked("failed", output)[0].startswith("REFUSED")
        assert fixture.server.published() == []
        assert pointers(fixture, B) == [NAME + "."]

    @pytest.mark.refusal
    def test_807_a_refused_update_leaves_everything(self, fixture):
        publish(fixture, [A], [443])
        before = fixture.server.lines()
        fixture.change_server(allowed=["host2." + ZONE])
        status, output = settings(fixture).remove("--yes")
        assert status == 1
        assert len(marked("remains", output)) == 2
        assert marked("failed", output)[0].startswith("REFUSED")
        assert fixture.server.lines() == before


class TestKnotRemoval(RemoveCases, PointerCases):
    Server = ReverseKnot


class TestPowerDnsRemoval(RemoveCases):
    Server = PowerDns


class WildcardBind(Bind):
    zone = Bind.zone + f"*.wild {TTL} IN AAAA 2001:db8:53::5\nalien IN AAAA {A}\nalien IN HTTPS 1 . alpn=h2\n"


class TestForeignRecords:
    Server = WildcardBind

    def test_808_an_https_record_of_another_form_stays(self, fixture):
        fixture.change_server(allowed=["alien." + ZONE])
        status, output = Settings(
            fixture.sandbox,
            "alien",
            dnsurl=f"dns://127.0.0.1/{ZONE}",
            dnsuser=HOST_KEY,
            dnspswd=secret(HOST_KEY),
        ).remove("--yes")
        assert status == 0, output
        assert marked("deleted", output) == [f"alien.{ZONE} AAAA {A}"]
        assert marked("keep", output) == [f"alien.{ZONE} HTTPS: it has another form than the records of the service"]
        assert [line for line in fixture.server.lines() if line.startswith("alien")] == [
            f"alien.{ZONE}. 3600 HTTPS 1 . alpn=\"h2\""
        ]

    def test_809_records_of_a_wildcard_are_not_those_of_the_host(self, fixture):
        fixture.change_server(allowed=["x.wild." + ZONE])
        status, output = Settings(
            fixture.sandbox,
            "x.wild." + ZONE,
            dnsurl=f"dns://127.0.0.1/{ZONE}",
            dnsuser=HOST_KEY,
            dnspswd=secret(HOST_KEY),
        ).remove("--yes")
        assert status == 0, output
        assert marked("delete", output) == []
