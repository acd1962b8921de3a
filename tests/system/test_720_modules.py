"""The modules of the open client library: which are loaded, from which folder, and what happens if one is missing."""

import re
import shutil
import subprocess

import open_library
import pytest
from host import BUILD, DIRECTORY
from rdb_client import Syslog
from sandbox import wait_until

SETTINGS = {"rdburl": "sqlite:///mnt/data/rdb.db", "dnsurl": "hosts:///mnt/data/hosts"}
PLANTED = "/mnt/planted"

# Connects to a url in a process that loaded the library by its relative name and then changed its working directory.
CLIENT = """
import ctypes, os, sys
library = ctypes.CDLL("./librdbapix64.so")
os.chdir(sys.argv[1])
print(library.rdb_connectex(library.rdb_create(), sys.argv[2].encode(), b"u", b"p", 0))
"""
OK = 0
NOT_INSTALLED = 1020
NOT_LOADABLE = 1021


@pytest.fixture
def open_host(host):
    """A host with the open client library, one address, and settings that use files below /mnt/data."""
    if not open_library.has(BUILD, "sqlite", "hosts"):
        pytest.skip("the open client library was built without one of its back ends")
    open_library.install(BUILD, host.sandbox.path(DIRECTORY))
    host.sandbox.path("/mnt/data").mkdir()
    host.sandbox.path(PLANTED).mkdir()
    host.settings(**SETTINGS)
    host.sandbox.add_address("2001:db8::1/64")
    host.syslog = Syslog(host.sandbox)
    yield host
    host.syslog.close()


def module(host, name):
    return host.sandbox.path(f"{DIRECTORY}/librdbapix64-{name}.so")


def connect(host, url, folder="/"):
    """Returns the result of rdb_connectex for a program whose library search path contains PLANTED."""
    command = ["/usr/bin/python3", "-I", "-S", "-c", CLIENT, folder, url]
    environment = {"LD_LIBRARY_PATH": f"{PLANTED}:."}
    process = host.sandbox.spawn(*command, cwd=DIRECTORY, env=environment)
    output = process.all_output()
    assert process.wait() == 0
    return int(output)


def mapped(host):
    """Returns the names of the shared objects that the service has mapped."""
    pid = host.sandbox.path("/run/addrpubd.pid").read_text().strip()
    maps = host.sandbox.path(f"/proc/{pid}/maps").read_text()
    return set(re.findall(r"/([^/\n]+\.so[.\d]*)$", maps, re.MULTILINE))


def test_721_the_executable_needs_the_client_library_and_no_back_end(open_host):
    process = open_host.sandbox.spawn("./addrpubd", "-status", env={"LD_TRACE_LOADED_OBJECTS": "1"}, cwd=DIRECTORY)
    loaded = set(re.findall(r"^\s*(\S+)", process.all_output().decode(), re.MULTILINE))
    #  The environments in surroundings.py preload these two libraries.
    loaded = {name for name in loaded if not re.search("/(liblocaleshim|vgpreload_)", name)}
    system = {"linux-vdso.so.1", "libc.so.6", "libm.so.6", "/lib64/ld-linux-x86-64.so.2", "/lib/ld-linux-aarch64.so.1"}
    assert loaded - system == {"./librdbapix64.so"}


def test_722_a_service_that_uses_only_files_loads_no_library_for_servers(open_host):
    process = open_host.start("-run", tty=True)
    open_host.clock.of(process).wait_parked()
    process.wait_for_output(b"connect rdb server sqlite:///mnt/data/rdb.db success.\r\n")
    process.wait_for_output(b"connect dns server hosts:///mnt/data/hosts success.\r\n")
    names = mapped(open_host)
    process.kill()
    assert process.wait() == 0
    own = {name for name in names if name.startswith("librdbapix64")}
    assert own == {"librdbapix64.so", "librdbapix64-sqlite.so", "librdbapix64-hosts.so"}
    assert [name for name in names if re.match(r"lib(hiredis|ldns|ssl|crypto|stdc\+\+)", name)] == []


