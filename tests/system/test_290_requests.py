"""The bytes of the ws_dnsupdate request, and the arguments of the call that sends it."""

import json

import pytest
from host import DNS, RDB


def first_request(host):
    host.sandbox.add_address("2001:db8::1/64")
    process, control = host.run(DNS)
    control.advance(0.1)
    (call,) = host.library.calls("rdb_callmsg")
    return call, process


def test_290_a_request_with_two_addresses_and_two_ports_has_the_expected_bytes(host):
    host.sandbox.add_address("2001:db8::2/64")
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run(DNS)
    for _ in range(5):
        control.advance(10)
        host.library.connect(DNS)
    assert host.library.requests()[4] == (
        b'{"request":"ws_dnsupdate","seqno":5,"item":{"name":"host1","ipv6s":["2001:db8::1","2001:db8::2"],'
        b'"ipv6":"2001:db8::1","httpsports":[443,8443]}}'
    )


def test_291_the_sequence_number_grows_by_one_with_each_request(host):
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run(DNS)
    for _ in range(12):
        host.library.connect(DNS)
        control.advance(10)
    assert [json.loads(text)["seqno"] for text in host.library.requests()] == list(range(1, 13))


def test_292_the_sequence_number_does_not_grow_without_a_request(host):
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run(RDB, DNS)
    control.advance(600)
    assert [json.loads(text)["seqno"] for text in host.library.requests()] == [1, 2]


PORTS = {
    "no key": (None, b"[]"),
    "empty": ("", b"[]"),
    "one": ("443", b"[443]"),
    "the order of the file": ("8443,443,1", b"[8443,443,1]"),
    "blanks, empty items, 0, text and 65536": ("443, 8443 ,,0, x, 65536", b"[443,8443]"),
    "a trailing comma": ("443,", b"[443]"),
    "70000 is 4464": ("70000", b"[4464]"),
    "-1 is 65535": ("-1", b"[65535]"),
    "the same port twice": ("443,443", b"[443,443]"),
}


@pytest.mark.parametrize(("ports", "written"), PORTS.values(), ids=PORTS)
def test_293_the_ports_are_numbers_at_the_end(host, ports, written):
    host.settings(dnshttpsports=ports)
    call, _ = first_request(host)
    assert call.text.endswith(b'"ipv6":"2001:db8::1","httpsports":' + written + b"}}")


NAMES = {
    "slash": (b"a/b", b"a\\/b"),
    "backslash": (b"a\\b", b"a\\\\b"),
    "tab": (b"a\tb", b"a\\tb"),
    "backspace": (b"a\x08b", b"a\\bb"),
    "form feed": (b"a\x0cb", b"a\\fb"),
    "vertical tab": (b"a\x0bb", b"a\x0bb"),
    "other control characters": (b"a\x01\x1fb\x7f", b"a\x01\x1fb\x7f"),
    "bytes above 127": ("h\u00f6st".encode(), "h\u00f6st".encode()),
    "not UTF-8": (b"a\x80\xff", b"a\x80\xff"),
    "over 79 characters": (b"n" * 200, b"n" * 200),
    "per cent signs": (b"%s%n%d", b"%s%n%d"),
}


@pytest.mark.parametrize(("name", "written"), NAMES.values(), ids=NAMES)
def test_294_the_name_is_escaped_and_never_shortened(host, name, written):
    host.ini(b"hostname=" + name + b"\ndnsurl=d\ndnsuser=u\ndnspswd=p\n")
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run(0)
    control.advance(0.1)
    assert host.library.requests() == [
        b'{"request":"ws_dnsupdate","seqno":1,"item":{"name":"' + written + b'","ipv6s":["2001:db8::1"],'
        b'"ipv6":"2001:db8::1","httpsports":[]}}'
    ]


def test_295_the_length_counts_the_bytes_and_a_nul_follows_them(host):
    call, _ = first_request(host)
    assert (call.length, call.terminated) == (len(call.text), True)


def test_296_the_request_goes_to_the_dns_connection_with_its_own_callback(host):
    call, _ = first_request(host)
    notify = host.library.calls("rdb_setmessagenotify")
    assert call.handle == DNS
    assert call.user == notify[0].user == notify[1].user != 0
    assert len({call.callback, notify[0].callback, notify[1].callback}) == 3


def test_297_the_sent_text_is_logged_unchanged(host):
    call, process = first_request(host)
    assert host.log(process)[-1] == b"[dbg] send: " + call.text


def test_298_a_request_with_many_addresses_is_sent_completely(host):
    batch = "".join(f"addr add 2001:db8::{n:x}/128 dev lo nodad\n" for n in range(1, 1201))
    host.sandbox.path("/mnt/batch").write_text(batch)
    host.sandbox.run("ip", "-6", "-batch", "/mnt/batch")
    _, control = host.run(DNS)
    control.advance(0.1)
    (text,) = host.library.requests()
    assert json.loads(text)["item"]["ipv6s"] == [address for address in host.interface_list() if address != "::1"]
