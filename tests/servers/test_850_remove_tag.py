"""addrpubd-check --remove --with-tag with real Redis servers: it deletes tag, value and history of one name."""

import pytest
import redis_bed
import test_746_redis_cluster as cluster_tests
import test_747_redis_sentinel as sentinel_tests
from redis_bed import REFUSED, require
from redis_cluster import key_of
from remove_bed import Settings, marked

OK = 0
FOREIGN = "it belongs to another program"


def settings(sandbox, url, user="default", password="any", name="host1"):
    return Settings(sandbox, name, rdburl=url, rdbuser=user, rdbpswd=password)


@pytest.fixture
def fixture():
    require()
    one = redis_bed.Fixture()
    one.server.start()
    yield one
    one.close()


@pytest.fixture
def cluster():
    require()
    one = cluster_tests.Fixture(replicas=False)
    yield one
    one.close()


@pytest.fixture
def sentinels():
    require()
    one = sentinel_tests.Fixture()
    one.start()
    yield one
    one.close()


def publish(fixture, *values):
    fixture.connected()
    for value in values:
        fixture.register(value)
    fixture.end_client()


def test_850_only_the_keys_of_the_name_leave(fixture):
    publish(fixture, "2001:db8::1", "2001:db8::2")
    fixture.server.command("SET", "rdb:value:{host2}", "foreign")
    one = settings(fixture.sandbox, "redis://127.0.0.1")
    shown = ["rdb:tag:{host1}", "rdb:value:{host1} = 2001:db8::2", "rdb:history:{host1}, changes: 2"]
    status, output = one.remove("--with-tag")
    assert (status, marked("delete", output)) == (1, shown)
    assert fixture.server.value() == "2001:db8::2"
    status, output = one.remove("--with-tag", "--yes")
    assert (status, marked("deleted", output)) == (0, shown)
    assert fixture.server.command("KEYS", "*") == "rdb:value:{host2}"


def test_851_without_with_tag_the_database_is_not_asked(fixture):
    publish(fixture, "2001:db8::1")
    fixture.server.kill()
    status, output = settings(fixture.sandbox, "redis://127.0.0.1").remove("--yes")
    assert status == 0
    assert output[0] == "rdb server: not asked; --with-tag also deletes tag, value and history"


def test_852_a_key_of_another_program_keeps_all_keys(fixture):
    publish(fixture, "2001:db8::1")
    fixture.server.command("DEL", "rdb:history:{host1}")
    fixture.server.command("SET", "rdb:history:{host1}", "foreign")
    before = fixture.server.command("KEYS", "*")
    status, output = settings(fixture.sandbox, "redis://127.0.0.1").remove("--with-tag", "--yes")
    assert (status, marked("delete", output)) == (1, [])
    assert f"rdb:history:{{host1}}: {FOREIGN}" in marked("keep", output)
    assert fixture.server.command("KEYS", "*") == before


@pytest.mark.refusal
def test_853_the_missing_permission_to_delete_is_named(fixture):
    publish(fixture, "2001:db8::1")
    permissions = "~rdb:*:{host1} &rdb:changed:{host1} +ping +client|setname +evalsha +eval +hmget +type +time +hset"
    fixture.server.command("ACL", "SETUSER", "host1", "on", ">hunter2", *permissions.split())
    one = settings(fixture.sandbox, "redis://127.0.0.1", "host1", "hunter2")
    status, output = one.remove("--with-tag", "--yes")
    assert (status, len(marked("remains", output))) == (1, 3)
    assert "NOPERM" in marked("failed", output)[0] and marked("failed", output)[0].endswith("it needs +del")
    assert fixture.server.value() == "2001:db8::1"
    fixture.server.command("ACL", "SETUSER", "host1", "+del")
    assert one.remove("--with-tag", "--yes")[0] == 0
    assert fixture.server.command("KEYS", "*") == ""


@pytest.mark.refusal
def test_854_a_wrong_password_is_reported_and_not_shown(fixture):
    publish(fixture, "2001:db8::1")
    fixture.server.command("ACL", "SETUSER", "host1", "on", ">hunter2", "~*", "&*", "+@all")
    status, output = settings(fixture.sandbox, "redis://127.0.0.1", "host1", "wrong-word").remove("--with-tag", "--yes")
    assert status == 1
    assert "WRONGPASS" in marked("failed", output)[0]
    assert "wrong-word" not in "\n".join(output)


def test_855_a_server_that_does_not_run_is_reported(fixture):
    fixture.server.kill()
    status, output = settings(fixture.sandbox, "redis://127.0.0.1").remove("--with-tag", "--yes")
    assert (status, marked("failed", output)) == (1, [f"cannot be reached: {REFUSED}"])


def test_856_a_name_leaves_the_master_of_its_slot_in_a_cluster(cluster):
    client, handle = cluster.connected()
    for name in ("host1", "host2", "host3"):
        assert client.taginport(handle, name) == OK
        assert client.put(handle, name, "2001:db8::1") == OK
    client.close()  # its next check would write the removed values again
    for name in ("host1", "host2"):
        status, output = settings(cluster.sandbox, cluster.cluster.url(1), name=name).remove("--with-tag", "--yes")
        assert (status, len(marked("deleted", output))) == (0, 3), output
    left = sorted(key for node in cluster.cluster.nodes for key in node.call("KEYS", "*"))
    assert left == sorted(key_of(kind, "host3") for kind in ("tag", "value", "history"))


def test_857_sentinels_lead_to_the_master(sentinels):
    sentinels.open()
    sentinels.register("2001:db8::1")
    url = f"redis+sentinel://{','.join(sentinel_tests.SENTINELS)}/mymaster"
    status, output = settings(sentinels.sandbox, url).remove("--with-tag", "--yes")
    assert (status, len(marked("deleted", output))) == (0, 3), output
    assert sentinels.servers[0].command("KEYS", "*") == ""
