"""The back end dns with PowerDNS. If the key is unknown or its secret is wrong, PowerDNS does not sign its answers:
NOTAUTH to a query, REFUSED to an update."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import BACKEND_FAILED, OK, SERVER_REFUSED  # noqa: E402
from dns_cases import fixture  # noqa: E402
from dns_reply_cases import NOT_AUTH, REFUSED, unsigned  # noqa: E402
from dns_servers import HOST_KEY, READER, ZONE, PowerDns, secret  # noqa: E402
from rdb_client import CONNECTED  # noqa: E402

__all__ = ["fixture"]

A, B, C = "2001:db8::a", "2001:db8::b", "fd00::c"


class TestPowerDns:
    Server = PowerDns

    def test_4481_updates_replace_only_the_records_of_the_name(self, fixture):
        others = fixture.server.others()
        fixture.connected()
        for addresses, ports in (([A, B], [443, 8443]), ([B], [8443]), ([], [8443]), ([A], [443, 8443])):
            assert fixture.update(addresses, ports) == (OK, "ok")
            assert fixture.holds(addresses, ports)
            assert fixture.server.others() == others

    @pytest.mark.retry
    def test_4482_the_next_check_restores_a_lost_record(self, fixture):
        fixture.connected("?skip=ula")
        for addresses in ([A, C], [C]):
            assert fixture.update(addresses, [443]) == (OK, "ok")
            updates = fixture.server.process.output_so_far().count(b"Increasing SOA serial")
            fixture.wait_attempts(3)
            assert fixture.server.process.output_so_far().count(b"Increasing SOA serial") == updates
        assert fixture.update([A], [443]) == (OK, "ok")
        fixture.server.tool("delete-rrset", ZONE, "host1", "HTTPS")
        fixture.wait_held([A], [443])

    @pytest.mark.refusal
    def test_4483_a_wrong_secret_is_reported_until_it_is_corrected(self, fixture):
        fixture.server.keys[HOST_KEY] = secret("wrong")
        fixture.server.write_keys()
        fixture.connect()
        self.named_until(fixture, HOST_KEY)

    @pytest.mark.refusal
    def test_4484_an_unknown_key_is_reported_until_it_is_added(self, fixture):
        fixture.server.tool("delete-tsig-key", HOST_KEY)
        fixture.connect()
        self.named_until(fixture, HOST_KEY)

    @pytest.mark.refusal
    def test_4485_a_changed_secret_is_reported_in_the_reply(self, fixture):
        fixture.connected("?check=0")
        assert fixture.update([A], [443]) == (OK, "ok")
        fixture.server.keys[HOST_KEY] = secret("wrong")
        fixture.server.write_keys()
        assert fixture.update([B], [443]) == (BACKEND_FAILED, unsigned(REFUSED))
        assert fixture.holds([A], [443])

    @pytest.mark.refusal
    def test_4486_a_key_is_refused_until_it_has_permission(self, fixture):
        fixture.server.granted = READER
        fixture.server.write_keys()
        fixture.connected("?check=0")
        assert fixture.update([A], [443]) == (SERVER_REFUSED, REFUSED)
        fixture.server.granted = HOST_KEY
        fixture.server.write_keys()
        fixture.wait_held([A], [443])
        assert fixture.client.events(fixture.handle) == [CONNECTED]

    @pytest.mark.refusal
    def test_4487_a_server_that_accepts_no_updates_refuses_with_the_same_text(self, fixture):
        fixture.server.kill()
        fixture.server.takes_updates = False
        fixture.server.start()
        fixture.connected("?check=0")
        assert fixture.update([A], [443]) == (SERVER_REFUSED, REFUSED)

    @pytest.mark.refusal
    def test_4488_a_missing_zone_is_refused_with_the_same_text(self, fixture):
        fixture.connect(zone="another.test")
        (line,) = fixture.log.wait("rdbapi: dns://")
        assert line.endswith(f"/another.test: {REFUSED}")

    @staticmethod
    def named_until(fixture, key):
        """Checks that there is no connection and that syslog has the reason once. After the server has the key, the
        update must succeed."""
        fixture.wait_attempts(4)
        (line,) = fixture.log.lines("rdbapi: dns://")
        assert line.endswith(f"/{ZONE}: {unsigned(NOT_AUTH)}")
        assert fixture.client.events(fixture.handle) == []
        fixture.server.keys[key] = secret(key)
        fixture.server.write_keys()
        fixture.wait_connected()
        assert fixture.update([A], [443]) == (OK, "ok")
        assert fixture.holds([A], [443])
