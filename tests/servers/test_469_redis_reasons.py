"""The messages that the open client library writes to syslog when the login at a real Redis server fails."""

import pytest
from redis_bed import DATA, Fixture, require


@pytest.fixture
def fixture():
    require()
    one = Fixture()
    yield one
    one.close()


@pytest.mark.refusal
def test_469_a_server_that_requires_tls_is_reported(fixture):
    new = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc"]
    fixture.sandbox.run(*new, "-subj", "/CN=x", "-days", "1", "-keyout", f"{DATA}/key", "-out", f"{DATA}/certificate")
    tls = ["--tls-port", "6379", "--tls-cert-file", f"{DATA}/certificate", "--tls-key-file", f"{DATA}/key"]
    fixture.server.start("--port", "0", *tls, "--tls-ca-cert-file", f"{DATA}/certificate", "--tls-auth-clients", "no")
    fixture.connect()
    fixture.log.wait("the server closed the connection before its first answer; perhaps its port accepts only TLS")
    assert len(fixture.log.lines("rdbapi: redis://")) == 1


@pytest.mark.refusal
def test_470_a_server_without_the_command_auth_is_reported(fixture):
    fixture.server.start("--rename-command", "AUTH", "LOGIN-HERE")
    fixture.connect(user="default", password="a-password-of-redis")
    fixture.log.wait("AUTH refused: the command is renamed or switched off at this server")
    assert not fixture.log.lines("a-password")
