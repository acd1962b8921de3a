"""Fixtures and hooks of the tests in tests/system and tests/servers. The conftest.py files there import them. The
environment variable ADDRPUBD_BUILD is the build folder to test."""

import os
import time

import pytest

import host as host_module
import sandbox
import surroundings
import world as scenario_module

SKIPPED = 77  # the exit status that ctest interprets as "not run"

#  The marks of tests, in all files. In ctest they are labels (pytest.cmake), like the subjects of the unit tests.
SUBJECTS = {
    "refusal": "a server refuses, or the service treats it so",
    "retry": "what failed or was lost is made again",
    "failover": "another address of the server's name is tried",
}


def pytest_configure(config):
    for subject, meaning in SUBJECTS.items():
        config.addinivalue_line("markers", f"{subject}: {meaning}")


def pytest_sessionstart():
    time.tzset()
    if not sandbox.permitted():
        pytest.exit("needs root and the right to make namespaces", SKIPPED)
    if not (host_module.BUILD / "addrpubd").exists():
        pytest.exit(f"no addrpubd in {host_module.BUILD.resolve()}: set ADDRPUBD_BUILD", 2)


def pytest_sessionfinish(session, exitstatus):
    """Writes the tally. Reports to ctest if all tests were skipped."""
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
    """Fails a test if memcheck found an error. The check runs after the fixtures of the test, except those of a whole
    module, have ended their programs."""
    yield
    found = surroundings.memory_errors()
    assert not found, found


@pytest.fixture
def host():
    """A host with both servers configured and no program running."""
    one = host_module.Host()
    yield one
    one.close()


@pytest.fixture
def new_scenario():
    """Returns a function that creates scenarios (world.py). At the end of the test, each service that still runs is
    ended and compared with its model."""
    scenarios = []

    def make(*arguments, **options):
        scenarios.append(scenario_module.Scenario(*arguments, **options))
        return scenarios[-1]

    yield make
    try:
        for scenario in scenarios:
            scenario.finish()
    finally:
        for scenario in scenarios:
            scenario.close()


@pytest.fixture
def umask():
    """Returns the umask of this process, which the programs under test inherit."""
    mask = os.umask(0)
    os.umask(mask)
    return mask
