"""What the open client library writes to syslog about a real Redis server that it cannot log in to."""

import pytest
from redis_bed import DATA, Bed, require


@pytest.fixture
def bed():
    require()
    one = Bed()
    yield one
    one.close()


def test_469_a_server_that_speaks_tls_only_is_named(bed):
    new = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-noenc"]
    bed.sandbox.run(*new, "-subj", "/CN=x", "-days", "1", "-keyout", f"{DATA}/key", "-out", f"{DATA}/certificate")
    tls = ["--tls-port", "6379", "--tls-cert-file", f"{DATA}/certificate", "--tls-key-file", f"{DATA}/key"]
    bed.server.start("--port", "0", *tls, "--tls-ca-cert-file", f"{DATA}/certificate", "--tls-auth-clients", "no")
    bed.connect()
    bed.log.wait("the server closed the connection before its first answer, as servers do that speak TLS only")
    assert len(bed.log.lines("rdbapi: redis://")) == 1


def test_470_a_server_without_the_command_auth_is_named(bed):
    bed.server.start("--rename-command", "AUTH", "LOGIN-HERE")
    bed.connect(user="default", password="a-password-of-redis")
    bed.log.wait("AUTH refused: the command is renamed or switched off at this server")
    assert not bed.log.lines("a-password")
