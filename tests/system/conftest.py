"""Fixtures of the system tests: support/host_fixtures.py."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).parents[1] / "support"))

from host_fixtures import *  # noqa: E402, F403
