"""The effect of a failure on the rest of its cycle and on later cycles."""

import pytest
from host import DNS, RDB

ERRORS = [1, -1, 60001, 2147483647, -2147483648]


@pytest.fixture
def addressed(host):
    """A host with one address."""
    host.sandbox.add_address("2001:db8::1/64")
    return host


def cycle(host, *connected):
    """Runs the service until the end of its first cycle."""
    process, control = host.run(*connected)
    control.advance(0.1)
    return process, control


def functions(host):
    """Returns the functions called since the end of the start."""
    return [name for name, _ in host.library.names()[6:]]


@pytest.mark.retry
def test_251_a_failed_put_is_repeated_only_after_600_seconds(addressed):
    addressed.library.before_start("result rdb_objputsnapshot * 7")
    _, control = cycle(addressed, RDB)
    control.advance(599.8)
    assert len(addressed.library.puts()) == 1
    control.advance(0.1)
    assert len(addressed.library.puts()) == 2


def test_252_a_failed_put_does_not_delay_a_changed_list(addressed):
    addressed.library.before_start("result rdb_objputsnapshot * 7")
    _, control = cycle(addressed, RDB)
    addressed.sandbox.add_address("2001:db8::2/64")
    control.advance(10)
    assert len(addressed.library.puts()) == 2


@pytest.mark.retry
def test_253_a_failed_put_is_tried_again_after_a_reconnection(addressed):
    addressed.library.before_start("result rdb_objputsnapshot * 7")
    _, control = cycle(addressed, RDB)
    addressed.library.disconnect(RDB)
    addressed.library.connect(RDB)
    control.advance(10)
    assert len(addressed.library.puts()) == 2


@pytest.mark.parametrize("code", ERRORS)
@pytest.mark.refusal
def test_254_a_failed_put_is_logged_and_the_request_is_still_sent(addressed, code):
    addressed.library.before_start(f"result rdb_objputsnapshot 0 {code}")
    process, _ = cycle(addressed, RDB, DNS)
    assert functions(addressed) == ["rdb_tagget", "rdb_objputsnapshot", "rdb_callmsg"]
    assert f"[err] rdb_objputsnapshot host1 failed, errcode {code}".encode() in addressed.log(process)


@pytest.mark.retry
@pytest.mark.refusal
def test_255_a_refused_request_is_repeated_only_after_600_seconds(addressed):
    addressed.library.before_start("result rdb_callmsg * 7")
    _, control = cycle(addressed, DNS)
    control.advance(599.8)
    assert len(addressed.library.requests()) == 1
    control.advance(0.1)
    assert len(addressed.library.requests()) == 2


@pytest.mark.parametrize("code", ERRORS)
@pytest.mark.refusal
def test_256_a_refused_request_is_logged_after_its_text(addressed, code):
    addressed.library.before_start(f"result rdb_callmsg 0 {code}")
    process, _ = cycle(addressed, DNS)
    sent, refused = addressed.log(process)[1:]
    assert sent.startswith(b"[dbg] send: {") and refused == f"[err] updateDomain errorcode {code}".encode()


@pytest.mark.refusal
def test_257_a_refused_request_consumes_its_sequence_number(addressed):
    addressed.library.before_start("result rdb_callmsg 0 7")
    _, control = cycle(addressed, DNS)
    addressed.library.connect(DNS)
    control.advance(10)
    assert [b'"seqno":%d,' % n in text for n, text in enumerate(addressed.library.requests(), 1)] == [True, True]


def test_258_a_failed_import_ends_the_cycle_before_put_and_request(addressed):
    addressed.library.before_start("result rdb_tagget * 5", "result rdb_taginport * 6")
    cycle(addressed, RDB, DNS)
    assert functions(addressed) == ["rdb_tagget", "rdb_taginport"]


@pytest.mark.retry
def test_259_a_failed_import_is_tried_again_ten_seconds_later(addressed):
    addressed.library.before_start("result rdb_tagget * 5", "result rdb_taginport 0 6", "result rdb_taginport 1 6")
    _, control = cycle(addressed, RDB, DNS)
    control.advance(9.8)
    assert functions(addressed) == ["rdb_tagget", "rdb_taginport"]
    control.advance(0.1)
    assert functions(addressed) == ["rdb_tagget", "rdb_taginport"] * 2
    control.advance(10)
    assert functions(addressed) == ["rdb_tagget", "rdb_taginport"] * 3 + ["rdb_objputsnapshot", "rdb_callmsg"]


