"""How the service uses the client library: start, events, replies, threads."""

import pytest
from host import DIRECTORY, DNS, RDB


def test_401_the_start_opens_the_rdb_connection_then_the_dns_connection(host):
    host.run()
    calls = host.library.calls()
    assert [(call.call, call.handle) for call in calls] == [
        ("rdb_create", RDB),
        ("rdb_setmessagenotify", RDB),
        ("rdb_connectex", RDB),
        ("rdb_create", DNS),
        ("rdb_setmessagenotify", DNS),
        ("rdb_connectex", DNS),
    ]
    assert all(call.main_thread for call in calls)


def test_402_each_connection_is_opened_with_its_url_user_and_password(host):
    host.run()
    rdb, dns = host.library.calls("rdb_connectex")
    assert (rdb.url, rdb.account, rdb.password, rdb.reserved) == (b"rdb://192.0.2.1:900", b"ruser", b"rpass", 0)
    assert (dns.url, dns.account, dns.password, dns.reserved) == (b"dns://192.0.2.2:901", b"duser", b"dpass", 0)


def test_403_the_returned_handles_are_used(host):
    host.library.before_start("result rdb_create 0 2147483647", "result rdb_create 1 0")
    host.sandbox.add_address("2001:db8::1/64")
    process, control = host.run(2147483647, 0)
    control.advance(0.1)
    host.stop(process)
    assert {call.handle for call in host.library.calls("rdb_tagget", "rdb_objputsnapshot")} == {2147483647}
    assert {call.handle for call in host.library.calls("rdb_callmsg")} == {0}
    assert [call.handle for call in host.library.calls("rdb_destory")] == [2147483647, 0]


def test_404_the_results_of_setmessagenotify_disconnect_and_destory_are_ignored(host):
    host.library.before_start(*(f"result rdb_{f} * -9" for f in ("setmessagenotify", "disconnect", "destory")))
    process, _ = host.run()
    host.stop(process)
    assert len(host.library.calls()) == 10


EVENTS = {
    (RDB, 60001): b"[inf] connect rdb server rdb://192.0.2.1:900 success.",
    (RDB, 60003): b"[err] rdb server rdb://192.0.2.1:900 disconnected.",
    (DNS, 60001): b"[inf] connect dns server dns://192.0.2.2:901 success.",
    (DNS, 60003): b"[err] dns server dns://192.0.2.2:901 disconnected.",
}


@pytest.mark.parametrize(("event", "record"), EVENTS.items())
def test_405_each_event_is_logged_each_time(host, event, record):
    process, _ = host.run()
    host.library.event(*event)
    host.library.event(*event)
    assert host.log(process) == [record, record]


@pytest.mark.parametrize("code", [0, 1, -1, 60000, 60002, 60004, -60001, 2147483647, -2147483648])
def test_406_an_unknown_event_changes_nothing_and_logs_nothing(host, code):
    process, control = host.run()
    host.library.event(RDB, code)
    host.library.event(DNS, code)
    control.advance(20)
    assert (host.log(process), len(host.library.calls())) == ([], 10)


@pytest.mark.parametrize("code", [0, 60000, 60002, 60004])
def test_407_an_unknown_event_does_not_disconnect(host, code):
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run(RDB, DNS)
    host.library.event(RDB, code)
    host.library.event(DNS, code)
    control.advance(0.1)
    assert (len(host.library.puts()), len(host.library.requests())) == (1, 1)


@pytest.mark.parametrize("value", [0, 1, -1, 2**63 - 1, -(2**63)])
def test_408_the_value_of_an_event_is_not_used(host, value):
    process, control = host.run()
    host.library.event(RDB, 60001, value)
    control.advance(0.1)
    assert host.library.puts() == [b"null"]
    assert host.log(process)[0] == EVENTS[RDB, 60001]


def test_409_an_event_during_rdb_connectex_is_handled(host):
    """The library may connect and report the event on the caller's thread before rdb_connectex returns."""
    host.library.before_start("during rdb_connectex 0 60001", "during rdb_connectex 1 60001")
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run()
    control.advance(0.1)
    assert (len(host.library.puts()), len(host.library.requests())) == (1, 1)


def test_410_a_disconnect_during_a_put_prevents_the_next_put(host):
    host.library.before_start("during rdb_objputsnapshot 0 60003")
    _, control = host.run(RDB)
    control.advance(1200)
    assert host.library.puts() == [b"null"]


def test_411_the_end_of_a_put_overwrites_the_effect_of_a_connect_event(host):
    """The event clears the mark, which is the time of the last put. At its end the put sets the mark again. So there is
    only one put in 600 seconds."""
    host.library.before_start("during rdb_objputsnapshot 0 60001")
    _, control = host.run(RDB)
    control.advance(599.9)
    assert host.library.puts() == [b"null"]
    control.advance(0.1)
    assert host.library.puts() == [b"null", b"null"]


REPLIES = {
    "usual": b'{"result":0}',
    "empty": b"",
    "one byte": b"x",
    "one page": b"p" * 4096,
    "one page and a byte": b"p" * 4097,
    "two pages less a byte": b"q" * 8191,
    "per cent signs": b"%s%n%d%%",
    "bytes above 127": bytes(range(128, 256)),
    "long": b"r" * 200_000,
}


@pytest.mark.parametrize("text", REPLIES.values(), ids=REPLIES)
def test_412_a_reply_is_read_only_up_to_its_length(host, text):
    host.sandbox.add_address("2001:db8::1/64")
    process, control = host.run(DNS)
    control.advance(0.1)
    host.library.reply(text)
    assert host.log(process)[-1] == b"[dbg] recv: " + text


def test_413_a_reply_has_no_effect(host):
    host.sandbox.add_address("2001:db8::1/64")
    _, control = host.run(RDB, DNS)
    control.advance(0.1)
    calls = host.library.names()
    host.library.reply(b'{"request":"ws_dnsupdate","seqno":1,"result":-1}')
    host.library.reply(b"second reply to the same request")
    control.advance(599)
    assert host.library.names() == calls


def test_414_a_reply_after_the_connection_was_lost_is_logged(host):
    host.sandbox.add_address("2001:db8::1/64")
    process, control = host.run(DNS)
    control.advance(0.1)
    host.library.disconnect(DNS)
    host.library.reply(b"late")
    assert host.log(process)[-1] == b"[dbg] recv: late"


def test_415_the_service_does_not_reconnect_itself(host):
    _, control = host.run(RDB, DNS)
    host.library.disconnect(RDB, DNS)
    control.advance(7200)
    assert len(host.library.calls("rdb_create", "rdb_connectex")) == 4


def test_416_an_event_during_a_call_is_handled(host):
    """The library's thread delivers the event while the main thread is in a call of the library."""
    host.sandbox.add_address("2001:db8::1/64")
    host.library.before_start("hold rdb_tagget 0")
    process, control = host.run(RDB)
    control.let_run(0.1)
    assert host.library.tell("held 30000")
    host.library.connect(DNS)
    host.library.tell("release")
    control.wait_parked()
    assert (len(host.library.puts()), len(host.library.requests())) == (1, 1)
    host.stop(process)


def test_417_the_library_is_loaded_only_from_the_working_directory(host):
    process = host.sandbox.spawn(f"{DIRECTORY}/addrpubd", "-ver", cwd="/")
    assert b"./librdbapix64.so: cannot open shared object file" in process.all_output()
    assert process.wait() == 127
