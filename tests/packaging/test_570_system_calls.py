"""Every system call that the service makes is one that the unit allows."""

import re
import subprocess

from installation import settings

REQUIRES = ("systemd-analyze", "strace")
NAMESPACES = True

UNIT = "lib/systemd/system/addrpubd.service"
SETTINGS = b"""hostname = host1
logurl = stdout
rdburl = sqlite:///mnt/rdb.db
rdbuser = local
rdbpswd = local
dnsurl = hosts:///mnt/hosts
dnsuser = local
dnspswd = local
"""


def call_groups():
    """systemd's own groups of system calls: each name with its members, which may be groups again."""
    command = ["systemd-analyze", "syscall-filter", "--no-pager"]
    groups, members = {}, set()
    for line in subprocess.run(command, capture_output=True, check=True, text=True).stdout.splitlines():
        word = line.strip()
        if line.startswith("@"):
            members = groups.setdefault(word, set())
        elif word and not word.startswith("#"):
            members.add(word)
    return groups


def members_of(word, groups):
    if not word.startswith("@"):
        return {word}
    return set().union(*(members_of(member, groups) for member in groups[word]))


def allowed(filters):
    """The calls that the unit's lines allow, each line taking from or adding to those before it."""
    groups, calls = call_groups(), set()
    for line in filters:
        words = set().union(*(members_of(word, groups) for word in line.lstrip("~").split()))
        calls = calls - words if line.startswith("~") else calls | words
    return calls


def calls_of_one_life(machine, installed):
    """What the service calls from its first instruction to its end, with an address published into both files."""
    machine.add_address("2001:db8::10/64")
    machine.path(str(installed.ini)).write_bytes(SETTINGS)
    command = ["strace", "-f", "-qq", "-o", "/mnt/calls", "stdbuf", "-oL", "./addrpubd", "-run"]
    process = machine.spawn(*command, cwd=installed.folder)
    process.wait_for_output(b"rdb_objputsnapshot host1 success")
    process.wait_for_output(b"recv: ")
    machine.run("kill", machine.path("/run/addrpubd.pid").read_text().strip())
    process.all_output()
    trace = machine.path("/mnt/calls").read_text()
    program = trace[trace.index('execve("./addrpubd"') :]
    return set(re.findall(r"^\d+ +(?:<\.\.\. )?(\w+)(?:\(| resumed)", program, re.MULTILINE))


def test_571_the_unit_allows_all_calls_of_the_service(machine, installed):
    unit = settings(installed.path(installed.prefix / UNIT).read_text())
    calls = calls_of_one_life(machine, installed)
    assert {"clone3", "fdatasync", "rename", "socket"} <= calls, "the service has done its work"
    assert calls - allowed(unit["SystemCallFilter"]) == set()


def test_572_the_unit_denies_calls_of_others(installed):
    unit = settings(installed.path(installed.prefix / UNIT).read_text())
    assert allowed(unit["SystemCallFilter"]).isdisjoint({"chown", "mount", "setuid", "ptrace", "init_module", "reboot"})
