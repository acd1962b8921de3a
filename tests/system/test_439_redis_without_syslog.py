"""The open client library with a real Redis server and a syslog daemon that does not read."""

import pytest
from redis_bed import Bed, require
from sandbox import wait_until

OK = 0
SERVER_REFUSED = 1017


@pytest.fixture
def bed():
    require()
    one = Bed(reading=False)
    yield one
    one.close()


def test_439_a_syslog_daemon_that_does_not_read_loses_lines_and_keeps_no_value_back(bed):
    bed.log.fill()
    bed.server.start()
    bed.connected()
    bed.register("first")
    bed.server.command("CONFIG", "SET", "maxmemory", "1")
    assert bed.put("second") == SERVER_REFUSED  # for a reason that is to be reported
    bed.server.command("CONFIG", "SET", "maxmemory", "0")
    bed.wait_held("second")
    assert bed.put("third") == OK
    bed.log.read()
    wait_until(lambda: bed.log.lines("full"), "the lines that were there before")
    bed.server.kill()
    bed.log.wait("rdbapi: redis://127.0.0.1:6379/0: ")
    assert not bed.log.lines("memory limit")
