"""The unit allows every system call that the service makes with a database file and a hosts file."""

from installation import settings
from system_calls import STRACE, allowed, calls_in, program_trace

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


def calls_of_one_life(machine, installed):
    """Returns the service's system calls from its first instruction to its end. The service publishes an address to
    both files."""
    machine.add_address("2001:db8::10/64")
    machine.path(str(installed.ini)).write_bytes(SETTINGS)
    process = machine.spawn(*STRACE, "stdbuf", "-oL", "./addrpubd", "-run", cwd=installed.folder)
    process.wait_for_output(b"rdb_objputsnapshot host1 success")
    process.wait_for_output(b"recv: ")
    machine.run("kill", machine.path("/run/addrpubd.pid").read_text().strip())
    process.all_output()
    return calls_in(program_trace(machine))


def test_571_the_unit_allows_all_system_calls_of_the_service_with_files(machine, installed):
    unit = settings(installed.path(installed.prefix / UNIT).read_text())
    calls = calls_of_one_life(machine, installed)
    assert {"clone3", "fdatasync", "rename", "socket"} <= calls, "the service has done its work"
    assert calls - allowed(unit["SystemCallFilter"]) == set()


def test_572_the_unit_denies_other_system_calls(installed):
    unit = settings(installed.path(installed.prefix / UNIT).read_text())
    assert allowed(unit["SystemCallFilter"]).isdisjoint(
        {"chown", "mount", "setuid", "ptrace", "init_module", "reboot", "listen", "accept4"}
    )