def test_723_a_background_service_with_another_working_directory_finds_its_modules(open_host):
    open_host.settings(**SETTINGS, logurl=None)
    parent = open_host.start("-start")
    parent_hand = open_host.clock.of(parent)
    parent_hand.wait_parked()
    pid = wait_until(lambda: next((pid for pid in open_host.clock.pids() if pid != parent.pid), None), "the service")
    service = open_host.sandbox.adopt(pid)
    open_host.clock.of(service).wait_parked()
    assert str(open_host.sandbox.path(f"/proc/{pid}/cwd").readlink()) != DIRECTORY
    names = mapped(open_host)
    parent_hand.let_run(31)
    assert b"Start success!" in parent.all_output()
    assert {"librdbapix64-sqlite.so", "librdbapix64-hosts.so"} <= names


def test_724_a_module_that_is_missing_is_named_and_the_service_does_not_start(open_host):
    module(open_host, "hosts").unlink()
    process = open_host.start("-run")
    output = process.all_output()
    assert b"connectex hosts:///mnt/data/hosts asynchronous connection failed" in output
    missing = f"{DIRECTORY}/librdbapix64-hosts.so"
    reason = f"the back end hosts is not installed: {missing} does not exist; install addrpubd again"
    assert [line for line in open_host.syslog.lines() if line.endswith(f"rdbapi: rdb_connectex: {reason}")]


@pytest.mark.parametrize("folder", ["/", PLANTED])
def test_725_a_module_is_loaded_only_from_the_folder_of_the_library(open_host, folder):
    assert connect(open_host, "sqlite:///mnt/data/rdb.db", folder) == OK
    shutil.move(module(open_host, "sqlite"), open_host.sandbox.path(PLANTED))
    assert connect(open_host, "sqlite:///mnt/data/rdb.db", folder) == NOT_INSTALLED


@pytest.mark.parametrize(
    "url",
    [
        "sqlite/../planted/x:///x",
        "../planted/librdbapix64-x:///x",
        "planted:///x",
        "planted+x:///x",
        "redis+planted:///x",
        "dns-tls://host/zone",
    ],
)
def test_726_an_unknown_scheme_is_rejected_even_if_a_file_has_its_name(open_host, url):
    shutil.copy(module(open_host, "sqlite"), open_host.sandbox.path(f"{PLANTED}/librdbapix64-x.so"))
    for name in ("planted", "planted-x", "redis-planted"):
        shutil.copy(module(open_host, "sqlite"), module(open_host, name))
    assert connect(open_host, url, PLANTED) in (1003, 1004)


def test_727_a_file_that_cannot_be_loaded_has_its_own_error_code(open_host):
    module(open_host, "sqlite").write_text("no shared object\n")
    assert connect(open_host, "sqlite:///mnt/data/rdb.db") == NOT_LOADABLE


def test_728_addrpubd_check_searches_modules_in_the_same_folder_as_the_service(open_host):
    shutil.copy(BUILD / "addrpubd-check", open_host.sandbox.path(DIRECTORY))
    check = (f"{DIRECTORY}/addrpubd-check", f"{DIRECTORY}/addrpubd.ini")
    assert b"not installed" not in open_host.sandbox.spawn(*check).all_output()
    module(open_host, "hosts").unlink()
    output = open_host.sandbox.spawn(*check).all_output()
    text = f"dnsurl: the back end hosts is not installed: {DIRECTORY}/librdbapix64-hosts.so does not exist"
    assert text.encode() in output


@pytest.mark.parametrize(
    "name, libraries",
    [
        ("sqlite", {"libsqlite3"}),
        ("hosts", set()),
        ("redis", {"libhiredis"}),
        ("rediss", {"libhiredis", "libssl", "libcrypto"}),
        ("dns", {"libldns", "libnettle"}),
        ("dns-tls", {"libldns", "libnettle", "libssl", "libcrypto"}),
        ("dyndns2-https", {"libcurl", "libssl", "libcrypto"}),
    ],
)
def test_729_a_module_needs_the_libraries_of_its_back_end_only(name, libraries):
    if not open_library.has(BUILD, name):
        pytest.skip("the open client library was built without this back end")
    command = ["readelf", "--wide", "--dynamic", BUILD / f"librdbapix64-{name}.so"]
    rows = subprocess.run(command, capture_output=True, check=True, text=True).stdout
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\.so", rows))
    assert needed - {"libc", "ld-linux-x86-64", "ld-linux-aarch64"} == libraries
