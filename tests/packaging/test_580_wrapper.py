"""The script sbin/addrpubd, which starts the program in the folder of its client library."""

import pytest

REQUIRES = ("cmake",)
NAMESPACES = True

VERSION = b"\naddrpubd addrpubd for linux ver "


@pytest.fixture
def wrapper(installed):
    return installed.prefix / "sbin/addrpubd"


def test_581_the_program_finds_its_client_library_from_any_folder(machine, wrapper):
    assert machine.run(wrapper, "-ver", cwd="/mnt").startswith(VERSION)


def test_582_the_program_finds_its_settings_through_the_link(machine, installed, wrapper):
    machine.path(str(installed.ini)).write_bytes(b"hostname = a:b\nlogurl = stdout\n")
    output = machine.run(wrapper, "-run", cwd="/mnt")
    assert f"hostname contains illegal characters in {installed.folder}/addrpubd.ini\n".encode() in output


def test_583_arguments_are_passed_unchanged(machine, wrapper):
    assert machine.run(wrapper, "").count(b"\n") == 1, "an empty word must be treated as unknown, not print the usage"
    assert machine.run(wrapper).count(b"\n") > 1, "without a word the usage must be printed"
    assert machine.run(wrapper, "-ver -ver").count(b"\n") == 1, "a blank must not split a word"


def test_584_the_wrapper_is_replaced_by_the_program(machine, installed, wrapper):
    machine.path(str(installed.ini)).write_bytes(b"hostname = host1\n")
    process = machine.spawn(wrapper, "-run")
    assert process.running()
    command = f"until [ -s /run/addrpubd.pid ]; do :; done; readlink /proc/{process.pid}/exe"
    assert machine.run("sh", "-c", command) == f"{installed.folder}/addrpubd\n".encode()
    assert machine.path("/run/addrpubd.pid").read_text() == f"{process.pid}\n"


def test_585_without_the_folder_of_the_program_it_reports_an_error(machine, installed, wrapper):
    machine.run("mount", "-t", "tmpfs", "tmpfs", installed.prefix / "lib")
    process = machine.spawn(wrapper, "-ver")
    assert str(installed.folder).encode() in process.all_output()
    assert process.wait() == 1
