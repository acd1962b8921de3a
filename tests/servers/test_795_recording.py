"""The terminal session that the README shows: its commands still exist and still print the same."""

import shutil
from pathlib import Path

import open_library
import pytest
from host import BUILD
from terminal_recording import COMMANDS, PICTURE, lines_of, picture, record, shape

README = Path(__file__).parents[2] / "README.md"


@pytest.fixture(scope="module")
def recorded():
    return lines_of(PICTURE.read_text(encoding="utf-8"))


def test_795_a_new_run_prints_what_the_picture_shows(recorded):
    if not all(map(shutil.which, ("dnsmasq", "dig", "ss"))):
        pytest.skip("dnsmasq, dig or ss is not installed (dnsmasq-base, bind9-dnsutils, iproute2)")
    if not open_library.has(BUILD, "sqlite", "hosts") or not (BUILD / "addrpubd-check").exists():
        pytest.skip("the checker was not built, or the open client library was built without sqlite or hosts")
    assert shape(record()) == shape(recorded), "scripts/recording writes the picture again"


def test_796_the_picture_is_the_text_of_its_lines_and_the_readme_shows_it(recorded):
    assert [line[2:] for line in recorded if line.startswith("$ ")] == [command for command, _ in COMMANDS]
    assert PICTURE.read_text(encoding="utf-8") == picture(recorded)
    assert f"]({PICTURE.relative_to(README.parent)})" in README.read_text(encoding="utf-8")
