"""The costs of a Redis server."""

import itertools
import time

from counting import CROWD, MANY, NAMES, PACED, PAUSE, ROUNDS, SECONDS, SPEED, best, crossed, storm, wave
from hosts import Hosts
from servers import Redis

URL = "redis://127.0.0.1?expire=1800"
HURRY = 50  # divisor for the waits of a host with shortened waits
FULL = 1000  # maximum number of entries of a history
CHANGES = 10  # changed values of each host whose memory is measured


def protocol(server, work):
    """Returns the number of commands that `work` causes, and the bytes of the protocol to and from the server."""
    before, asking = server.statistics()
    work()
    after = server.info()
    return [
        int(after[field]) - int(before[field]) - less
        for field, less in (
            ("total_commands_processed", 1),
            ("total_net_input_bytes", asking[0]),
            ("total_net_output_bytes", asking[1]),
        )
    ]


def looks(server):
    """Returns the number of checks by idle hosts that the server has answered. Each check reads one value."""
    counts = server.info().get("cmdstat_hmget", "calls=0,")
    return int(counts.split("=")[1].split(",")[0])


def look_for(server, seconds):
    before = looks(server)
    time.sleep(seconds)
    return looks(server) - before


def exchanges(build, server):
    """Measures the requests of one host, one after the other.

    same: a put of a value that the server already has, as in a refresh by the library. The library does not send a
    value that the same host repeats, so another host with the same name puts the value.
    """
    hosts = []

    def connect():
        hosts.append(Hosts(build, "rdb", URL, 1))

    result = {"connect": {"protocol": protocol(server, connect)} | crossed(connect)}
    result["first"] = {"protocol": protocol(server, hosts[0].publish)}
    result["same"] = {"protocol": protocol(server, lambda: hosts[1].publish(refresh=True))}
    more = [Hosts(build, "rdb", URL, 1) for _ in range(PACED)]

    def publish():
        for host in more:
            host.publish(refresh=True)
            time.sleep(PAUSE)

    result["same"] |= crossed(publish, PACED)
    for host in hosts + more:
        host.end()
    return result


def look(build, server):
    """Measures the check of an idle connection: the packets of one host, then the server time for many hosts."""
    one = Hosts(build, "rdb", URL, 1, hurried=True)
    one.publish()
    seconds = 4.3 * 60 / HURRY  # chosen so that neither of the two sleeps ends near a check
    before = looks(server)
    result = crossed(lambda: time.sleep(seconds))
    count = looks(server) - before
    result = {name: round(figure / count, 1) for name, figure in result.items()}
    before = looks(server)
    figures = protocol(server, lambda: time.sleep(seconds))
    result["protocol"] = [round(figure / (looks(server) - before)) for figure in figures]
    one.end()
    crowd = Hosts(build, "rdb", URL, CROWD, hurried=True)
    crowd.publish()
    result |= best(server, {"look": lambda: look_for(server, SECONDS)})["look"]
    crowd.end()
    return result


def memory(build, server):
    """Returns the bytes that the server counts for a connection, for a new host, for a host after some changes, and for
    an entry of a full history."""

    def used():
        return int(server.info()["used_memory"])

    server.call("FLUSHALL")
    empty = used()
    crowd = Hosts(build, "rdb", URL, CROWD)
    crowd.publish()
    server.call("FLUSHALL")
    time.sleep(5)  # less than a tenth of the hosts check meanwhile; the input buffers of these hosts are counted, too
    result = {"connection": round((used() - empty) / CROWD)}
    crowd.end()
    some = Hosts(build, "rdb", URL, MANY)
    before = used()
    some.publish(NAMES)
    result["host"] = round((used() - before) / (MANY * NAMES))
    for _ in range(CHANGES):
        some.publish(NAMES, fresh=True)
    result["changed host"] = round((used() - before) / (MANY * NAMES))
    some.end()
    fill = "for i=1,ARGV[1] do redis.call('RPUSH','full',1763845210000+i*6e5 .. ' 6 2001:db8:0:1::1') end"
    server.call("EVAL", fill, 0, FULL)
    result["history"] = round(int(server.call("MEMORY", "USAGE", "full", "SAMPLES", 0)) / FULL, 1)
    server.call("FLUSHALL")
    return result


def publications(build, server):
    """Each repetition of a case without changes has its own hosts: the library does not send a value again that the
    server has confirmed to the same host. The repetitions of "first" also differ in their names, because a name is new
    only once."""
    new = [Hosts(build, "rdb", URL, MANY, first=MANY * number) for number in range(1, ROUNDS + 1)]
    same = [Hosts(build, "rdb", URL, MANY, first=MANY) for _ in range(ROUNDS)]
    one = [Hosts(build, "rdb", URL, 16, first=MANY) for _ in range(ROUNDS)]
    many = Hosts(build, "rdb", URL, MANY)
    left = {"first": iter(new), "one process": iter(one), "same": iter(same)}
    works = {
        name: lambda hosts=hosts, refresh=name != "first": next(hosts).publish(NAMES, refresh=refresh)
        for name, hosts in left.items()
    }
    result = best(server, works | {"changed": lambda: many.publish(NAMES, SECONDS, fresh=True)})
    for hosts in [*new, *same, *one, many]:
        hosts.end()
    return result


def storms(build, server):
    crowd = Hosts(build, "rdb", URL, CROWD)
    crowd.order("follow")
    crowd.wait("published", CROWD)
    result = [storm(server, crowd, away) for away in (0, 10)]
    crowd.end()
    return result


def measure_wave(build):
    """Returns the load after a restart of the server over time."""
    server = Redis()
    server.start()

    def reads():
        return int(server.info()["total_reads_processed"])

    own = -reads() + reads()  # reads that one call of reads() itself causes
    calls = itertools.count(1)
    crowd = Hosts(build, "rdb", URL, CROWD, speed=SPEED)
    result = wave(server, crowd, 0, lambda: reads() - own * next(calls))  # a request of a host is one read
    crowd.end()
    server.end()
    return result


def measure(build):
    server = Redis()
    server.start()
    result = exchanges(build, server)
    result["look"] = look(build, server)
    result["memory"] = memory(build, server)
    for name, figures in publications(build, server).items():
        result[name] = result.get(name, {}) | figures
    result["storms"] = storms(build, server)
    server.end()
    return result
