"""Runs the real program through orders of steps that the model of the single-instance protocol contains
(tests/model).

A process is stopped immediately before one of its calls, so the test determines what happens before that call.
"""

import os
import signal

import pytest
from nth_failure import Bench, Run
from sandbox import wait_until

STOPPED = b"\naddrpubd stoped gracefully!\n\n"

#  The steps of a start, as (process, call, number of the call). A process is stopped before that call.
PARENT_STEPS = [("fcntl", 1), ("fcntl", 2), ("ftruncate", 1), ("lseek", 1), ("write", 1)]
STEPS = {
    "-run": [("first", *step) for step in PARENT_STEPS + [("fcntl", 3), ("write", 2), ("fopen", 1), ("signal", 1)]],
    "-start": [("first", *step) for step in PARENT_STEPS + [("fork", 1), ("close", 2)]]
    + [("child", call, 1) for call in ("setsid", "chdir", "fcntl", "ftruncate", "write", "fopen", "dup2", "signal")],
}
#  The steps at which the stopped process itself has the lock and no other process waits for the lock.
HOLDING = [("first", "ftruncate", 1), ("first", "lseek", 1), ("first", "write", 1), ("first", "fcntl", 3)]
HOLDING += [("first", "write", 2), ("first", "fopen", 1), ("first", "signal", 1), ("first", "fork", 1)]
HOLDING += [("child", call, 1) for call in ("ftruncate", "write", "fopen", "dup2", "signal")]
EVERY_STEP = [(word, *step) for word, steps in STEPS.items() for step in steps]


class Stage:
    """A bench with processes that the test can stop."""

    def __init__(self):
        self.bench = Bench()
        self.host = self.bench.host
        self.host.settings(logurl=None)
        self.host.library.env = {}
        self.run = Run(self.bench, "")

    def begin(self, word, stop=None):
        """Starts the executable. If a step is given, waits until its process is stopped before the step, and returns
        that process."""
        self.run.plan = self.bench.faults.plan(stop[1], stop[2], "stop", "0", stop[0]) if stop else ""
        process = self.run.begin(word)
        if stop is None:
            return process
        who = process if stop[0] == "first" else self.run.child_of(process)
        wait_until(lambda: self.bench.processes().get(who.pid) == "T", "the stop before the step")
        return who

    def go_on(self, process):
        process.kill(signal.SIGCONT)

    def service(self):
        """Waits until the holder of the lock is in its publish loop. Returns its pid."""

        def found():
            holders = [pid for pid in self.bench.host.lock_holders() if pid > 0]
            assert len(holders) <= 1
            return [pid for pid in holders if self._in_its_loop(pid)]

        (pid,) = wait_until(found, "a service")
        assert self.host.pidfile() == f"{pid}\n".encode()
        return pid

    def _in_its_loop(self, pid):
        slot = self.host.clock._slot_of(pid)
        if slot is None or slot.last_sleep != 100_000_000 or slot.parked_limit != slot.limit:
            return False
        return self._armed(pid)

    def _armed(self, pid):
        status = self.host.sandbox.path(f"/proc/{pid}/status").read_text()
        return bool(int(status.split("\nSigCgt:\t")[1].split("\n")[0], 16) & 1 << signal.SIGTERM - 1)

    def waits_for_the_lock(self, process):
        """Waits until the kernel lists the process as waiting for a lock."""

        def listed():
            lines = self.host.sandbox.path("/proc/locks").read_text().splitlines()
            return any("->" in line and f" {process.pid} " in line for line in lines)

        wait_until(listed, "the wait for the lock")

    def kill(self, pid):
        self.host.sandbox.request({"op": "kill", "pid": pid, "signal": int(signal.SIGKILL)})
        wait_until(lambda: pid not in self.bench.living() and self._threads(pid) <= 1, "the end of the killed process")

    def _threads(self, pid):
        """Returns the number of threads. A process that has other threads, such as an emulator, still has its files and
        locks when its main thread has ended."""
        try:
            return len(os.listdir(self.host.sandbox.path(f"/proc/{pid}/task")))
        except (FileNotFoundError, ProcessLookupError):
            return 0


