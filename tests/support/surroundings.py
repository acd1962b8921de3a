"""The environments in which the programs under test run. Without these variables the programs run normally.

    ADDRPUBD_DECIMAL_MARK=,   each program has the locale of LC_ALL and LOCPATH (localeshim.cpp); a program exits
                              at once if that locale has a different decimal mark
    ADDRPUBD_UNDER=memcheck   each program in PROGRAMS runs under valgrind's memcheck; an error or a definite leak in
                              any of its processes fails the test
    ADDRPUBD_UNDER=arm64      the build is for arm64: each program in PROGRAMS runs under qemu-user, with the libraries
                              of the Debian in ADDRPUBD_SYSROOT
    ADDRPUBD_PATIENCE=4       factor for the time after which a test gives up waiting
    ADDRPUBD_TALLY=FILE       append the result of each test that pytest runs to this file, one JSON object per line
    ADDRPUBD_BUILD=FOLDER     the build folder to test

scripts/surroundings and scripts/arm64 set them. ctest and other scripts set ADDRPUBD_BUILD.
"""

import atexit
import json
import locale
import os
import shutil
import tempfile
from pathlib import Path

import emulated

BUILD = Path(os.environ.get("ADDRPUBD_BUILD", "."))
DECIMAL_MARK = os.environ.get("ADDRPUBD_DECIMAL_MARK")
MEMCHECK = os.environ.get("ADDRPUBD_UNDER") == "memcheck"
ARM64 = os.environ.get("ADDRPUBD_UNDER") == "arm64"
SYSROOT = os.environ.get("ADDRPUBD_SYSROOT")
PATIENCE = float(os.environ.get("ADDRPUBD_PATIENCE", "1"))
TALLY = os.environ.get("ADDRPUBD_TALLY")

PROGRAMS = {"addrpubd", "other", "addrpubd-check", "dns_oracle"}
AGENTS = {"rdb_client_agent.py"}  # Python scripts that load the client library under test
PASSED_ON = ("PATH", "TZ", "LC_ALL", "LANG")

#  The name, in /proc, of a process that runs the executable.
COMM = "memcheck-amd64-" if MEMCHECK else "qemu-aarch64-st" if ARM64 else "addrpubd"

#  The tool itself. Its launcher must not be used, because it would load the shims that are meant for the program.
_TOOL = "/usr/libexec/valgrind/memcheck-amd64-linux"
_OPTIONS = ["-q", "--trace-children=yes", "--vgdb=no", "--error-exitcode=99", "--leak-check=full"]
_OPTIONS += ["--show-leak-kinds=definite", "--errors-for-leak-kinds=definite", "--num-callers=30"]
_OPTIONS += ["--soname-synonyms=somalloc=nouserintercepts"]  # memcheck does not replace the malloc of the fault shim
#  memcheck replaces operator delete of addrpubd-check, but not operator new of a module, which calls malloc. So
#  memcheck would report all memory that a module has allocated and the program releases.
_OPTIONS += ["--show-mismatched-frees=no"]
_SUPPRESSIONS = Path(__file__).with_name("valgrind.supp")
_SHIM = BUILD / "tests/liblocaleshim.so"

#  The static build of qemu-user ignores LD_PRELOAD, which is meant for the program.
_EMULATOR = "qemu-aarch64-static"

_BY_SHELL = "a shell starts the executable, so the test cannot start memcheck instead"
_NO_TEXT = "snprintf of a number does not fail in practice; memcheck reports the resulting length -1"
_BY_PROGRAM = "addrpubd-check finds the settings of the service by its executable, which is memcheck"

#  Tests that are skipped under memcheck: prefixes of their names, with the reason.
NOT_UNDER_MEMCHECK = {
    "test_309_": _BY_SHELL,
    "test_310_": _BY_SHELL,
    "test_335_": _BY_SHELL,
    "test_1825_": _BY_SHELL,
    "test_863_": _BY_PROGRAM,
} | {
    f"test_500_a_failure_ends_as_in_the_table[{run}:snprintf": _NO_TEXT
    for run in ("-run:first", "-run, udp log:first", "-run, unknown tag:first", "-start:first", "-start:child")
}


#  The locale also translates error texts, so this process uses the same locale as the programs under test.
if DECIMAL_MARK:
    locale.setlocale(locale.LC_ALL, "")


def reason_to_skip(test):
    """Returns why the test is not meaningful in this environment, or None."""
    reasons = NOT_UNDER_MEMCHECK if MEMCHECK else emulated.SYSTEM if ARM64 else {}
    return next((reason for start, reason in reasons.items() if test.startswith(start)), None)


