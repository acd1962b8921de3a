"""The reply when a connected server starts to refuse. test_440_bind.py and test_442_knot.py run these tests.

After the server has changed, a test sends an update at once. A check of the client is not due yet, unless the machine
is very slow. So the reply to this update is the first sign of the change.
"""

import re
import time

import pytest
from clock import Clock
from dns_bed import OK, SERVER_REFUSED
from dns_servers import HOST_KEY, READER, ZONE, secret
from host import BUILD
from rdb_client import CONNECTED
from sandbox import wait_until

A, B = "2001:db8::a", "2001:db8::b"
SECOND = 1_000_000_000
BAD_SIG = "BADSIG: the password is not the secret that the server has for the key"
BAD_KEY = "BADKEY: the server does not know the key with this algorithm, or does not allow it to do this"
BAD_TIME = re.compile(r"BADTIME: the clocks differ, the server's is (\d+) s (ahead|behind)")
NOT_AUTH = "NOTAUTH: the server is not the primary of the zone"
REFUSED = (
    "REFUSED: the key may not do this (its policy needs AAAA and HTTPS), or the zone is frozen, takes no updates or is "
    "not on this server"
)
KEYS = {HOST_KEY: secret(HOST_KEY), READER: secret(READER)}


def unsigned(reason):
    """Returns the message of the reply if the answer of the server is not signed. `reason` is the message for the same
    answer with a signature: a code, a colon and a text."""
    word, _, text = reason.partition(": ")
    return f"the answer is not signed ({word}: the key's name, algorithm or secret is wrong, or {text})"


class DnsReplyCases:
    Server = None
    without_zone = ()  # code and message of the reply if the server no longer has the zone

    @pytest.mark.refusal
    def test_4441_a_changed_secret_is_refused_with_badsig(self, fixture):
        publish_first(fixture)
        fixture.change_server(keys=KEYS | {HOST_KEY: secret("wrong")})
        assert fixture.update([B]) == (SERVER_REFUSED, BAD_SIG)
        assert fixture.holds([A])
        fixture.change_server(keys=KEYS)
        made_good(fixture, BAD_SIG)

    @pytest.mark.refusal
    def test_4442_a_removed_key_is_refused_with_badkey(self, fixture):
        publish_first(fixture)
        fixture.change_server(keys={"another": secret(HOST_KEY), READER: secret(READER)}, granted="another")
        assert fixture.update([B]) == (SERVER_REFUSED, BAD_KEY)
        assert fixture.holds([A])
        fixture.change_server(keys=KEYS, granted=HOST_KEY)
        made_good(fixture, BAD_KEY)

    @pytest.mark.parametrize("seconds, word", [(1000, "behind"), (-1000, "ahead")])
    @pytest.mark.refusal
    def test_4443_a_changed_clock_is_refused_with_badtime_and_the_difference(self, fixture, seconds, word):
        start = time.time_ns()  # the client's clock: only the test changes it
        clock = Clock(fixture.sandbox, BUILD / "tests/libclockshim.so", start)
        publish_first(fixture, environment=clock.env)
        control = clock.of(fixture.client.process)
        control.step(seconds)
        before = time.time_ns()
        code, message = fixture.update([B])
        away = [(now - start) // SECOND - seconds for now in (before, time.time_ns())]
        found = BAD_TIME.fullmatch(message)
        assert (code, found is not None) == (SERVER_REFUSED, True), message
        assert found[2] == word
        assert min(map(abs, away)) - 1 <= int(found[1]) <= max(map(abs, away)) + 1
        assert fixture.holds([A])
        control.step(-seconds)
        made_good(fixture, message)

    @pytest.mark.refusal
    def test_4444_a_removed_zone_is_refused_with_notauth(self, fixture):
        publish_first(fixture)
        fixture.change_server(has_zone=False)
        assert fixture.update([B]) == self.without_zone
        (line,) = fixture.log.wait("NOTAUTH")
        assert line.endswith(f"/{ZONE}: {self.without_zone[1]}")
        fixture.change_server(has_zone=True)
        wait_until(lambda: fixture.server.dig("+short", "SOA", ZONE), "the zone")
        fixture.wait_held([B])
        fixture.log.wait("works again")


def publish_first(fixture, **options):
    fixture.connected(**options)
    assert fixture.update([A]) == (OK, "ok")


def made_good(fixture, reason):
    """Checks that the refused update is repeated automatically, and that syslog has two lines: the reply's reason
    and the recovery."""
    fixture.wait_held([B])
    fixture.log.wait("works again")
    assert [line.partition(f"/{ZONE}: ")[2] for line in fixture.log.lines("rdbapi: dns://")] == [reason, "works again"]
    assert fixture.client.events(fixture.handle) == [CONNECTED]
