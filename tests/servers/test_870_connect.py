"""addrpubd-check --connect with real servers: it reports refusals and differences, and changes nothing."""

from pathlib import Path

import open_library
import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

import redis_bed  # noqa: E402
import test_746_redis_cluster as cluster_tests  # noqa: E402
from certificates import Authority  # noqa: E402
from dns_bed import OK  # noqa: E402
from dns_cases import fixture  # noqa: E402
from dns_servers import HOST_KEY, NAME, READER, ZONE, PowerDns, SecondaryBind, TlsBind, secret  # noqa: E402
from host import BUILD  # noqa: E402
from remove_bed import Settings, marked  # noqa: E402
from sandbox import Sandbox  # noqa: E402
from test_770_dns_pointers import REVERSE, ReverseBind, ReverseKnot  # noqa: E402

__all__ = ["fixture"]

A, B = "2001:db8::a", "2001:db8::b"
UPDATE = f"update the records of {NAME}"
PROVIDER = Path(__file__).parent.parent / "support" / "dyndns_provider.py"


def dns_settings(fixture, options="", password=None, server="127.0.0.1", **more):
    fixture.sandbox.path("/mnt/resolv.conf").write_text("nameserver 127.0.0.1\n")
    fixture.sandbox.run("mount", "--bind", "/mnt/resolv.conf", "/etc/resolv.conf")
    values = {"dnsurl": f"dns://{server}/{ZONE}{options}", "dnsuser": HOST_KEY}
    return Settings(fixture.sandbox, "host1", **(values | {"dnspswd": password or secret(HOST_KEY)} | more))


def publish(fixture, addresses, options=""):
    fixture.connected(options)
    assert fixture.update(addresses, [443]) == (OK, "ok")
    fixture.client.close()
    fixture.client = None


class ConnectCases:
    def test_870_equal_servers_are_reported_as_such(self, fixture):
        fixture.sandbox.add_address(A + "/64")
        publish(fixture, [A])
        before = fixture.server.lines()
        status, output = dns_settings(fixture).check("--connect")
        assert status == 0, output
        assert output[0] == f"this host has {A}"
        assert marked("allowed", output) == [UPDATE]
        assert marked("expect", output) == [A]
        assert marked("has", output) == [A, A]  # in the server and from the resolver
        assert fixture.server.lines() == before

    def test_871_a_difference_is_explained(self, fixture):
        fixture.sandbox.add_address(B + "/64")
        publish(fixture, [A])
        status, output = dns_settings(fixture).check("--connect")
        assert (status, marked("expect", output), marked("has", output)) == (1, [B], [A, A])
        assert marked("differs", output) == ["the service does not run on this machine, so nothing is written"]

    @pytest.mark.refusal
    def test_872_a_refused_update_is_found_without_a_change(self, fixture):
        fixture.sandbox.add_address(A + "/64")
        publish(fixture, [A])
        before = fixture.server.lines()
        self.refuse(fixture)
        status, output = dns_settings(fixture).check("--connect")
        assert status == 1
        assert self.refused(output), output
        assert marked("allowed", output) == []
        assert fixture.server.lines() == before

    def refuse(self, fixture):
        fixture.change_server(allowed=["host2." + ZONE])

    def refused(self, output):
        return marked("refused", output)[0].startswith(f"{UPDATE}: ")

    @pytest.mark.refusal
    def test_873_a_wrong_secret_is_found_and_not_shown(self, fixture):
        status, output = dns_settings(fixture, password=secret("wrong")).check("--connect")
        assert (status, len(marked("failed", output))) == (1, 1)
        assert secret("wrong") not in "\n".join(output)

    def test_874_addresses_that_the_options_skip_are_not_expected(self, fixture):
        fixture.sandbox.add_address(A + "/64")
        fixture.sandbox.add_address("fd00::c/64")
        publish(fixture, [A])
        status, output = dns_settings(fixture, "?skip=ula").check("--connect")
        assert (status, marked("expect", output)) == (0, [A]), output


