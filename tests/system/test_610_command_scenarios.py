"""Scenarios of the commands: signals at odd moments, restarts, the background start, a stopped process."""

import signal
from pathlib import Path

import pytest
from host import INI
from recording import CONNECTED, snapshot
from sandbox import wait_until
from world import DNS, RDB, utc

SIGNALS_AT_ONCE = Path(__file__).with_name("signals_at_once.py")
HANDLES = (0, 1)  # of the two connections, the rdb server's first
ADDRESS = "2001:db8::1"


def test_6101_sigterm_ends_the_service_at_any_moment_of_a_cycle(new_world):
    moments = [0, 0.001, 0.05, 0.099, 0.1, 0.101, 5, 9.95, 9.999, 10, 10.05, 600, 600.05]
    world = new_world(addresses=[ADDRESS])
    for moment in moments:
        world.start()
        world.up(RDB, DNS)
        world.run(moment)
        world.end()
    assert world.puts().count((0.1, ADDRESS.encode())) == sum(moment >= 0.1 for moment in moments)
    assert world.put_times().count(600.0) == 2


def end_with(host, *signals):
    """Ends a service by signals that are pending together. Returns its exit status and its output."""
    process, _ = host.run(*HANDLES)
    host.sandbox.run("/usr/bin/python3", "-I", "-S", SIGNALS_AT_ONCE, str(process.pid), *signals)
    return process.wait(), process.all_output()


@pytest.mark.parametrize("signals", [("2:0", "15:0"), ("15:0", "2:0")])
def test_6102_sigint_and_sigterm_together_on_one_thread_end_the_service_once(host, signals):
    status, output = end_with(host, *signals)
    assert status == 0
    assert output.count(b"exit signal ") == output.count(b"stop addrpubd service success.") == 1
    assert host.library.names()[6:] == [(name, n) for n in HANDLES for name in ("rdb_disconnect", "rdb_destory")]


def test_6103_sigterm_before_the_start_is_complete_ends_the_process_as_the_system_does(host):
    host.library.before_start("hold rdb_connectex 1")
    process = host.start("-run")
    assert host.library.tell("held 30000")
    process.kill()
    assert process.wait() == -signal.SIGTERM
    assert b"exit signal" not in process.all_output()
    assert [name for name, _ in host.library.names()][-1] == "rdb_connectex"


def test_6104_sigterm_ends_the_service_in_1970_and_after_2038(new_world):
    moments = [utc(1970, 1, 1, 0, 0, 1), utc(1970, 1, 1, 12), utc(2038, 1, 19, 3, 14, 8), utc(2106, 2, 7, 6, 28, 16)]
    world = new_world(addresses=[ADDRESS])
    for moment in moments:
        world.start()
        world.up(RDB)
        world.set_clock(moment)
        world.end()
    assert [round(call.wall_ns / 1e9) for _, call in world.seen("rdb_disconnect")][::2] == moments


def test_6105_status_and_stop_work_on_a_service_that_hangs_in_a_put(host):
    host.library.before_start("hold rdb_objputsnapshot 0")
    process, hand = host.run(*HANDLES)
    hand.let_run(0.1)
    assert host.library.tell("held 30000")
    assert host.command("-status") == b"\naddrpubd is runing!\n\n"
    stop = host.start("-stop")
    assert process.wait() == 0
    clock = host.clock.of(stop)
    clock.let_run(300)
    assert stop.all_output().endswith(b"addrpubd stoped gracefully!\n\n")


def test_6106_a_restart_begins_anew(new_world):
    runs = 5
    world = new_world(addresses=[ADDRESS])
    for _ in range(runs):
        world.start()
        world.up(RDB, DNS)
        world.run(30)
        world.end()
    assert world.put_times() == world.request_times() == [0.1] * runs
    assert all(b'"seqno":1,' in text for _, text in world.requests())


def test_6107_a_changed_ini_file_counts_from_the_next_start_on(new_world):
    before, after = "first", "second"
    world = new_world(addresses=[ADDRESS], hostname=before)
    world.start()
    world.up(RDB)
    world.host.settings(hostname=after)
    world.run(1000)
    world.end()
    world.settings["hostname"] = after
    world.start()
    world.up(RDB)
    world.run(1)
    names = [snapshot(call.payload).name for _, call in world.seen("rdb_objputsnapshot")]
    assert names == [before.encode(), before.encode(), after.encode()]


def test_6108_an_ini_file_that_goes_away_is_not_missed_before_the_next_start(new_world):
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB)
    world.host.ini(None)
    world.run(1200)
    assert world.put_times() == [0.1, 600.0, 1200.0]
    world.end()
    assert world.host.command("-run") == b"\nLoad " + INI.encode() + b" failed.\nStart failed!\n"


def test_6109_the_background_service_publishes_what_the_console_run_does(new_world):
    hour = 3600
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    world.run(hour)
    world.end()
    on_the_console = world.journal.calls()

    parent = world.host.start("-start", env=world.journal.env)
    pid = wait_until(lambda: [pid for pid in world.host.clock.pids() if pid > parent.pid], "the child")[0]
    child = world.sandbox.adopt(pid)
    hand = world.host.clock.of(child)
    hand.wait_parked()
    world.host.clock.of(parent).let_run(31)
    assert parent.wait() == 0
    for handle in HANDLES:
        world.journal.event(handle, CONNECTED)
    hand.advance(hour)
    child.kill()
    assert child.wait() == 0
    assert world.journal.calls()[len(on_the_console) :] == on_the_console


def test_6110_a_service_stopped_for_an_hour_makes_up_for_it_with_one_cycle(new_world):
    stopped = 3600
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    world.run(100)
    world.process.kill(signal.SIGSTOP)
    world.step(stopped)
    world.process.kill(signal.SIGCONT)
    world.run(20)
    assert world.put_times() == world.request_times() == [0.1, 100.1 + stopped]


def test_6111_after_a_kill_the_next_start_publishes_at_once(new_world):
    world = new_world(addresses=[ADDRESS])
    world.start()
    world.up(RDB, DNS)
    world.run(50)
    world.process.kill(signal.SIGKILL)
    assert world.process.wait() == -signal.SIGKILL
    world.process = None
    world.start()
    world.up(RDB, DNS)
    world.run(50)
    assert world.put_times() == world.request_times() == [0.1, 0.1]
    assert "rdb_disconnect" not in world.names()


def test_6112_the_pid_file_names_the_newest_of_many_runs(new_world):
    world = new_world()
    for _ in range(10):
        world.start()
        assert world.host.pidfile() == b"%d\n" % world.process.pid
        assert world.host.lock_holder() == world.process.pid
        world.end()
    assert world.host.lock_holder() == 0


def test_6113_a_second_signal_while_the_service_is_ending_changes_nothing(host):
    """The end is held in its first call of the client library, with the log gone and both connections still there."""
    host.library.before_start("hold rdb_disconnect 0")
    process, _ = host.run(*HANDLES)
    process.kill(signal.SIGINT)
    assert host.library.tell("held 30000")
    process.kill(signal.SIGTERM)
    process.kill(signal.SIGINT)
    host.library.tell("release")
    output = process.all_output()
    assert process.wait() == 0
    assert (output.count(b"exit signal "), output.count(b"stop addrpubd service success.")) == (1, 1)
    assert host.library.names()[6:] == [(name, n) for n in HANDLES for name in ("rdb_disconnect", "rdb_destory")]
