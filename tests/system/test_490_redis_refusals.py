"""The open client library with a real Redis server that refuses: it says why, and what was refused is done later."""

import pytest
from rdb_client import CONNECTED, DISCONNECTED
from redis_bed import DATA, Bed, require
from sandbox import wait_until

OK = 0
NOT_CONNECTED = 1005
SERVER_REFUSED = 1017


@pytest.fixture
def bed():
    require()
    one = Bed()
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
def test_490_each_form_of_login_works(bed, setting, login, user, password):
    bed.server.start()
    bed.server.command(*setting)
    bed.server.login = login
    bed.connected(user=user, password=password)
    bed.register("first")
    assert bed.server.value() == "first"


def test_491_a_wrong_password_is_named_and_counts_once_the_server_takes_it(bed):
    bed.server.start()
    bed.server.command("ACL", "SETUSER", "host", "on", ">other", "~*", "&*", "+@all")
    bed.connect(user="host", password="own")
    bed.log.wait("AUTH refused: user or password is wrong, or the user is switched off (WRONGPASS)")
    bed.server.command("ACL", "SETUSER", "host", ">own")
    bed.wait_connected()
    bed.register("first")
    assert bed.server.value() == "first"
    assert not bed.log.lines("own") and len(bed.log.lines("WRONGPASS")) == 1


def test_492_a_new_password_in_the_file_counts_from_the_next_login_on(bed):
    bed.server.start()
    bed.server.command("CONFIG", "SET", "requirepass", "new")
    bed.server.login = ["-a", "new"]
    file = bed.sandbox.path("/mnt/password")
    file.write_text("old\n")
    bed.connect(password="file:/mnt/password")
    bed.log.wait("WRONGPASS")
    file.write_text("new\n")
    bed.wait_connected()
    bed.register("first")
    assert bed.server.value() == "first"


def test_493_a_missing_permission_is_named_and_the_put_made_when_it_is_granted(bed):
    bed.server.start()
    bed.server.command("ACL", "SETUSER", "host", "on", ">own", "~rdb:*", "&rdb:*", "+@all", "-xadd")
    bed.connected(user="host", password="own")
    assert bed.client.taginport(bed.handle, "host1") == OK
    assert bed.put("first") == SERVER_REFUSED
    bed.log.wait("refused: the user has not every permission that is needed (NOPERM)")
    assert bed.server.command("EXISTS", "rdb:value:host1", "rdb:history:host1") == "0"
    bed.server.command("ACL", "SETUSER", "host", "+xadd")
    bed.wait_held("first")
    assert DISCONNECTED not in bed.client.events(bed.handle)


def test_494_the_documented_permissions_are_enough(bed):
    rule = "on >own ~rdb:*:host1 &rdb:changed:host1 +ping +select +client|setname +watch +unwatch +multi +exec"
    rule += " +discard +time +hlen +hmget +hset +type +xadd +publish +expire"
    bed.server.start()
    bed.server.command("ACL", "SETUSER", "host", *rule.split())
    bed.connected("/2?expire=900", user="host", password="own")
    bed.register("first")
    assert bed.put("second") == OK
    assert bed.put("second") == OK
    assert bed.put("second", "host2") == SERVER_REFUSED
    assert bed.server.value(database=2) == "second"


def test_495_a_database_that_the_server_lacks_is_named(bed):
    bed.server.start()
    bed.connect("/16")
    bed.log.wait("SELECT refused: the server has no database of this number")
    bed.server.kill()
    bed.server.start("--databases", "17")
    bed.wait_connected()
    bed.register("first")
    assert bed.server.value(database=16) == "first"


