"""All commands of docs/user/fleet.md, with six Redis nodes, two name servers and three hosts (fleet_machines.py).

The sections in SERVERS and HOSTS are executed once, in the order of the page, for all tests that run together. Each
other section with commands has at least one test.
"""

import contextlib
import itertools
import re
import shutil
import signal
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

PAGE = Path(__file__).parents[2] / "docs/user/fleet.md"
ZONE = "fleet.example.org"
SERVERS = ("A fleet of a thousand hosts", "Certificates", "Redis", "Name servers")
HOSTS = "Hosts"
ALIVE, PROMOTION, RETIREMENT = "Is a host alive?", "When a name server died", "Retire hosts"
REDIS = "./redis-as {} -c -h redis.example.org {}"


def sections():
    """Returns the code blocks of each section that has code blocks, without their indentation."""
    found = {}
    for title, text in re.findall(r"^#+ (.*)\n((?:(?!#).*\n)*)", PAGE.read_text(), re.MULTILINE):
        runs = re.findall(r"(?:^ {4}.*\n|^\n(?= {4}))+", text, re.MULTILINE)
        if runs:
            found[title] = ["".join(line[4:] + "\n" for line in run.strip("\n").split("\n")) for run in runs]
    return found


def key(kind, name):
    return f"'rdb:{kind}:{{{name}.{ZONE}}}'"


class Fleet:
    """The sections in SERVERS and HOSTS have been executed, and each host has published its address."""

    def __init__(self):
        self.sandbox = Sandbox()
        self.output = {}
        try:
            self.machines = Machines(self.sandbox)
            self._set_up()
        except BaseException:
            self.close()
            raise

    def close(self):
        self.sandbox.close()

    def _set_up(self):
        self.addresses = {name: f"2001:db8::{number}" for number, name in enumerate(("host1", "host2", "host3"), 1)}
        for name, address in self.addresses.items():
            self.machines.run(name, f"ip address add {address}/64 dev eth0 nodad")
        for title in SERVERS:
            self.output[title] = "".join(self.run(block) for block in sections()[title])
        self.run("touch addrpubd_1.0.4_amd64.deb")
        self.machines.start_clock()
        self.output[HOSTS] = "".join(self.run(block) for block in sections()[HOSTS])
        assert "not started" not in self.output[HOSTS], self.output[HOSTS]
        self.controls = {}
        for name in self.addresses:
            self.machines.wait_log(name, "addrpubd", "connect rdb server", "connect dns server")
            self.controls[name] = self.machines.clock_of(name)
            self.controls[name].advance(0.1)

    def run(self, script):
        """Runs a script on the administrator's machine. It must succeed. Returns its output."""
        return self.machines.run("admin", script)

    def redis(self, user, words):
        return self.run(REDIS.format(user, words)).splitlines()

    def value(self, name):
        return self.redis("reader", f"hmget {key('value', name)} value")[0]

    def count_nodes(self, role):
        return sum(role in line.split()[2] for line in self.redis("admin", "cluster nodes"))

    def zone(self, server):
        """Returns the zone of a name server without its SOA record, as sorted lines OWNER TYPE DATA."""
        tls = f"+tls-ca=ca.pem +tls-hostname={server}.example.org"
        answer = self.run(f"dig @{server}.example.org {tls} -k keys/transfer +noall +answer {ZONE} AXFR")
        records = [line.split(None, 4) for line in answer.splitlines() if not line.startswith(";")]
        return sorted(f"{owner} {kind} {data}" for owner, _, _, kind, data in records if kind != "SOA")

    def records(self, name):
        address = self.addresses[name]
        return [f"{name}.{ZONE}. AAAA {address}", f"{name}.{ZONE}. HTTPS 1 . ipv6hint={address}"]

    def has_records(self, server, *names):
        """Returns whether a name server has exactly the records of these hosts, and those of the zone itself."""
        expected = [line for name in names for line in self.records(name)]
        return [line for line in self.zone(server) if " NS " not in line] == sorted(expected)

    def wait_records(self, server, *names):
        wait_until(lambda: self.has_records(server, *names), f"the records of {names} at {server}")

    def written(self, name, server):
        return set(self.records(name)) <= set(self.zone(server))

    def run_until_written(self, name, server):
        """Runs cycles of a host's service until a name server has the records. The service sends no update in a cycle
        in which it is not connected. Each cycle advances the clock of the service by 10 s. The function makes fifty
        queries for each cycle, so that this clock stays ahead by less than the 300 s for which signatures are
        valid."""
        queries = itertools.count()

        def written():
            if next(queries) % 50 == 0:
                self.controls[name].advance(10)
            return self.written(name, server)

        wait_until(written, f"the records of {name} at {server}")

    def expire(self, name):
        """Makes a host's keys expire after 1 ms. Before, their remaining time must fit the option `expire` of the
        url."""
        for kind in ("tag", "value", "history"):
            (left,) = self.redis("admin", f"ttl {key(kind, name)}")
            assert 1700 < int(left) <= 1800
            self.redis("admin", f"pexpire {key(kind, name)} 1")
        wait_until(lambda: self.redis("reader", f"exists {key('value', name)}") == ["0"], f"the end of {name}")

    def update(self, changes, keyfile, server="ns1"):
        """Changes the zone by hand. Returns the output of nsupdate, which is empty on success."""
        words = f"server {server}.example.org\nzone {ZONE}\n{changes}\nsend\n"
        return self.run(f"nsupdate -k {keyfile} <<'END' 2>&1 || true\n{words}END")

    @contextlib.contextmanager
    def changed_file(self, name, text):
        """Changes the text of a file in the administrator's folder. Restores the file at the end of the with block."""
        self.run(f"mv {name} saved; echo '{text}' >{name}")
        yield
        self.run(f"mv saved {name}")

    def change_address(self, name, address):
        """Replaces the address of a host. Its service detects this."""
        before, self.addresses[name] = self.addresses[name], address
        self.machines.run(name, f"ip address add {address}/64 dev eth0 nodad; ip address del {before}/64 dev eth0")
        self.controls[name].advance(10)


