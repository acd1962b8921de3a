"""The manual pages: without findings, and complete."""

import re
import subprocess

import pytest
from installation import PACKAGING

REQUIRES = ("mandoc",)

PAGES = sorted((PACKAGING / "man").glob("*.[58]"))
#  mandoc looks for pages on this machine, where these need not be installed.
NOT_INSTALLED = re.compile(r"STYLE: referenced manual not found: Xr |outdated mandoc\.db lacks ")
KEYS = "hostname logurl rdburl rdbuser rdbpswd dnsurl dnsuser dnspswd dnshttpsports".split()


def rendered(name):
    command = ["mandoc", "-T", "ascii", PACKAGING / "man" / name]
    text = subprocess.run(command, capture_output=True, check=True, text=True).stdout
    return re.sub(".\x08", "", text)  # a bold letter is a letter, a backspace and the letter again


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_541_mandoc_finds_nothing(page):
    run = subprocess.run(["mandoc", "-T", "lint", "-W", "all", page], capture_output=True, check=False, text=True)
    findings = (run.stdout + run.stderr).splitlines()
    assert [line for line in findings if not NOT_INSTALLED.search(line)] == []


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.name)
def test_542_pages_of_this_package_that_are_referred_to_exist(page):
    referred = {f"{name}.{section}" for name, section in re.findall(r"\.Xr (addrpubd\S*) (\d)", page.read_text())}
    assert referred <= {other.name for other in PAGES}


@pytest.mark.parametrize("word", ["-start", "-stop", "-status", "-run", "-ver", "-version"])
def test_543_every_command_word_is_explained(word):
    assert re.search(rf"^ +(\S+, )?{word}\b", rendered("addrpubd.8"), re.MULTILINE)


@pytest.mark.parametrize("key", KEYS)
def test_544_every_key_is_explained(key):
    #  As a heading; a line of an example has its equals sign.
    assert re.search(rf"^ +(\w+, )*{key}\b(?! =)", rendered("addrpubd.ini.5"), re.MULTILINE)


@pytest.mark.parametrize("scheme", ["sqlite:///", "redis://", "hosts:///", "dns://", "log:"])
def test_545_every_kind_of_server_is_explained(scheme):
    assert re.search(rf"^ +.{scheme}", rendered("addrpubd.ini.5"), re.MULTILINE)
