"""addrpubd-check --connect with a database of SQLite and a hosts file."""

import pytest
from test_860_remove_files import LOGINS, URLS, folder, open_host, published, sandbox, settings

from host import BUILD
from remove_bed import Settings, marked

__all__ = ["open_host", "sandbox"]

A, B = "2001:db8::1", "2001:db8::2"


def connect(sandbox, **urls):
    return settings(sandbox, **urls).check("--connect")


def test_890_files_of_a_running_service_are_equal(open_host):
    published(open_host)
    sandbox = open_host.sandbox
    status, output = connect(sandbox, rdburl=URLS["rdburl"])
    assert status == 0, output
    assert (marked("expect", output), marked("has", output)) == ([A], [A])
    status, output = connect(sandbox)
    assert marked("has", output)[:2] == [A, A]
    assert [line for line in marked("allowed", output) if "database" in line] != []


def test_891_a_difference_while_the_service_runs_is_explained(open_host):
    published(open_host)
    open_host.sandbox.add_address(B + "/64")
    status, output = connect(open_host.sandbox, rdburl=URLS["rdburl"])
    assert (status, marked("expect", output), marked("has", output)) == (1, [f"{A}, {B}"], [A])
    assert marked("differs", output)[0].startswith("the service writes a change within ten seconds")


def test_892_without_files_nothing_is_created(sandbox):
    status, output = connect(sandbox)
    assert status == 1, output
    assert folder(sandbox) == []


def test_893_a_folder_that_the_user_may_not_write_is_refused(sandbox):
    one = settings(sandbox)
    sandbox.path(one.path).chmod(0o644)
    sandbox.path("/mnt/data").chmod(0o755)
    process = sandbox.spawn(f"{BUILD}/addrpubd-check", "--connect", one.path, uid=65534)
    output = process.all_output().decode().splitlines()
    assert process.wait() == 1
    assert len([line for line in marked("refused", output) if "write in the folder /mnt/data/ (as this user)" in line]) == 2


def test_894_a_dry_run_has_nothing_to_compare(sandbox):
    status, output = connect(sandbox, rdburl="log:", dnsurl="log:")
    assert (status, marked("note", output)) == (0, ["nothing is stored: log: is a dry run"] * 2)
    assert marked("differs", output) == []


@pytest.mark.parametrize("words", [("a", "b"), ("--yes",)], ids=lambda words: " ".join(words))
def test_895_an_invalid_command_line_returns_status_2(sandbox, words):
    one = Settings(sandbox, "host1", **URLS, **LOGINS)
    one.path = ""
    status, output = one.check("--connect", *words)
    assert (status, output[0].startswith("addrpubd-check: ")) == (2, True)
