"""Tests of the back end dns. test_440_bind.py and test_442_knot.py run them, each with its own server."""

import threading
import time

import pytest
from clock import Clock
from dns_bed import BAD_REQUEST, OK, SERVER_REFUSED, Fixture, require
from dns_proxy import cut, drip, forward, instead, refuse, silent
from dns_servers import HOST_KEY, NAME, OTHER_NAME, READER, ZONE, records, secret
from host import BUILD
from rdb_client import CONNECTED
from sandbox import PATIENCE, wait_until

A, B, C = "2001:db8::a", "2001:db8::b", "fd00::c"
PROXY = "127.0.0.1:5300"
SECOND = 1_000_000_000


@pytest.fixture
def fixture(request):
    """Returns a Fixture whose server runs. At the end of the test no line of syslog may contain a secret."""
    Server = request.cls.Server
    require(Server)
    one = Fixture(Server)
    try:
        one.server.start()
        yield one
        kept = [secret(HOST_KEY), secret("wrong"), secret(READER)]
        assert not [line for line in one.log.raw() if any(word in line for word in kept)]
    finally:
        one.close()


class DnsCases:
    Server = None
    refused = ""  # word in the logged reason if the policy does not allow the key to change the name
    no_zone = ""  # word in the logged reason if the server does not have the zone

    def test_4401_when_the_reply_arrives_the_zone_has_the_records(self, fixture):
        fixture.connected()
        assert fixture.update([A, B], [443]) == (OK, "ok")
        assert fixture.holds([A, B], [443])

    def test_4402_a_change_of_the_addresses_replaces_all_records(self, fixture):
        fixture.connected()
        fixture.update([A, B], [443])
        assert fixture.update([B, C], [443]) == (OK, "ok")
        assert fixture.holds([B, C], [443])

    def test_4403_the_https_records_are_removed_with_the_last_address(self, fixture):
        fixture.connected()
        for addresses in ([A, B, C], [A, C], [C], []):
            assert fixture.update(addresses, [443, 8443]) == (OK, "ok")
            assert fixture.holds(addresses, [443, 8443])

    def test_4404_https_records_follow_the_ports(self, fixture):
        fixture.connected()
        for ports in ([], [443], [443, 8443], [443, 8443, 9443]):
            assert fixture.update([A, B], ports) == (OK, "ok")
            assert fixture.holds([A, B], ports)

    def test_4405_without_port_443_the_name_itself_has_the_ports(self, fixture):
        fixture.connected()
        for ports in ([8443], [9443, 8443]):
            assert fixture.update([A, B], ports) == (OK, "ok")
            assert fixture.holds([A, B], ports)

    def test_4406_the_name_of_a_port_that_is_no_longer_listed_keeps_its_record(self, fixture):
        fixture.connected()
        fixture.update([A, B], [8443, 9443])
        left = [line for line in records([A, B], [8443]) if line.startswith("_8443.")]
        assert fixture.update([B, C], [443, 9443]) == (OK, "ok")
        assert fixture.server.published() == sorted(records([B, C], [443, 9443]) + left)

    def test_4407_other_types_and_names_are_unchanged(self, fixture):
        others = fixture.server.others()
        fixture.connected()
        for addresses, ports in (([A, B], [443, 8443]), ([C], [9443]), ([], [])):
            assert fixture.update(addresses, ports) == (OK, "ok")
            assert fixture.server.others() == others

    def test_4408_one_request_is_one_message(self, fixture):
        fixture.connected(server=PROXY)
        for addresses, ports in (([A, B], [443, 8443]), ([C], [9443]), ([], [])):
            before = sum(exchange.is_update for exchange in fixture.proxy.exchanges)
            fixture.update(addresses, ports)
            assert sum(exchange.is_update for exchange in fixture.proxy.exchanges) == before + 1

    @pytest.mark.retry
    def test_4409_a_server_that_lost_the_records_gets_them_again(self, fixture):
        fixture.connected()
        fixture.update([A, B], [443, 8443])
        fixture.server.kill()
        fixture.server.forget()
        fixture.server.start()
        assert fixture.server.published() == []
        fixture.wait_held([A, B], [443, 8443])

    def test_4410_records_changed_by_others_are_restored_at_the_next_check(self, fixture):
        fixture.connected()
        fixture.update([A, B], [443])
        script = f"server 127.0.0.1\nzone {ZONE}\nupdate delete {NAME} AAAA {A}\nupdate delete {NAME} HTTPS\nsend\n"
        fixture.sandbox.path("/mnt/script").write_text(script)
        fixture.sandbox.run("nsupdate", "-y", f"hmac-sha256:{HOST_KEY}:{secret(HOST_KEY)}", "/mnt/script")
        assert not fixture.holds([A, B], [443])
        fixture.wait_held([A, B], [443])

    @pytest.mark.retry
    def test_4411_a_server_killed_during_updates_finally_has_the_desired_records(self, fixture):
        fixture.connected(server=PROXY)
        held = []
        for turn in range(1, 21):
            if turn % 5 == 0:
                fixture.connect_anew()
            wanted = [f"2001:db8:{turn:x}::1", f"2001:db8:{turn:x}::2"]
            self.kill_during(fixture, turn, wanted)
            fixture.proxy.behaviour = refuse
            fixture.server.start()
            assert fixture.server.published() in (records(held, [8443]), records(wanted, [8443]))
            fixture.proxy.behaviour = forward
            fixture.wait_held(wanted, [8443])
            fixture.wait_connected_again()
            held = wanted

    @staticmethod
    def kill_during(fixture, turn, wanted):
        """Requests an update. Kills the server before, during or after the update, depending on `turn`."""
        reached, killed = threading.Event(), threading.Event()

        def behaviour(exchange):
            if not exchange.is_update:
                return forward(exchange)
            stage = turn % 4
            if stage == 1:
                exchange.ask(len(exchange.query) // 2)
            elif stage == 2:
                exchange.ask()
            elif stage == 3:
                exchange.answer()
            reached.set()
            killed.wait(PATIENCE)
            return False

        fixture.proxy.behaviour = behaviour
        fixture.ask(wanted, [8443])
        assert reached.wait(PATIENCE)
        fixture.server.kill()
        killed.set()

    @pytest.mark.retry
    def test_4412_a_truncated_answer_is_requested_again(self, fixture):
        fixture.connected(server=PROXY)
        for turn, length in enumerate((0, 1, 2, 3, 13, 14, 40), 1):
            wanted = [f"2001:db8::{turn:x}:1"]
            fixture.proxy.behaviour = cut(length)
            assert fixture.update(wanted)[0] != OK
            fixture.proxy.behaviour = forward
            fixture.wait_held(wanted)
            fixture.wait_connected_again()

    def test_4413_an_answer_may_arrive_byte_by_byte(self, fixture):
        fixture.proxy.behaviour = drip
        fixture.connected(server=PROXY)
        assert fixture.update([A, B], [443]) == (OK, "ok")
        assert fixture.holds([A, B], [443])

    @pytest.mark.retry
    def test_4414_a_request_without_an_answer_is_retried(self, fixture):
        fixture.connected(server=PROXY, sockets=25)
        fixture.proxy.behaviour = silent
        assert fixture.update([A])[0] != OK
        fixture.proxy.behaviour = forward
        fixture.wait_held([A])

    @pytest.mark.retry
    def test_4415_after_a_malformed_answer_the_request_is_retried(self, fixture):
        fixture.connected(server=PROXY)
        for turn, data in enumerate((b"HTTP/1.1 400 Bad Request\r\n\r\n", b"\0\0", b"\0\x0c" + b"\xff" * 12), 1):
            wanted = [f"2001:db8::{turn:x}:1"]
            fixture.proxy.behaviour = instead(data)
            assert fixture.update(wanted)[0] != OK
            fixture.proxy.behaviour = forward
            fixture.wait_held(wanted)
            fixture.wait_connected_again()

    def test_4416_an_unsigned_answer_is_ignored(self, fixture):
        fixture.connected(server=PROXY)
        fixture.proxy.behaviour = unsigned_yes
        assert fixture.update([A])[0] != OK
        fixture.proxy.behaviour = forward
        fixture.wait_held([A])

    @pytest.mark.refusal
    def test_4417_an_unknown_key_is_refused_with_badkey_until_it_is_added(self, fixture):
        fixture.server.keys["another"] = fixture.server.keys.pop(HOST_KEY)
        fixture.server.granted = "another"
        fixture.server.reconfigure()
        fixture.connect()
        keys = {HOST_KEY: secret(HOST_KEY), READER: secret(READER)}
        self.refused_until(fixture, "BADKEY", keys=keys, granted=HOST_KEY)

    @pytest.mark.refusal
    def test_4418_a_wrong_secret_is_refused_with_badsig_until_it_is_corrected(self, fixture):
        fixture.server.keys[HOST_KEY] = secret("wrong")
        fixture.server.reconfigure()
        fixture.connect()
        self.refused_until(fixture, "BADSIG", keys={HOST_KEY: secret(HOST_KEY), READER: secret(READER)})

    @pytest.mark.refusal
    def test_4419_a_changed_password_file_is_used_at_a_later_attempt(self, fixture):
        file = fixture.sandbox.path("/mnt/secret")
        file.write_text(secret("wrong") + "\n")
        fixture.connect(password="file:/mnt/secret")
        fixture.log.wait("BADSIG")
        file.write_text(secret(HOST_KEY) + "\n")
        fixture.wait_connected()
        assert fixture.update([A], [443]) == (OK, "ok")
        assert fixture.holds([A], [443])

    @pytest.mark.parametrize("seconds", (1000, -1000))
    @pytest.mark.refusal
    def test_4420_a_wrong_clock_is_refused_with_badtime_until_it_is_corrected(self, fixture, seconds):
        clock = Clock(fixture.sandbox, BUILD / "tests/libclockshim.so", time.time_ns() + seconds * SECOND)
        fixture.connect(environment=clock.env)
        (line,) = fixture.log.wait("BADTIME")
        assert any(f"{abs(seconds) + by}" in line for by in range(-10, 11)), line
        fixture.wait_attempts(3)
        clock.of(fixture.client.process).step(-seconds)
        fixture.wait_connected()
        assert fixture.update([A]) == (OK, "ok")
        assert fixture.holds([A])

    @pytest.mark.refusal
    def test_4421_a_name_not_allowed_by_the_policy_is_refused_until_it_is_allowed(self, fixture):
        fixture.server.allowed = [OTHER_NAME]
        fixture.server.reconfigure()
        fixture.connected()
        self.refused_update_until(fixture, allowed=[NAME])

    @pytest.mark.refusal
    def test_4422_a_key_is_refused_until_it_has_permission(self, fixture):
        fixture.server.granted = READER
        fixture.server.reconfigure()
        fixture.connect()
        self.key_without_permission(fixture, granted=HOST_KEY)

    def test_4423_a_name_outside_the_zone_is_a_bad_request(self, fixture):
        lines = fixture.server.lines()
        fixture.connected()
        for name in ("host1.example.com", "example.test.host1.example", "host1.xexample.test"):
            assert fixture.update([A], [443], name)[0] == BAD_REQUEST
        assert fixture.server.lines() == lines

    def test_4424_a_short_name_belongs_to_the_zone(self, fixture):
        fixture.connected()
        assert fixture.update([A], [443], "host1") == (OK, "ok")
        assert fixture.holds([A], [443])

    @pytest.mark.refusal
    def test_4425_a_missing_zone_is_logged_once_and_never_connects(self, fixture):
        fixture.connect(zone="another.test")
        fixture.wait_attempts(4)
        (line,) = fixture.log.lines("rdbapi: dns://")
        assert self.no_zone in line
        assert fixture.client.events(fixture.handle) == []

    def test_4426_an_invalid_base64_secret_is_reported_without_the_secret(self, fixture):
        client = fixture.new_client()
        handle = client.create()
        code = client.connect(handle, f"dns://127.0.0.1/{ZONE}", HOST_KEY, "not*base64")
        (line,) = fixture.log.wait("base64")
        assert "not*base64" not in line
        assert client.events(handle) == []
        assert code in (0, 1003)

    @pytest.mark.refusal
    @pytest.mark.retry
    def test_4427_an_update_refused_by_a_full_disk_is_made_when_space_is_available(self, fixture):
        folder = fixture.server.move_to_small_disk()
        many = [f"2001:db8::1:{i:x}" for i in range(1, 100)]  # BIND accepts at most 100 AAAA records of a name
        fixture.connected()
        fixture.update([A], [8443])
        with (folder / "fill").open("wb", buffering=0) as file, pytest.raises(OSError):
            while True:
                file.write(bytes(512))
        code, message = fixture.update(many, [8443])
        assert (code, "SERVFAIL" in message) == (SERVER_REFUSED, True), message
        fixture.wait_attempts(2)
        assert fixture.holds([A], [8443])
        (folder / "fill").unlink()
        fixture.wait_held(many, [8443])
        assert len(fixture.log.lines("SERVFAIL")) == 1

    def test_4428_the_server_may_be_an_ipv6_address_with_and_without_a_port(self, fixture):
        for server in ("[::1]", "[::1]:53"):
            fixture.connected(server=server)
            assert fixture.update([A], [443]) == (OK, "ok")
            assert fixture.holds([A], [443])
            fixture.client.close()

    def test_4429_ttl_and_algorithm_come_from_the_url(self, fixture):
        fixture.server.algorithm = "hmac-sha512"
        fixture.server.reconfigure()
        fixture.connected("?ttl=5&algorithm=hmac-sha512")
        assert fixture.update([A], [443, 8443]) == (OK, "ok")
        assert fixture.holds([A], [443, 8443], ttl=5)

    def test_4430_unique_local_addresses_are_skipped_on_request(self, fixture):
        fixture.connected("?skip=ula")
        assert fixture.update([C, A, B], [443]) == (OK, "ok")
        assert fixture.holds([A, B], [443])

    @pytest.mark.retry
    def test_4431_the_back_off_grows_from_one_second_to_sixty(self, fixture):
        fixture.server.kill()
        fixture.connect()
        fixture.wait_attempts(8)
        waits = fixture.backoffs()[:8]
        bases = [min(2**failures, 48) for failures in range(8)]
        assert all(base <= wait <= base * 1.25 for base, wait in zip(bases, waits, strict=True)), waits
        assert any(wait != base for base, wait in zip(bases, waits, strict=True)), waits
        assert len(fixture.log.lines("rdbapi: dns://")) == 1
        fixture.server.start()
        fixture.wait_connected()

    @pytest.mark.refusal
    @pytest.mark.retry
    def test_4432_of_several_failed_requests_only_the_last_is_repeated(self, fixture):
        fixture.server.allowed = [OTHER_NAME]
        fixture.server.reconfigure()
        fixture.connected()
        for addresses in ([A], [B], [A, C]):
            fixture.update(addresses, [443])
        fixture.server.allowed = [NAME]
        fixture.server.reconfigure()
        fixture.wait_held([A, C], [443])

    @pytest.mark.retry
    def test_4433_an_update_interrupts_a_check_without_a_failure(self, fixture):
        asked = threading.Event()

        def behaviour(exchange):
            if exchange.is_update or asked.is_set():
                return forward(exchange)
            asked.set()
            return silent(exchange)

        fixture.connected(server=PROXY)
        fixture.update([A], [443])
        fixture.proxy.behaviour = behaviour
        assert asked.wait(PATIENCE)
        assert fixture.update([B], [443]) == (OK, "ok")
        assert fixture.holds([B], [443])
        since = len(fixture.proxy.exchanges)
        wait_until(lambda: len(fixture.proxy.exchanges) >= since + 3, "the next check")
        assert fixture.log.lines("rdbapi: dns://") == []
        assert fixture.client.events(fixture.handle) == [CONNECTED]

    def refused_until(self, fixture, word, **changed):
        """Checks that there is no connection and that the reason is logged once and contains this word. Then changes
        the server; the update must succeed."""
        fixture.log.wait(word)
        fixture.wait_attempts(4)
        assert len(fixture.log.lines(word)) == 1
        assert fixture.client.events(fixture.handle) == []
        fixture.change_server(**changed)
        fixture.wait_connected()
        assert fixture.update([A], [443]) == (OK, "ok")
        assert fixture.holds([A], [443])
        assert fixture.log.lines(word) == fixture.log.lines("rdbapi: dns://")[:1]

    def refused_update_until(self, fixture, **changed):
        """Checks that the update is refused and that the reason is logged once. Then changes the server; the update
        must be repeated automatically."""
        fixture.wait_connected()
        code, message = fixture.update([A, B], [443, 8443])
        assert (code, self.refused in message) == (SERVER_REFUSED, True), message
        fixture.wait_attempts(4)
        assert fixture.holds([])
        assert len(fixture.log.lines(self.refused)) == 1
        fixture.change_server(**changed)
        fixture.wait_held([A, B], [443, 8443])
        fixture.log.wait("works again")
        assert len(fixture.log.lines(self.refused)) == 1
        assert fixture.client.events(fixture.handle) == [CONNECTED]


def unsigned_yes(exchange):
    """Answers any query with a message that is only a header with the code NOERROR."""
    identity, flags = exchange.query[2:4], bytes([exchange.query[4] | 0x80, 0])
    exchange.send(b"\0\x0c" + identity + flags + bytes(8))
