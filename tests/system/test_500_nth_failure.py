"""The n-th failure: for each row of the table (nth_failure_table.py), a situation is run in which one call of a
function fails, or this call and all later ones.

The table describes how the run ends. If the call of a row is never made, the row tests nothing, so the test fails.
"""

import re
import subprocess
from pathlib import Path

import pytest
import surroundings
from host import BUILD
from nth_failure import SITUATIONS, Bench, outcome
from nth_failure_table import read_table

SHIM = Path(__file__).parents[1] / "support/failshim.cpp"

#  Functions that the executable calls but the shim does not replace, with the reason: either they report no failure
#  that the program could handle, or the program's own code does not call them.
CANNOT_FAIL = {
    "it has no result": "_exit abort exit free freeifaddrs rewind tzset umask",
    "it returns the id of the process or the thread and always succeeds": "getpid pthread_self",
    "it returns only after a signal and is called in a loop": "pause",
    "a constant of the machine": "sysconf",
    "if it fails, a setting of the C library is unchanged": "mallopt",
    "it fails only for arguments that are never passed": "sigaddset sigemptyset sigismember",
    "an operation in memory on a lock of this process": "pthread_spin_init pthread_spin_lock "
    "pthread_spin_trylock pthread_spin_unlock pthread_spin_destroy",
    "its target is the main thread, which exists as long as the process": "pthread_kill",
    "it only accesses memory": "bcmp explicit_bzero memchr memcmp memcpy memmove memset stpcpy strcasecmp "
    "strchr strcmp strlen strncmp strtol",
    "a variable": "timezone __timezone stderr stdout",
    "called only by code of the compiler and its run-time library": "__.* _dl_find_object _Unwind.* arc4random fputc "
    "fputs fwrite gettext getentropy ioctl open64 pthread_mutex_lock pthread_mutex_unlock read realloc secure_getenv "
    "sprintf strerror",
}

#  Functions of the shim that have no row.
WITHOUT_ROW = {
    "putc": "it is counted as putchar",
    "fwrite": "called only by the run-time library, to report an uncaught exception",
}

#  Situations whose clock never stops. They have no undisturbed run.
RESTLESS = {"-run, restless", "-start, restless"}

ROWS = read_table()
RUNS = ROWS[::5] if surroundings.MEMCHECK else ROWS  # a run takes a second under memcheck


@pytest.fixture(scope="module")
def bench():
    one = Bench()
    yield one
    one.close()


@pytest.fixture(scope="module")
def undisturbed(bench):
    """Runs each situation without a failure. Returns the transcripts; that of a RESTLESS situation is empty."""
    return {name: [] if name in RESTLESS else bench.run(name) for name in SITUATIONS}


@pytest.mark.parametrize("row", RUNS, ids=str)
def test_500_a_failure_ends_as_in_the_table(bench, undisturbed, row):
    plan = bench.faults.plan(row.function, row.nth, row.how, row.error, row.where)
    transcript = bench.run(row.situation, plan)
    assert bench.faults.reached() > 0, "the call was never made"
    assert outcome(undisturbed[row.situation], transcript) == row.outcome


def test_501_after_all_failures_the_undisturbed_runs_are_as_before(bench, undisturbed):
    for name, before in undisturbed.items():
        assert not before or bench.run(name) == before, name


def test_502_a_call_that_is_never_made_is_not_reached(bench, undisturbed):
    plan = bench.faults.plan("setsid", 1, "once", "EPERM")
    assert bench.run("-run", plan) == undisturbed["-run"]
    assert bench.faults.reached() == 0


def test_503_the_undisturbed_service_holds_the_lock_and_closes_both_connections(undisturbed):
    lines = undisturbed["-run"]
    assert [line for line in lines if line.startswith("= ")] == [
        "= descriptors 7",
        "= it holds the lock",
        "= its pid is in the file",
        "= the service ends with 0",
    ]
    assert [lines.count(f"[dbg] send: request {number}") for number in (1, 2, 3, 4)] == [1, 1, 1, 0]
    assert lines[-4:] == ["> rdb_disconnect 0", "> rdb_destory 0", "> rdb_disconnect 1", "> rdb_destory 1"]


def test_504_no_run_occurs_twice():
    assert len({str(row) for row in ROWS}) == len(ROWS) >= 2700


def test_505_all_but_two_functions_of_the_shim_have_rows_for_once_and_always():
    for how in ("once", "always"):
        assert shimmed() - set(WITHOUT_ROW) == {row.function for row in ROWS if row.how == how}


def test_506_every_function_that_the_executable_calls_is_in_the_shim_or_is_an_exception():
    symbols = subprocess.run(["nm", "-D", "--undefined-only", BUILD / "addrpubd"], capture_output=True, check=True)
    lines = [line.split() for line in symbols.stdout.decode().splitlines()]
    called = {name.split("@")[0] for kind, name in lines if kind == "U"}
    harmless = re.compile("|".join(" ".join(CANNOT_FAIL.values()).split()))
    assert [name for name in sorted(called - shimmed()) if not harmless.fullmatch(name)] == []


def test_507_every_situation_has_rows():
    assert set(SITUATIONS) == {row.situation for row in ROWS}


def shimmed():
    """Returns the names that the shim defines."""
    text = SHIM.read_text()
    macros = re.findall(r"^STAND_BEFORE\([^,]+, (\w+),", text, re.MULTILINE)
    written_out = re.findall(r"^(?:int|pid_t) (\w+)\([^)]*\)(?: noexcept)? \{$", text, re.MULTILINE)
    return set(macros) | set(written_out) - {"refused"}
