"""addrpubd-check --remove with files: SQLite databases, hosts files, the confirmation, and a running service."""

import shutil
import sqlite3

import open_library
import pytest
from host import BUILD, DIRECTORY
from remove_bed import Settings, marked
from sandbox import Sandbox

HOSTS = """127.0.0.1 localhost
2001:db8::1 host1 # addrpubd host1
2001:db8::9 host1.example.org HOST1 other
2001:db8::7 host2 # addrpubd host2
2001:db8::2 host1 # addrpubd host1
"""
URLS = {"rdburl": "sqlite:///mnt/data/rdb.db", "dnsurl": "hosts:///mnt/data/hosts"}
LOGINS = {"rdbuser": "u", "rdbpswd": "hunter2", "dnsuser": "u", "dnspswd": "hunter2"}


@pytest.fixture
def sandbox():
    if not open_library.has(BUILD, "sqlite", "hosts"):
        pytest.skip("the open client library was built without one of its back ends")
    one = Sandbox()
    one.path("/mnt/data").mkdir()
    yield one
    one.close()


def settings(sandbox, **urls):
    return Settings(sandbox, "host1", **(urls or URLS), **LOGINS)


def folder(sandbox):
    """Returns names, times and contents of all files, except *-shm, in which readers of a database have locks."""
    files = [file for file in sorted(sandbox.path("/mnt/data").iterdir()) if not file.name.endswith("-shm")]
    return [(file.name, file.stat().st_mtime_ns, file.read_bytes()) for file in files]


def published(host, **options):
    """Starts the service with both files and waits until it has published. Returns its process."""
    open_library.install(BUILD, host.sandbox.path(DIRECTORY))
    host.sandbox.path("/mnt/data").mkdir()
    host.settings(**URLS)
    host.sandbox.add_address("2001:db8::1/64")
    process = host.start("-run", tty=True, **options)
    control = host.clock.of(process)
    control.wait_parked()
    process.wait_for_output(b"connect rdb server sqlite:///mnt/data/rdb.db success.")
    process.wait_for_output(b"connect dns server hosts:///mnt/data/hosts success.")
    control.advance(0.1)
    process.wait_for_output(b"recv: ")
    return process


@pytest.fixture
def open_host(host):
    if not open_library.has(BUILD, "sqlite", "hosts"):
        pytest.skip("the open client library was built without one of its back ends")
    return host


def rows(sandbox, tmp_path):
    for file in sandbox.path("/mnt/data").glob("rdb.db*"):
        shutil.copy(file, tmp_path)
    with sqlite3.connect(tmp_path / "rdb.db") as database:
        tables = ("tag", "snapshot", "history")
        return [database.execute(f"SELECT count(*) FROM {table}").fetchone()[0] for table in tables]


def test_860_only_lines_of_the_service_leave_a_hosts_file(sandbox):
    sandbox.path("/mnt/data/hosts").write_text(HOSTS)
    one = settings(sandbox, dnsurl=URLS["dnsurl"])
    before = folder(sandbox)
    status, output = one.remove()
    assert (status, folder(sandbox)) == (1, before)
    own = [line for line in HOSTS.splitlines() if line.endswith("# addrpubd host1")]
    assert marked("delete", output) == own
    assert marked("keep", output) == ["2001:db8::9 host1.example.org HOST1 other: the line is not of the service"]
    status, output = one.remove("--yes")
    assert (status, marked("deleted", output)) == (0, own)
    assert sandbox.path("/mnt/data/hosts").read_text().splitlines() == [
        line for line in HOSTS.splitlines() if line not in own
    ]


def test_861_without_files_nothing_is_found_and_nothing_is_created(sandbox):
    status, output = settings(sandbox).remove("--with-tag", "--yes")
    assert status == 0, output
    assert folder(sandbox) == []


def test_862_what_a_service_published_leaves_both_files(open_host, tmp_path):
    process = published(open_host)
    process.kill()
    process.wait()
    sandbox = open_host.sandbox
    one = settings(sandbox)
    before = folder(sandbox)
    status, output = one.remove("--with-tag")
    assert (status, folder(sandbox)) == (1, before)
    assert marked("delete", output) == [
        "2001:db8::1 host1 # addrpubd host1",
        "tag host1",
        "value host1 = 2001:db8::1",
        "history host1, changes: 1",
    ]
    status, output = one.remove("--with-tag", "--yes")
    assert (status, len(marked("deleted", output))) == (0, 4), output
    assert sandbox.path("/mnt/data/hosts").read_text() == ""
    assert rows(sandbox, tmp_path) == [0, 0, 0]