@pytest.fixture
def stage():
    one = Stage()
    yield one
    one.bench.close()


@pytest.mark.parametrize("first", ["-run", "-start"])
@pytest.mark.parametrize("second", ["-run", "-start"])
def test_510_of_two_concurrent_starts_one_runs_and_one_waits(stage, first, second):
    one = stage.begin(first, ("first", "fcntl", 2))
    two = stage.begin(second, ("first", "fcntl", 2))
    stage.go_on(one)
    service = stage.service()
    stage.go_on(two)
    stage.waits_for_the_lock(two)
    assert stage.service() == service
    stage.kill(service)
    assert stage.service() not in (service, one.pid)


def test_511_a_child_whose_parent_is_killed_before_it_closes_the_file_becomes_the_service(stage):
    parent = stage.begin("-start", ("first", "close", 2))
    child = stage.run.child_of(parent)
    stage.waits_for_the_lock(child)
    stage.kill(parent.pid)
    assert stage.service() == child.pid


def test_512_a_start_before_the_child_has_the_lock_runs_and_the_child_waits(stage):
    child = stage.begin("-start", ("child", "fcntl", 1))
    wait_until(lambda: not stage.bench.host.lock_holders(), "the parent to close the file")
    other = stage.begin("-run")
    assert stage.service() == other.pid
    stage.go_on(child)
    stage.waits_for_the_lock(child)
    assert stage.service() == other.pid
    stage.kill(other.pid)
    assert stage.service() == child.pid


@pytest.mark.parametrize("word, process, call, nth", EVERY_STEP)
def test_513_a_start_killed_before_any_step_does_not_prevent_the_next_one(
    stage, word, process, call, nth
):
    victim = stage.begin(word, (process, call, nth))
    for pid in stage.bench.living():
        stage.kill(pid)
    assert not victim.running() and stage.bench.host.lock_holders() == []
    other = stage.begin("-run")
    assert stage.service() == other.pid


@pytest.mark.parametrize("word", ["-run", "-start"])
@pytest.mark.parametrize("nth", [1, 2])
def test_514_stop_finds_nothing_before_a_start_has_claimed_the_file(stage, word, nth):
    starting = stage.begin(word, ("first", "fcntl", nth))
    assert stage.begin("-stop").all_output() == b"\naddrpubd not run!\n\n"
    stage.go_on(starting)
    assert stage.service() > 0


@pytest.mark.parametrize("word, process, call, nth", [step for step in EVERY_STEP if step[1:] in HOLDING])
def test_515_stop_ends_a_start_that_has_the_lock_before_any_of_its_steps(stage, word, process, call, nth):
    victim = stage.begin(word, (process, call, nth))
    assert wait_until(stage.bench.host.lock_holders, "the claim") == [victim.pid]
    stop = stage.begin("-stop")
    control = stage.run.rests(stop)
    stage.go_on(victim)
    stage.run.ends(victim)
    control.let_run(400)
    assert stop.all_output() == b"\nstop addrpubd... pid = %d\n" % victim.pid + STOPPED
    assert stage.bench.host.lock_holders() == []


def test_516_a_child_that_takes_the_lock_of_its_stopped_parent_survives_one_stop(stage):
    parent = stage.begin("-start", ("first", "close", 2))
    child = stage.run.child_of(parent)
    stage.waits_for_the_lock(child)
    stop = stage.begin("-stop")
    control = stage.run.rests(stop)
    stage.go_on(parent)
    assert stage.service() == child.pid
    control.let_run(400)
    killed = b"\n300 second Timeout,addrpubd be killed!\n\n"
    assert stop.all_output() == b"\nstop addrpubd... pid = %d\n" % parent.pid + killed
    assert stage.service() == child.pid
    stop = stage.begin("-stop")
    control = stage.run.rests(stop)
    stage.run.ends(child)
    if control is not None:
        control.let_run(400)
    assert stop.all_output() == b"\nstop addrpubd... pid = %d\n" % child.pid + STOPPED
