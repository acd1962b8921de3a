"""The back end redis over TLS and at a Unix socket, with a real Redis server."""

import re

import open_library
import pytest
from certificates import Authority
from host import BUILD
from rdb_client import DISCONNECTED, RdbClient
from redis_bed import DATA, LIBRARY, SHIM, Fixture, require

PKI = "/mnt/pki"
NAMES = "DNS:localhost,IP:127.0.0.1"


class TlsFixture(Fixture):
    """A fixture with a certificate authority. start() starts the server with TLS at port 6379."""

    def __init__(self):
        super().__init__()
        self.authority = Authority(self.sandbox, PKI)

    def start(self, files, *options):
        tls = ["--tls-port", "6379", "--tls-cert-file", files.certificate, "--tls-key-file", files.key]
        self.server.start("--port", "0", *tls, "--tls-ca-cert-file", self.authority.certificate, *options)

    def start_usual(self, *options):
        """Starts the server with a good certificate. It requires no certificate of its clients."""
        self.start(self.authority.issue("server", NAMES), "--tls-auth-clients", "no", *options)

    def open(self, url, user="default", password="any"):
        self.client = RdbClient(self.sandbox, LIBRARY, SHIM)
        self.handle = self.client.open(url, user, password)

    def url(self, options=""):
        return f"rediss://127.0.0.1/0?ca={self.authority.certificate}{options}"


@pytest.fixture
def fixture():
    require()
    if not open_library.has(BUILD, "rediss"):
        pytest.skip("the open client library was built without its back end rediss")
    one = TlsFixture()
    yield one
    one.close()


def mapped(fixture):
    """The names of the shared objects in the client's process."""
    maps = fixture.sandbox.path(f"/proc/{fixture.client.process.pid}/maps").read_text()
    return set(re.findall(r"/(lib[a-z]+)[^/\n]*\.so[.\d]*$", maps, re.MULTILINE))


def test_730_a_value_reaches_a_server_that_speaks_tls_only(fixture):
    fixture.start_usual()
    fixture.open(fixture.url())
    fixture.wait_connected()
    fixture.register("2001:db8::1")
    assert fixture.server.value() == "2001:db8::1"


@pytest.mark.parametrize("versions", ["TLSv1.2", "TLSv1.3"])
def test_731_a_client_certificate_is_accepted(fixture, versions):
    fixture.start(fixture.authority.issue("server", NAMES), "--tls-auth-clients", "yes", "--tls-protocols", versions)
    client = fixture.authority.issue("client")
    fixture.open(fixture.url(f"&cert={client.certificate}&key={client.key}"))
    fixture.wait_connected()
    fixture.register("2001:db8::1")
    assert fixture.server.value() == "2001:db8::1"


@pytest.mark.refusal
@pytest.mark.parametrize(
    "names, days, reason",
    [
        ("DNS:other.test", 1, "the server's certificate is not for 127.0.0.1 (name=NAME)"),
        (NAMES, -1, "the server's certificate has expired"),
        ("", 1, "the server's certificate is not for 127.0.0.1 (name=NAME)"),
    ],
)
def test_732_a_bad_certificate_is_reported_and_no_password_is_sent(fixture, names, days, reason):
    fixture.start(fixture.authority.issue("server", names, days), "--tls-auth-clients", "no")
    fixture.open(fixture.url(), password="a-password-of-redis")
    fixture.log.wait(f"rdbapi: rediss://127.0.0.1:6379/0: {reason}")
    assert not fixture.log.lines("a-password")
    assert "cmdstat_auth" not in fixture.server.command("INFO", "commandstats")


@pytest.mark.refusal
def test_733_an_unknown_authority_is_reported(fixture):
    fixture.start_usual()
    fixture.open("rediss://127.0.0.1")
    fixture.log.wait("a certificate of an authority of the server is not one of the known authorities (ca=FILE)")


@pytest.mark.refusal
def test_734_a_server_that_requires_a_certificate_is_reported(fixture):
    fixture.start(fixture.authority.issue("server", NAMES), "--tls-auth-clients", "yes")
    fixture.open(fixture.url())
    fixture.log.wait("the server requires a client certificate (cert=FILE and key=FILE)")
    stranger = Authority(fixture.sandbox, PKI, "stranger").issue("client")
    fixture.open(fixture.url(f"&cert={stranger.certificate}&key={stranger.key}"))
    fixture.log.wait("the server does not know the authority of the client certificate")


@pytest.mark.refusal
def test_735_a_server_without_tls_is_reported(fixture):
    fixture.server.start()
    fixture.client = RdbClient(fixture.sandbox, LIBRARY, SHIM, 50)
    fixture.handle = fixture.client.open(fixture.url(), "default", "any")
    fixture.log.wait("the server does not answer in time: it may not speak TLS at this port")


@pytest.mark.retry
def test_736_a_server_that_comes_back_with_another_certificate_gets_the_value_again(fixture):
    fixture.start_usual()
    fixture.open(fixture.url())
    fixture.wait_connected()
    fixture.register("2001:db8::1")
    fixture.server.kill()
    fixture.client.wait_event(fixture.handle, DISCONNECTED)
    fixture.start_usual()
    fixture.wait_held("2001:db8::1")


def test_737_rediss_loads_libssl_and_redis_does_not(fixture):
    fixture.start_usual("--port", "6380")
    fixture.open("redis://127.0.0.1:6380")
    fixture.wait_connected()
    assert {"libhiredis"} <= mapped(fixture)
    assert not {"libssl", "libcrypto"} & mapped(fixture)
    fixture.handle = fixture.client.open(fixture.url(), "default", "any")
    fixture.wait_connected()
    assert {"libssl", "libcrypto"} <= mapped(fixture)


def test_738_the_socket_of_a_server_on_this_machine_takes_a_value(fixture):
    fixture.server.start("--port", "0")
    fixture.open(f"redis+unix://{DATA}.sock?db=3&expire=900")
    fixture.wait_connected()
    fixture.register("2001:db8::1")
    assert fixture.server.value(database=3) == "2001:db8::1"
    assert 0 < int(fixture.server.command("-n", 3, "TTL", "rdb:value:{host1}")) <= 900
