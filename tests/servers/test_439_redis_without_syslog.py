"""The open client library with a real Redis server and a syslog daemon that does not read."""

import pytest
from redis_bed import Fixture, require
from sandbox import wait_until

OK = 0
SERVER_REFUSED = 1017


@pytest.fixture
def fixture():
    require()
    one = Fixture(reading=False)
    yield one
    one.close()


def test_439_a_syslog_daemon_that_does_not_read_does_not_delay_values(fixture):
    fixture.log.fill()
    fixture.server.start()
    fixture.connected()
    fixture.register("first")
    fixture.server.command("CONFIG", "SET", "maxmemory", "1")
    assert fixture.put("second") == SERVER_REFUSED  # the library must log the reason
    fixture.server.command("CONFIG", "SET", "maxmemory", "0")
    fixture.wait_held("second")
    assert fixture.put("third") == OK
    fixture.log.read()
    wait_until(lambda: fixture.log.lines("full"), "the lines that were there before")
    fixture.server.kill()
    fixture.log.wait("rdbapi: redis://127.0.0.1:6379/0: ")
    assert not fixture.log.lines("memory limit")
