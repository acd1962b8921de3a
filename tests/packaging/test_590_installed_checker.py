"""The installed addrpubd-check, below any prefix."""

import pytest

REQUIRES = ("cmake",)
NAMESPACES = True


@pytest.fixture
def checker(installed):
    return str(installed.prefix / "sbin/addrpubd-check")


def test_591_without_a_file_name_it_checks_the_settings_that_the_service_reads(machine, installed, checker):
    machine.path(str(installed.ini)).write_bytes(b"hostname = host1\nrdburl = log:\nrdbuser = u\nrdbpswd = p\n")
    process = machine.spawn(checker, cwd="/")
    output = process.all_output().decode()
    assert f"{installed.ini}: no findings" in output
    assert '  hostname      = "host1"' in output
    assert process.wait() == 0


def test_592_the_usage_contains_the_path_of_the_settings(machine, installed, checker):
    assert f"if there is none, {installed.ini}.\n".encode() in machine.run(checker, "--help")
