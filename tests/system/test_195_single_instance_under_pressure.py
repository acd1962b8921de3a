"""At most one instance runs, even with concurrent starts and kills; and SIGTERM at a random moment ends the service.

All random decisions come from a fixed seed. How far a program is when it is killed depends on the machine.
ADDRPUBD_ROUNDS scales both tests: it is the number of SIGTERM rounds; there are a fifth as many rounds of simultaneous
starts.
"""

import os
import random
import select
import signal
import time

import pytest
import surroundings
from clock import Clock
from host import BUILD, DIRECTORY, Host
from sandbox import wait_until

ROUNDS = int(os.environ.get("ADDRPUBD_ROUNDS", "1000"))
ROUNDS_PER_HOST = 25
SLOW = 2.0 * surroundings.PATIENCE  # seconds

NOT_RUN = b"\naddrpubd not run!\n\n"
RUNNING = b"\naddrpubd is runing!\n\n"
START_PARTS = (b"\nstart...\r", b"Start success!\n\n", b"finished\n")


def fresh_clock(host, initial_limit=0):
    """Returns a clock whose slots are all free. Programs that use the old clock must have ended."""
    host.clock = Clock(host.sandbox, BUILD / "tests/libclockshim.so", initial_limit=initial_limit)


def new_host(**settings):
    host = Host()
    host.settings(**settings)
    host.library.env = {"RECORDING_RDB_SCRIPT": f"{DIRECTORY}/rdb.script"}
    return host


def living(host):
    """Returns the pids that run the executable or will run it. A process that was just spawned still has the name of
    the agent, which is process 1.
    """
    found = set()
    for entry in host.sandbox.path("/proc").iterdir():
        if entry.name.isdigit() and entry.name != "1":
            try:
                name, state = (entry / "stat").read_text().split(" ", 1)[1].rsplit(") ", 1)
            except (FileNotFoundError, ProcessLookupError):
                continue
            if name in (f"({surroundings.COMM}", "(python3") and state[0] not in "ZX":
                found.add(int(entry.name))
    return found


def services(host, parents):
    """Returns the pids of the living services that are in their publish loop. A service sleeps for the first time in
    this loop."""
    slots = [slot for slot in host.clock._control.slots if slot.pid and slot.pid not in parents]
    return {slot.pid for slot in slots if slot.sleeps} & living(host)


def check(host, parents):
    """Checks that there is at most one holder of the lock and at most one service."""
    assert len(host.lock_holders()) <= 1
    assert len(services(host, parents)) <= 1


def settle(host, parents):
    """Waits until a service is in its loop, or until no process is left that could become a service."""

    def settled():
        check(host, parents)
        return services(host, parents) or not (living(host) - parents)

    wait_until(settled, "a service or the end of all processes")


def kill(host, pids):
    """Kills the processes. Waits until they have ended and hold no lock. A thread of a killed process may hold
    the lock a moment longer than its main thread."""
    for pid in pids:
        host.sandbox.request({"op": "kill", "pid": pid, "signal": int(signal.SIGKILL)})
    wait_until(lambda: not living(host) & set(pids) and not set(host.lock_holders()) & set(pids), "the end")


def kill_all(host):
    """Kills all processes. Repeats this until none is left, because a process that waits for the lock may get it. Then
    the lock must be free."""
    while pids := living(host):
        kill(host, pids)
    assert host.lock_holders() == []


def storm(host, chance):
    """Starts several processes at the same time and kills some of them. Returns the pids of the parents of -start."""
    contenders = [(host.start(word), word) for word in chance.choices(["-start", "-run"], k=chance.randint(2, 5))]
    parents = {process.pid for process, word in contenders if word == "-start"}
    for _ in range(chance.randint(1, 4)):
        time.sleep(chance.random() * 0.004)
        check(host, parents)
        if alive := sorted(living(host)):
            kill(host, chance.sample(alive, chance.randint(1, max(1, len(alive) // 2))))
    return parents


def next_start_works(host):
    """Checks that the child of the next start runs. Texts of an earlier start may be in the queue."""
    parent = host.start("-start")
    control = host.clock.of(parent)
    control.wait_parked()
    child = next(iter(wait_until(lambda: services(host, {parent.pid}), "the service of the next start")))
    assert (host.lock_holders(), host.pidfile()) == ([child], f"{child}\n".encode())
    control.let_run(31)
    output = parent.all_output()
    assert parent.wait() == 0
    assert output.endswith(b"finished\n") or output.endswith(b"send message failed\n"), output
    return output


@pytest.fixture
def chance():
    return random.Random(19500411)


def test_1951_simultaneous_starts_and_kills_leave_at_most_one_instance(chance, capsys):
    rounds, survivors, clean = max(1, ROUNDS // 5), 0, 0
    begin = time.monotonic()
    host = None
    for number in range(rounds):
        if number % ROUNDS_PER_HOST == 0:
            if host is not None:
                host.close()
            host = new_host(logurl=None)
        fresh_clock(host)
        parents = storm(host, chance)
        settle(host, parents)
        if alive := services(host, parents):
            survivors += 1
            assert host.lock_holders() == list(alive)
            assert host.pidfile() == f"{next(iter(alive))}\n".encode()
            assert host.command("-status") == RUNNING
        kill_all(host)
        assert host.command("-status") == NOT_RUN
        fresh_clock(host)
        output = next_start_works(host)
        clean += output == b"\n" + b"".join(START_PARTS)
        kill_all(host)
        assert host.command("-status") == NOT_RUN
    host.close()
    assert 0 < survivors
    with capsys.disabled():
        print(f"\n{rounds} rounds in {time.monotonic() - begin:.1f} s: an instance survived the kills in {survivors}, ")
        print(f"{clean} of the next starts printed the three texts and nothing else")


def has_ended(process, seconds):
    """Waits at most this long for the end of a process. Returns whether it has ended."""
    return bool(select.select([process._pidfd], [], [], seconds)[0])


def test_1952_sigterm_at_a_random_moment_ends_the_service_with_status_0(chance, capsys):
    slow, longest = 0, 0.0
    begin = time.monotonic()
    host = None
    for number in range(ROUNDS):
        if number % ROUNDS_PER_HOST == 0:
            if host is not None:
                host.close()
            host = new_host()
            host.sandbox.add_address("2001:db8::1/64")
            host.library.before_start("during rdb_connectex * 60001")
        fresh_clock(host)
        process = host.start("-run")
        control = host.clock.of(process)
        control.wait_parked()
        control.let_run(100_000_000)
        time.sleep(chance.random() * 0.008)
        sent = time.monotonic()
        process.kill(signal.SIGTERM)
        slow += not has_ended(process, SLOW)
        assert process.wait() == 0, f"round {number}"
        longest = max(longest, time.monotonic() - sent)
        assert host.lock_holders() == []
        process.output_so_far()
    host.close()
    with capsys.disabled():
        print(f"\n{ROUNDS} rounds in {time.monotonic() - begin:.1f} s: {slow} needed more than {SLOW:.0f} s, ", end="")
        print(f"the longest took {longest * 1000:.0f} ms")