def test_863_nothing_is_deleted_while_the_service_runs_with_the_settings(open_host):
    published(open_host)
    one = settings(open_host.sandbox)
    one.path = f"{DIRECTORY}/addrpubd.ini"
    status, output = one.remove("--yes")
    assert status == 1
    assert output[-1].startswith("nothing was deleted: the service runs with these settings")
    assert open_host.sandbox.path("/mnt/data/hosts").read_text() == "2001:db8::1 host1 # addrpubd host1\n"


def test_8631_nothing_is_deleted_while_an_instance_runs_with_the_settings(open_host):
    sandbox = open_host.sandbox
    sandbox.path("/run/addrpubd/home").mkdir(parents=True)
    process = published(open_host, env={"RUNTIME_DIRECTORY": "/run/addrpubd/home"})
    sandbox.path("/run/addrpubd.pid").unlink()  # only the processes of an instance see its pid file
    one = settings(sandbox)
    one.path = "/mnt/home.ini"
    shutil.copy(sandbox.path(f"{DIRECTORY}/addrpubd.ini"), sandbox.path(one.path))
    status, output = one.remove("--yes")
    assert status == 1
    assert output[-1].startswith("nothing was deleted: the service runs with these settings")
    process.kill()
    process.wait()
    status, output = one.remove("--yes")
    assert (status, len(marked("deleted", output))) == (0, 1)


def test_864_a_service_with_other_settings_is_mentioned(open_host):
    process = published(open_host)
    status, output = settings(open_host.sandbox, dnsurl="hosts:///mnt/other").remove("--yes")
    assert status == 0
    assert output[0].startswith(f"process {process.pid} is a service with other settings")


@pytest.mark.parametrize("answer, deleted", [("yes", True), ("y", False), ("no", False)])
def test_865_on_a_terminal_the_answer_decides(sandbox, answer, deleted):
    sandbox.path("/mnt/data/hosts").write_text(HOSTS)
    one = settings(sandbox, dnsurl=URLS["dnsurl"])
    process = sandbox.spawn(f"{BUILD}/addrpubd-check", "--remove", one.path, tty=True)
    process.wait_for_output(b"Type yes to delete: ")
    process.type(answer.encode() + b"\n")
    output = process.all_output()
    assert (process.wait(), b"  deleted " in output) == (0 if deleted else 1, deleted)
    assert (sandbox.path("/mnt/data/hosts").read_text() != HOSTS) == deleted


def test_866_a_database_of_another_program_is_refused_and_stays(sandbox, tmp_path):
    with sqlite3.connect(tmp_path / "rdb.db") as database:
        database.execute("CREATE TABLE tag (name TEXT)")
    shutil.copy(tmp_path / "rdb.db", sandbox.path("/mnt/data"))
    before = folder(sandbox)
    status, output = settings(sandbox, rdburl=URLS["rdburl"]).remove("--with-tag", "--yes")
    assert (status, folder(sandbox)) == (1, before)
    assert marked("failed", output) == ["the file is a database of another program"]


def test_867_a_dry_run_and_a_provider_have_nothing_that_can_be_deleted(sandbox):
    status, output = settings(sandbox, dnsurl="log:", rdburl="log:").remove("--with-tag", "--yes")
    assert (status, marked("note", output)) == (0, ["nothing is stored: log: is a dry run"] * 2)
    if open_library.has(BUILD, "dyndns2-https"):
        status, output = settings(sandbox, dnsurl="dyndns2+https://127.0.0.1/").remove("--yes")
        assert marked("note", output)[0].endswith("do this in the account at the provider")


@pytest.mark.parametrize(
    "words",
    [("--port",), ("--port", "0"), ("--port", "65536"), ("--port", "x"), ("--no",), ("a", "b"), ("",)],
    ids=lambda words: " ".join(words),
)
def test_868_an_invalid_command_line_deletes_nothing(sandbox, words):
    one = settings(sandbox, dnsurl=URLS["dnsurl"])
    sandbox.path("/mnt/data/hosts").write_text(HOSTS)
    one.path = ""
    status, output = one.remove("--yes", *words)
    assert status == 2
    assert output[0].startswith("addrpubd-check: ") and "usage: addrpubd-check [FILE]" in output
    assert sandbox.path("/mnt/data/hosts").read_text() == HOSTS


def test_869_settings_without_a_name_are_refused(sandbox):
    one = settings(sandbox)
    sandbox.path(one.path).write_text("dnsurl = hosts:///mnt/data/hosts\ndnsuser = u\ndnspswd = p\n")
    assert one.remove("--yes")[0] == 2
