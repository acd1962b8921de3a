"""-stop and -status: how they find an instance, by the lock or by the text of the file, and how -stop ends the
instance."""

import os
import stat

import pytest
from host import ACCESS_ERROR, PIDFILE

NOT_RUN = b"\naddrpubd not run!\n\n"
RUNNING = b"\naddrpubd is runing!\n\n"
NO_ACCESS = b"\n" + ACCESS_ERROR + b"\n"
BOTH = pytest.mark.parametrize("word", ["-stop", "-status"])


@BOTH
def test_1901_without_a_pid_file_nothing_runs(host, word):
    assert host.command(word) == NOT_RUN


@BOTH
@pytest.mark.parametrize("mask", [0o022, 0o077])
def test_1902_an_empty_pid_file_of_mode_0644_subject_to_the_umask_is_created(host, word, mask):
    host.command(word, umask=mask)
    assert host.pidfile() == b""
    assert stat.S_IMODE(os.stat(host.sandbox.path(PIDFILE)).st_mode) == 0o644 & ~mask


@BOTH
@pytest.mark.parametrize("text", [b"", b"1\n", b"garbage", bytes(300), b"9" * 300])
def test_1903_a_file_without_a_lock_means_that_nothing_runs(host, word, text):
    host.sandbox.path(PIDFILE).write_bytes(text)
    assert (host.command(word), host.pidfile()) == (NOT_RUN, text)


@BOTH
def test_1904_no_access_is_reported_with_an_empty_line(host, word):
    host.sandbox.path(PIDFILE).mkdir()
    assert host.command(word) == NO_ACCESS


@BOTH
def test_1905_a_user_without_write_permission_has_no_access(host, word):
    assert host.command(word, uid=65534) == NO_ACCESS


def test_1906_status_reports_a_running_service_and_does_not_affect_it(host):
    service, _ = host.run()
    assert host.command("-status") == RUNNING
    assert service.running() and host.lock_holder() == service.pid


def stop(host, service):
    """Runs -stop for a service that ends on SIGTERM. Returns the output of -stop."""
    command = host.start("-stop")
    service.wait()
    host.clock.of(command).let_run(1)  # needed if -stop checked the lock before the service had ended
    output = command.all_output()
    assert command.wait() == 0
    return output


def test_1907_stop_ends_a_running_service(host):
    service, _ = host.run()
    expected = f"\nstop addrpubd... pid = {service.pid}\n\naddrpubd stoped gracefully!\n\n".encode()
    assert stop(host, service) == expected
    assert service.all_output().endswith(
        b"exit signal 15.\n" + host.line("inf", b"stop addrpubd service success.")
    )


def test_1908_after_a_stop_nothing_runs(host):
    service, _ = host.run()
    stop(host, service)
    assert (host.command("-status"), host.command("-stop")) == (NOT_RUN, NOT_RUN)


def test_1909_stop_kills_after_300_checks_one_second_apart(host):
    holder = host.hold_lock(sigterm="ignore")
    command = host.start("-stop")
    control = host.clock.of(command)
    control.advance(299.9)
    assert (holder.running(), control.sleeps, control.last_sleep_ns) == (True, 300, 1_000_000_000)
    control.let_run(0.1)
    assert command.all_output() == (
        f"\nstop addrpubd... pid = {holder.pid}\n\n300 second Timeout,addrpubd be killed!\n\n".encode()
    )
    assert (command.wait(), holder.wait()) == (0, -9)


def test_1910_stop_succeeds_when_the_lock_is_free_even_if_the_process_runs(host):
    holder = host.hold_lock(sigterm="release")
    command = host.start("-stop")
    holder.wait_for_output(b"released\n")
    host.clock.of(command).let_run(1)  # needed if -stop checked the lock before the holder released it
    assert command.all_output().endswith(b"addrpubd stoped gracefully!\n\n")
    assert command.wait() == 0 and holder.running()


