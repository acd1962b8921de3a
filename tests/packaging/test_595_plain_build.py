"""A build without the options of developers, as in the README. It builds no tests, and prints which back ends were left
out."""

import subprocess

import pytest
from installation import SOURCE

REQUIRES = ("cmake", "make", "c++", "ctest", "dpkg-query")

# Simulates a machine without the libraries that back ends need.
NOTHING_INSTALLED = [
    "-DCMAKE_DISABLE_FIND_PACKAGE_SQLite3=ON",
    "-DCMAKE_DISABLE_FIND_PACKAGE_nlohmann_json=ON",
    "-DHIREDIS_LIBRARY=",
    "-DLDNS_LIBRARY=",
    "-DNETTLE_LIBRARY=",
    "-DCMAKE_DISABLE_FIND_PACKAGE_OpenSSL=ON",
    "-DCMAKE_DISABLE_FIND_PACKAGE_CURL=ON",
]


# The packages of Debian that each back end needs.
BACK_ENDS = {
    "sqlite": "libsqlite3-dev",
    "hosts": "nlohmann-json3-dev",
    "redis": "libhiredis-dev",
    "rediss": "libhiredis-dev libssl-dev",
    "dns": "libldns-dev nettle-dev nlohmann-json3-dev",
    "dns-tls": "libldns-dev nettle-dev nlohmann-json3-dev libssl-dev",
    "dyndns2-https": "libcurl4-openssl-dev nlohmann-json3-dev libssl-dev",
}


def output(*words, **options):
    done = subprocess.run(words, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False, **options)
    assert done.returncode == 0, done.stdout
    return done.stdout


def targets(build):
    return {line.removeprefix("... ") for line in output("cmake", "--build", build, "--target", "help").splitlines()}


@pytest.fixture(scope="module")
def plain(tmp_path_factory):
    """Returns a build folder and the output of `cmake --build`."""
    build = tmp_path_factory.mktemp("plain")
    output("cmake", "-S", SOURCE, "-B", build, "-DCMAKE_BUILD_TYPE=Release", *NOTHING_INSTALLED)
    return build, output("cmake", "--build", build, "--parallel", "2")


def test_595_a_plain_build_builds_the_program_and_no_test(plain):
    build, _ = plain
    made = {path.name for path in build.iterdir()}
    assert {"addrpubd", "addrpubd-check", "addrpubd.ini", "librdbapix64.so"} <= made
    assert "tests" not in made
    assert "No tests were found" in output("ctest", "--test-dir", build)
    assert "addrpubd for linux ver" in output("./addrpubd", "-ver", cwd=build)


def test_596_the_build_prints_what_was_left_out_and_the_packages(plain):
    _, text = plain
    lines = [line for line in text.splitlines() if "Built target left_out" not in line]
    assert lines[-2:] == [
        "Back ends left out of this build: sqlite, hosts, redis, rediss, dns, dns-tls, dyndns2-https",
        "To include them, install these packages, then configure and build again: "
        "libsqlite3-dev nlohmann-json3-dev libhiredis-dev libssl-dev libldns-dev nettle-dev libcurl4-openssl-dev",
    ]


@pytest.mark.parametrize(
    "url, packages",
    [
        ("sqlite:///x", "libsqlite3-dev"),
        ("hosts:///x", "nlohmann-json3-dev"),
        ("redis://h", "libhiredis-dev"),
        ("redis+unix:///s", "libhiredis-dev"),
        ("redis+cluster://h", "libhiredis-dev"),
        ("rediss://h", "libhiredis-dev libssl-dev"),
        ("rediss+cluster://h", "libhiredis-dev libssl-dev"),
        ("redis+sentinel://h/m", "libhiredis-dev"),
        ("rediss+sentinel://h/m", "libhiredis-dev libssl-dev"),
        ("dns://s/z", "libldns-dev nettle-dev nlohmann-json3-dev"),
        ("dns+tls://s/z", "libldns-dev nettle-dev nlohmann-json3-dev libssl-dev"),
        ("dyndns2+https://h/p", "libcurl4-openssl-dev nlohmann-json3-dev libssl-dev"),
    ],
)
def test_597_the_checker_prints_the_packages_of_a_missing_back_end(plain, tmp_path, url, packages):
    ini = tmp_path / "addrpubd.ini"
    ini.write_text(f"hostname = h\nrdburl = {url}\nrdbuser = u\nrdbpswd = p\n")
    ini.chmod(0o600)
    done = subprocess.run([plain[0] / "addrpubd-check", ini], capture_output=True, text=True, check=False)
    assert done.returncode == 2
    assert f"; to include it, install {packages} and build again\n" in done.stdout


def test_598_the_preset_release_builds_no_test_even_where_tests_were_built(tmp_path):
    output("cmake", "--preset", "release-tests", "-B", tmp_path, cwd=SOURCE)
    assert "clockshim" in targets(tmp_path)
    output("cmake", "--preset", "release", "-B", tmp_path, cwd=SOURCE)
    assert "clockshim" not in targets(tmp_path)
    assert "addrpubd" in targets(tmp_path)


def installed(package):
    """Returns whether Debian's package is installed."""
    shown = subprocess.run(
        ["dpkg-query", "--show", "--showformat=${db:Status-Status}", package],
        capture_output=True,
        check=False,
        text=True,
    )
    return shown.stdout == "installed"


def test_599_a_build_leaves_out_only_back_ends_whose_packages_are_not_installed(tmp_path):
    output("cmake", "--preset", "release", "-B", tmp_path, cwd=SOURCE)
    possible = {name for name, packages in BACK_ENDS.items() if all(map(installed, packages.split()))}
    made = targets(tmp_path)
    assert {name for name in BACK_ENDS if f"rdbapix64-{name}" in made} == possible
    assert ("left_out" in made) == (possible != set(BACK_ENDS))
