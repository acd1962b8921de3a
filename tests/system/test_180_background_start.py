"""-start: its output, the times of the output, the child process, and the control queue.

The parent's clock stops at its first poll. So each test determines how far the child is when the parent polls.
"""

import signal
from pathlib import Path

import pytest
from host import ACCESS_ERROR, DIRECTORY, DNS, INI, PIDFILE, RDB
from sandbox import wait_until

MSGQUEUE = Path(__file__).with_name("msgqueue.py")
SUCCESS = b"\nstart...\rStart success!\n\nfinished\n"
FAILURE = b"\nstart...\rStart failed!\nfinished\n"


def launch(host):
    """Starts the service. Returns the parent at its first poll and the child at its first sleep, each with its clock
    control."""
    parent = host.start("-start")
    control = host.clock.of(parent)
    control.wait_parked()
    pid = wait_until(lambda: next((pid for pid in host.clock.pids() if pid != parent.pid), None), "the child")
    child = host.sandbox.adopt(pid)
    child_control = host.clock.of(child)
    child_control.wait_parked()
    return parent, control, child, child_control


def finish(process, control, seconds=31):
    """Lets a process run to its end. Its exit status must be 0. Returns its output."""
    control.let_run(seconds)
    output = process.all_output()
    assert process.wait() == 0
    return output


def queues(host):
    """Returns the System V queues of the sandbox: the lines of /proc/sysvipc/msg without the heading."""
    return host.sandbox.run("cat", "/proc/sysvipc/msg").splitlines()[1:]


@pytest.fixture
def silent(host):
    """A host whose service logs nothing."""
    host.settings(logurl=None)
    return host


def failed_child(host):
    """Starts a service whose start fails, and waits for the end of its child. Returns the parent, the parent's clock
    control and the child's pid."""
    parent = host.start("-start")
    control = host.clock.of(parent)
    control.wait_parked()
    own = f"{parent.pid}\n".encode()
    wait_until(lambda: host.pidfile() not in (own, b"") and host.lock_holder() == 0, "the child's end")
    return parent, control, int(host.pidfile())


def test_1801_a_successful_start_shows_start_success_and_finished(silent):
    parent, control, child, _ = launch(silent)
    assert finish(parent, control) == b"\n" + SUCCESS
    assert child.running()


def test_1802_the_parent_prints_one_text_for_each_poll_of_100_milliseconds(silent):
    parent, control, _, _ = launch(silent)
    assert control.last_sleep_ns == 100_000_000
    control.advance(0.1)
    assert parent.wait_for_output(b"\r") == b"\n\nstart...\r"
    control.advance(0.1)
    assert parent.wait_for_output(b"success!\n\n") == b"\n\nstart...\rStart success!\n\n"
    assert finish(parent, control, 0.1) == b"\n" + SUCCESS


def test_1803_the_child_has_a_new_session_the_root_directory_and_umask_0(silent):
    parent, control, child, _ = launch(silent)
    finish(parent, control)
    proc = f"/proc/{child.pid}"
    stat = silent.sandbox.path(f"{proc}/stat").read_text().rsplit(") ", 1)[1].split()
    assert (int(stat[1]), int(stat[3])) == (1, child.pid)
    assert "\nUmask:\t0000\n" in silent.sandbox.path(f"{proc}/status").read_text()
    links = silent.sandbox.run("readlink", f"{proc}/cwd", f"{proc}/fd/0", f"{proc}/fd/1", f"{proc}/fd/2")
    assert links == b"/\n/dev/null\n/dev/null\n/dev/null\n"


def test_1804_the_pid_file_contains_the_childs_pid_and_the_child_holds_the_lock(silent):
    parent, control, child, _ = launch(silent)
    finish(parent, control)
    assert (silent.pidfile(), silent.lock_holder()) == (f"{child.pid}\n".encode(), child.pid)


def test_1805_the_console_log_of_the_start_is_shown_and_nothing_after_it(host):
    parent, control, child, child_control = launch(host)
    host.library.connect(RDB)
    child_control.advance(1)
    output = finish(parent, control)
    assert output == (
        b"\n"
        + host.line("inf", b"\n\tstart addrpubd...")
        + host.line("inf", b"rdburl: rdb://192.0.2.1:900")
        + host.line("inf", b"dnsurl: dns://192.0.2.2:901")
        + host.line("inf", b"addrpubd service started successfully.")
        + SUCCESS
    )
    assert child.running()


