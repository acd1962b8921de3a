"""The pid file: its text, its mode, its lock, and the starts that it prevents."""

import os
import stat

import pytest
from host import ACCESS_ERROR, PIDFILE

NOBODY = 65534


def test_121_the_file_contains_the_pid_and_a_line_feed(host):
    process, _ = host.run()
    assert host.pidfile() == f"{process.pid}\n".encode()


@pytest.mark.parametrize("mask", [0o000, 0o022, 0o027, 0o077, 0o177])
def test_122_the_files_mode_is_0644_subject_to_the_umask(host, mask):
    host.run(umask=mask)
    mode = stat.S_IMODE(os.stat(host.sandbox.path(PIDFILE)).st_mode)
    assert mode == 0o644 & ~mask


def test_123_the_mode_depends_on_the_inherited_umask(host, umask):
    host.run()
    assert stat.S_IMODE(os.stat(host.sandbox.path(PIDFILE)).st_mode) == 0o644 & ~umask


def test_124_the_running_service_holds_a_lock_on_the_whole_file(host):
    process, _ = host.run()
    assert host.lock_holder() == process.pid


def test_125_after_the_end_the_lock_is_free_and_the_pid_remains(host):
    process, _ = host.run()
    host.stop(process)
    assert (host.lock_holder(), host.pidfile()) == (0, f"{process.pid}\n".encode())


GARBAGE = {
    "nothing": b"",
    "an older pid": b"4242\n",
    "a longer pid": b"4194303\n",
    "no line feed": b"77",
    "a negative number": b"-1\n",
    "pid 0": b"0\n",
    "a huge number": b"9" * 400,
    "text": b"not a pid\n",
    "several lines": b"1\n2\n3\n",
    "zero bytes": bytes(4096),
    "all bytes": bytes(range(256)) * 16,
    "a megabyte": b"1" * (1 << 20),
}


@pytest.mark.parametrize("content", GARBAGE.values(), ids=GARBAGE)
def test_126_the_text_of_a_leftover_file_without_a_lock_is_replaced(host, content):
    host.sandbox.path(PIDFILE).write_bytes(content)
    process, _ = host.run()
    assert host.pidfile() == f"{process.pid}\n".encode()


def test_127_a_leftover_file_keeps_its_mode(host):
    host.sandbox.path(PIDFILE).write_bytes(b"1\n")
    host.sandbox.path(PIDFILE).chmod(0o600)
    host.run()
    assert stat.S_IMODE(os.stat(host.sandbox.path(PIDFILE)).st_mode) == 0o600


def test_128_a_second_run_prints_the_pid_of_the_first_and_starts_nothing(host):
    first, _ = host.run()
    calls = host.library.names()
    assert host.command("-run") == f"\naddrpubd alreay runging! pid = {first.pid}\n".encode()
    assert host.library.names() == calls


def test_129_a_second_run_changes_neither_file_nor_lock(host):
    first, _ = host.run()
    host.command("-run")
    assert (host.lock_holder(), host.pidfile()) == (first.pid, f"{first.pid}\n".encode())


def test_130_the_pid_of_a_running_instance_comes_from_the_lock_not_from_the_text(host):
    holder = host.hold_lock()
    host.sandbox.path(PIDFILE).write_bytes(b"31999\n")
    assert host.command("-run") == f"\naddrpubd alreay runging! pid = {holder.pid}\n".encode()


def test_131_a_killed_service_does_not_prevent_the_next_start(host):
    first, _ = host.run()
    first.kill(9)
    assert first.wait() == -9
    second = host.start("-run")
    host.clock.of(second).wait_parked()
    assert (host.lock_holder(), host.pidfile()) == (second.pid, f"{second.pid}\n".encode())


def test_132_a_user_without_write_permission_gets_the_access_error(host):
    assert host.command("-run", uid=NOBODY) == b"\n" + ACCESS_ERROR


def test_133_a_missing_directory_is_an_access_error(host):
    host.sandbox.run("mount", "-t", "tmpfs", "tmpfs", "/var")
    assert host.command("-run") == b"\n" + ACCESS_ERROR


def test_134_a_directory_instead_of_the_file_is_an_access_error(host):
    host.sandbox.path(PIDFILE).mkdir()
    assert host.command("-run") == b"\n" + ACCESS_ERROR


def test_135_a_read_only_file_system_is_an_access_error(host):
    host.sandbox.run("mount", "-o", "remount,ro", "/run")
    assert host.command("-run") == b"\n" + ACCESS_ERROR


def test_136_a_file_that_cannot_be_truncated_is_an_access_error(host):
    host.sandbox.run("mkfifo", PIDFILE)
    assert host.command("-run") == b"\n" + ACCESS_ERROR


def test_137_a_full_file_system_is_an_access_error(host):
    host.sandbox.run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", "/run")
    host.sandbox.path("/run/filler").write_bytes(bytes(4096))
    assert host.command("-run") == b"\n" + ACCESS_ERROR


def test_138_after_an_access_error_the_client_library_is_not_called(host):
    host.sandbox.path(PIDFILE).mkdir()
    host.command("-run")
    assert host.library.calls() == []


def test_139_a_start_does_not_wait_for_readers_of_the_file(host):
    """Only a lock identifies an instance. A process that only has the file open is not an instance."""
    host.sandbox.path(PIDFILE).write_bytes(b"1\n")
    with open(host.sandbox.path(PIDFILE), "rb"):
        process, _ = host.run()
        assert host.lock_holder() == process.pid