class TestBindConnect(ConnectCases):
    Server = ReverseBind

    @pytest.mark.refusal
    def test_875_a_type_that_the_policy_lacks_is_named(self, fixture):
        fixture.change_server(types="AAAA")
        status, output = dns_settings(fixture).check("--connect")
        assert status == 1
        assert [text.split(":")[0] for text in marked("refused", output)] == [UPDATE, f"update {NAME} HTTPS"]
        assert marked("allowed", output) == [f"update {NAME} AAAA"]

    @pytest.mark.refusal
    def test_876_the_permission_in_the_reverse_zone_is_checked(self, fixture):
        option = f"?ptr={REVERSE}"
        fixture.sandbox.add_address(A + "/64")
        publish(fixture, [A], option)
        question = f"update PTR records in {REVERSE}"
        status, output = dns_settings(fixture, option).check("--connect")
        assert (status, marked("allowed", output)) == (0, [UPDATE, question]), output
        fixture.change_server(reverse_updates=False)
        status, output = dns_settings(fixture, option).check("--connect")
        assert (status, marked("refused", output)[0].startswith(f"{question}: REFUSED")) == (1, True)

    def test_877_differing_records_are_found_even_if_the_addresses_are_equal(self, fixture):
        fixture.sandbox.add_address(A + "/64")
        publish(fixture, [A])
        status, output = dns_settings(fixture, ports="443, 8443").check("--connect")
        assert (status, len(marked("differs", output))) == (1, 1)
        assert "HTTPS or PTR records" in marked("differs", output)[0]

    def test_878_a_resolver_that_does_not_answer_is_reported(self, fixture):
        fixture.sandbox.add_address(A + "/64")
        publish(fixture, [A])
        one = dns_settings(fixture)
        fixture.sandbox.path("/mnt/resolv.conf").write_text("nameserver 127.0.0.9\n")
        status, output = one.check("--connect")
        assert (status, marked("failed", output)) == (1, ["the resolver does not answer or has failed"])

    @pytest.mark.refusal
    def test_879_a_secondary_server_takes_no_updates(self, fixture):
        secondary = SecondaryBind(fixture.sandbox)
        secondary.start()
        status, output = dns_settings(fixture, server=secondary.address).check("--connect")
        assert status == 1
        assert marked("refused", output)[0].startswith(f"{UPDATE}: ")
        status, output = dns_settings(fixture, server=f"{secondary.address},127.0.0.1").check("--connect")
        assert marked("allowed", output) == [UPDATE]


class TestKnotConnect(ConnectCases):
    Server = ReverseKnot

    def refused(self, output):
        return "BADKEY" in marked("refused", output)[0] or "NOTAUTH" in "\n".join(output)


class TestPowerDnsConnect(ConnectCases):
    Server = PowerDns

    def refuse(self, fixture):
        fixture.server.tool("set-meta", ZONE, "TSIG-ALLOW-DNSUPDATE", READER)

    def refused(self, output):
        return "REFUSED" in "\n".join(output)


class TestTlsConnect:
    Server = TlsBind

    def test_8400_over_tls_equal_records_are_found_and_can_be_removed(self, fixture):
        if not open_library.has(BUILD, "dns-tls"):
            pytest.skip("the open client library was built without its back end dns-tls")
        fixture.sandbox.add_address(A + "/64")
        publish(fixture, [A])
        ca = fixture.server.authority.certificate
        one = dns_settings(fixture, dnsurl=f"dns+tls://127.0.0.1/{ZONE}?ca={ca}")
        status, output = one.check("--connect")
        assert (status, marked("allowed", output)) == (0, [UPDATE]), output
        status, output = one.check("--remove", "--yes")
        assert (status, fixture.server.published()) == (0, [])


@pytest.fixture
def redis():
    redis_bed.require()
    one = redis_bed.Fixture()
    one.server.start()
    one.sandbox.add_address(A + "/64")
    one.connected()
    one.register(A)
    one.end_client()
    yield one
    one.close()


def redis_settings(sandbox, url="redis://127.0.0.1?expire=900", user="default", password="any"):
    return Settings(sandbox, "host1", rdburl=url, rdbuser=user, rdbpswd=password)


def changes(server):
    return [line for line in server.command("INFO", "persistence").split() if line.startswith("rdb_changes")]


