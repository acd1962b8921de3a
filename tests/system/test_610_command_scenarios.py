"""Scenarios of the commands: signals at various moments, restarts, the background start, a stopped process."""

import signal
from pathlib import Path

import pytest
from host import INI
from recording import CONNECTED, snapshot
from sandbox import wait_until
from world import DNS, RDB, utc

SIGNALS_AT_ONCE = Path(__file__).with_name("signals_at_once.py")
HANDLES = (0, 1)  # handles of the two connections; that of the rdb server is first
ADDRESS = "2001:db8::1"


def test_6101_sigterm_at_various_times_between_passes_ends_the_service(new_scenario):
    moments = [0, 0.001, 0.05, 0.099, 0.1, 0.101, 5, 9.95, 9.999, 10, 10.05, 600, 600.05]
    scenario = new_scenario(addresses=[ADDRESS])
    for moment in moments:
        scenario.start()
        scenario.up(RDB, DNS)
        scenario.run(moment)
        scenario.end()
    assert scenario.puts().count((0.1, ADDRESS.encode())) == sum(moment >= 0.1 for moment in moments)
    assert scenario.put_times().count(600.0) == 2


def end_with(host, *signals):
    """Ends a service by several signals at the same time. Returns its exit status and its output."""
    process, _ = host.run(*HANDLES)
    host.sandbox.run("/usr/bin/python3", "-I", "-S", SIGNALS_AT_ONCE, str(process.pid), *signals)
    return process.wait(), process.all_output()


@pytest.mark.parametrize("signals", [("2:0", "15:0"), ("15:0", "2:0")])
def test_6102_sigint_and_sigterm_together_on_one_thread_end_the_service_once(host, signals):
    status, output = end_with(host, *signals)
    assert status == 0
    assert output.count(b"exit signal ") == output.count(b"stop addrpubd service success.") == 1
    assert host.library.names()[6:] == [(name, n) for n in HANDLES for name in ("rdb_disconnect", "rdb_destory")]


def test_6103_sigterm_before_the_end_of_the_start_has_its_default_action(host):
    host.library.before_start("hold rdb_connectex 1")
    process = host.start("-run")
    assert host.library.tell("held 30000")
    process.kill()
    assert process.wait() == -signal.SIGTERM
    assert b"exit signal" not in process.all_output()
    assert [name for name, _ in host.library.names()][-1] == "rdb_connectex"


def test_6104_sigterm_ends_the_service_in_1970_and_after_2038(new_scenario):
    moments = [utc(1970, 1, 1, 0, 0, 1), utc(1970, 1, 1, 12), utc(2038, 1, 19, 3, 14, 8), utc(2106, 2, 7, 6, 28, 16)]
    scenario = new_scenario(addresses=[ADDRESS])
    for moment in moments:
        scenario.start()
        scenario.up(RDB)
        scenario.set_clock(moment)
        scenario.end()
    assert [round(call.wall_ns / 1e9) for _, call in scenario.seen("rdb_disconnect")][::2] == moments


def test_6105_status_and_stop_work_on_a_service_that_hangs_in_a_put(host):
    host.library.before_start("hold rdb_objputsnapshot 0")
    process, control = host.run(*HANDLES)
    control.let_run(0.1)
    assert host.library.tell("held 30000")
    assert host.command("-status") == b"\naddrpubd is runing!\n\n"
    stop = host.start("-stop")
    assert process.wait() == 0
    clock = host.clock.of(stop)
    clock.let_run(300)
    assert stop.all_output().endswith(b"addrpubd stoped gracefully!\n\n")


def test_6106_a_restarted_service_publishes_at_once(new_scenario):
    runs = 5
    scenario = new_scenario(addresses=[ADDRESS])
    for _ in range(runs):
        scenario.start()
        scenario.up(RDB, DNS)
        scenario.run(30)
        scenario.end()
    assert scenario.put_times() == scenario.request_times() == [0.1] * runs
    assert all(b'"seqno":1,' in text for _, text in scenario.requests())


def test_6107_a_changed_ini_file_takes_effect_at_the_next_start(new_scenario):
    before, after = "first", "second"
    scenario = new_scenario(addresses=[ADDRESS], hostname=before)
    scenario.start()
    scenario.up(RDB)
    scenario.host.settings(hostname=after)
    scenario.run(1000)
    scenario.end()
    scenario.settings["hostname"] = after
    scenario.start()
    scenario.up(RDB)
    scenario.run(1)
    names = [snapshot(call.payload).name for _, call in scenario.seen("rdb_objputsnapshot")]
    assert names == [before.encode(), before.encode(), after.encode()]


def test_6108_removing_the_ini_file_has_no_effect_until_the_next_start(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB)
    scenario.host.ini(None)
    scenario.run(1200)
    assert scenario.put_times() == [0.1, 600.0, 1200.0]
    scenario.end()
    assert scenario.host.command("-run") == b"\nLoad " + INI.encode() + b" failed.\nStart failed!\n"


def test_6109_the_background_service_publishes_like_the_foreground_run(new_scenario):
    hour = 3600
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(hour)
    scenario.end()
    on_the_console = scenario.calls()

    parent = scenario.host.start("-start")
    pid = wait_until(lambda: [pid for pid in scenario.host.clock.pids() if pid > parent.pid], "the child")[0]
    child = scenario.sandbox.adopt(pid)
    control = scenario.host.clock.of(child)
    control.wait_parked()
    scenario.host.clock.of(parent).let_run(31)
    assert parent.wait() == 0
    for handle in HANDLES:
        scenario.library.event(handle, CONNECTED)
    control.advance(hour)
    child.kill()
    assert child.wait() == 0
    assert scenario.calls()[len(on_the_console) :] == on_the_console


def test_6110_a_service_that_was_stopped_for_an_hour_publishes_once(new_scenario):
    stopped = 3600
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(100)
    scenario.process.kill(signal.SIGSTOP)
    scenario.step(stopped)
    scenario.process.kill(signal.SIGCONT)
    scenario.run(20)
    assert scenario.put_times() == scenario.request_times() == [0.1, 100.1 + stopped]


def test_6111_after_a_kill_the_next_start_publishes_at_once(new_scenario):
    scenario = new_scenario(addresses=[ADDRESS])
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(50)
    scenario.process.kill(signal.SIGKILL)
    assert scenario.process.wait() == -signal.SIGKILL
    scenario.process = None
    scenario.start()
    scenario.up(RDB, DNS)
    scenario.run(50)
    assert scenario.put_times() == scenario.request_times() == [0.1, 0.1]
    assert "rdb_disconnect" not in scenario.names()


def test_6112_the_pid_file_contains_the_latest_of_many_runs(new_scenario):
    scenario = new_scenario()
    for _ in range(10):
        scenario.start()
        assert scenario.host.pidfile() == b"%d\n" % scenario.process.pid
        assert scenario.host.lock_holder() == scenario.process.pid
        scenario.end()
    assert scenario.host.lock_holder() == 0


def test_6113_a_second_signal_during_the_shutdown_has_no_effect(host):
    """The shutdown is stopped in its first call of the client library: the log is released, but nothing is disconnected
    yet."""
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
