"""Starts with -run that fail, and settings with which a start does not fail. A failed start logs the reason if a log is
configured, or prints it if the ini file cannot be opened. It prints "Start failed!", exits with status 0 and leaves the
pid file unlocked."""

import pytest
from host import DIRECTORY, INI, PIDFILE

STARTED = [("rdb_create", 0), ("rdb_setmessagenotify", 0), ("rdb_connectex", 0)]


def failed(host):
    """Runs a start that fails. Returns its output between the start record and "Start failed!"."""
    output = host.command("-run")
    start = b"\n" + host.line("inf", b"\n\tstart addrpubd...")
    assert output.startswith(start) and output.endswith(b"Start failed!\n")
    return output[len(start) : -len(b"Start failed!\n")]


def test_161_a_missing_ini_file_is_reported_on_standard_output(host):
    host.ini(None)
    assert host.command("-run") == f"\nLoad {INI} failed.\nStart failed!\n".encode()


def test_162_the_ini_file_is_read_from_the_folder_of_the_executable(host):
    elsewhere = host.sandbox.path("/mnt/elsewhere")
    elsewhere.mkdir()
    for name in ("librdbapix64.so", "addrpubd.ini"):
        host.sandbox.path(f"{DIRECTORY}/{name}").rename(elsewhere / name)
    process = host.sandbox.spawn(f"{DIRECTORY}/addrpubd", "-run", cwd="/mnt/elsewhere")
    assert process.all_output() == f"\nLoad {INI} failed.\nStart failed!\n".encode()


@pytest.mark.parametrize("change", [{"hostname": None}, {"hostname": ""}, {"hostname": "; h"}])
def test_163_an_empty_host_name_is_refused(host, change):
    host.settings(**change)
    assert failed(host) == host.line("err", f"not config hostname in {INI}".encode())


@pytest.mark.parametrize("name", ["a'b", 'a"b', "x(1", "x1)", "a:b", ":", "a\0b"])
def test_164_a_host_name_with_an_illegal_character_is_refused(host, name):
    host.settings(hostname=name)
    assert failed(host) == host.line("err", f"hostname contains illegal characters in {INI}".encode())


@pytest.mark.parametrize("name", ["a b", "a,b", "a/b", "a\\b", "[x]", "{x}", "a=b", "`x`", "\x7f", "h\u00f6st", "%s%n"])
def test_165_other_special_characters_are_accepted(host, name):
    host.settings(hostname=name)
    process, _ = host.run()
    assert b"Start success!" in host.stop(process)


def test_166_an_empty_ini_file_fails_without_a_log(host):
    host.ini(b"")
    assert host.command("-run") == b"\nStart failed!\n"


def test_167_a_failed_start_leaves_the_pid_in_the_file_but_no_lock(host):
    host.settings(hostname=None)
    process = host.start("-run")
    process.all_output()
    assert process.wait() == 0
    assert (host.pidfile(), host.lock_holder()) == (f"{process.pid}\n".encode(), 0)


def test_168_a_host_name_is_checked_before_any_connection(host):
    host.settings(hostname="a:b")
    host.command("-run")
    assert host.library.calls() == []


@pytest.mark.parametrize("missing", ["rdburl", "rdbuser", "rdbpswd"])
@pytest.mark.parametrize("how", [None, "", "# x"])
def test_169_an_rdb_server_that_is_not_fully_configured_is_not_used(host, missing, how):
    host.settings(**{missing: how})
    process, _ = host.run()
    assert host.line("inf", b"rdburl: not config.") in host.stop(process)
    assert [call.url for call in host.library.calls("rdb_connectex")] == [b"dns://192.0.2.2:901"]


@pytest.mark.parametrize("missing", ["dnsurl", "dnsuser", "dnspswd"])
@pytest.mark.parametrize("how", [None, "", "# x"])
def test_170_a_dns_server_that_is_not_fully_configured_is_not_used(host, missing, how):
    host.settings(**{missing: how})
    process, _ = host.run()
    assert host.line("inf", b"dnsurl: not config.") in host.stop(process)
    assert [call.url for call in host.library.calls("rdb_connectex")] == [b"rdb://192.0.2.1:900"]


def test_171_without_an_rdb_handle_the_start_fails(host):
    host.library.before_start("result rdb_create 0 -1")
    assert failed(host) == host.line("inf", b"rdburl: rdb://192.0.2.1:900") + host.line("err", b"rdb_create failed")
    assert host.library.names() == [("rdb_create", -1)]


@pytest.mark.parametrize("code", [1, -1, 2147483647])
def test_172_a_refused_rdb_connection_frees_its_handle_and_fails_the_start(host, code):
    host.library.before_start(f"result rdb_connectex 0 {code}")
    assert failed(host) == host.line("inf", b"rdburl: rdb://192.0.2.1:900") + host.line(
        "err", b"rdb_connectex rdb://192.0.2.1:900 asynchronous connection failed"
    )
    assert host.library.names() == STARTED + [("rdb_destory", 0)]


def test_173_without_a_dns_handle_the_start_fails_with_the_rdb_connection_open(host):
    host.library.before_start("result rdb_create 1 -5")
    assert failed(host).endswith(
        host.line("inf", b"dnsurl: dns://192.0.2.2:901")
        + host.line("err", b"create DNS Server connect dns://192.0.2.2:901 failed")
    )
    assert host.library.names() == STARTED + [("rdb_create", -5)]


@pytest.mark.parametrize("code", [1, -1])
def test_174_a_refused_dns_connection_frees_only_its_own_handle(host, code):
    host.library.before_start(f"result rdb_connectex 1 {code}")
    assert failed(host).endswith(
        host.line("inf", b"dnsurl: dns://192.0.2.2:901")
        + host.line("err", b"connectex dns://192.0.2.2:901 asynchronous connection failed")
    )
    assert host.library.names() == STARTED + [
        ("rdb_create", 1),
        ("rdb_setmessagenotify", 1),
        ("rdb_connectex", 1),
        ("rdb_destory", 1),
    ]


def test_175_after_a_failed_start_the_next_one_succeeds(host):
    host.settings(hostname=None)
    host.command("-run")
    host.settings()
    process = host.start("-run")
    host.clock.of(process).wait_parked()
    assert host.pidfile() == f"{process.pid}\n".encode()
    assert host.sandbox.path(PIDFILE).stat().st_size == len(str(process.pid)) + 1


def test_176_the_settings_are_read_by_the_ini_grammar(host):
    host.ini(
        b"\xef\xbb\xbf[any]\r\n HostName = my host ; c\r\nLOGURL=stdout\nrdb url = rdb://a=b # c\n"
        b"rdbuser = 'u'\nrdbpswd=p\nrdbpswd=q\n; dnsurl = no\n"
    )
    process, _ = host.run()
    assert host.line("inf", b"dnsurl: not config.") in host.stop(process)
    (call,) = host.library.calls("rdb_connectex")
    assert (call.url, call.account, call.password) == (b"rdb://a=b", b"'u'", b"q")
