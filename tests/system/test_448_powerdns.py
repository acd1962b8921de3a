"""The back end dns with PowerDNS, which signs no answer to a key that it does not know or whose secret is another one:
NOTAUTH to a question, REFUSED to an update."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import BACKEND_FAILED, OK, SERVER_REFUSED  # noqa: E402
from dns_cases import bed  # noqa: E402
from dns_reply_cases import NOT_AUTH, REFUSED, unsigned  # noqa: E402
from dns_servers import HOST_KEY, READER, ZONE, PowerDns, secret  # noqa: E402
from rdb_client import CONNECTED  # noqa: E402

__all__ = ["bed"]

A, B, C = "2001:db8::a", "2001:db8::b", "fd00::c"


class TestPowerDns:
    Server = PowerDns

    def test_01_updates_replace_the_records_and_leave_all_others(self, bed):
        others = bed.server.others()
        bed.connected()
        for addresses, ports in (([A, B], [443, 8443]), ([B], [8443]), ([], [8443]), ([A], [443, 8443])):
            assert bed.update(addresses, ports) == (OK, "ok")
            assert bed.holds(addresses, ports)
            assert bed.server.others() == others

    def test_02_a_record_that_is_gone_is_back_after_the_next_check_and_a_check_of_held_ones_changes_nothing(self, bed):
        bed.connected("?skip=ula")
        for addresses in ([A, C], [C]):
            assert bed.update(addresses, [443]) == (OK, "ok")
            updates = bed.server.process.output_so_far().count(b"Increasing SOA serial")
            bed.wait_attempts(3)
            assert bed.server.process.output_so_far().count(b"Increasing SOA serial") == updates
        assert bed.update([A], [443]) == (OK, "ok")
        bed.server.tool("delete-rrset", ZONE, "host1", "HTTPS")
        bed.wait_held([A], [443])

    def test_03_a_wrong_secret_is_named_until_it_is_right(self, bed):
        bed.server.keys[HOST_KEY] = secret("wrong")
        bed.server.write_keys()
        bed.connect()
        self.named_until(bed, HOST_KEY)

    def test_04_a_wrong_name_of_the_key_is_named_until_it_is_right(self, bed):
        bed.server.tool("delete-tsig-key", HOST_KEY)
        bed.connect()
        self.named_until(bed, HOST_KEY)

    def test_05_a_secret_that_was_changed_is_named_in_the_reply(self, bed):
        bed.connected("?check=0")
        assert bed.update([A], [443]) == (OK, "ok")
        bed.server.keys[HOST_KEY] = secret("wrong")
        bed.server.write_keys()
        assert bed.update([B], [443]) == (BACKEND_FAILED, unsigned(REFUSED))
        assert bed.holds([A], [443])

    def test_06_a_key_without_permission_is_refused_until_it_has_it(self, bed):
        bed.server.granted = READER
        bed.server.write_keys()
        bed.connected("?check=0")
        assert bed.update([A], [443]) == (SERVER_REFUSED, REFUSED)
        bed.server.granted = HOST_KEY
        bed.server.write_keys()
        bed.wait_held([A], [443])
        assert bed.client.events(bed.handle) == [CONNECTED]

    def test_07_a_server_whose_updates_are_off_refuses_in_the_same_words(self, bed):
        bed.server.kill()
        bed.server.takes_updates = False
        bed.server.start()
        bed.connected("?check=0")
        assert bed.update([A], [443]) == (SERVER_REFUSED, REFUSED)

    def test_08_a_zone_that_the_server_does_not_have_is_refused_in_the_same_words(self, bed):
        bed.connect(zone="another.test")
        (line,) = bed.log.wait("rdbapi: dns://")
        assert line.endswith(f"/another.test: {REFUSED}")

    @staticmethod
    def named_until(bed, key):
        """No connection, and the reason is in syslog once; all is well when the server has the key."""
        bed.wait_attempts(4)
        (line,) = bed.log.lines("rdbapi: dns://")
        assert line.endswith(f"/{ZONE}: {unsigned(NOT_AUTH)}")
        assert bed.client.events(bed.handle) == []
        bed.server.keys[key] = secret(key)
        bed.server.write_keys()
        bed.wait_connected()
        assert bed.update([A], [443]) == (OK, "ok")
        assert bed.holds([A], [443])
