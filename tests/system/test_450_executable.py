"""The dynamic section and the dynamic symbols of the executable: needed libraries, search path, exported and undefined
symbols."""

import re
import subprocess

from host import BUILD

USUAL = {"libc.so.6", "libm.so.6", "libstdc++.so.6", "libgcc_s.so.1"}
LOADERS = {"ld-linux-x86-64.so.2", "ld-linux-aarch64.so.1"}  # one is needed if thread-local storage is used


def readelf(*options):
    return subprocess.run(
        ["readelf", "--wide", *options, BUILD / "addrpubd"], capture_output=True, check=True, text=True
    ).stdout


def needed():
    return re.findall(r"\(NEEDED\).*\[(.*)\]", readelf("--dynamic"))


def test_451_the_client_library_is_needed_under_its_relative_name():
    assert needed().count("./librdbapix64.so") == 1


def test_452_all_other_needed_libraries_are_system_libraries():
    assert set(needed()) - USUAL - LOADERS - {"./librdbapix64.so"} == set()


def test_453_no_search_path_is_built_in():
    assert "RPATH" not in readelf("--dynamic") and "RUNPATH" not in readelf("--dynamic")


def test_454_no_symbol_of_the_cxx_library_is_exported():
    rows = [row.split() for row in readelf("--dyn-syms").splitlines()]
    exported = [row[7] for row in rows if len(row) >= 8 and row[4] in ("GLOBAL", "WEAK") and row[6] != "UND"]
    assert [name for name in exported if re.match(r"_Z|__cxa_|__gxx_|_Unwind_", name)] == []


def test_455_the_nine_functions_come_from_the_client_library():
    rows = [row.split() for row in readelf("--dyn-syms").splitlines()]
    undefined = {row[7] for row in rows if len(row) >= 8 and row[6] == "UND"}
    assert {name for name in undefined if name.startswith("rdb_")} == {
        "rdb_create",
        "rdb_setmessagenotify",
        "rdb_connectex",
        "rdb_callmsg",
        "rdb_tagget",
        "rdb_taginport",
        "rdb_objputsnapshot",
        "rdb_disconnect",
        "rdb_destory",
    }
