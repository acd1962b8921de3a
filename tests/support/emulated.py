"""The tests that are left out when qemu-user runs a build for another processor, with the reasons (scripts/arm64).

    emulated.py regex           prints a regular expression that matches the names of these unit tests in ctest
    emulated.py report TALLY    prints the tests that were left out: the unit tests among those in the list on standard
                                input (the output of ctest -N), and the skipped system tests in the file TALLY, which
                                surroundings.py has written. Fails if no unit test begins with the text of a row of
                                UNIT, for example because the test was renamed.
"""

import json
import re
import sys
from pathlib import Path

_NEW_PROCESS = "the test starts itself again, which needs an emulator that the kernel starts"
_MESSAGE = "the emulator adds a message to that of the program that aborts"
_NO_LIMIT = "the emulator does not limit the address space (RLIMIT_AS)"
_REAL_TIME = "the test counts what happens in a short real time; the emulator is too slow"
_SLOW = "the test has many thousand inputs, which takes more than five minutes under the emulator"
_BY_PYTHON = "the Python of this machine loads the client library"
_BY_SHELL = "a shell starts the executable, so the test cannot start the emulator instead"
_OTHER_FILE = "the folder of the service is found by the name of its executable, which is the emulator"

#  Prefixes of the names of unit tests that are left out, with the reason.
UNIT = {
    "BlkAlloctorDeathTest.": _MESSAGE,
    "AllocatorLimitDeathTest.": _NO_LIMIT,
    "AfterMicroseconds/ExitInHandler.": _NEW_PROCESS,
    "OpenTlsDeathTest.OpenSslWorksDuringExit": _NEW_PROCESS,
    "OpenTlsDeathTest.TheConfigurationOfOpenSslIsNotRead": _NEW_PROCESS,
    "RedisSignal.MayEndTheHandleAtAnyMomentWithSentinels": _REAL_TIME,
    "OpenDnsBackend.ACheckHasTenSecondsForAllItsQueries": _REAL_TIME,
    "JsonReserved.EveryByteAtEveryPlaceMatchesPiecewiseWriting": _SLOW,
    "IniModel.": _SLOW,
    "PortListModel.": _SLOW,
    "LocalAddressesModel.": _SLOW,
    "PublishModel.": _SLOW,
}

#  Prefixes of the names of system tests that are left out, with the reason.
SYSTEM = {
    "test_309_": _BY_SHELL,
    "test_310_": _BY_SHELL,
    "test_335_": _BY_SHELL,
    "test_765_": _BY_SHELL,
    "test_766_": _BY_SHELL,
    "test_832_": _BY_SHELL,
    "test_1825_": _BY_SHELL,
    "test_863_": _OTHER_FILE,
    "test_700_": _BY_PYTHON,
    "test_701_": _BY_PYTHON,
    "test_702_": _BY_PYTHON,
    "test_725_": _BY_PYTHON,
    "test_726_": _BY_PYTHON,
    "test_727_": _BY_PYTHON,
    "test_821_": _BY_PYTHON,
    "test_822_": _BY_PYTHON,
    "test_823_": _BY_PYTHON,
    "test_824_": _BY_PYTHON,
    "test_825_": _BY_PYTHON,
    "test_829_": _BY_PYTHON,
    "test_830_": _BY_PYTHON,
}


def unit_tests_left_out(names):
    """Returns (name, reason) of each unit test that is left out."""
    return [(name, reason) for name in names for start, reason in UNIT.items() if name.startswith(start)]


def report(listing, tally):
    names = re.findall(r"^ *Test +#\d+: (.*?) *$", listing, re.MULTILINE)
    rows = unit_tests_left_out(names)
    for start in UNIT:
        assert any(name.startswith(start) for name in names), f"no unit test starts with {start}"
    records = [json.loads(line) for line in Path(tally).read_text().splitlines()]
    rows += [(one["test"].split("::", 1)[1], one["reason"]) for one in records if one.get("outcome") == "skipped"]
    reasons = {}
    for name, reason in rows:
        reasons.setdefault(reason, []).append(name)
    for reason, left_out in reasons.items():
        print(f"{len(left_out)} tests left out: {reason}:", *left_out, sep="\n    ")


if __name__ == "__main__":
    if sys.argv[1] == "regex":
        print("^(" + "|".join(re.escape(start) for start in UNIT) + ")")
    else:
        report(sys.stdin.read(), sys.argv[2])
