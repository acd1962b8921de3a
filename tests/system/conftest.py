"""Fixtures of the system tests. The build folder to test is named by ADDRPUBD_BUILD."""

import os
import sys
import time
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parents[1] / "support"))

import host as host_module  # noqa: E402
import sandbox  # noqa: E402
import surroundings  # noqa: E402
import world as world_module  # noqa: E402

SKIPPED = 77  # the exit status that ctest takes for "not run"


def pytest_sessionstart():
    time.tzset()
    if not sandbox.permitted():
        pytest.exit("needs root and the right to make namespaces", SKIPPED)
    if not (host_module.BUILD / "addrpubd").exists():
        pytest.exit(f"no addrpubd in {host_module.BUILD.resolve()}: set ADDRPUBD_BUILD", 2)


def pytest_sessionfinish(session, exitstatus):
    """A run that skipped every test tells ctest so."""
    surroundings.tally(session.config.pluginmanager.get_plugin("terminalreporter"))
    if exitstatus in (pytest.ExitCode.OK, pytest.ExitCode.NO_TESTS_COLLECTED):
        found = session.config.pluginmanager.get_plugin("terminalreporter").stats
        if found.get("skipped") and not found.get("passed"):
            session.exitstatus = SKIPPED


def pytest_collection_modifyitems(items):
    for item in items:
        if reason := surroundings.reason_to_skip(item.name):
            item.add_marker(pytest.mark.skip(reason=reason))


@pytest.fixture(autouse=True)
def memory():
    """Fails the test in which memcheck found something, once all that the test started has ended."""
    yield
    found = surroundings.memory_errors()
    assert not found, found


@pytest.fixture
def host():
    """A host with both servers configured and nothing running on it."""
    one = host_module.Host()
    yield one
    one.close()


@pytest.fixture
def new_world():
    """Makes worlds (world.py). What still runs at the end of the test is ended and compared with its model."""
    worlds = []

    def make(*arguments, **options):
        worlds.append(world_module.World(*arguments, **options))
        return worlds[-1]

    yield make
    try:
        for world in worlds:
            world.finish()
    finally:
        for world in worlds:
            world.close()


@pytest.fixture
def umask():
    """The umask of this process, which the programs under test inherit."""
    mask = os.umask(0)
    os.umask(mask)
    return mask