def test_1806_the_child_publishes(silent):
    silent.sandbox.add_address("2001:db8::1/64")
    parent, control, _, child_control = launch(silent)
    finish(parent, control)
    silent.library.connect(RDB, DNS)
    child_control.advance(0.1)
    assert (silent.library.puts(), len(silent.library.requests())) == ([b"2001:db8::1"], 1)


@pytest.mark.parametrize("number", [2, 15])
def test_1807_a_signal_ends_the_child_with_status_0_and_closes_both_connections(silent, number):
    parent, control, child, _ = launch(silent)
    finish(parent, control)
    child.kill(number)
    assert child.wait() == 0
    assert [name for name, _ in silent.library.names()[6:]] == ["rdb_disconnect", "rdb_destory"] * 2
    assert (silent.lock_holder(), silent.pidfile()) == (0, f"{child.pid}\n".encode())


def test_1808_a_failed_start_shows_start_failed_and_ends_the_child_with_4(silent):
    silent.settings(logurl=None, hostname=None)
    parent, control, pid = failed_child(silent)
    assert finish(parent, control) == b"\n" + FAILURE
    assert silent.sandbox.status_of(pid) == 4
    assert silent.lock_holder() == 0


def test_1809_a_missing_ini_file_is_reported_before_start_failed(silent):
    silent.ini(None)
    parent, control, pid = failed_child(silent)
    assert finish(parent, control) == f"\nLoad {INI} failed.\n".encode() + FAILURE
    assert silent.sandbox.status_of(pid) == 4


def test_1810_a_second_start_prints_the_pid_of_the_child_and_starts_nothing(silent):
    parent, control, child, _ = launch(silent)
    finish(parent, control)
    calls = silent.library.names()
    expected = f"\naddrpubd alreay runging! pid = {child.pid}\n".encode()
    assert (silent.command("-start"), silent.command("-run")) == (expected, expected)
    assert (silent.library.names(), silent.lock_holder()) == (calls, child.pid)


def test_1811_the_parent_removes_the_queue(silent):
    parent, control, _, _ = launch(silent)
    assert len(queues(silent)) == 1
    finish(parent, control)
    assert queues(silent) == []


def test_1812_the_queue_has_key_23213_and_mode_666_and_contains_three_terminated_texts(silent):
    launch(silent)
    (row,) = queues(silent)
    key, _, mode, size, count = row.split()[:5]
    texts = b"\nstart...\r\0Start success!\n\n\0finished\0"
    assert (int(key), mode, int(size), int(count)) == (23213, b"666", len(texts), 3)


def left_over(host, kind, text, *raw):
    host.sandbox.run("/usr/bin/python3", "-I", "-S", MSGQUEUE, str(kind), text, *raw)


def test_1813_a_text_left_by_an_earlier_run_is_shown_first(silent):
    left_over(silent, 1, "left over\n")
    parent, control, _, _ = launch(silent)
    assert finish(parent, control) == b"\nleft over\n" + SUCCESS


@pytest.mark.parametrize("text", ["finished", "FINISHED", "Finished"])
def test_1814_an_end_marker_left_by_an_earlier_run_ends_the_parent_in_any_case(silent, text):
    left_over(silent, 1, text)
    parent, control, child, _ = launch(silent)
    assert finish(parent, control) == b"\n" + text.encode() + b"\n"
    assert control.sleeps == 1
    assert child.running() and queues(silent) == []


@pytest.mark.parametrize("kind", [2, 77, 2**62])
def test_1815_a_message_of_another_type_is_shown(silent, kind):
    left_over(silent, kind, "other\n")
    parent, control, _, _ = launch(silent)
    assert finish(parent, control) == b"\nother\n" + SUCCESS


def test_1816_a_text_of_512_bytes_without_a_zero_is_shown_completely(silent):
    left_over(silent, 1, "x" * 511 + "\n", "raw")
    parent, control, _, _ = launch(silent)
    assert finish(parent, control).startswith(b"\n" + b"x" * 511 + b"\n")


def test_1817_a_longer_message_blocks_the_queue_for_15_seconds(silent):
    left_over(silent, 1, "x" * 513, "raw")
    parent, control, child, _ = launch(silent)
    assert finish(parent, control) == b"\n"
    assert (control.sleeps, queues(silent)) == (150, [])
    assert child.running()


