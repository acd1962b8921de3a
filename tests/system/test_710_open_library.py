"""The service with the open client library of the same build publishes to a database and to a hosts file."""

import shutil
import sqlite3

import open_library
import pytest
from host import BUILD, DIRECTORY
from sandbox import wait_until

SETTINGS = {"rdburl": "sqlite:///mnt/data/rdb.db", "dnsurl": "hosts:///mnt/data/hosts"}


@pytest.fixture
def open_host(host):
    """A host with the open client library, one address, and settings that use files below /mnt/data."""
    if not open_library.has(BUILD, "sqlite", "hosts"):
        pytest.skip("the open client library was built without one of its back ends")
    open_library.install(BUILD, host.sandbox.path(DIRECTORY))
    host.sandbox.path("/mnt/data").mkdir()
    host.settings(**SETTINGS)
    host.sandbox.add_address("2001:db8::1/64")
    return host


def run_connected(host):
    """Starts the service on a terminal and waits until it logs that both servers are connected."""
    process = host.start("-run", tty=True)
    control = host.clock.of(process)
    control.wait_parked()
    process.wait_for_output(b"connect rdb server sqlite:///mnt/data/rdb.db success.\r\n")
    process.wait_for_output(b"connect dns server hosts:///mnt/data/hosts success.\r\n")
    return process, control


def hosts_lines(host):
    return host.sandbox.path("/mnt/data/hosts").read_bytes().splitlines()


def database_values(host, folder):
    """Returns the current values in the database of the stopped service. Reads them from a copy in `folder`."""
    for file in host.sandbox.path("/mnt/data").glob("rdb.db*"):
        shutil.copy(file, folder)
    with sqlite3.connect(folder / "rdb.db") as database:
        return database.execute("SELECT name, value FROM current_values").fetchall()


def test_711_one_cycle_fills_the_database_and_the_hosts_file(open_host, tmp_path):
    process, control = run_connected(open_host)
    control.advance(0.1)
    process.wait_for_output(b"recv: ")
    process.kill()
    assert process.wait() == 0
    assert database_values(open_host, tmp_path) == [("host1", "2001:db8::1")]
    assert hosts_lines(open_host) == [b"2001:db8::1 host1 # addrpubd host1"]


def test_712_a_changed_address_replaces_the_old_one(open_host, tmp_path):
    process, control = run_connected(open_host)
    control.advance(0.1)
    open_host.sandbox.add_address("2001:db8::2/64")
    open_host.sandbox.remove_address("2001:db8::1/64")
    control.advance(10)
    wait_until(lambda: hosts_lines(open_host) == [b"2001:db8::2 host1 # addrpubd host1"], "the new address")
    process.kill()
    assert process.wait() == 0
    assert database_values(open_host, tmp_path) == [("host1", "2001:db8::2")]


def test_713_ctrl_c_ends_the_service_while_both_servers_are_connected(open_host):
    process, control = run_connected(open_host)
    control.advance(0.1)
    process.wait_for_output(b'"message":"ok"}\r\n')  # without this wait the reply may be logged after the last line
    process.type(b"\x03")
    assert process.wait() == 0
    assert process.output_so_far().endswith(b"stop addrpubd service success.\r\n")


def test_714_a_refused_dns_url_fails_the_start(open_host):
    open_host.settings(logurl=None, **(SETTINGS | {"dnsurl": "no url"}))
    for _ in range(50):
        assert open_host.command("-run") == b"\nStart failed!\n"
