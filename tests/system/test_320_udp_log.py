"""The UDP log, with real datagrams and a real receiver."""

from pathlib import Path

import pytest
from host import DIRECTORY, DNS, INI, RDB

RECEIVER = Path(__file__).with_name("udp_receiver.py")
SENDER = Path(__file__).with_name("udp_sender.py")
QUIET_OUTPUT = b"\nStart success!\n\nexit signal 15.\n"


def header(level, cabin=b"netsvc"):
    return b'{"order":"wlog","level":%d,"cabin":"%s"}\n' % (level, cabin)


START = [
    header(30) + b"\n\tstart addrpubd...",
    header(30) + b"rdburl: rdb://192.0.2.1:900",
    header(30) + b"dnsurl: dns://192.0.2.2:901",
    header(30) + b"addrpubd service started successfully.",
]
STOP = header(30) + b"stop addrpubd service success."


def receive(host, address="127.0.0.1", port=5140):
    """Starts a receiver. Returns a function that waits for a given record and returns all records up to that record."""
    receiver = host.sandbox.spawn("/usr/bin/python3", "-I", "-S", RECEIVER, address, str(port))
    receiver.wait_for_output(b"ready\n")

    def until(record):
        output = receiver.wait_for_output(record.hex().encode() + b"\n")
        return [bytes.fromhex(line) for line in output.decode().splitlines()[1:]]

    until.pid = receiver.pid
    return until


def test_321_every_record_is_one_datagram_with_its_header(host):
    host.settings(logurl="udp://127.0.0.1:5140/netsvc")
    until = receive(host)
    process, _ = host.run(RDB)
    host.library.disconnect(DNS)
    assert host.stop(process) == QUIET_OUTPUT
    assert until(STOP) == START + [
        header(30) + b"connect rdb server rdb://192.0.2.1:900 success.",
        header(10) + b"dns server dns://192.0.2.2:901 disconnected.",
        STOP,
    ]


def test_322_without_a_level_requests_and_replies_are_not_logged(host):
    host.settings(logurl="udp://127.0.0.1:5140/netsvc")
    host.sandbox.add_address("2001:db8::1/64")
    until = receive(host)
    process, control = host.run(DNS)
    control.advance(0.1)
    host.library.reply(b"r")
    host.stop(process)
    assert until(STOP)[len(START) + 1 :] == [STOP]


@pytest.mark.parametrize("level", ["dbg", "DBG", "40", "all"])
def test_323_with_level_40_or_more_requests_and_replies_are_logged(host, level):
    host.settings(logurl=f"udp://127.0.0.1:5140/netsvc?level={level}")
    host.sandbox.add_address("2001:db8::1/64")
    until = receive(host)
    process, control = host.run(DNS)
    control.advance(0.1)
    host.library.reply(b"r\n\"")
    host.stop(process)
    assert until(STOP)[len(START) + 1 :] == [
        header(40) + b"send: " + host.library.requests()[0],
        header(40) + b'recv: r\n"',
        STOP,
    ]


def test_324_with_level_10_only_failures_are_logged(host):
    host.settings(logurl="udp://127.0.0.1:5140/netsvc?level=err", hostname=None)
    until = receive(host)
    assert host.command("-run") == b"\nStart failed!\n"
    record = header(10) + f"not config hostname in {INI}".encode()
    assert until(record) == [record]


@pytest.mark.parametrize("scheme", ["udp", "UDP", "  udp", "uDp"])
def test_325_the_scheme_is_accepted_in_any_case_and_after_blanks(host, scheme):
    host.settings(logurl=f"{scheme}://127.0.0.1:5140/netsvc")
    until = receive(host)
    process, _ = host.run()
    host.stop(process)
    assert until(STOP) == START + [STOP]


def test_326_the_default_port_is_999(host):
    host.settings(logurl="udp://127.0.0.1/netsvc")
    until = receive(host, port=999)
    process, _ = host.run()
    host.stop(process)
    assert until(STOP) == START + [STOP]


def test_327_a_receiver_is_reached_over_ipv6(host):
    host.settings(logurl="udp://[::1]:5140/netsvc")
    until = receive(host, "::1")
    process, _ = host.run()
    host.stop(process)
    assert until(STOP) == START + [STOP]


