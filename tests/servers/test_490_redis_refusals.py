"""The open client library with a real Redis server that refuses requests, and with the permissions that are enough. The
library logs the reason of a refusal and repeats the login or the put later."""

import pytest
from rdb_client import CONNECTED, DISCONNECTED
from redis_bed import DATA, Fixture, require
from sandbox import wait_until

OK = 0
NOT_CONNECTED = 1005
SERVER_REFUSED = 1017


@pytest.fixture
def fixture():
    require()
    one = Fixture()
    yield one
    one.close()


@pytest.mark.parametrize(
    "setting, login, user, password",
    [
        (["PING"], [], "default", "whatever"),
        (["CONFIG", "SET", "requirepass", "old-form"], ["-a", "old-form"], "default", "old-form"),
        (["ACL", "SETUSER", "host", "on", ">own", "~*", "&*", "+@all"], [], "host", "own"),
    ],
    ids=["no_password", "requirepass", "acl_user"],
)
def test_490_each_form_of_login_works(fixture, setting, login, user, password):
    fixture.server.start()
    fixture.server.command(*setting)
    fixture.server.login = login
    fixture.connected(user=user, password=password)
    fixture.register("first")
    assert fixture.server.value() == "first"


@pytest.mark.refusal
def test_491_a_wrong_password_is_reported_until_the_server_accepts_it(fixture):
    fixture.server.start()
    fixture.server.command("ACL", "SETUSER", "host", "on", ">other", "~*", "&*", "+@all")
    fixture.connect(user="host", password="own")
    fixture.log.wait("AUTH refused: user or password is wrong, or the user is switched off (WRONGPASS)")
    fixture.server.command("ACL", "SETUSER", "host", ">own")
    fixture.wait_connected()
    fixture.register("first")
    assert fixture.server.value() == "first"
    assert not fixture.log.lines("own") and len(fixture.log.lines("WRONGPASS")) == 1


@pytest.mark.refusal
def test_492_a_new_password_in_the_file_is_used_at_a_later_login(fixture):
    fixture.server.start()
    fixture.server.command("CONFIG", "SET", "requirepass", "new")
    fixture.server.login = ["-a", "new"]
    file = fixture.sandbox.path("/mnt/password")
    file.write_text("old\n")
    fixture.connect(password="file:/mnt/password")
    fixture.log.wait("WRONGPASS")
    file.write_text("new\n")
    fixture.wait_connected()
    fixture.register("first")
    assert fixture.server.value() == "first"


@pytest.mark.parametrize("command", ["rpush", "publish"])
@pytest.mark.refusal
def test_493_a_missing_permission_is_reported_and_the_put_repeated(fixture, command):
    fixture.server.start()
    fixture.server.command("ACL", "SETUSER", "host", "on", ">own", "~rdb:*", "&rdb:*", "+@all", f"-{command}")
    fixture.connected(user="host", password="own")
    assert fixture.client.taginport(fixture.handle, "host1") == OK
    assert fixture.put("first") == SERVER_REFUSED
    fixture.log.wait("refused: the user has not every permission that is needed (NOPERM)")
    assert fixture.server.command("EXISTS", "rdb:value:{host1}", "rdb:history:{host1}") == "0"
    fixture.server.command("ACL", "SETUSER", "host", f"+{command}")
    fixture.wait_held("first")
    assert DISCONNECTED not in fixture.client.events(fixture.handle)


def test_494_the_documented_permissions_are_enough(fixture):
    rule = "on >own ~rdb:*:{host1} &rdb:changed:{host1} +ping +select +client|setname +evalsha +eval +hmget +type +time"
    rule += " +hset +rpush +ltrim +publish +expire"
    fixture.server.start()
    fixture.server.command("ACL", "SETUSER", "host", *rule.split())
    fixture.connected("/2?expire=900", user="host", password="own")
    fixture.register("first")
    assert fixture.put("second") == OK
    assert fixture.put("second") == OK
    assert fixture.put("second", "host2") == SERVER_REFUSED
    assert fixture.server.value(database=2) == "second"


@pytest.mark.refusal
def test_495_a_missing_database_number_is_reported(fixture):
    fixture.server.start()
    fixture.connect("/16")
    fixture.log.wait("SELECT refused: the server has no database of this number")
    fixture.server.kill()
    fixture.server.start("--databases", "17")
    fixture.wait_connected()
    fixture.register("first")
    assert fixture.server.value(database=16) == "first"


@pytest.mark.refusal
@pytest.mark.retry
def test_496_a_full_disk_is_reported_and_the_put_is_repeated(fixture):
    fixture.sandbox.run("mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", DATA)
    fixture.server.start("--save", "3600 1000000", "--stop-writes-on-bgsave-error", "yes")
    fixture.connected()
    fixture.register("first")
    filler = fixture.sandbox.path(f"{DATA}/filler")
    with pytest.raises(OSError):
        filler.write_bytes(bytes(1 << 20))
    save(fixture.server, "err")
    assert fixture.put("second") == SERVER_REFUSED
    fixture.log.wait("the server cannot save to its disk (MISCONF)")
    assert fixture.server.value() == "first"
    filler.unlink()
    save(fixture.server, "ok")
    fixture.wait_held("second")


