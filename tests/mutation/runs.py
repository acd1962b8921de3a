"""Runs test programs that may loop forever, use all memory, or send signals to any process.

If the user is root and unshare(1) is installed, each run has private namespaces, so that a wrong pid or path does not
affect the machine. Each run has limits on time, memory and file sizes. A run that exceeds a limit of time counts as
failed.
"""

import os
import re
import resource
import shlex
import shutil
import subprocess
import time
from dataclasses import dataclass

NAMESPACES = ["unshare", "--mount", "--ipc", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]
INSIDE = 'mount -t tmpfs none /run && ip link set lo up; exec "$@"'
LARGEST_FILE = 1 << 28
MEMORY = 16 << 30
FAILED_NAME = re.compile(r"^\[  FAILED  \] (\w[\w/]*\.[\w/]+)|^FAILED \S*?::(.+?)(?: - .*)?$", re.MULTILINE)
FAILED_TEST = re.compile(r"^\[  FAILED  \] ([\w/.]+)|^FAILED \S*?::(\S+)|^([\w/.]+): .*\bFailure$", re.MULTILINE)


@dataclass(frozen=True)
class Limits:
    """Limits in seconds. The limit of processor time applies to each process separately."""

    processor: int
    wall: int


FIRST = Limits(300, 900)  # for a run whose duration is not known


def following(seconds):
    """Returns the limits of a run that usually takes this many seconds, with a margin for a busy machine."""
    return Limits(int(5 + 4 * seconds), int(20 + 8 * seconds))


@dataclass(frozen=True)
class Outcome:
    """The result of a run."""

    passed: bool
    reason: str  # the first failed test, or how the program ended
    seconds: float
    output: str
    reached_end: bool = True  # the program ended by itself with status 0 or 1


def _command(command, covers):
    if os.geteuid() == 0 and shutil.which("unshare"):
        binds = [f"mount --bind {shlex.quote(str(new))} {shlex.quote(str(old))}" for old, new in covers.items()]
        return [*NAMESPACES, "sh", "-c", " && ".join((*binds, INSIDE)), "sh", *map(str, command)]
    return list(map(str, command))


def _limited(limits):
    def apply():
        resource.setrlimit(resource.RLIMIT_CPU, (limits.processor, limits.processor + 1))
        resource.setrlimit(resource.RLIMIT_FSIZE, (LARGEST_FILE, LARGEST_FILE))
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))

    return apply


def run(command, folder, limits, covers=None, environment=None):
    """Runs `command` in `folder` until it ends or exceeds its limits. `covers` maps files to their replacements, which
    are used if the run has namespaces."""
    start = time.monotonic()
    with open(folder / "output", "w+b") as output:
        process = subprocess.Popen(
            _command(command, covers or {}),
            cwd=folder,
            stdin=subprocess.DEVNULL,
            stdout=output,
            stderr=subprocess.STDOUT,
            env=os.environ | (environment or {}),
            preexec_fn=_limited(limits),
            start_new_session=True,
        )
        try:
            status = process.wait(limits.wall)
            ended = f"ended with {status}"
        except subprocess.TimeoutExpired:
            process.kill()  # this also ends process 1 of the namespace and all processes in it
            process.wait()
            status, ended = -1, "time-out"
        output.seek(0)
        text = output.read(1 << 22).decode(errors="replace")
    failed = next((next(filter(None, match.groups())) for match in FAILED_TEST.finditer(text)), None)
    return Outcome(status == 0, failed or ended, time.monotonic() - start, text, status in (0, 1))


def unit(program, folder, limits, covers=None):
    """Runs a GoogleTest program up to its first failing test."""
    return run([program, "--gtest_fail_fast", "--gtest_brief=1"], folder, limits, covers)


def system(file, build, folder, limits):
    """Runs a file of system tests with the executable in the folder `build`, up to the first failing test. These tests
    create namespaces inside those of this run."""
    command = ["/usr/bin/python3", "-B", "-m", "pytest", "-x", "-q", "-p", "no:cacheprovider", file]
    return run(command, folder, limits, environment={"ADDRPUBD_BUILD": str(build)})


def _names(text):
    """Returns all failed tests, in the order of their first mention."""
    return list(dict.fromkeys(next(filter(None, match.groups())) for match in FAILED_NAME.finditer(text)))


def _tests_of(program, folder):
    """Returns the names of a GoogleTest program's tests."""
    suite, names = "", []
    for line in run([program, "--gtest_list_tests"], folder, FIRST).output.splitlines():
        line = line.partition("#")[0].rstrip()
        if line.startswith("  "):
            names.append(suite + line.strip())
        elif line.endswith("."):
            suite = line
    return names


def every_unit(program, folder, limits, covers=None):
    """Returns the names of all failing tests of a GoogleTest program. If the program does not run to its end, each test
    runs separately."""
    ended = run([program, "--gtest_brief=1"], folder, limits, covers)
    if ended.passed or ended.reached_end:
        return _names(ended.output)
    alone = {
        test: run([program, "--gtest_brief=1", f"--gtest_filter={test}"], folder, limits, covers)
        for test in _tests_of(program, folder)
    }
    return [test for test, outcome in alone.items() if not outcome.passed]


def every_system(file, build, folder, limits):
    """Returns the names of all failing tests of a file of system tests. If no test is named, returns how the run
    ended."""
    command = ["/usr/bin/python3", "-B", "-m", "pytest", "-q", "-p", "no:cacheprovider", file]
    ended = run(command, folder, limits, environment={"ADDRPUBD_BUILD": str(build)})
    return [] if ended.passed else _names(ended.output) or [f"{file.name}: {ended.reason}"]