def test_1818_a_parent_that_gets_only_one_text_polls_300_times(silent):
    silent.library.before_start("hold rdb_create 0")
    parent = silent.start("-start")
    control = silent.clock.of(parent)
    control.wait_parked()
    assert silent.library.tell("held 30000")
    control.advance(29.9)
    assert control.sleeps == 300
    control.let_run(0.1)
    assert (parent.wait(), parent.output_so_far()) == (0, b"\n\nstart...\r")
    assert (control.sleeps, queues(silent)) == (300, [])


def test_1819_without_a_queue_the_parent_polls_150_times(silent):
    silent.sandbox.run("sh", "-c", "echo 0 > /proc/sys/kernel/msgmni")
    parent, control, child, _ = launch(silent)
    control.advance(14.9)
    assert finish(parent, control, 0.1) == b"\nsend message failed\n"
    assert control.sleeps == 150
    assert child.running()


def test_1820_without_access_to_the_pid_file_nothing_starts(silent):
    silent.sandbox.path(PIDFILE).mkdir()
    assert silent.command("-start") == b"\n" + ACCESS_ERROR
    assert (silent.library.calls(), queues(silent)) == ([], [])


def test_1821_a_stale_pid_file_is_overwritten(silent):
    silent.sandbox.path(PIDFILE).write_bytes(b"4194303\n" * 100)
    _, _, child, _ = launch(silent)
    assert silent.pidfile() == f"{child.pid}\n".encode()


def test_1822_a_terminal_shows_the_same_bytes_with_carriage_returns(silent):
    parent = silent.start("-start", tty=True)
    control = silent.clock.of(parent)
    control.wait_parked()
    child = wait_until(lambda: next((pid for pid in silent.clock.pids() if pid != parent.pid), None), "the child")
    silent.clock.of(silent.sandbox.adopt(child)).wait_parked()
    control.let_run(31)
    assert parent.wait_for_output(b"finished\r\n") == (b"\n" + SUCCESS).replace(b"\n", b"\r\n")
    assert parent.wait() == 0


def service_of(host, parent):
    """Lets the parent run to its end. Afterwards no queue may exist. Returns the service that the parent has
    started."""
    pid = wait_until(lambda: next((pid for pid in host.clock.pids() if pid != parent.pid), None), "the child")
    child = host.sandbox.adopt(pid)
    host.clock.of(child).wait_parked()
    host.clock.of(parent).let_run(31)
    assert (parent.wait(), queues(host)) == (0, [])
    assert host.lock_holder() == child.pid
    return child


def publishes(host, service):
    """Returns whether the service sends the host's address to both servers in its next cycle."""
    host.library.connect(RDB, DNS)
    host.clock.of(service).advance(0.1)
    return (host.library.puts(), len(host.library.requests())) == ([b"2001:db8::1"], 1)


def test_1823_a_pipe_closed_before_the_start_does_not_stop_the_service(host):
    host.sandbox.add_address("2001:db8::1/64")
    parent = host.start("-start", unread=True)
    host.clock.of(parent).wait_parked()
    assert publishes(host, service_of(host, parent))


def test_1824_a_pipe_closed_after_the_first_line_does_not_stop_the_service(host):
    host.sandbox.add_address("2001:db8::1/64")
    host.library.before_start("hold rdb_create 0")
    parent = host.start("-start")
    assert parent.wait_for_output(b"\n") == b"\n"
    host.clock.of(parent).wait_parked()
    assert host.library.tell("held 30000")
    parent.stop_reading()
    host.library.tell("release")
    assert publishes(host, service_of(host, parent))


@pytest.mark.parametrize(("trap", "ignored"), [("-", False), ("''", True)])
def test_1825_the_service_inherits_the_disposition_of_sigpipe(silent, trap, ignored):
    shims = " ".join(f"{name}={value}" for name, value in (silent.clock.env | silent.library.env).items())
    command = f"trap {trap} PIPE; exec env {shims} ./addrpubd -start"
    parent = silent.sandbox.spawn("sh", "-c", command, cwd=DIRECTORY)
    silent.clock.of(parent).wait_parked()
    service = service_of(silent, parent)
    status = silent.sandbox.path(f"/proc/{service.pid}/status").read_text()
    mask = int(status.split("\nSigIgn:\t")[1].split()[0], 16)
    assert bool(mask & 1 << (signal.SIGPIPE - 1)) == ignored
