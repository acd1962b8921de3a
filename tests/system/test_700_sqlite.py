"""The open client library with a database that two processes use. In test_700 another program replaces, overwrites,
empties or removes the database's files. Both processes detect the loss and write their values again."""

import shutil
import sqlite3

import open_library
import pytest
from host import BUILD
from rdb_client import CONNECTED, RdbClient, Syslog
from sandbox import Sandbox, wait_until

LIBRARY = BUILD / "librdbapix64.so"
SHIM = BUILD / "tests/libhurryshim.so"
FILE = "/mnt/data/rdb.db"


class Holder:
    """A process that puts the value of one host into a database."""

    def __init__(self, sandbox, file, name):
        self._client = RdbClient(sandbox, LIBRARY, SHIM)
        self._handle = self._client.open(f"sqlite://{file}", "u", "p")
        self._name = name
        self._client.wait_event(self._handle, CONNECTED)
        assert self._client.taginport(self._handle, name) == 0
        assert self.put(f"value of {name}") == 0

    def put(self, value):
        return self._client.put(self._handle, self._name, value)

    def close(self):
        self._client.close()


class Pair:
    """Two processes that put the values of host1 and host2 into one database."""

    def __init__(self, folder):
        self.sandbox = Sandbox()
        self.log = Syslog(self.sandbox)
        self.sandbox.path("/mnt/data").mkdir()
        self._folder = folder
        self.holders = [Holder(self.sandbox, FILE, name) for name in ("host1", "host2")]

    def path(self, suffix=""):
        return self.sandbox.path(FILE + suffix)

    def other(self, puts=0):
        """Returns the bytes of a similar database that contains another host. Further puts make it larger."""
        holder = Holder(self.sandbox, "/mnt/data/other.db", "host3")
        for _ in range(puts):
            assert holder.put("x" * 900) == 0
        holder.close()
        return self.sandbox.path("/mnt/data/other.db").read_bytes()

    def values(self):
        """Returns the values in a copy of the database file, without its write-ahead log."""
        copy = self._folder / "copy.db"
        copy.unlink(missing_ok=True)
        try:
            shutil.copyfile(self.path(), copy)
            with sqlite3.connect(copy) as database:
                assert database.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
                return dict(database.execute("SELECT name, value FROM current_values"))
        except (FileNotFoundError, sqlite3.Error, AssertionError):  # the file is being created or written
            return {}

    def hold(self):
        return {"host1": "value of host1", "host2": "value of host2"}.items() <= self.values().items()

    def close(self):
        for holder in self.holders:
            holder.close()
        self.log.close()
        self.sandbox.close()


@pytest.fixture
def pair(tmp_path):
    if not open_library.has(BUILD, "sqlite"):
        pytest.skip("the open client library was built without its back end sqlite")
    one = Pair(tmp_path)
    yield one
    one.close()


def remove(*suffixes):
    def change(pair):
        for suffix in suffixes:
            pair.path(suffix).unlink()

    return change


def overwrite(pair, puts=0):
    pair.path().write_bytes(pair.other(puts))


def overwrite_and_remove(pair):
    overwrite(pair)
    remove("-wal", "-shm")(pair)


def replace(pair):
    new = pair.path(".new")
    new.write_bytes(pair.other())
    new.rename(pair.path())


CHANGES = {
    "emptied": lambda pair: pair.path().write_bytes(b""),
    "overwritten": overwrite,
    "overwritten-by-a-larger-one": lambda pair: overwrite(pair, 40),
    "overwritten-without-log": overwrite_and_remove,
    "replaced": replace,
    "removed": remove(""),
    "all-removed": remove("", "-wal", "-shm"),
    "log-removed": remove("-wal"),
    "index-removed": remove("-shm"),
    "log-and-index-removed": remove("-wal", "-shm"),
}


@pytest.mark.parametrize("puts", [0, 40], ids=["small", "large"])
@pytest.mark.parametrize("change", CHANGES.values(), ids=CHANGES.keys())
def test_700_values_are_restored_after_damage_to_the_files(pair, change, puts):
    for _ in range(puts):
        assert pair.holders[0].put("x" * 900) == 0
    assert pair.holders[0].put("value of host1") == 0
    assert pair.hold()
    change(pair)
    wait_until(pair.hold, "both values again")
    for holder in pair.holders:
        wait_until(lambda holder=holder: holder.put("later") == 0, "a put")
    wait_until(lambda: pair.values().items() >= {"host1": "later", "host2": "later"}.items(), "both later values")


def test_701_services_that_share_a_file_keep_each_others_values(pair):
    for number in range(100):
        for holder in pair.holders:
            assert holder.put(str(number)) == 0
    assert pair.values() == {"host1": "99", "host2": "99"}
    assert pair.log.lines() == []


def test_702_after_each_put_a_copy_of_the_file_is_a_complete_database(pair):
    for number in range(20):
        assert pair.holders[0].put(str(number)) == 0
        assert pair.values() == {"host1": str(number), "host2": "value of host2"}