class Place:
    """The paths of the shim, of the locales and of memcheck's logs, as programs see them."""

    def __init__(self, shim, locales, logs):
        self._shim, self._locales, self._logs = str(shim), str(locales), str(logs)

    def environment(self, argv, given):
        """Returns the environment of a program. It includes the variables in `given`."""
        passed = {name: os.environ[name] for name in PASSED_ON if name in os.environ}
        if "LOCPATH" in os.environ:
            passed["LOCPATH"] = self._locales
        tested = {Path(word).name for word in map(str, argv)} & (PROGRAMS | AGENTS)
        if DECIMAL_MARK and tested:
            passed["ADDRPUBD_DECIMAL_MARK"] = DECIMAL_MARK
            given = given | {"LD_PRELOAD": f"{self._shim} {given.get('LD_PRELOAD', '')}".rstrip()}
        if MEMCHECK and tested:
            passed["VALGRIND_LAUNCHER"] = shutil.which("valgrind") or "valgrind"
        return passed | given

    def command(self, argv, folder="."):
        """Returns the command line that starts a program in the folder."""
        words = [str(word) for word in argv]
        if ARM64 and Path(words[0]).name in PROGRAMS:
            #  The emulator derives /proc/self/exe from the path, also after a change of the working directory. So the
            #  path is joined with the folder.
            return [_EMULATOR, "-L", SYSROOT, "-0", words[0], os.path.join(folder, words[0]), *words[1:]]
        if not MEMCHECK or Path(words[0]).name not in PROGRAMS:
            return words
        files = [f"--suppressions={self._logs}/{_SUPPRESSIONS.name}", f"--log-file={self._logs}/%p.log"]
        return [_TOOL, *_OPTIONS, *files, *words]


def nowhere():
    """Returns the place for programs that are not under test."""
    return Place("", "", "")


def place_in(sandbox):
    """Prepares a new sandbox. Returns its place."""
    if DECIMAL_MARK:
        shutil.copy(_SHIM, sandbox.path("/mnt"))
        _bind(sandbox, os.environ["LOCPATH"], "/mnt/locales")
    if MEMCHECK:
        _bind(sandbox, _new_folder(), "/mnt/memcheck")
    return Place(f"/mnt/{_SHIM.name}", "/mnt/locales", "/mnt/memcheck")


def _bind(sandbox, folder, inside):
    sandbox.path(inside).mkdir()
    sandbox.run("mount", "--bind", Path(folder).resolve(), inside)


#  Memcheck's logs. There is one folder per sandbox, because pids are unique only there, and one for programs outside.

_folders = []


def _new_folder():
    folder = Path(tempfile.mkdtemp(prefix="addrpubd-memcheck-"))
    folder.chmod(0o1777)
    shutil.copy(_SUPPRESSIONS, folder)
    (folder / _SUPPRESSIONS.name).chmod(0o644)
    _folders.append(folder)
    atexit.register(shutil.rmtree, folder, ignore_errors=True)
    return folder


def outside():
    """Returns the place for programs that run outside sandboxes."""
    global _outside
    if _outside is None:
        _outside = Place(_SHIM.resolve(), os.environ.get("LOCPATH", ""), _new_folder() if MEMCHECK else "")
    return _outside


_outside = None


def descriptors(folder):
    """Returns the open descriptors in the fd folder of a process, except those of memcheck: its log and numbers from
    1000 on."""
    numbers = [int(entry.name) for entry in folder.iterdir()]
    if not MEMCHECK:
        return numbers
    links = {number: os.readlink(folder / str(number)) for number in numbers}
    return [number for number, link in links.items() if number < 1000 and not link.startswith("/mnt/memcheck/")]


def memory_errors():
    """Returns the errors that memcheck has found since the last call, in any process."""
    found = []
    for folder in _folders:
        for log in folder.glob("*.log"):
            if log.stat().st_size:
                found.append(log.read_text(errors="backslashreplace"))
                log.write_text("")
    return "\n".join(found)


def tally(reporter):
    """Appends the results of a pytest run to the tally."""
    if TALLY is None:
        return
    with open(TALLY, "a") as file:
        for kind in ("passed", "failed", "error", "skipped"):
            for report in reporter.stats.get(kind, []):
                reason = report.longrepr[2] if kind == "skipped" else ""
                record = {"test": report.nodeid, "outcome": kind, "reason": reason.removeprefix("Skipped: ")}
                file.write(json.dumps(record) + "\n")
        processes = sum(1 for folder in _folders for _ in folder.glob("*.log"))
        file.write(json.dumps({"memcheck": processes}) + "\n")
