"""The console log: its lines, its time stamps, and the log urls that switch it on or off."""

import datetime
import os
import zoneinfo

import pytest
from host import DIRECTORY, DNS, RDB, Host

ZONES = ["UTC", "Asia/Kolkata", "America/St_Johns", "America/New_York", "Pacific/Kiritimati"]
MOMENTS = {
    "one digit month and day": datetime.datetime(2025, 1, 2, 3, 4, 5, 6),
    "two digits everywhere": datetime.datetime(2025, 12, 31, 23, 59, 58, 999999),
    "no microseconds": datetime.datetime(2026, 7, 4, 0, 0, 0, 0),
    "leap day": datetime.datetime(2028, 2, 29, 12, 0, 0, 42),
    "after 2038": datetime.datetime(2044, 6, 1, 1, 1, 1, 1),
}


def test_301_a_record_is_one_line_with_time_level_and_text(host):
    host.sandbox.add_address("2001:db8::1/64")
    process, control = host.run(RDB, DNS)
    control.advance(0.1)
    host.library.reply(b"r")
    host.library.disconnect(RDB)
    expected = (
        host.line("inf", b"connect rdb server rdb://192.0.2.1:900 success.")
        + host.line("inf", b"connect dns server dns://192.0.2.2:901 success.")
        + host.line("inf", b"rdb_objputsnapshot host1 success,ipv6= 2001:db8::1", at=0.1)
        + host.line("dbg", b"send: " + host.library.requests()[0], at=0.1)
        + host.line("dbg", b"recv: r", at=0.1)
        + host.line("err", b"rdb server rdb://192.0.2.1:900 disconnected.", at=0.1)
        + b"exit signal 15.\n"
    )
    assert expected in host.stop(process)


@pytest.mark.parametrize("moment", MOMENTS.values(), ids=MOMENTS)
def test_302_the_time_is_padded_and_the_date_is_not(moment):
    seconds = int(moment.replace(tzinfo=datetime.timezone.utc).timestamp())
    host = Host((seconds * 1_000_000 + moment.microsecond) * 1000 + 999)
    try:
        process, _ = host.run(env={"TZ": "UTC"})
        stamp = f"[{moment.year}/{moment.month}/{moment.day} {moment:%H:%M:%S}.{moment.microsecond:06d}] [inf] "
        assert host.stop(process).startswith(b"\n" + stamp.encode() + b"\n\tstart addrpubd...\n")
    finally:
        host.close()


@pytest.mark.parametrize("zone", ZONES)
def test_303_the_time_is_local_time(host, zone):
    process, _ = host.run(env={"TZ": zone})
    moment = datetime.datetime.fromtimestamp(host.wall_start_ns // 1_000_000_000, zoneinfo.ZoneInfo(zone))
    stamp = f"\n[{moment.year}/{moment.month}/{moment.day} {moment:%H:%M:%S}.042117] [inf] "
    assert host.stop(process).startswith(stamp.encode())


@pytest.mark.parametrize("target", ["stdout", "STDOUT", "StdOut", "  stdout  ; comment"])
def test_304_stdout_in_any_case_prints_the_log(host, target):
    host.settings(logurl=target)
    process, _ = host.run()
    assert host.line("inf", b"addrpubd service started successfully.") in host.stop(process)


SILENT = [None, "", "stdout1", "stdout/", "stdout:", "://stdout", "stderr", "x.log", "tcp://192.0.2.9:5140/x"]


@pytest.mark.parametrize("target", SILENT)
def test_305_with_a_log_url_that_is_not_stdout_no_record_is_printed(host, target):
    host.settings(logurl=target)
    host.sandbox.add_address("2001:db8::1/64")
    process, control = host.run(RDB, DNS)
    control.advance(20)
    assert host.stop(process) == b"\nStart success!\n\nexit signal 15.\n"
    assert len(host.library.puts()) == len(host.library.requests()) == 1


def test_306_a_silent_log_creates_no_file_in_the_working_directory(host):
    before = {entry.name for entry in host.sandbox.path(DIRECTORY).iterdir()}
    host.settings(logurl="x.log", rdburl=None, dnsurl=None)
    process, control = host.run()
    control.advance(1)
    host.stop(process)
    assert {entry.name for entry in host.sandbox.path(DIRECTORY).iterdir()} == before


def test_307_a_pipe_receives_a_few_records_only_at_the_exit(host):
    process, control = host.run(RDB, DNS)
    control.advance(1)
    assert process.output_so_far() == b""
    assert host.stop(process).count(b"\n") == 13


def test_308_a_full_buffer_is_written_before_the_exit(host):
    host.sandbox.add_address("2001:db8::1/64")
    process, control = host.run(DNS)
    control.advance(0.1)
    host.library.reply(b"x" * 100_000)
    host.library.reply(b"y")
    assert b"recv: xxxx" in process.output_so_far()
    host.stop(process)


def test_309_a_closed_standard_output_affects_neither_service_nor_pid_file(host):
    host.sandbox.add_address("2001:db8::1/64")
    settings = [f"{name}={value}" for name, value in (host.clock.env | host.library.env).items()]
    process = host.sandbox.spawn("sh", "-c", 'exec env "$@" ./addrpubd -run >&- 2>&-', "sh", *settings, cwd=DIRECTORY)
    control = host.clock.of(process)
    control.wait_parked()
    host.library.connect(RDB, DNS)
    control.advance(0.1)
    assert host.library.puts() == [b"2001:db8::1"]
    host.library.reply(b"x" * 10_000)  # more than the C library's buffer
    process.kill()
    assert process.wait() == 0
    assert host.pidfile() == f"{process.pid}\n".encode()


def test_310_closed_standard_descriptors_are_replaced_by_dev_null(host):
    settings = [f"{name}={value}" for name, value in (host.clock.env | host.library.env).items()]
    script = 'exec env "$@" ./addrpubd -run <&- >&- 2>&-'
    process = host.sandbox.spawn("sh", "-c", script, "sh", *settings, cwd=DIRECTORY)
    host.clock.of(process).wait_parked()
    descriptors = host.sandbox.path(f"/proc/{process.pid}/fd")
    on_null = [int(entry.name) for entry in descriptors.iterdir() if os.readlink(entry) == "/dev/null"]
    assert sorted(on_null) == [0, 1, 2]
    host.stop(process)
