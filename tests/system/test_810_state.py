"""The state file of the service and addrpubd-check --status, which reads it."""

import json
import os
import random
import signal
import stat
import time

import open_library
import pytest
from host import BUILD, DIRECTORY
from rdb_client import CONNECTED, RdbClient
from sandbox import Sandbox, wait_until

PROGRAM = (BUILD / "addrpubd-check").resolve()
LIBRARY = BUILD / "librdbapix64.so"
FOLDER = "/run/addrpubd"
STATE = FOLDER + "/state"
PASSWORD = "S3cr3t-Zq9xKw"
SETTINGS = {
    "rdburl": "sqlite:///mnt/data/rdb.db",
    "rdbpswd": PASSWORD,
    "dnsurl": "hosts:///mnt/data/hosts",
    "dnspswd": PASSWORD,
}
ENDED = "ended without cleaning up"
NO_FILE = f"there is no {STATE}"


def status(sandbox, *words, tty=False, env=None):
    """Runs addrpubd-check --status inside. Returns its exit status and output."""
    code, output = sandbox.result(PROGRAM, "--status", *words, tty=tty, env=env or {})
    return code, output.decode()


def state_of(sandbox, *words):
    """Returns the exit status and the parsed JSON."""
    code, output = status(sandbox, "--json", *words)
    return code, json.loads(output)


def make_folder(sandbox):
    """Makes the folder of the state as the packaged unit does."""
    sandbox.path(FOLDER).mkdir()
    sandbox.path(FOLDER).chmod(0o755)


@pytest.fixture
def open_host(host):
    """A host with the open client library, one address, and settings that use files below /mnt/data."""
    if not open_library.has(BUILD, "sqlite", "hosts"):
        pytest.skip("the open client library was built without one of its back ends")
    open_library.install(BUILD, host.sandbox.path(DIRECTORY))
    host.sandbox.path("/mnt/data").mkdir()
    make_folder(host.sandbox)
    host.settings(**SETTINGS)
    host.sandbox.add_address("2001:db8::1/64")
    return host


@pytest.fixture
def sandbox():
    if not open_library.has(BUILD, "sqlite"):
        pytest.skip("the open client library was built without its back end sqlite")
    one = Sandbox()
    make_folder(one)
    one.path("/mnt/data").mkdir()
    yield one
    one.close()


def run_connected(host):
    """Starts the service on a terminal and waits until both servers are connected. Returns the process and its clock
    control."""
    process = host.start("-run", tty=True)
    control = host.clock.of(process)
    control.wait_parked()
    process.wait_for_output(b"connect rdb server sqlite:///mnt/data/rdb.db success.\r\n")
    process.wait_for_output(b"connect dns server hosts:///mnt/data/hosts success.\r\n")
    return process, control


def run_published(host):
    """Starts the service and lets it publish to both servers."""
    process, control = run_connected(host)
    control.advance(0.1)
    wait_until(lambda: status(host.sandbox)[0] == 0, "status 0")
    return process, control


class Client:
    """A process with the client library and one database."""

    def __init__(self, sandbox, file="/mnt/data/rdb.db"):
        self.process = RdbClient(sandbox, LIBRARY, None)
        self._handle = self.process.open(f"sqlite://{file}", "u", PASSWORD)
        self.process.wait_event(self._handle, CONNECTED)
        assert self.process.taginport(self._handle, "host1") == 0

    @property
    def pid(self):
        return self.process.process.pid

    def put(self, value):
        assert self.process.put(self._handle, "host1", value) == 0

    def disconnect(self):
        assert self.process.disconnect(self._handle) == 0

    def kill(self):
        self.process.close()


def published(sandbox):
    """Returns the value that the state names as published, or None."""
    servers = state_of(sandbox)[1].get("servers", [])
    return servers[0]["published"][0]["value"] if servers and servers[0]["published"] else None


def test_811_both_servers_are_confirmed_after_the_first_cycle(open_host):
    process, _ = run_published(open_host)
    code, output = status(open_host.sandbox)
    dns, rdb = sorted(output.splitlines())
    assert code == 0
    assert rdb.startswith("ok   rdb sqlite:///mnt/data/rdb.db: confirmed ") and "; published host1 2001:db8::1 " in rdb
    assert dns.startswith("ok   dns hosts:///mnt/data/hosts: confirmed ") and "; published host1 2001:db8::1 " in dns
    assert state_of(open_host.sandbox)[1]["pid"] == process.pid
    open_host.stop(process)


def test_812_the_file_is_readable_by_all_and_contains_no_password(open_host):
    process, _ = run_published(open_host)
    file = open_host.sandbox.path(STATE)
    assert stat.S_IMODE(file.stat().st_mode) == 0o644
    assert b"sqlite:///mnt/data/rdb.db" in file.read_bytes() and PASSWORD.encode() not in file.read_bytes()
    open_host.stop(process)


