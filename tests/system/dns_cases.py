"""What the back end dns brings about with any server. test_440_bind.py and test_450_knot.py run it with theirs."""

import threading
import time

import pytest
from clock import Clock
from dns_bed import BAD_REQUEST, OK, SERVER_REFUSED, Bed, require
from dns_proxy import cut, drip, forward, instead, refuse, silent
from dns_servers import HOST_KEY, NAME, OTHER_NAME, READER, ZONE, records, secret
from host import BUILD
from rdb_client import CONNECTED
from sandbox import PATIENCE, wait_until

A, B, C = "2001:db8::a", "2001:db8::b", "fd00::c"
PROXY = "127.0.0.1:5300"
SECOND = 1_000_000_000


@pytest.fixture
def bed(request):
    """The server runs. No line of syslog may hold a secret at the end."""
    Server = request.cls.Server
    require(Server)
    one = Bed(Server)
    try:
        one.server.start()
        yield one
        kept = [secret(HOST_KEY), secret("wrong"), secret(READER)]
        assert not [line for line in one.log.raw() if any(word in line for word in kept)]
    finally:
        one.close()


class DnsCases:
    Server = None
    refused = ""  # the word of the reason when the policy does not let the key change the name
    no_zone = ""  # ... and when the server does not have the zone

    def test_01_the_zone_holds_a_first_registration_when_the_reply_comes(self, bed):
        bed.connected()
        assert bed.update([A, B], [443]) == (OK, "ok")
        assert bed.holds([A, B], [443])

    def test_02_a_change_replaces_all_that_was_there(self, bed):
        bed.connected()
        bed.update([A, B], [443])
        assert bed.update([B, C], [443]) == (OK, "ok")
        assert bed.holds([B, C], [443])

    def test_03_addresses_go_one_by_one_and_the_last_takes_the_https_records_along(self, bed):
        bed.connected()
        for addresses in ([A, B, C], [A, C], [C], []):
            assert bed.update(addresses, [443, 8443]) == (OK, "ok")
            assert bed.holds(addresses, [443, 8443])

    def test_04_https_records_follow_the_ports(self, bed):
        bed.connected()
        for ports in ([], [443], [443, 8443], [443, 8443, 9443]):
            assert bed.update([A, B], ports) == (OK, "ok")
            assert bed.holds([A, B], ports)

    def test_05_without_port_443_the_name_itself_has_the_ports(self, bed):
        bed.connected()
        for ports in ([8443], [9443, 8443]):
            assert bed.update([A, B], ports) == (OK, "ok")
            assert bed.holds([A, B], ports)

    def test_06_the_name_of_a_port_that_is_no_longer_listed_keeps_its_record(self, bed):
        bed.connected()
        bed.update([A, B], [8443, 9443])
        left = [line for line in records([A, B], [8443]) if line.startswith("_8443.")]
        assert bed.update([B, C], [443, 9443]) == (OK, "ok")
        assert bed.server.published() == sorted(records([B, C], [443, 9443]) + left)

    def test_07_other_types_and_names_stay_as_they_are(self, bed):
        others = bed.server.others()
        bed.connected()
        for addresses, ports in (([A, B], [443, 8443]), ([C], [9443]), ([], [])):
            assert bed.update(addresses, ports) == (OK, "ok")
            assert bed.server.others() == others

    def test_08_one_request_is_one_message(self, bed):
        bed.connected(server=PROXY)
        for addresses, ports in (([A, B], [443, 8443]), ([C], [9443]), ([], [])):
            before = sum(exchange.is_update for exchange in bed.proxy.exchanges)
            bed.update(addresses, ports)
            assert sum(exchange.is_update for exchange in bed.proxy.exchanges) == before + 1

    def test_09_a_server_that_comes_back_without_the_records_gets_them_again(self, bed):
        bed.connected()
        bed.update([A, B], [443, 8443])
        bed.server.kill()
        bed.server.forget()
        bed.server.start()
        assert bed.server.published() == []
        bed.wait_held([A, B], [443, 8443])

    def test_10_records_that_somebody_else_changed_are_put_right_at_the_next_check(self, bed):
        bed.connected()
        bed.update([A, B], [443])
        script = f"server 127.0.0.1\nzone {ZONE}\nupdate delete {NAME} AAAA {A}\nupdate delete {NAME} HTTPS\nsend\n"
        bed.sandbox.path("/mnt/script").write_text(script)
        bed.sandbox.run("nsupdate", "-y", f"hmac-sha256:{HOST_KEY}:{secret(HOST_KEY)}", "/mnt/script")
        assert not bed.holds([A, B], [443])
        bed.wait_held([A, B], [443])

    def test_11_a_server_killed_in_the_middle_of_twenty_updates_ends_with_the_wanted_records(self, bed):
        bed.connected(server=PROXY)
        held = []
        for turn in range(1, 21):
            if turn % 5 == 0:
                bed.connect_anew()
            wanted = [f"2001:db8:{turn:x}::1", f"2001:db8:{turn:x}::2"]
            self.kill_during(bed, turn, wanted)
            bed.proxy.behaviour = refuse
            bed.server.start()
            assert bed.server.published() in (records(held, [8443]), records(wanted, [8443]))
            bed.proxy.behaviour = forward
            bed.wait_held(wanted, [8443])
            bed.wait_connected_again()
            held = wanted

    @staticmethod
    def kill_during(bed, turn, wanted):
        """Asks for an update and kills the server before, during or after it, by the number of the turn."""
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

        bed.proxy.behaviour = behaviour
        bed.ask(wanted, [8443])
        assert reached.wait(PATIENCE)
        bed.server.kill()
        killed.set()

    def test_12_an_answer_cut_short_is_asked_for_again(self, bed):
        bed.connected(server=PROXY)
        for turn, length in enumerate((0, 1, 2, 3, 13, 14, 40), 1):
            wanted = [f"2001:db8::{turn:x}:1"]
            bed.proxy.behaviour = cut(length)
            assert bed.update(wanted)[0] != OK
            bed.proxy.behaviour = forward
            bed.wait_held(wanted)
            bed.wait_connected_again()

    def test_13_an_answer_byte_by_byte_is_as_good_as_a_whole_one(self, bed):
        bed.proxy.behaviour = drip
        bed.connected(server=PROXY)
        assert bed.update([A, B], [443]) == (OK, "ok")
        assert bed.holds([A, B], [443])

    def test_14_a_server_that_stays_silent_is_given_up_and_asked_again(self, bed):
        bed.connected(server=PROXY, sockets=25)
        bed.proxy.behaviour = silent
        assert bed.update([A])[0] != OK
        bed.proxy.behaviour = forward
        bed.wait_held([A])

    def test_15_an_answer_that_is_no_dns_changes_nothing_and_is_asked_for_again(self, bed):
        bed.connected(server=PROXY)
        for turn, data in enumerate((b"HTTP/1.1 400 Bad Request\r\n\r\n", b"\0\0", b"\0\x0c" + b"\xff" * 12), 1):
            wanted = [f"2001:db8::{turn:x}:1"]
            bed.proxy.behaviour = instead(data)
            assert bed.update(wanted)[0] != OK
            bed.proxy.behaviour = forward
            bed.wait_held(wanted)
            bed.wait_connected_again()

    def test_16_an_answer_without_a_signature_is_not_believed(self, bed):
        bed.connected(server=PROXY)
        bed.proxy.behaviour = unsigned_yes
        assert bed.update([A])[0] != OK
        bed.proxy.behaviour = forward
        bed.wait_held([A])

    def test_17_a_key_that_the_server_does_not_know_is_badkey_until_it_does(self, bed):
        bed.server.keys["another"] = bed.server.keys.pop(HOST_KEY)
        bed.server.granted = "another"
        bed.server.reconfigure()
        bed.connect()
        self.refused_until(bed, "BADKEY", keys={HOST_KEY: secret(HOST_KEY), READER: secret(READER)}, granted=HOST_KEY)

    def test_18_a_wrong_secret_is_badsig_until_it_is_right(self, bed):
        bed.server.keys[HOST_KEY] = secret("wrong")
        bed.server.reconfigure()
        bed.connect()
        self.refused_until(bed, "BADSIG", keys={HOST_KEY: secret(HOST_KEY), READER: secret(READER)})

    def test_19_a_password_file_is_read_again_at_each_attempt(self, bed):
        file = bed.sandbox.path("/mnt/secret")
        file.write_text(secret("wrong") + "\n")
        bed.connect(password="file:/mnt/secret")
        bed.log.wait("BADSIG")
        file.write_text(secret(HOST_KEY) + "\n")
        bed.wait_connected()
        assert bed.update([A], [443]) == (OK, "ok")
        assert bed.holds([A], [443])

    @pytest.mark.parametrize("seconds", (1000, -1000))
    def test_20_a_wrong_clock_is_badtime_with_the_difference_until_it_is_right(self, bed, seconds):
        clock = Clock(bed.sandbox, BUILD / "tests/libclockshim.so", time.time_ns() + seconds * SECOND)
        bed.connect(environment=clock.env)
        (line,) = bed.log.wait("BADTIME")
        assert any(f"{abs(seconds) + by}" in line for by in range(-10, 11)), line
        bed.wait_attempts(3)
        clock.of(bed.client.process).step(-seconds)
        bed.wait_connected()
        assert bed.update([A]) == (OK, "ok")
        assert bed.holds([A])

    def test_21_a_name_that_the_policy_does_not_allow_is_refused_until_it_is_allowed(self, bed):
        bed.server.allowed = [OTHER_NAME]
        bed.server.reconfigure()
        bed.connected()
        self.refused_update_until(bed, allowed=[NAME])

    def test_22_a_key_without_permission_is_refused_until_it_has_it(self, bed):
        bed.server.granted = READER
        bed.server.reconfigure()
        bed.connect()
        self.key_without_permission(bed, granted=HOST_KEY)

    def test_23_a_name_outside_the_zone_is_a_bad_request(self, bed):
        lines = bed.server.lines()
        bed.connected()
        for name in ("host1.example.com", "example.test.host1.example", "host1.xexample.test"):
            assert bed.update([A], [443], name)[0] == BAD_REQUEST
        assert bed.server.lines() == lines

    def test_24_a_short_name_is_one_of_the_zone(self, bed):
        bed.connected()
        assert bed.update([A], [443], "host1") == (OK, "ok")
        assert bed.holds([A], [443])

    def test_25_a_zone_that_the_server_does_not_have_is_said_once_and_never_connects(self, bed):
        bed.connect(zone="another.test")
        bed.wait_attempts(4)
        (line,) = bed.log.lines("rdbapi: dns://")
        assert self.no_zone in line
        assert bed.client.events(bed.handle) == []

    def test_26_a_secret_that_is_no_base64_is_said_without_it(self, bed):
        client = bed.new_client()
        handle = client.create()
        code = client.connect(handle, f"dns://127.0.0.1/{ZONE}", HOST_KEY, "not*base64")
        (line,) = bed.log.wait("base64")
        assert "not*base64" not in line
        assert client.events(handle) == []
        assert code in (0, 1003)

    def test_27_an_update_that_the_full_disk_refused_is_made_when_there_is_room(self, bed):
        folder = bed.server.move_to_small_disk()
        many = [f"2001:db8::1:{i:x}" for i in range(1, 100)]  # BIND takes no more than 100
        bed.connected()
        bed.update([A], [8443])
        with (folder / "fill").open("wb", buffering=0) as file, pytest.raises(OSError):
            while True:
                file.write(bytes(512))
        code, message = bed.update(many, [8443])
        assert (code, "SERVFAIL" in message) == (SERVER_REFUSED, True), message
        bed.wait_attempts(2)
        assert bed.holds([A], [8443])
        (folder / "fill").unlink()
        bed.wait_held(many, [8443])
        assert len(bed.log.lines("SERVFAIL")) == 1

    def test_28_the_server_may_be_an_ipv6_address_with_and_without_a_port(self, bed):
        for server in ("[::1]", "[::1]:53"):
            bed.connected(server=server)
            assert bed.update([A], [443]) == (OK, "ok")
            assert bed.holds([A], [443])
            bed.client.close()

    def test_29_ttl_and_algorithm_are_those_of_the_url(self, bed):
        bed.server.algorithm = "hmac-sha512"
        bed.server.reconfigure()
        bed.connected("?ttl=5&algorithm=hmac-sha512")
        assert bed.update([A], [443, 8443]) == (OK, "ok")
        assert bed.holds([A], [443, 8443], ttl=5)

    def test_30_unique_local_addresses_are_left_out_on_demand(self, bed):
        bed.connected("?skip=ula")
        assert bed.update([C, A, B], [443]) == (OK, "ok")
        assert bed.holds([A, B], [443])

    def test_31_the_waits_for_a_server_that_is_away_grow_from_one_second_to_sixty(self, bed):
        bed.server.kill()
        bed.connect()
        bed.wait_attempts(8)
        waits = bed.backoffs()[:8]
        bases = [min(2**failures, 48) for failures in range(8)]
        assert all(base <= wait <= base * 1.25 for base, wait in zip(bases, waits, strict=True)), waits
        assert any(wait != base for base, wait in zip(bases, waits, strict=True)), waits
        assert len(bed.log.lines("rdbapi: dns://")) == 1
        bed.server.start()
        bed.wait_connected()

    def test_32_of_several_requests_that_failed_the_last_one_counts(self, bed):
        bed.server.allowed = [OTHER_NAME]
        bed.server.reconfigure()
        bed.connected()
        for addresses in ([A], [B], [A, C]):
            bed.update(addresses, [443])
        bed.server.allowed = [NAME]
        bed.server.reconfigure()
        bed.wait_held([A, C], [443])

    def test_33_a_check_gives_way_to_an_update_at_once_and_is_no_failure(self, bed):
        asked = threading.Event()

        def behaviour(exchange):
            if exchange.is_update or asked.is_set():
                return forward(exchange)
            asked.set()
            return silent(exchange)

        bed.connected(server=PROXY)
        bed.update([A], [443])
        bed.proxy.behaviour = behaviour
        assert asked.wait(PATIENCE)
        assert bed.update([B], [443]) == (OK, "ok")
        assert bed.holds([B], [443])
        since = len(bed.proxy.exchanges)
        wait_until(lambda: len(bed.proxy.exchanges) >= since + 3, "the next check")
        assert bed.log.lines("rdbapi: dns://") == []
        assert bed.client.events(bed.handle) == [CONNECTED]

    def refused_until(self, bed, word, **changed):
        """No connection, the reason said once with this word; after the change of the server all is well."""
        bed.log.wait(word)
        bed.wait_attempts(4)
        assert len(bed.log.lines(word)) == 1
        assert bed.client.events(bed.handle) == []
        bed.change_server(**changed)
        bed.wait_connected()
        assert bed.update([A], [443]) == (OK, "ok")
        assert bed.holds([A], [443])
        assert bed.log.lines(word) == bed.log.lines("rdbapi: dns://")[:1]

    def refused_update_until(self, bed, **changed):
        """The update is refused, the reason said once; after the server's change it is made without being asked for."""
        bed.wait_connected()
        code, message = bed.update([A, B], [443, 8443])
        assert (code, self.refused in message) == (SERVER_REFUSED, True), message
        bed.wait_attempts(4)
        assert bed.holds([])
        assert len(bed.log.lines(self.refused)) == 1
        bed.change_server(**changed)
        bed.wait_held([A, B], [443, 8443])
        bed.log.wait("works again")
        assert len(bed.log.lines(self.refused)) == 1
        assert bed.client.events(bed.handle) == [CONNECTED]


def unsigned_yes(exchange):
    """Answers NOERROR to any query, with the head alone."""
    identity, flags = exchange.query[2:4], bytes([exchange.query[4] | 0x80, 0])
    exchange.send(b"\0\x0c" + identity + flags + bytes(8))
