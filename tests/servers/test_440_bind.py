"""The back end dns with BIND."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_address_cases import DnsAddressCases, name_stands_for  # noqa: E402
from dns_bed import OK, SERVER_REFUSED  # noqa: E402
from dns_cases import DnsCases, fixture  # noqa: E402
from dns_reply_cases import NOT_AUTH, REFUSED, DnsReplyCases  # noqa: E402
from dns_servers import ZONE, Bind, ForwardingBind, SecondaryBind  # noqa: E402

__all__ = ["fixture"]


class TestBind(DnsCases):
    Server = Bind
    refused = "REFUSED"
    no_zone = "REFUSED"

    def key_without_permission(self, fixture, **changed):
        self.refused_update_until(fixture, **changed)


class TestRepliesOfBind(DnsReplyCases):
    Server = Bind
    without_zone = (SERVER_REFUSED, NOT_AUTH)

    @pytest.mark.refusal
    def test_4445_a_policy_without_https_records_is_reported(self, fixture):
        fixture.change_server(types="AAAA")
        fixture.connected("?check=0")
        assert fixture.update(["2001:db8::a"], [443]) == (SERVER_REFUSED, REFUSED)
        fixture.change_server(types="AAAA HTTPS")
        fixture.wait_held(["2001:db8::a"], [443])

    @pytest.mark.refusal
    def test_4446_a_frozen_zone_is_reported(self, fixture):
        fixture.connected("?check=0")
        fixture.server.control("freeze", ZONE)
        assert fixture.update(["2001:db8::a"], [443]) == (SERVER_REFUSED, REFUSED)
        fixture.server.control("thaw", ZONE)
        fixture.wait_held(["2001:db8::a"], [443])

    @pytest.mark.refusal
    def test_4447_a_zone_without_updates_is_reported(self, fixture):
        fixture.change_server(takes_updates=False)
        fixture.connected("?check=0")
        assert fixture.update(["2001:db8::a"], [443]) == (SERVER_REFUSED, REFUSED)


#  With this configuration OpenSSL has no algorithms, because the FIPS module is not loaded.
FIPS_ONLY = """openssl_conf = init
[init]
alg_section = algorithms
[algorithms]
default_properties = fips=yes
"""


class TestOpenSslConfiguration:
    Server = Bind

    def test_4452_the_configuration_file_in_the_environment_is_not_read(self, fixture):
        fixture.sandbox.path("/mnt/fips.cnf").write_text(FIPS_ONLY)
        fixture.connected("?check=0", environment={"OPENSSL_CONF": "/mnt/fips.cnf"})
        assert fixture.update(["2001:db8::a"], [443]) == (OK, "ok")

    def test_4453_a_fifo_in_the_environment_does_not_block(self, fixture):
        fixture.sandbox.run("mkfifo", "/mnt/fifo")
        fixture.connected("?check=0", environment={"OPENSSL_CONF": "/mnt/fifo"})
        assert fixture.update(["2001:db8::a"], [443]) == (OK, "ok")

    def test_4454_the_system_wide_configuration_is_not_read(self, fixture):
        fixture.sandbox.path("/mnt/fips.cnf").write_text(FIPS_ONLY)
        fixture.sandbox.run("mount", "--bind", "/mnt/fips.cnf", "/etc/ssl/openssl.cnf")
        fixture.connected("?check=0")
        assert fixture.update(["2001:db8::a"], [443]) == (OK, "ok")


class TestAddressesOfBind(DnsAddressCases):
    Server = Bind

    @pytest.mark.failover
    @pytest.mark.refusal
    def test_4465_an_update_refused_by_a_secondary_moves_to_the_primary(self, fixture):
        fixture.server.addresses = ("127.0.0.1",)
        fixture.server.reconfigure()
        secondary = SecondaryBind(fixture.sandbox)
        secondary.address, secondary.addresses = "::1", ("::1",)
        secondary.start()
        name_stands_for(fixture, "::1", "127.0.0.1")
        fixture.connected("?check=0", server="servers")
        for address in ("2001:db8::a", "2001:db8::b", "2001:db8::c"):
            assert fixture.update([address], [443]) == (OK, "ok")
            assert fixture.holds([address], [443])
        assert secondary.process.output_so_far().count(b"update forwarding 'example.test/IN' denied") == 1
        assert fixture.log.lines("rdbapi: dns://") == []


class TestForwardingBind:
    Server = Bind

    def test_4451_an_update_forwarded_by_a_secondary_succeeds(self, fixture):
        forwarder = ForwardingBind(fixture.sandbox)
        forwarder.start()
        fixture.connected("?check=0", server="127.0.0.2")
        assert fixture.update(["2001:db8::a"], [443]) == (OK, "ok")
        assert fixture.holds(["2001:db8::a"], [443])
        assert fixture.log.lines("rdbapi: dns://") == []
