"""Fixtures of the packaging tests. The environment variable ADDRPUBD_BUILD is the build folder to test.

A test file lists the programs that it calls in REQUIRES, and sets NAMESPACES = True if it creates namespaces. If a
program or the right to create namespaces is missing, the whole file is skipped.
"""

import shutil
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).parents[1] / "support"))

import installation  # noqa: E402
import sandbox  # noqa: E402

SKIPPED = 77  # the exit status that ctest interprets as "not run"


def pytest_collection_finish(session):
    modules = {item.module for item in session.items}
    tools = {tool for module in modules for tool in getattr(module, "REQUIRES", ())}
    missing = sorted(tool for tool in tools if shutil.which(tool) is None)
    if missing:
        pytest.exit(f"needs {', '.join(missing)}", SKIPPED)
    if any(getattr(module, "NAMESPACES", False) for module in modules) and not sandbox.permitted():
        pytest.exit("needs root and the right to make namespaces", SKIPPED)


@pytest.fixture(scope="session")
def installed(tmp_path_factory):
    """Installs the build below a temporary root."""
    return installation.Installation(tmp_path_factory.mktemp("root"))


@pytest.fixture
def machine(installed):
    """Creates a sandbox in which the installed files are at their final paths."""
    if installed.prefix == Path("/usr"):
        pytest.exit("the build's prefix is /usr, which the sandbox shares with this machine", SKIPPED)
    place = sandbox.Sandbox()
    place.run("mount", "--bind", installed.root / installed.prefix.relative_to("/"), installed.prefix)
    yield place
    place.close()
