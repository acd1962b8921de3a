"""The back end dns over TLS, with BIND."""

import open_library
import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import OK, Fixture, require  # noqa: E402
from dns_servers import HOST_KEY, ZONE, TlsBind, secret  # noqa: E402
from host import BUILD  # noqa: E402
from sandbox import wait_until  # noqa: E402


class TlsFixture(Fixture):
    def connect(self, options="", name="127.0.0.1"):
        self.new_client()
        url = f"dns+tls://{name}/{ZONE}?ca={self.server.authority.certificate}{options}"
        self._connection = (url, HOST_KEY, secret(HOST_KEY))
        self.handle = self.client.open(*self._connection)


@pytest.fixture
def fixture():
    require(TlsBind)
    if not open_library.has(BUILD, "dns-tls"):
        pytest.skip("the open client library was built without its back end dns-tls")
    one = TlsFixture(TlsBind)
    yield one
    one.close()


def test_740_an_update_over_tls_is_in_the_zone(fixture):
    fixture.server.start()
    fixture.connected()
    assert fixture.update(["2001:db8::a", "2001:db8::b"], [443, 8443])[0] == OK
    assert fixture.holds(["2001:db8::a", "2001:db8::b"], [443, 8443])


@pytest.mark.retry
def test_741_records_that_were_lost_are_written_again(fixture):
    fixture.server.start()
    fixture.connected()
    assert fixture.update(["2001:db8::a"], [443])[0] == OK
    fixture.server.kill()
    fixture.server.forget()
    fixture.server.start()
    fixture.wait_held(["2001:db8::a"], [443])


@pytest.mark.refusal
@pytest.mark.parametrize(
    "names, days, reason",
    [
        ("DNS:other.test", 1, "the server's certificate is not for 127.0.0.1 (name=NAME)"),
        (TlsBind.names, -1, "the server's certificate has expired"),
    ],
)
def test_742_a_bad_certificate_is_reported_until_it_is_replaced(fixture, names, days, reason):
    fixture.server.files = fixture.server.authority.issue("bad", names, days)
    fixture.server.start()
    fixture.connect()
    fixture.log.wait(f"rdbapi: dns+tls://127.0.0.1:853/{ZONE}: {reason}")
    fixture.server.kill()
    fixture.server.files = fixture.server.authority.issue("good", TlsBind.names)
    fixture.server.start()
    fixture.wait_connected()


def test_743_another_name_of_the_server_may_be_in_its_certificate(fixture):
    fixture.server.files = fixture.server.authority.issue("named", "DNS:ns.example.test")
    fixture.server.start()
    fixture.connected("&name=ns.example.test")
    assert fixture.update(["2001:db8::a"])[0] == OK


def test_744_checks_send_nothing_over_udp(fixture):
    def datagrams():
        lines = fixture.sandbox.path("/proc/1/net/snmp").read_text().splitlines()
        names, values = (line.split() for line in lines if line.startswith("Udp:"))
        return int(values[names.index("OutDatagrams")])

    fixture.server.start()
    fixture.connected("&check=1")
    assert fixture.update(["2001:db8::a"], [443])[0] == OK
    before, begun = datagrams(), len(fixture.client.waits())
    wait_until(lambda: len(fixture.client.waits()) >= begun + 5, "checks")
    assert datagrams() == before