@pytest.mark.parametrize("address", ["udp://127.0.0.1:5140", "udp://127.0.0.1:5140/", "udp://", "udp:", "udp"])
def test_328_with_an_unusable_address_the_service_runs_without_a_log(host, address):
    host.settings(logurl=address)
    process, control = host.run(RDB)
    control.advance(0.1)
    assert host.library.puts() == [b"null"]
    assert host.stop(process) == QUIET_OUTPUT


def test_329_a_missing_receiver_is_ignored(host):
    host.settings(logurl="udp://127.0.0.1:5140/netsvc")
    process, control = host.run(RDB)
    control.advance(1200)
    assert host.library.puts() == [b"null"] * 3
    assert host.stop(process) == QUIET_OUTPUT


def test_330_a_record_that_is_too_long_is_dropped_completely(host):
    host.settings(logurl="udp://127.0.0.1:5140/netsvc?level=dbg")
    host.sandbox.add_address("2001:db8::1/64")
    until = receive(host)
    process, control = host.run(DNS)
    control.advance(0.1)
    room = 30719 - len(header(40) + b"recv: ")
    host.library.reply(b"a" * (room + 1))
    host.library.reply(b"b" * room)
    host.stop(process)
    assert until(STOP)[-2:] == [header(40) + b"recv: " + b"b" * room, STOP]
    assert not any(b"aaa" in record for record in until(STOP))


def names(host, *lines):
    """Gives the sandbox a separate hosts file."""
    host.sandbox.path("/mnt/hosts").write_text("".join(f"{line}\n" for line in lines))
    host.sandbox.run("mount", "--bind", "/mnt/hosts", "/etc/hosts")


def test_331_a_name_with_addresses_of_both_kinds_is_reached_over_ipv4(host):
    names(host, "::1 logs.example", "127.0.0.1 logs.example")
    host.settings(logurl="udp://logs.example:5140/netsvc")
    until, over_ipv6 = receive(host), receive(host, "::1")
    process, _ = host.run()
    host.stop(process)
    assert until(STOP) == START + [STOP]
    host.sandbox.run("/usr/bin/python3", "-I", "-S", SENDER, "::1", "5140")
    assert over_ipv6(b"end") == [b"end"]


def test_332_a_name_without_an_ipv4_address_is_reached_over_ipv6(host):
    names(host, "::1 logs.example")
    host.settings(logurl="udp://logs.example:5140/netsvc")
    until = receive(host, "::1")
    process, _ = host.run()
    host.stop(process)
    assert until(STOP) == START + [STOP]


def test_333_with_an_unknown_name_the_service_runs_without_a_log(host):
    names(host, "127.0.0.1 localhost")
    host.settings(logurl="udp://logs.example:5140/netsvc")
    process, control = host.run(RDB)
    control.advance(0.1)
    assert host.library.puts() == [b"null"]
    assert host.stop(process) == QUIET_OUTPUT


def test_334_a_receiver_that_never_reads_does_not_delay_the_service(host):
    host.settings(logurl="udp://127.0.0.1:5140/netsvc?level=dbg")
    host.sandbox.add_address("2001:db8::1/64")
    until = receive(host)
    host.sandbox.run("kill", "-STOP", str(until.pid))
    process, control = host.run(RDB, DNS)
    control.advance(0.1)
    for _ in range(100):
        host.library.reply(b"x" * 30_000)  # 3 MB, more than a receiver's buffer
    control.advance(600)
    assert host.library.puts() == [b"2001:db8::1"] * 2
    assert host.stop(process) == QUIET_OUTPUT


def test_335_a_background_start_with_closed_standard_descriptors_keeps_its_log(host):
    host.settings(logurl="udp://127.0.0.1:5140/netsvc")
    until = receive(host)
    settings = [f"{name}={value}" for name, value in (host.clock.env | host.library.env).items()]
    script = 'exec env "$@" ./addrpubd -start <&- >&- 2>&-'
    parent = host.sandbox.spawn("sh", "-c", script, "sh", *settings, cwd=DIRECTORY)
    host.clock.of(parent).let_run(31)
    assert parent.wait() == 0
    child = host.sandbox.adopt(host.lock_holder())
    host.clock.of(child).wait_parked()
    host.library.connect(RDB)
    child.kill()
    assert child.wait() == 0
    assert until(STOP) == START + [header(30) + b"connect rdb server rdb://192.0.2.1:900 success.", STOP]
