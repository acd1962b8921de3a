"""The back end dns with BIND."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_address_cases import DnsAddressCases, name_stands_for  # noqa: E402
from dns_bed import OK, SERVER_REFUSED  # noqa: E402
from dns_cases import DnsCases, bed  # noqa: E402
from dns_reply_cases import NOT_AUTH, REFUSED, DnsReplyCases  # noqa: E402
from dns_servers import ZONE, Bind, ForwardingBind, SecondaryBind  # noqa: E402

__all__ = ["bed"]


class TestBind(DnsCases):
    Server = Bind
    refused = "REFUSED"
    no_zone = "REFUSED"

    def key_without_permission(self, bed, **changed):
        self.refused_update_until(bed, **changed)


class TestRepliesOfBind(DnsReplyCases):
    Server = Bind
    without_zone = (SERVER_REFUSED, NOT_AUTH)

    def test_45_a_policy_without_https_records_is_refused_with_this_cause_named(self, bed):
        bed.change_server(types="AAAA")
        bed.connected("?check=0")
        assert bed.update(["2001:db8::a"], [443]) == (SERVER_REFUSED, REFUSED)
        bed.change_server(types="AAAA HTTPS")
        bed.wait_held(["2001:db8::a"], [443])

    def test_46_a_frozen_zone_is_refused_with_this_cause_named(self, bed):
        bed.connected("?check=0")
        bed.server.control("freeze", ZONE)
        assert bed.update(["2001:db8::a"], [443]) == (SERVER_REFUSED, REFUSED)
        bed.server.control("thaw", ZONE)
        bed.wait_held(["2001:db8::a"], [443])

    def test_47_a_zone_that_takes_no_updates_is_refused_with_this_cause_named(self, bed):
        bed.change_server(takes_updates=False)
        bed.connected("?check=0")
        assert bed.update(["2001:db8::a"], [443]) == (SERVER_REFUSED, REFUSED)


#  With it OpenSSL offers no algorithm at all, since the FIPS module is not loaded.
FIPS_ONLY = """openssl_conf = init
[init]
alg_section = algorithms
[algorithms]
default_properties = fips=yes
"""


class TestOpenSslConfiguration:
    Server = Bind

    def test_52_the_file_that_the_environment_names_is_not_read(self, bed):
        bed.sandbox.path("/mnt/fips.cnf").write_text(FIPS_ONLY)
        bed.connected("?check=0", environment={"OPENSSL_CONF": "/mnt/fips.cnf"})
        assert bed.update(["2001:db8::a"], [443]) == (OK, "ok")

    def test_53_the_fifo_that_the_environment_names_stops_nothing(self, bed):
        bed.sandbox.run("mkfifo", "/mnt/fifo")
        bed.connected("?check=0", environment={"OPENSSL_CONF": "/mnt/fifo"})
        assert bed.update(["2001:db8::a"], [443]) == (OK, "ok")

    def test_54_the_machines_own_file_is_not_read(self, bed):
        bed.sandbox.path("/mnt/fips.cnf").write_text(FIPS_ONLY)
        bed.sandbox.run("mount", "--bind", "/mnt/fips.cnf", "/etc/ssl/openssl.cnf")
        bed.connected("?check=0")
        assert bed.update(["2001:db8::a"], [443]) == (OK, "ok")


class TestAddressesOfBind(DnsAddressCases):
    Server = Bind

    def test_65_an_update_that_a_secondary_refuses_is_made_at_the_primary_which_is_asked_first_from_then_on(self, bed):
        bed.server.addresses = ("127.0.0.1",)
        bed.server.reconfigure()
        secondary = SecondaryBind(bed.sandbox)
        secondary.address, secondary.addresses = "::1", ("::1",)
        secondary.start()
        name_stands_for(bed, "::1", "127.0.0.1")
        bed.connected("?check=0", server="servers")
        for address in ("2001:db8::a", "2001:db8::b", "2001:db8::c"):
            assert bed.update([address], [443]) == (OK, "ok")
            assert bed.holds([address], [443])
        assert secondary.process.output_so_far().count(b"update forwarding 'example.test/IN' denied") == 1
        assert bed.log.lines("rdbapi: dns://") == []


class TestForwardingBind:
    Server = Bind

    def test_51_an_update_that_a_secondary_passes_on_to_the_primary_is_made(self, bed):
        forwarder = ForwardingBind(bed.sandbox)
        forwarder.start()
        bed.connected("?check=0", server="127.0.0.2")
        assert bed.update(["2001:db8::a"], [443]) == (OK, "ok")
        assert bed.holds(["2001:db8::a"], [443])
        assert bed.log.lines("rdbapi: dns://") == []