def test_496_a_full_disk_is_named_and_the_put_made_when_there_is_room(bed):
    bed.sandbox.run("mount", "-t", "tmpfs", "-o", "size=64k", "tmpfs", DATA)
    bed.server.start("--save", "3600 1000000", "--stop-writes-on-bgsave-error", "yes")
    bed.connected()
    bed.register("first")
    filler = bed.sandbox.path(f"{DATA}/filler")
    with pytest.raises(OSError):
        filler.write_bytes(bytes(1 << 20))
    save(bed.server, "err")
    assert bed.put("second") == SERVER_REFUSED
    bed.log.wait("the server cannot save to its disk (MISCONF)")
    assert bed.server.value() == "first"
    filler.unlink()
    save(bed.server, "ok")
    bed.wait_held("second")


def save(server, status):
    """Saves in the background until that has ended as wanted."""
    server.command("BGSAVE")

    def ended():
        information = server.command("INFO", "persistence").splitlines()
        return {"rdb_bgsave_in_progress:0", f"rdb_last_bgsave_status:{status}"} <= set(information)

    wait_until(ended, f"a background save that ends {status}")


def test_497_a_server_that_takes_no_writes_is_asked_again(bed):
    bed.server.start()
    bed.connected()
    bed.register("first")
    bed.server.command("CONFIG", "SET", "maxmemory", "1")
    assert bed.put("second") == SERVER_REFUSED
    bed.log.wait("memory limit is reached (OOM)")
    assert bed.server.value() == "first"
    bed.server.command("CONFIG", "SET", "maxmemory", "0")
    bed.wait_held("second")
    assert bed.server.history() == ["first", "second"]
    bed.log.wait("works again")


@pytest.mark.parametrize(
    "key, make, look, content",
    [
        ("rdb:value:host1", ["SET", "mine"], ["GET"], "mine"),
        ("rdb:value:host1", ["HSET", "a", "b"], ["HGETALL"], "a\nb"),
        ("rdb:history:host1", ["RPUSH", "mine"], ["LRANGE", "0", "-1"], "mine"),
    ],
    ids=["string", "hash", "list"],
)
def test_498_a_foreign_key_is_left_alone_and_the_put_made_when_it_is_gone(bed, key, make, look, content):
    bed.server.start()
    bed.connected("?expire=900")
    assert bed.client.taginport(bed.handle, "host1") == OK
    before = foreign_key(bed.server, key, make)
    assert bed.put("first") == SERVER_REFUSED
    assert_left_alone(bed, key, look, content, before)
    bed.server.command("DEL", key)
    bed.wait_held("first")
    assert DISCONNECTED not in bed.client.events(bed.handle)


@pytest.mark.parametrize(
    "make, look, content",
    [(["HSET", "a", "b"], ["HGETALL"], "a\nb"), (["SADD", "mine"], ["SMEMBERS"], "mine")],
    ids=["hash", "set"],
)
def test_499_a_foreign_key_for_the_tag_ends_the_connection_until_it_is_gone(bed, make, look, content):
    key = "rdb:tag:host1"
    bed.server.start()
    bed.connected("?expire=900")
    before = foreign_key(bed.server, key, make)
    assert bed.client.taginport(bed.handle, "host1") == SERVER_REFUSED
    assert bed.put("first") == NOT_CONNECTED
    wait_until(lambda: len(bed.client.waits()) >= 4, "four attempts")
    assert bed.client.events(bed.handle) == [CONNECTED, DISCONNECTED]
    assert_left_alone(bed, key, look, content, before)
    bed.server.command("DEL", key)
    bed.wait_connected()
    assert bed.put("first") == OK
    assert bed.server.value() == "first"


def foreign_key(server, key, make):
    """Makes key as somebody else does. Returns all keys."""
    server.command(make[0], key, *make[1:])
    return set(server.command("--scan").splitlines())


def assert_left_alone(bed, key, look, content, keys):
    assert bed.server.command(look[0], key, *look[1:]) == content
    assert bed.server.command("TTL", key) == "-1"
    assert set(bed.server.command("--scan").splitlines()) == keys
    reasons = ("refused: a key of another type is in the way", f"{key} is somebody else's")
    wait_until(lambda: any(bed.log.lines(reason) for reason in reasons), "the reason")
