"""The calls of one cycle, and all bytes of the records."""

import pytest
from host import DNS, RDB
from recording import expected_import, expected_query, expected_snapshot, snapshot

NAMES = {
    "one character": "h",
    "78 characters": "n" * 78,
    "79 characters": "n" * 79,
    "80 characters": "n" * 78 + "yz",
    "500 characters": "0123456789" * 50,
    "bytes above 127": "h\u00f6st",
    "79 bytes with a character across the cut": "n" * 78 + "\u00f6",
    "inner blanks": "my host",
}


def first_cycle(host, *connected):
    process, control = host.run(*connected)
    control.advance(0.1)
    return process, control


@pytest.mark.parametrize("name", NAMES.values(), ids=NAMES)
def test_275_the_query_record_contains_only_the_name(host, name):
    host.settings(hostname=name)
    first_cycle(host, RDB)
    (call,) = host.library.calls("rdb_tagget")
    assert call.record == expected_query(name.encode())


@pytest.mark.parametrize("name", NAMES.values(), ids=NAMES)
def test_276_the_import_record_contains_name_class_type_and_flag(host, name):
    host.settings(hostname=name)
    host.library.before_start("result rdb_tagget 0 1")
    first_cycle(host, RDB)
    (call,) = host.library.calls("rdb_taginport")
    assert call.record == expected_import(name.encode())


@pytest.mark.parametrize("name", NAMES.values(), ids=NAMES)
def test_277_the_snapshot_record_contains_name_type_length_and_value(host, name):
    host.settings(hostname=name)
    host.sandbox.add_address("2001:db8::1/64")
    first_cycle(host, RDB)
    (call,) = host.library.calls("rdb_objputsnapshot")
    assert call.record == expected_snapshot(name.encode(), b"2001:db8::1")


def test_278_the_import_is_made_with_mode_16_and_an_integer_that_starts_at_0(host):
    host.library.before_start("result rdb_tagget 0 1")
    first_cycle(host, RDB)
    (call,) = host.library.calls("rdb_taginport")
    assert (call.handle, call.mode, call.result_before) == (RDB, 16, 0)


def test_279_the_put_has_one_record(host):
    first_cycle(host, RDB)
    (call,) = host.library.calls("rdb_objputsnapshot")
    assert (call.handle, call.count, len(call.record)) == (RDB, 1, 1104)


def test_280_the_import_record_contains_no_bytes_of_the_query_record(host):
    host.library.before_start("class rdb_tagget 0 255")
    first_cycle(host, RDB)
    (call,) = host.library.calls("rdb_taginport")
    assert call.record == expected_import(b"host1")


def test_281_a_shorter_value_replaces_a_longer_one_completely(host):
    host.sandbox.add_address("2001:1db8:1111:2222:3333:4444:5555:6666/64")
    _, control = first_cycle(host, RDB)
    host.sandbox.remove_address("2001:1db8:1111:2222:3333:4444:5555:6666/64")
    control.advance(10)
    assert host.library.calls("rdb_objputsnapshot")[1].record == expected_snapshot(b"host1", b"null")


def test_282_the_record_is_put_with_time_zero_every_time(host):
    _, control = first_cycle(host, RDB)
    control.advance(600)
    host.library.connect(RDB)
    control.advance(10)
    times = [snapshot(call.record).time for call in host.library.calls("rdb_objputsnapshot")]
    assert times == [0, 0, 0]


def long_list(host, count):
    """Adds `count` addresses of 39 characters to the host. Returns the resulting list."""
    addresses = [f"2001:1db8:1111:2222:3333:4444:5555:{n:x}" for n in range(0x6601, 0x6601 + count)]
    host.sandbox.path("/mnt/batch").write_text("".join(f"addr add {a}/128 dev lo nodad\n" for a in addresses))
    host.sandbox.run("ip", "-6", "-batch", "/mnt/batch")
    value = ",".join(address for address in host.interface_list() if address != "::1").encode()
    assert len(value) == count * 40 - 1
    return value


def test_283_a_list_of_999_characters_is_put_completely(host):
    value = long_list(host, 25)
    first_cycle(host, RDB)
    (call,) = host.library.calls("rdb_objputsnapshot")
    assert call.record == expected_snapshot(b"host1", value)
    assert snapshot(call.record).value == value


@pytest.mark.parametrize("count", [26, 100])
def test_284_a_longer_list_is_shortened_only_in_the_record(host, count):
    value = long_list(host, count)
    process, _ = first_cycle(host, RDB, DNS)
    (call,) = host.library.calls("rdb_objputsnapshot")
    assert call.record == expected_snapshot(b"host1", value[:999])
    assert value.replace(b",", b'","') in host.library.requests()[0]
    assert b"[inf] rdb_objputsnapshot host1 success,ipv6= " + value in host.log(process)


def test_285_a_change_after_999_characters_causes_a_put(host):
    """The service compares complete lists. In this test the last address of the list is removed."""
    value = long_list(host, 30)
    _, control = first_cycle(host, RDB)
    host.sandbox.remove_address(value.rsplit(b",", 1)[1].decode() + "/128")
    control.advance(10)
    puts = host.library.puts()
    assert puts == [value[:999]] * 2


def test_286_a_cycle_queries_puts_and_sends_in_this_order_on_the_main_thread(host):
    host.sandbox.add_address("2001:db8::1/64")
    first_cycle(host, RDB, DNS)
    calls = host.library.calls()[6:]
    assert [(call.call, call.handle) for call in calls] == [
        ("rdb_tagget", RDB),
        ("rdb_objputsnapshot", RDB),
        ("rdb_callmsg", DNS),
    ]
    assert all(call.main_thread for call in calls)


def test_287_the_tag_is_queried_before_every_put(host):
    _, control = first_cycle(host, RDB)
    control.advance(1200)
    assert [name for name, _ in host.library.names()[6:]] == ["rdb_tagget", "rdb_objputsnapshot"] * 3


def test_288_a_long_name_is_logged_completely(host):
    host.settings(hostname="n" * 300)
    process, _ = first_cycle(host, RDB)
    assert host.log(process)[-1] == b"[inf] rdb_objputsnapshot " + b"n" * 300 + b" success,ipv6= null"
