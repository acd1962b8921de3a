"""The foreground run from start to exit: its output on a pipe and on a terminal, its signals, and its exit."""

import signal

import pytest
from host import DIRECTORY, DNS, PIDFILE, RDB


def expected_run(host, ending):
    return (
        b"\n"
        + host.line("inf", b"\n\tstart addrpubd...")
        + host.line("inf", b"rdburl: rdb://192.0.2.1:900")
        + host.line("inf", b"dnsurl: dns://192.0.2.2:901")
        + host.line("inf", b"addrpubd service started successfully.")
        + b"Start success!\n\n"
        + ending
        + host.line("inf", b"stop addrpubd service success.")
    )


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_141_the_complete_output_of_a_run_on_a_pipe(host, number):
    process, _ = host.run()
    process.kill(number)
    assert process.all_output() == expected_run(host, f"exit signal {int(number)}.\n".encode())


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_142_a_signal_ends_the_service_with_status_0(host, number):
    process, _ = host.run()
    process.kill(number)
    assert process.wait() == 0


def test_143_a_terminal_shows_the_same_bytes_with_carriage_returns(host):
    process, _ = host.run(tty=True)
    process.kill()
    assert process.all_output() == expected_run(host, b"exit signal 15.\n").replace(b"\n", b"\r\n")


def test_144_ctrl_c_on_the_terminal_prints_exit_signal_2(host):
    process, _ = host.run(tty=True)
    process.type(b"\x03")
    assert process.all_output() == expected_run(host, b"^Cexit signal 2.\n").replace(b"\n", b"\r\n")
    assert process.wait() == 0


def test_145_a_terminal_shows_the_lines_of_the_start_while_the_service_runs(host):
    process, _ = host.run(tty=True)
    assert process.wait_for_output(b"Start success!\r\n\r\n").count(b"\n") == 8


def test_146_the_exit_closes_the_rdb_connection_then_the_dns_connection(host):
    process, _ = host.run()
    host.stop(process)
    assert host.library.names()[-4:] == [
        ("rdb_disconnect", RDB),
        ("rdb_destory", RDB),
        ("rdb_disconnect", DNS),
        ("rdb_destory", DNS),
    ]
    assert len(host.library.calls()) == 6 + 4


def test_147_the_exit_logs_before_it_disconnects(host):
    host.library.before_start("hold rdb_disconnect 0")
    process, _ = host.run(tty=True)
    process.kill()
    assert host.library.tell("held 30000")
    assert process.output_so_far().endswith(b"stop addrpubd service success.\r\n")
    host.library.tell("release")
    assert process.wait() == 0


@pytest.mark.parametrize("url", ["rdburl", "dnsurl"])
def test_148_the_exit_closes_a_single_connection(host, url):
    host.settings(**{url: None})
    process, _ = host.run()
    host.stop(process)
    assert host.library.names()[3:] == [("rdb_disconnect", 0), ("rdb_destory", 0)]


def test_149_a_service_without_servers_starts_and_never_calls_the_client_library(host):
    host.settings(rdburl=None, dnsurl=None)
    process, control = host.run()
    control.advance(30)
    assert host.stop(process).endswith(
        b"exit signal 15.\n" + host.line("inf", b"stop addrpubd service success.", at=30)
    )
    assert host.library.calls() == []


@pytest.mark.parametrize("function", ["rdb_tagget", "rdb_objputsnapshot", "rdb_callmsg"])
def test_150_a_signal_during_a_call_of_the_client_library_ends_the_service(host, function):
    host.sandbox.add_address("2001:db8::1/64")
    host.library.before_start(f"hold {function} 0")
    process, control = host.run(RDB, DNS)
    control.let_run(0.1)
    assert host.library.tell("held 30000")
    host.stop(process)
    assert [name for name, _ in host.library.names()][-5:] == [function] + ["rdb_disconnect", "rdb_destory"] * 2


@pytest.mark.parametrize("number", [signal.SIGHUP, signal.SIGQUIT, signal.SIGUSR1, signal.SIGPIPE, signal.SIGALRM])
def test_151_other_signals_keep_their_default_action(host, number):
    process, _ = host.run()
    process.kill(number)
    assert process.wait() == -number


def test_152_the_run_keeps_working_directory_umask_session_and_standard_output(host):
    process, _ = host.run(umask=0o027)
    status = host.sandbox.path(f"/proc/{process.pid}/status").read_text()
    assert "\nUmask:\t0027\n" in status
    links = host.sandbox.run("readlink", f"/proc/{process.pid}/cwd", f"/proc/{process.pid}/fd/1").split()
    assert links[0] == DIRECTORY.encode() and links[1].startswith(b"pipe:")
    stat = host.sandbox.path(f"/proc/{process.pid}/stat").read_text().rsplit(") ", 1)[1].split()
    assert int(stat[3]) != process.pid  # it has not started a session of its own


def test_153_each_pass_of_the_loop_sleeps_100_milliseconds(host):
    _, control = host.run()
    control.advance(1.05)
    assert (control.sleeps, control.last_sleep_ns) == (11, 100_000_000)


def test_154_the_pid_file_is_the_only_file_that_remains_in_run(host):
    before = {entry.name for entry in host.sandbox.path("/run").iterdir()}
    process, control = host.run(RDB, DNS)
    control.advance(20)
    host.stop(process)
    after = {entry.name for entry in host.sandbox.path("/run").iterdir()}
    assert after - before == {PIDFILE.rsplit("/", 1)[1]}
