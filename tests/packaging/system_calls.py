"""The system calls that a unit allows, and the system calls that a program makes."""

import re
import subprocess

TRACE = "/mnt/calls"
STRACE = ("strace", "-f", "-qq", "-o", TRACE)


def call_groups():
    """Returns systemd's groups of system calls: each group name with its members, which may be groups themselves."""
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
    """Returns the calls that the unit allows. Each line adds calls to those of the previous lines or removes some."""
    groups, calls = call_groups(), set()
    for line in filters:
        words = set().union(*(members_of(word, groups) for word in line.lstrip("~").split()))
        calls = calls - words if line.startswith("~") else calls | words
    return calls


def program_trace(machine):
    """Returns the strace output of the service, from its first instruction on."""
    trace = machine.path(TRACE).read_text()
    return trace[trace.index('execve("./addrpubd"') :]


def calls_in(trace):
    return set(re.findall(r"^\d+ +(?:<\.\.\. )?(\w+)(?:\(| resumed)", trace, re.MULTILINE))
