"""Hardening of the built files."""

import re
import subprocess

import pytest
from installation import BUILD, cached

REQUIRES = ("readelf",)

EXECUTABLES = ("addrpubd", "addrpubd-check")
MODULES = sorted(path.name for path in BUILD.glob("librdbapix64-*.so"))
PRODUCTS = (*EXECUTABLES, "librdbapix64.so", *MODULES)


def readelf(file, *options):
    command = ["readelf", "--wide", *options, BUILD / file]
    return subprocess.run(command, capture_output=True, check=True, text=True).stdout


@pytest.mark.parametrize("file", EXECUTABLES)
def test_521_executables_are_position_independent(file):
    assert re.search(r"Type:\s+DYN \(Position-Independent Executable file\)", readelf(file, "--file-header"))
    assert re.search(r"\(FLAGS_1\).*\bPIE\b", readelf(file, "--dynamic"))


@pytest.mark.parametrize("file", PRODUCTS)
def test_522_symbols_are_bound_at_the_start_and_the_relocation_table_is_read_only(file):
    assert re.search(r"\(FLAGS_1\).*\bNOW\b", readelf(file, "--dynamic"))
    assert "GNU_RELRO" in readelf(file, "--segments")


@pytest.mark.parametrize("file", PRODUCTS)
def test_523_the_stack_is_not_executable(file):
    stack = re.search(r"GNU_STACK .*", readelf(file, "--segments"))
    assert stack and re.search(r" RW +0x", stack.group())


@pytest.mark.parametrize("file", PRODUCTS)
def test_524_no_segment_is_writable_and_executable(file):
    assert not re.search(r"LOAD .* RWE ", readelf(file, "--segments"))
    assert "TEXTREL" not in readelf(file, "--dynamic")


@pytest.mark.parametrize("file", PRODUCTS)
def test_525_functions_with_buffers_have_a_stack_protector(file):
    assert re.search(r" UND +__stack_chk_fail@", readelf(file, "--dyn-syms"))


@pytest.mark.parametrize("file", PRODUCTS)
def test_526_checked_functions_are_called_if_configured(file):
    called = re.search(r" UND +__v?f?s?n?printf_chk@", readelf(file, "--dyn-syms")) is not None
    assert called == (cached("ADDRPUBD_FORTIFY") == "ON")


@pytest.mark.parametrize(
    "object_file",
    [
        "service/CMakeFiles/service.dir/daemon.cpp.o",
        "com/olklib3/CMakeFiles/olklib3.dir/olk_allocator.cpp.o",
        "rdbapi/open/CMakeFiles/rdbopen_core.dir/rdbapi.cpp.o",
    ],
)
def test_527_targets_of_indirect_jumps_are_marked(object_file):
    assert "x86 feature: IBT, SHSTK" in readelf(object_file, "--notes")