def save(server, status):
    """Starts a save in the background and waits until it has ended with this status."""
    server.command("BGSAVE")

    def ended():
        information = server.command("INFO", "persistence").splitlines()
        return {"rdb_bgsave_in_progress:0", f"rdb_last_bgsave_status:{status}"} <= set(information)

    wait_until(ended, f"a background save that ends {status}")


@pytest.mark.refusal
@pytest.mark.retry
def test_497_a_put_refused_for_lack_of_memory_is_repeated(fixture):
    fixture.server.start()
    fixture.connected()
    fixture.register("first")
    fixture.server.command("CONFIG", "SET", "maxmemory", "1")
    assert fixture.put("second") == SERVER_REFUSED
    fixture.log.wait("memory limit is reached (OOM)")
    assert fixture.server.value() == "first"
    fixture.server.command("CONFIG", "SET", "maxmemory", "0")
    fixture.wait_held("second")
    assert fixture.server.history() == ["first", "second"]
    fixture.log.wait("works again")


@pytest.mark.parametrize(
    "key, make, look, content",
    [
        ("rdb:value:{host1}", ["SET", "mine"], ["GET"], "mine"),
        ("rdb:value:{host1}", ["HSET", "a", "b"], ["HGETALL"], "a\nb"),
        ("rdb:history:{host1}", ["XADD", "1-1", "a", "b"], ["XRANGE", "-", "+"], "1-1\na\nb"),
    ],
    ids=["string", "hash", "stream"],
)
@pytest.mark.refusal
def test_498_a_key_of_another_program_is_unchanged_and_the_put_follows_its_removal(fixture, key, make, look, content):
    fixture.server.start()
    fixture.connected("?expire=900")
    assert fixture.client.taginport(fixture.handle, "host1") == OK
    before = foreign_key(fixture.server, key, make)
    assert fixture.put("first") == SERVER_REFUSED
    assert_left_alone(fixture, key, look, content, before)
    fixture.server.command("DEL", key)
    fixture.wait_held("first")
    assert DISCONNECTED not in fixture.client.events(fixture.handle)


@pytest.mark.parametrize(
    "make, look, content",
    [(["HSET", "a", "b"], ["HGETALL"], "a\nb"), (["SADD", "mine"], ["SMEMBERS"], "mine")],
    ids=["hash", "set"],
)
@pytest.mark.refusal
def test_499_a_foreign_key_for_the_tag_ends_the_connection_until_its_removal(fixture, make, look, content):
    key = "rdb:tag:{host1}"
    fixture.server.start()
    fixture.connected("?expire=900")
    before = foreign_key(fixture.server, key, make)
    assert fixture.client.taginport(fixture.handle, "host1") == SERVER_REFUSED
    assert fixture.put("first") == NOT_CONNECTED
    wait_until(lambda: len(fixture.client.waits()) >= 4, "four attempts")
    assert fixture.client.events(fixture.handle) == [CONNECTED, DISCONNECTED]
    assert_left_alone(fixture, key, look, content, before)
    fixture.server.command("DEL", key)
    fixture.wait_connected()
    assert fixture.put("first") == OK
    assert fixture.server.value() == "first"


def test_4991_a_foreign_history_is_not_removed_and_does_not_expire(fixture):
    key = "rdb:history:{host1}"
    fixture.server.start()
    fixture.connected("?expire=900&history=0")
    fixture.register("first")
    before = foreign_key(fixture.server, key, ["XADD", "1-1", "a", "b"])
    for value in ("second", "first"):
        assert fixture.put(value) == SERVER_REFUSED
    assert fixture.client.taginport(fixture.handle, "host1") == SERVER_REFUSED
    assert_left_alone(fixture, key, ["XRANGE", "-", "+"], "1-1\na\nb", before)
    assert fixture.server.value() == "first"


def test_4992_without_a_history_other_permissions_are_enough(fixture):
    rule = "on >own ~rdb:*:{host1} &rdb:changed:{host1} +ping +evalsha +eval +hmget +type +time +hset +publish +del"
    fixture.server.start()
    fixture.server.command("ACL", "SETUSER", "host", *rule.split())
    fixture.connected("?history=0", user="host", password="own")
    fixture.register("first")
    assert fixture.put("second") == OK
    assert fixture.server.history() == []


def foreign_key(server, key, make):
    """Creates `key`, as another program would. Returns all keys of the server."""
    server.command(make[0], key, *make[1:])
    return set(server.command("--scan").splitlines())


def assert_left_alone(fixture, key, look, content, keys):
    assert fixture.server.command(look[0], key, *look[1:]) == content
    assert fixture.server.command("TTL", key) == "-1"
    assert set(fixture.server.command("--scan").splitlines()) == keys
    reasons = ("refused: a key of another type is in the way", f"{key} is somebody else's")
    wait_until(lambda: any(fixture.log.lines(reason) for reason in reasons), "the reason")