def test_813_a_clean_end_removes_the_file(open_host):
    process, _ = run_published(open_host)
    open_host.stop(process)
    assert status(open_host.sandbox) == (2, f"not running, or without a server: {NO_FILE}\n")


def test_814_a_killed_service_is_reported_as_ended(open_host):
    process, _ = run_published(open_host)
    process.kill(signal.SIGKILL)
    process.wait()
    code, output = status(open_host.sandbox)
    assert code == 2 and ENDED in output and f"pid {process.pid} " in output and "confirmed" not in output
    assert state_of(open_host.sandbox)[1].keys() == {"running", "problem"}
    assert status(open_host.sandbox, "--prometheus")[1].endswith("\naddrpubd_up 0\n")


def test_815_a_restart_replaces_the_state_of_a_killed_service(open_host):
    process, _ = run_published(open_host)
    process.kill(signal.SIGKILL)
    process.wait()
    again, _ = run_published(open_host)
    code, state = state_of(open_host.sandbox)
    assert (code, state["pid"]) == (0, again.pid)
    open_host.stop(again)


def test_816_a_new_address_is_published_in_the_state(open_host):
    process, control = run_published(open_host)
    open_host.sandbox.add_address("2001:db8::2/64")
    open_host.sandbox.remove_address("2001:db8::1/64")
    control.advance(10)
    wait_until(lambda: status(open_host.sandbox)[1].count("published host1 2001:db8::2 ") == 2, "the new address")
    open_host.stop(process)


def test_817_a_server_that_cannot_be_used_is_reported_with_its_reason(open_host):
    open_host.settings(**(SETTINGS | {"rdburl": "sqlite:///mnt/missing/rdb.db"}))
    process = open_host.start("-run")
    open_host.clock.of(process).wait_parked()
    wait_until(lambda: "not connected" in status(open_host.sandbox)[1], "the failure")
    code, output = status(open_host.sandbox)
    (line,) = [line for line in output.splitlines() if " rdb " in line]
    assert code == 1 and line.startswith("FAIL rdb sqlite:///mnt/missing/rdb.db: not connected, ")
    assert os.strerror(2) in line and "(code 1014)" in line
    open_host.stop(process)


def test_818_the_service_in_the_background_has_a_state_until_it_is_stopped(open_host):
    started = open_host.start("-start")
    #  Nothing is published, because the test does not advance the clock of the service. So the status stays 1.
    wait_until(lambda: status(open_host.sandbox)[0] == 1, "the state")
    service = open_host.sandbox.adopt(state_of(open_host.sandbox)[1]["pid"])
    assert service.pid != started.pid
    service.kill()
    wait_until(lambda: not service.running(), "the end of the service")
    assert status(open_host.sandbox)[1].endswith(f"{NO_FILE}\n")


def test_819_without_the_folder_the_service_works_and_has_no_state(open_host):
    open_host.sandbox.path(FOLDER).rmdir()
    process, control = run_connected(open_host)
    control.advance(0.1)
    process.wait_for_output(b"rdb_objputsnapshot host1 success")
    assert not open_host.sandbox.path(FOLDER).exists()
    open_host.stop(process)


def test_820_a_read_only_folder_does_not_disturb_the_service(open_host):
    open_host.sandbox.run("mount", "-t", "tmpfs", "-o", "ro", "tmpfs", FOLDER)
    process, control = run_connected(open_host)
    control.advance(0.1)
    process.wait_for_output(b"rdb_objputsnapshot host1 success")
    assert status(open_host.sandbox)[1].endswith(f"{NO_FILE}\n")
    open_host.stop(process)


def test_821_on_a_full_disk_the_state_still_shows_each_new_value(sandbox):
    sandbox.run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", FOLDER)
    client = Client(sandbox)
    for number in range(5):
        client.put(str(number))
        wait_until(lambda number=number: published(sandbox) == str(number), "the present value")
    client.kill()


def test_822_a_process_killed_at_a_random_moment_is_not_reported_as_running(sandbox):
    moments = random.Random(822)
    for number in range(40):
        client = Client(sandbox)
        client.put(f"value {number}")
        time.sleep(moments.random() / 500)
        client.kill()
        code, output = status(sandbox)
        assert code == 2 and (ENDED in output or NO_FILE in output), output


def test_823_a_connection_closed_at_a_random_moment_leaves_no_file(sandbox):
    moments = random.Random(823)
    for number in range(40):
        client = Client(sandbox)
        client.put(f"value {number}")
        time.sleep(moments.random() / 1000)
        client.disconnect()
        client.kill()
        assert status(sandbox)[1].endswith(f"{NO_FILE}\n")


def test_824_of_two_processes_one_writes_and_the_other_takes_over(sandbox):
    first, second = Client(sandbox), Client(sandbox, "/mnt/data/second.db")
    first.put("first")
    second.put("second")
    wait_until(lambda: published(sandbox) == "first", "the state of the first process")
    first.kill()
    assert ENDED in status(sandbox)[1]
    second.put("second again")
    wait_until(lambda: published(sandbox) == "second again", "the state of the second process")
    assert state_of(sandbox)[1]["pid"] == second.pid
    second.kill()


