"""What a reply says when a server that was connected begins to refuse. test_440_bind.py and test_450_knot.py run it.

Nothing is sent between two updates, so the reply to the first one afterwards is where the change is noticed.
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
    "REFUSED: the key may not do this (its policy needs AAAA and HTTPS), or the zone is frozen, takes no updates or is not"
    " on this server"
)
KEYS = {HOST_KEY: secret(HOST_KEY), READER: secret(READER)}


def unsigned(reason):
    """The text for an answer without a signature whose code has this text."""
    word, _, text = reason.partition(": ")
    return f"the answer is not signed ({word}: the key's name, algorithm or secret is wrong, or {text})"


class DnsReplyCases:
    Server = None
    without_zone = ()  # code and message of the reply when the server no longer has the zone

    def test_41_a_secret_that_was_changed_is_badsig(self, bed):
        publish_first(bed)
        bed.change_server(keys=KEYS | {HOST_KEY: secret("wrong")})
        assert bed.update([B]) == (SERVER_REFUSED, BAD_SIG)
        assert bed.holds([A])
        bed.change_server(keys=KEYS)
        made_good(bed, BAD_SIG)

    def test_42_a_key_that_was_taken_away_is_badkey(self, bed):
        publish_first(bed)
        bed.change_server(keys={"another": secret(HOST_KEY), READER: secret(READER)}, granted="another")
        assert bed.update([B]) == (SERVER_REFUSED, BAD_KEY)
        assert bed.holds([A])
        bed.change_server(keys=KEYS, granted=HOST_KEY)
        made_good(bed, BAD_KEY)

    @pytest.mark.parametrize("seconds, word", [(1000, "behind"), (-1000, "ahead")])
    def test_43_a_clock_that_was_set_is_badtime_with_the_difference(self, bed, seconds, word):
        start = time.time_ns()  # where the client's clock stays
        clock = Clock(bed.sandbox, BUILD / "tests/libclockshim.so", start)
        publish_first(bed, environment=clock.env)
        hand = clock.of(bed.client.process)
        hand.step(seconds)
        before = time.time_ns()
        code, message = bed.update([B])
        away = [(now - start) // SECOND - seconds for now in (before, time.time_ns())]
        found = BAD_TIME.fullmatch(message)
        assert (code, found is not None) == (SERVER_REFUSED, True), message
        assert found[2] == word
        assert min(map(abs, away)) - 1 <= int(found[1]) <= max(map(abs, away)) + 1
        assert bed.holds([A])
        hand.step(-seconds)
        made_good(bed, message)

    def test_44_a_zone_that_was_taken_away_is_notauth(self, bed):
        publish_first(bed)
        bed.change_server(has_zone=False)
        assert bed.update([B]) == self.without_zone
        (line,) = bed.log.wait("NOTAUTH")
        assert line.endswith(f"/{ZONE}: {self.without_zone[1]}")
        bed.change_server(has_zone=True)
        wait_until(lambda: bed.server.dig("+short", "SOA", ZONE), "the zone")
        bed.wait_held([B])
        bed.log.wait("works again")


def publish_first(bed, **options):
    bed.connected(**options)
    assert bed.update([A]) == (OK, "ok")


def made_good(bed, reason):
    """What was refused is made without being asked for; syslog has the reply's reason once, and that it is over."""
    bed.wait_held([B])
    bed.log.wait("works again")
    assert [line.partition(f"/{ZONE}: ")[2] for line in bed.log.lines("rdbapi: dns://")] == [reason, "works again"]
    assert bed.client.events(bed.handle) == [CONNECTED]