@pytest.fixture(scope="module")
def fleet():
    require_redis()
    require_names(Bind)
    if not open_library.has(BUILD, "rediss", "dns-tls") or not (BUILD / "addrpubd-check").exists():
        pytest.skip("the checker was not built, or the open client library was built without rediss or dns-tls")
    if not all(map(shutil.which, ("openssl", "setpriv", "ss", "rndc-confgen", "nsupdate", "tsig-keygen"))):
        pytest.skip("openssl, setpriv, ss, rndc-confgen, nsupdate or tsig-keygen is not installed")
    one = Fleet()
    yield one
    one.close()


def test_780_these_tests_name_every_section_with_commands():
    lines = [line for blocks in sections().values() for block in blocks for line in block.splitlines()]
    assert len(lines) == len(re.findall(r"^ {4}", PAGE.read_text(), re.MULTILINE))
    assert set(sections()) == {*SERVERS, HOSTS, ALIVE, PROMOTION, RETIREMENT}


def test_781_all_servers_have_the_addresses_of_each_host(fleet):
    assert "[OK] All 16384 slots covered." in fleet.output["Redis"]
    wait_until(lambda: [fleet.count_nodes(role) for role in ("master", "slave")] == [3, 3], "three replicas")
    for name in fleet.addresses:
        wait_until(lambda name=name: fleet.value(name) == fleet.addresses[name], f"{name} in the cluster")
    for server in ("ns1", "ns2"):
        fleet.wait_records(server, *fleet.addresses)


def test_782_one_read_shows_when_a_host_last_wrote(fleet):
    read, queries, _ = sections()[ALIVE]
    address = fleet.addresses["host1"]
    wait_until(lambda: fleet.value("host1") == address, "host1 in the cluster")
    value, confirmed = fleet.run(read).splitlines()
    assert (value, 0 <= time.time() - int(confirmed) / 1000 < 60) == (address, True)
    fleet.wait_records("ns2", *fleet.addresses)
    assert fleet.run(queries).splitlines() == [address] * 2