def test_1911_stop_waits_for_any_holder_of_the_lock(host):
    """Another process takes the lock during the wait. At the time limit, -stop kills the pid of the first
    holder, not the second holder."""
    first = host.hold_lock(sigterm="ignore")
    command = host.start("-stop")
    control = host.clock.of(command)
    control.advance(100)
    first.kill(9)
    first.wait()
    second = host.hold_lock()
    control.advance(199.9)
    assert command.running() and second.running()
    control.let_run(0.1)
    assert command.all_output().endswith(b"300 second Timeout,addrpubd be killed!\n\n")
    assert command.wait() == 0 and second.running()


TEXTS = {
    "a pid": (b"31999\n", RUNNING),
    "a pid and more": (b"31999 and more\n", RUNNING),
    "leading blanks": (b" \t\n 31999", RUNNING),
    "a negative number": (b"-7\n", RUNNING),
    "80 bytes and more": (b"1" + b" " * 200, RUNNING),
    "no number": (b"garbage\n", NOT_RUN),
    "0": (b"0\n", NOT_RUN),
    "zero bytes": (bytes(80), NOT_RUN),
    "a number after 80 blanks": (b" " * 80 + b"31999", NOT_RUN),
    "-1": (b"-1\n", NO_ACCESS),
    "nothing": (b"", NO_ACCESS),
}


@pytest.mark.parametrize(("text", "answer"), TEXTS.values(), ids=TEXTS)
def test_1912_status_uses_the_text_when_the_lock_has_no_pid(host, text, answer):
    host.hold_lock("description")
    host.sandbox.path(PIDFILE).write_bytes(text)
    assert host.command("-status") == answer


STOP_TEXTS = {
    "no number": (b"garbage\n", NOT_RUN),
    "0": (b"0\n", NOT_RUN),
    "a negative number": (b"-7\n", NOT_RUN),
    "-1": (b"-1\n", NO_ACCESS),
    "nothing": (b"", NO_ACCESS),
}


@pytest.mark.parametrize(("text", "answer"), STOP_TEXTS.values(), ids=STOP_TEXTS)
def test_1913_stop_uses_the_text_when_the_lock_has_no_pid(host, text, answer):
    holder = host.hold_lock("description")
    host.sandbox.path(PIDFILE).write_bytes(text)
    assert host.command("-stop") == answer
    assert holder.running()


def test_1914_stop_signals_the_pid_of_the_text_when_the_lock_has_none(host):
    holder = host.hold_lock("description")
    target = host.sandbox.spawn("sleep", "1000000")
    host.sandbox.path(PIDFILE).write_bytes(f"{target.pid}\n".encode())
    command = host.start("-stop")
    assert target.wait() == -15
    holder.kill(9)
    holder.wait()
    host.clock.of(command).let_run(1)
    assert command.all_output() == f"\nstop addrpubd... pid = {target.pid}\n\naddrpubd stoped gracefully!\n\n".encode()


def test_1915_a_run_reports_no_access_when_the_lock_has_no_pid(host):
    """-run and -start do not use the pid in the text of the file."""
    host.hold_lock("description")
    host.sandbox.path(PIDFILE).write_bytes(b"31999\n")
    assert host.command("-run") == b"\n" + ACCESS_ERROR
    assert host.command("-start") == b"\n" + ACCESS_ERROR


def test_1916_stop_and_status_call_nothing_of_the_client_library(host):
    host.command("-status")
    host.command("-stop")
    assert host.library.calls() == []


@BOTH
def test_1917_a_terminal_shows_the_same_bytes_with_carriage_returns(host, word):
    assert host.command(word, tty=True) == NOT_RUN.replace(b"\n", b"\r\n")
    host.sandbox.path(PIDFILE).unlink()
    host.sandbox.path(PIDFILE).mkdir()
    assert host.command(word, tty=True) == NO_ACCESS.replace(b"\n", b"\r\n")


def test_1918_a_terminal_shows_a_running_service_and_its_end_with_carriage_returns(host):
    service, _ = host.run()
    assert host.command("-status", tty=True) == RUNNING.replace(b"\n", b"\r\n")
    command = host.start("-stop", tty=True)
    service.wait()
    host.clock.of(command).let_run(1)  # needed if -stop checked the lock before the service had ended
    expected = b"\nstop addrpubd... pid = %d\n\naddrpubd stoped gracefully!\n\n" % service.pid
    assert command.all_output() == expected.replace(b"\n", b"\r\n")
    assert command.wait() == 0