def test_825_a_read_lock_of_another_user_has_no_effect(sandbox):
    client = Client(sandbox)
    client.put("one")
    wait_until(lambda: published(sandbox) == "one", "the state")
    client.kill()
    hold = (
        "import fcntl, os, struct, sys\n"
        f"file = open({STATE!r})\n"
        "fcntl.fcntl(file, 37, struct.pack('hhqqi4x', fcntl.F_RDLCK, 0, 0, 0, 0))\n"
        "print('held', flush=True)\n"
        "sys.stdin.read()\n"
    )
    ours, theirs = os.pipe()
    holder = sandbox.spawn("/usr/bin/python3", "-I", "-S", "-c", hold, uid=65534, stdin=ours)
    os.close(ours)
    holder.wait_for_output(b"held\n")
    assert ENDED in status(sandbox)[1]
    again = Client(sandbox)
    again.put("two")
    wait_until(lambda: published(sandbox) == "two", "the state of the next process")
    again.kill()
    os.close(theirs)
    holder.wait()


def test_826_the_clock_of_the_service_does_not_falsify_the_times(open_host):
    #  The wall clock of the service starts in another year, and the test steps it.
    before = time.time()
    process, control = run_published(open_host)
    control.step(-86400)
    open_host.sandbox.add_address("2001:db8::2/64")
    control.advance(10)
    wait_until(lambda: "2001:db8::2," in status(open_host.sandbox)[1], "the new address")
    code, state = state_of(open_host.sandbox)
    assert code == 0
    for server in state["servers"]:
        assert before - 1 < server["success"] < time.time() + 1
    assert before - 1 < state["started"] < time.time() + 1
    open_host.stop(process)


@pytest.mark.parametrize(
    "text, problem",
    [
        (b"", "it is not a state file of addrpubd"),
        (b"addrpubd-state 2\nend\n", "it has another version"),
        (b"addrpubd-state 1\npid 5\n", "it is incomplete"),
        (b"addrpubd-state 1\npid \x1b[2J\nend\n", "line 2 is malformed"),
        (b"x" * 2_000_000, "it is larger than 1 MiB"),
    ],
    ids=["empty", "version", "incomplete", "malformed", "large"],
)
def test_827_a_file_that_is_no_state_is_named_with_the_reason(sandbox, text, problem):
    sandbox.path(STATE).write_bytes(text)
    code, output = status(sandbox)
    assert code == 2 and output.startswith(f"unknown: {STATE}: {problem}") and "\x1b" not in output


@pytest.mark.parametrize("kind", ["pipe", "folder", "link"])
def test_828_only_a_regular_file_is_read(sandbox, kind):
    path = sandbox.path(STATE)
    if kind == "pipe":
        os.mkfifo(path)
    elif kind == "folder":
        path.mkdir()
    else:
        path.symlink_to("/proc/self/environ")
    code, output = status(sandbox)
    assert code == 2 and output.startswith(f"unknown: {STATE}: ")


def test_829_a_terminal_gets_colours_unless_they_are_unwanted(sandbox):
    client = Client(sandbox)
    client.put("one")
    wait_until(lambda: published(sandbox) == "one", "the state")
    xterm = {"TERM": "xterm"}
    assert status(sandbox, tty=True, env=xterm)[1].startswith("\x1b[32mok")
    assert status(sandbox, env=xterm)[1].startswith("ok")
    assert status(sandbox, tty=True, env=xterm | {"NO_COLOR": "1"})[1].startswith("ok")
    assert status(sandbox, tty=True, env={"TERM": "dumb"})[1].startswith("ok")
    client.kill()


def test_830_another_instance_is_named_by_its_name_or_folder(sandbox):
    client = Client(sandbox)
    client.put("one")
    wait_until(lambda: published(sandbox) == "one", "the state")
    sandbox.path(FOLDER + "/office").mkdir()
    assert status(sandbox, FOLDER)[0] == 0
    assert status(sandbox, "office")[1].endswith(f"{FOLDER}/office/state\n")
    assert status(sandbox, f"{FOLDER}/office")[1].endswith(f"{FOLDER}/office/state\n")
    client.kill()


@pytest.mark.parametrize(
    "words", [("--yaml",), ("--json", "--prometheus"), ("a", "b"), ("",), ("--json", "--json")], ids=repr
)
def test_831_an_invalid_command_line_returns_status_2_and_the_usage(sandbox, words):
    code, output = status(sandbox, *words)
    assert code == 2 and output.startswith("addrpubd-check: ") and "usage: addrpubd-check" in output


def test_832_output_that_cannot_be_written_is_an_error(sandbox):
    code = sandbox.spawn("/bin/sh", "-c", f"{PROGRAM} --status >/dev/full")
    assert "cannot be written" in code.all_output().decode() and code.wait() == 2