def test_8401_a_database_that_has_the_addresses_is_equal_and_stays_unchanged(redis):
    before = changes(redis.server)
    status, output = redis_settings(redis.sandbox).check("--connect")
    assert (status, marked("allowed", output)) == (0, ["write the keys of host1"]), output
    assert (marked("expect", output), marked("has", output)) == ([A], [A])
    assert changes(redis.server) == before


@pytest.mark.refusal
def test_8402_missing_permissions_are_named(redis):
    permissions = "~rdb:*:{host1} &rdb:changed:{host1} +ping +client|setname +evalsha +eval +hmget +type +time +hset"
    redis.server.command("ACL", "SETUSER", "host1", "on", ">hunter2", *permissions.split())
    before = changes(redis.server)
    status, output = redis_settings(redis.sandbox, user="host1", password="hunter2").check("--connect")
    assert status == 1
    assert marked("refused", output)[0].endswith(": +rpush +ltrim +expire +publish")
    redis.server.command("ACL", "SETUSER", "host1", "+rpush", "+ltrim", "+publish", "+expire")
    assert redis_settings(redis.sandbox, user="host1", password="hunter2").check("--connect")[0] == 0
    redis.server.command("ACL", "SETUSER", "host1", "resetchannels")
    status, output = redis_settings(redis.sandbox, user="host1", password="hunter2").check("--connect")
    assert (status, marked("refused", output)[0].endswith(": +publish")) == (1, True)
    assert changes(redis.server) == before


@pytest.mark.refusal
@pytest.mark.parametrize("history", ["", "&history=0"])
def test_8403_a_replica_takes_no_writes(redis, history):
    if history:
        redis.server.command("DEL", "rdb:history:{host1}")
    redis.server.command("REPLICAOF", "127.0.0.1", "1")
    status, output = redis_settings(redis.sandbox, f"redis://127.0.0.1?expire=900{history}").check("--connect")
    assert status == 1
    assert "READONLY" in "\n".join(output) or "replica" in "\n".join(output)


def test_8404_a_difference_is_shown(redis):
    redis.sandbox.add_address(B + "/64")
    status, output = redis_settings(redis.sandbox).check("--connect")
    assert (status, marked("expect", output), marked("has", output)) == (1, [f"{A}, {B}"], [A])


def test_8405_the_master_of_the_name_is_asked_in_a_cluster():
    redis_bed.require()
    one = cluster_tests.Fixture(replicas=False)
    try:
        client, handle = one.connected()
        one.sandbox.add_address(A + "/64")
        addresses = f"{A}"
        for name in ("host1", "host2"):
            assert client.taginport(handle, name) == OK
            assert client.put(handle, name, addresses) == OK
            settings = Settings(one.sandbox, name, rdburl=one.cluster.url(1), rdbuser="default", rdbpswd="any")
            status, output = settings.check("--connect")
            assert (status, marked("has", output)) == (0, [A]), output
    finally:
        one.close()


def test_8406_a_provider_gets_no_request():
    if not open_library.has(BUILD, "dyndns2-https"):
        pytest.skip("the open client library was built without its back end dyndns2-https")
    sandbox = Sandbox()
    try:
        files = (authority := Authority(sandbox, "/mnt/pki")).issue("provider", "IP:127.0.0.1")
        sandbox.path("/mnt/provider").mkdir()
        sandbox.path("/mnt/resolv.conf").write_text("nameserver 127.0.0.1\n")
        sandbox.run("mount", "--bind", "/mnt/resolv.conf", "/etc/resolv.conf")
        provider = sandbox.spawn("/usr/bin/python3", PROVIDER, files.certificate, files.key, "/mnt/provider")
        provider.wait_for_output(b"listening")
        url = f"dyndns2+https://127.0.0.1/nic/update?ca={authority.certificate}"
        one = Settings(sandbox, "host1.dyn.test", dnsurl=url, dnsuser="me", dnspswd="geheim")
        status, output = one.check("--connect")
        assert marked("allowed", output) == ["connect to the provider (user and password are not tested)"]
        assert "geheim" not in "\n".join(output)
        assert not sandbox.path("/mnt/provider/requests").exists()
    finally:
        sandbox.close()