@pytest.mark.parametrize("code", ERRORS)
@pytest.mark.refusal
def test_260_a_failed_import_is_logged_after_the_query(addressed, code):
    addressed.library.before_start(f"result rdb_tagget 0 {code}", f"result rdb_taginport 0 {code}")
    process, _ = cycle(addressed, RDB)
    assert addressed.log(process)[1:] == [
        f"[err] rdb_tagget host1 failed, errcode {code}".encode(),
        f"[err] rdb_taginport host1 failed, errcode {code}".encode(),
    ]


def test_261_an_unknown_tag_is_imported_once_and_then_put(addressed):
    addressed.library.before_start("result rdb_tagget 0 5")
    process, _ = cycle(addressed, RDB)
    assert functions(addressed) == ["rdb_tagget", "rdb_taginport", "rdb_objputsnapshot"]
    assert addressed.log(process)[1:] == [
        b"[err] rdb_tagget host1 failed, errcode 5",
        b"[inf] rdb_taginport host1 success",
        b"[inf] rdb_objputsnapshot host1 success,ipv6= 2001:db8::1",
    ]


@pytest.mark.parametrize("tag_class", [0, 1, 3, 255])
def test_262_a_tag_whose_class_is_not_2_is_imported_without_an_error(addressed, tag_class):
    addressed.library.before_start(f"class rdb_tagget 0 {tag_class}")
    process, _ = cycle(addressed, RDB)
    assert functions(addressed) == ["rdb_tagget", "rdb_taginport", "rdb_objputsnapshot"]
    assert addressed.log(process)[1] == b"[inf] rdb_taginport host1 success"


@pytest.mark.parametrize("tag_class", [0, 1, 3, 255])
def test_263_a_tag_whose_class_is_not_2_after_the_import_is_imported_again(addressed, tag_class):
    addressed.library.before_start(f"class rdb_tagget 0 {tag_class}", f"class rdb_taginport * {tag_class}")
    cycle(addressed, RDB)
    assert functions(addressed) == ["rdb_tagget", "rdb_taginport", "rdb_taginport", "rdb_objputsnapshot"]


def test_264_the_second_import_uses_a_new_record(addressed):
    addressed.library.before_start("class rdb_tagget 0 1", "class rdb_taginport 0 1")
    cycle(addressed, RDB)
    first, second = addressed.library.calls("rdb_taginport")
    assert first.record == second.record


def test_265_a_failure_of_the_second_import_is_logged_and_ignored(addressed):
    addressed.library.before_start("class rdb_tagget 0 1", "class rdb_taginport 0 1", "result rdb_taginport 1 9")
    process, _ = cycle(addressed, RDB)
    assert addressed.log(process)[1:] == [
        b"[inf] rdb_taginport host1 success",
        b"[err] rdb_taginport host1 failed, errcode 9",
        b"[inf] rdb_objputsnapshot host1 success,ipv6= 2001:db8::1",
    ]


def test_266_after_a_failed_query_the_tag_is_imported_even_with_class_2(addressed):
    addressed.library.before_start("result rdb_tagget 0 5", "class rdb_tagget 0 2")
    cycle(addressed, RDB)
    assert functions(addressed) == ["rdb_tagget", "rdb_taginport", "rdb_objputsnapshot"]


def test_267_a_usable_tag_is_not_imported(addressed):
    cycle(addressed, RDB)
    assert functions(addressed) == ["rdb_tagget", "rdb_objputsnapshot"]


def test_268_null_is_put_but_not_sent(host):
    process, _ = cycle(host, RDB, DNS)
    assert (host.library.puts(), host.library.requests()) == ([b"null"], [])
    assert host.log(process)[-1] == b"[inf] rdb_objputsnapshot host1 success,ipv6= null"


@pytest.mark.retry
def test_269_null_is_put_again_after_600_seconds_like_any_value(host):
    _, control = cycle(host, RDB)
    control.advance(599.8)
    assert host.library.puts() == [b"null"]
    control.advance(0.1)
    assert host.library.puts() == [b"null", b"null"]


def test_270_an_address_that_follows_null_is_put_and_sent_in_the_next_cycle(host):
    _, control = cycle(host, RDB, DNS)
    host.sandbox.add_address("2001:db8::1/64")
    control.advance(10)
    assert host.library.puts() == [b"null", b"2001:db8::1"]
    assert len(host.library.requests()) == 1


def test_271_the_same_list_after_null_is_put_at_once_and_sent_when_due(addressed):
    """Null is never stored as sent, so the following list is compared with the last list that was sent."""
    _, control = cycle(addressed, RDB, DNS)
    addressed.sandbox.remove_address("2001:db8::1/64")
    control.advance(10)
    addressed.sandbox.add_address("2001:db8::1/64")
    control.advance(10)
    assert addressed.library.puts() == [b"2001:db8::1", b"null", b"2001:db8::1"]
    assert len(addressed.library.requests()) == 1
    control.advance(580)
    assert len(addressed.library.requests()) == 2