@pytest.mark.refusal
def test_783_commands_without_permission_are_refused(fleet):
    fleet.wait_records("ns1", *fleet.addresses)
    output = fleet.run(f"set +e\n{sections()[ALIVE][2]}true")
    reasons = re.findall(r"^(NOPERM|update failed: REFUSED|.)", output, re.MULTILINE)
    assert reasons == ["NOPERM", "NOPERM", "update failed: REFUSED"]
    assert fleet.value("host1") == fleet.addresses["host1"]
    assert fleet.redis("admin", "exists other") == ["0"]
    assert fleet.has_records("ns1", *fleet.addresses)


def test_784_only_records_of_a_host_that_redis_removed_leave_the_zone(fleet):
    stop, retire, schedule, withdraw = sections()[RETIREMENT]
    for server in ("ns1", "ns2"):
        fleet.wait_records(server, *fleet.addresses)
    many = [f"host{number}" for number in range(20, 40)]
    changes = [f"add {name}.{ZONE} 60 AAAA 2001:db8::99" for name in (*many, "other")]
    changes.append(f"add _8443._https.host2.{ZONE} 60 HTTPS 1 .")
    assert fleet.update("\n".join(changes), "keys/retire") == ""
    before = fleet.zone("ns1")
    fleet.run(stop)
    assert fleet.run(retire) == ""
    assert fleet.zone("ns1") == before
    fleet.expire("host2")
    with fleet.changed_file("reader.password", "wrong"):
        assert "Redis: NOAUTH" in fleet.run("./retire 2>&1 || true")
    with fleet.changed_file("names", "\n".join(["host1", "host2", *many])):
        assert "21 hosts are missing" in fleet.run("./retire 2>&1 || true")
    assert fleet.zone("ns1") == before
    assert fleet.run("./retire") == "host2\n"
    left = [line for line in before if not re.match(rf"(_8443\._https\.)?host2\.{ZONE}", line)]
    assert (len(left), fleet.zone("ns1")) == (len(before) - 3, left)
    wait_until(lambda: fleet.zone("ns2") == left, "the zone at ns2")
    assert fleet.run("./retire") == ""
    fleet.run(f"cp keys/host2.{ZONE} stolen\n{schedule}{withdraw}")
    fleet.run(sections()["Name servers"][-1])
    for server in ("ns1", "ns2"):
        assert "(BADKEY)" in fleet.update(f"del host2.{ZONE} AAAA", "stolen", server)
    assert fleet.run("cat names").split() == ["host1", "host3"]


@pytest.mark.failover  # dns
def test_785_the_secondary_replaces_the_primary_that_died(fleet):
    promote, return_as_secondary = sections()[PROMOTION]
    wait_until(lambda: fleet.written("host3", "ns1"), "the address of the last host at ns1")
    wait_until(lambda: fleet.zone("ns2") == fleet.zone("ns1"), "the zone at ns2")
    before = fleet.zone("ns2")
    primary, secondary = (fleet.machines.process(server, "named") for server in ("ns1", "ns2"))
    secondary.kill(signal.SIGSTOP)
    for number in range(10):  # so ns1 has a higher serial number than ns2 will reach in this test
        assert fleet.update(f"add lost{number}.{ZONE} 60 AAAA 2001:db8::99", "keys/retire") == ""
    primary.kill(signal.SIGKILL)
    primary.wait()
    secondary.kill(signal.SIGCONT)
    fleet.change_address("host1", "2001:db8::11")
    wait_until(lambda: fleet.value("host1") == "2001:db8::11", "the new address in the cluster")
    assert fleet.zone("ns2") == before
    fleet.run(promote)
    fleet.run_until_written("host1", "ns2")
    fleet.run(return_as_secondary)
    wait_until(lambda: fleet.zone("ns1") == fleet.zone("ns2"), "the zone at ns1")
    fleet.change_address("host3", "2001:db8::33")
    fleet.run_until_written("host3", "ns2")
    wait_until(lambda: fleet.written("host3", "ns1"), "the new address at ns1")
