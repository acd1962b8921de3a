"""All commands of docs/user/quickstart.md, each block as it is in the page, on the machines of fleet_machines.py."""

import re
import shutil
import time
from pathlib import Path

import open_library
import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import require as require_names  # noqa: E402
from dns_servers import Bind  # noqa: E402
from fleet_machines import Machines  # noqa: E402
from host import BUILD  # noqa: E402
from redis_bed import require as require_redis  # noqa: E402
from sandbox import Sandbox, wait_until  # noqa: E402

PAGE = Path(__file__).parents[2] / "docs/user/quickstart.md"
INSTALLATION, ONE, DNSMASQ, NAMES, FLEET = (
    "Quick starts", "One host", "A local network with dnsmasq", "Your own name server", "A fleet"
)
NAME = "host1.home.example.org"
ADDRESS = "2001:db8::1"


def sections():
    """Returns the code blocks of each section that has code blocks, without their indentation."""
    found = {}
    for title, text in re.findall(r"^#+ (.*)\n((?:(?!#).*\n)*)", PAGE.read_text(), re.MULTILINE):
        runs = re.findall(r"(?:^ {4}.*\n)+", text, re.MULTILINE)
        if runs:
            found[title] = [re.sub("^ {4}", "", run, flags=re.MULTILINE) for run in runs]
    return found


@pytest.fixture(scope="module")
def machines():
    require_redis()
    require_names(Bind)
    if not open_library.has(BUILD, "sqlite") or not (BUILD / "addrpubd-check").exists():
        pytest.skip("the checker was not built, or the open client library was built without sqlite")
    if not all(map(shutil.which, ("dnsmasq", "openssl", "setpriv", "ss", "sqlite3", "rndc-confgen", "tsig-keygen"))):
        pytest.skip("dnsmasq, openssl, setpriv, ss, sqlite3, rndc-confgen or tsig-keygen is not installed")
    sandbox = Sandbox()
    try:
        network = Machines(sandbox)
        network.start_clock()
        yield network
    finally:
        sandbox.close()


def install(machines, host):
    """Gives a machine its address and installs the package as the page does."""
    machines.run(host, f"touch addrpubd_1.0.4_amd64.deb; ip address add {ADDRESS}/128 dev lo nodad")
    machines.run(host, sections()[INSTALLATION][0])


def start(machines, host, script, *servers):
    """Runs a script that starts the service, waits until these servers are connected, and runs the first cycle."""
    output = machines.run(host, script)
    assert "no findings" in output, output
    machines.wait_log(host, "addrpubd", *(f"connect {server} server" for server in servers))
    machines.clock_of(host).advance(0.1)


def wait_output(machines, host, script, expected):
    wait_until(lambda: machines.run(host, script).splitlines() == expected, f"{expected} from {script}")


def test_790_these_tests_name_every_section_with_commands_and_its_blocks_are_short():
    blocks = [block for section in sections().values() for block in section]
    assert sum(block.count("\n") for block in blocks) == len(re.findall(r"^ {4}", PAGE.read_text(), re.MULTILINE))
    assert set(sections()) == {INSTALLATION, ONE, DNSMASQ, NAMES, FLEET}
    assert max(block.count("\n") for block in blocks) <= 10


def test_791_one_host_writes_two_files(machines):
    start_one, show = sections()[ONE]
    install(machines, "host1")
    start(machines, "host1", start_one, "rdb", "dns")
    wait_output(machines, "host1", show, [f"{NAME}|{ADDRESS}", f"{ADDRESS} {NAME} # addrpubd {NAME}"])


def test_792_dnsmasq_answers_with_the_address(machines):
    start_names, query = sections()[DNSMASQ]
    install(machines, "host2")
    start(machines, "host2", start_names, "dns")
    wait_output(machines, "host2", query, [ADDRESS])
    machines.run("host2", f"ip address add 2001:db8::2/128 dev lo nodad; ip address del {ADDRESS}/128 dev lo")
    machines.clock_of("host2").advance(10)
    wait_output(machines, "host2", query, ["2001:db8::2"])


def test_793_a_host_of_the_fleet_writes_to_its_name_server_and_to_redis(machines):
    serve, publish, query = sections()[NAMES]
    store, publish_there, read = sections()[FLEET]
    machines.run("ns1", serve)
    install(machines, "host3")
    start(machines, "host3", publish, "dns")
    wait_output(machines, "host3", query, [ADDRESS])
    machines.run("redis1", store)
    before = machines.process("host3", "addrpubd")
    start(machines, "host3", publish_there, "rdb", "dns")
    assert not before.running()
    wait_until(lambda: machines.run("redis1", read).splitlines()[0] == ADDRESS, "the address in Redis")
    assert 0 <= time.time() - int(machines.run("redis1", read).splitlines()[1]) / 1000 < 60
