"""The installed manual pages: they have no findings of mandoc, are complete, and contain the right paths."""

import os
import re
import subprocess

import pytest
from installation import PACKAGING

REQUIRES = ("cmake", "mandoc")

PAGES = sorted(page.stem for page in (PACKAGING / "man").glob("*.in"))
#  mandoc also searches this machine for referenced pages. They need not be installed here.
NOT_INSTALLED = re.compile(r"STYLE: referenced manual not found: Xr |outdated mandoc\.db lacks ")
KEYS = "hostname logurl rdburl rdbuser rdbpswd dnsurl dnsuser dnspswd dnshttpsports".split()


def file_of(installed, page):
    return installed.path(installed.prefix / f"share/man/man{page[-1]}/{page}")


def rendered(installed, page):
    command = ["mandoc", "-T", "ascii", file_of(installed, page)]
    text = subprocess.run(command, capture_output=True, check=True, text=True).stdout
    return re.sub(".\x08", "", text)  # mandoc writes a bold letter as letter, backspace, letter


@pytest.mark.parametrize("page", PAGES)
def test_541_mandoc_reports_no_findings(installed, page):
    command = ["mandoc", "-T", "lint", "-W", "all", file_of(installed, page)]
    run = subprocess.run(command, capture_output=True, check=False, text=True)
    findings = (run.stdout + run.stderr).splitlines()
    assert [line for line in findings if not NOT_INSTALLED.search(line)] == []


@pytest.mark.parametrize("page", PAGES)
def test_542_referenced_pages_of_this_package_exist(installed, page):
    text = file_of(installed, page).read_text()
    referred = {f"{name}.{section}" for name, section in re.findall(r"\.Xr (addrpubd\S*) (\d)", text)}
    assert referred <= set(PAGES)


@pytest.mark.parametrize("word", ["-start", "-stop", "-status", "-run", "-ver", "-version"])
def test_543_every_command_word_is_explained(installed, word):
    assert re.search(rf"^ +(\S+, )?{word}\b", rendered(installed, "addrpubd.8"), re.MULTILINE)


@pytest.mark.parametrize("key", KEYS)
def test_544_every_key_is_explained(installed, key):
    #  The key must be a heading. A line of an example contains an equals sign.
    assert re.search(rf"^ +(\w+, )*{key}\b(?! =)", rendered(installed, "addrpubd.ini.5"), re.MULTILINE)


@pytest.mark.parametrize(
    "scheme",
    [
        *("sqlite:///", "redis://", "rediss://", "redis+unix:///", "redis+cluster://", "rediss+cluster://"),
        *("redis+sentinel://", "rediss+sentinel://", "hosts:///", "dns://", "dns+tls://", "dyndns2+https://", "log:"),
    ],
)
def test_545_every_kind_of_server_is_explained(installed, scheme):
    assert re.search(rf"^ +.{re.escape(scheme)}", rendered(installed, "addrpubd.ini.5"), re.MULTILINE)


@pytest.mark.parametrize("page", PAGES)
def test_546_the_files_named_in_a_page_are_installed(installed, page):
    #  The running service creates the files below /run and /var. A path inside a url does not start a word.
    named = re.findall(r"(?<=\s)/(?!dev/|run/|var/)[\w./-]*\w", file_of(installed, page).read_text())
    assert [name for name in named if not os.path.lexists(installed.path(name))] == []
    assert str(installed.ini) in named
