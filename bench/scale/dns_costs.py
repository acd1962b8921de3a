"""The costs of a DNS server."""

import time

from counting import CROWD, MANY, NAMES, SECONDS, SPEED, accepted, best, crossed, datagrams, paced, storm, wave
from hosts import Hosts
from servers import Bind, Knot, SECRET, ZONE

HOSTS = MANY * NAMES  # hosts in the zone
GREAT = 5 * HOSTS  # hosts in the larger zone, whose memory use is compared
POLICY_HOSTS = 10000  # each with its own key


def open_hosts(build, server, count, check=0, hurried=False, speed=None):
    url = f"dns://127.0.0.1/{ZONE}?check={check}"
    return Hosts(build, "dns", url, count, server.key_of(0), SECRET, hurried, speed=speed)


def checks(server):
    """Returns the number of checks so far. Each query of a check is one datagram, and so is its answer."""
    return datagrams() / 2 / server.check_queries


def restart(server, hosts):
    server.end()
    server.fill(hosts)
    server.start()


def exchanges(build, server):
    hosts = []
    result = {"open": crossed(lambda: hosts.append(open_hosts(build, server, 1)))}
    result["same"] = paced(hosts[0].publish)
    hosts[0].end()
    hurried = open_hosts(build, server, 1, check=5, hurried=True)
    hurried.publish()
    before = checks(server)
    result["check"] = crossed(lambda: time.sleep(2))
    count = checks(server) - before
    result["check"] = {name: round(figure / count) for name, figure in result["check"].items()}
    hurried.end()
    return result


def requests(build, server):
    many = open_hosts(build, server, MANY)
    result = best(
        server,
        {
            "same": lambda: many.publish(NAMES, SECONDS),
            "changed": lambda: many.publish(NAMES, SECONDS, fresh=True),
        },
    )
    many.end()
    return result


def open_and_check(build, server):
    """Measures hosts that only connect, and hosts with shortened waits that only check."""

    def connect():
        hosts = open_hosts(build, server, MANY)
        hosts.end()
        return MANY

    checking = open_hosts(build, server, MANY, check=1, hurried=True)
    checking.publish()

    def check():
        before = checks(server)
        time.sleep(SECONDS)
        return checks(server) - before

    result = best(server, {"check": check})
    checking.end()
    return result | best(server, {"open": connect})


def memory(server):
    """Returns bytes per host, from the difference between a zone and a zone with five times as many hosts."""
    restart(server, HOSTS)
    less = server.resident()
    restart(server, GREAT)
    return round((server.resident() - less) / (GREAT - HOSTS))


def storms(build, server):
    """The server is unavailable for ten seconds. The hosts check every five seconds, so all of them detect the
    failure."""
    restart(server, CROWD)
    crowd = open_hosts(build, server, CROWD, check=5)
    crowd.order("follow")
    crowd.wait("published", CROWD)
    time.sleep(6)  # until the checks are distributed over time
    result = [storm(server, crowd, 10)]
    crowd.end()
    return result


def measure(build, server):
    server.fill(HOSTS)
    server.start()
    result = exchanges(build, server)
    for figures in (requests(build, server), open_and_check(build, server)):
        for name, more in figures.items():
            result[name] = result.get(name, {}) | more
    result["memory"] = memory(server)
    result["storms"] = storms(build, server)
    server.end()
    return result


def measure_bind(build):
    return measure(build, Bind())


def measure_knot(build):
    return measure(build, Knot())


def measure_wave(build):
    """Returns the load after a restart of Knot over time. Each update and each opening uses one connection. Knot is
    unavailable for two check intervals, so that all hosts detect the failure."""
    server = Knot()
    server.fill(CROWD)
    server.start()
    crowd = open_hosts(build, server, CROWD, check=60, speed=SPEED)
    result = wave(server, crowd, 120, lambda: checks(server) + accepted())
    crowd.end()
    server.end()
    return result


def measure_policies(build):
    """Measures an update under two policies of BIND with a key per host: two rules for each host, or one rule for all
    hosts."""
    result = {}
    for policy in ("name", "selfsub"):
        server = Bind(policy, POLICY_HOSTS)
        server.fill(POLICY_HOSTS)
        server.start()
        last = POLICY_HOSTS - 1
        hosts = Hosts(build, "dns", f"dns://127.0.0.1/{ZONE}?check=0", 1, server.key_of(last), SECRET, first=last)
        result[policy] = best(server, {"same": lambda hosts=hosts: hosts.publish(1, SECONDS)})["same"]["us"]
        hosts.end()
        server.end()
    return result
