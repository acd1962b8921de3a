"""compute.py: computes the load of a fleet on the two servers from the costs of each request in figures.json.

A host in normal operation checks its data every LOOK seconds with redis, and every check seconds with dns, at most
every REFRESH seconds. The last check within each REFRESH seconds is a refresh instead: a publication with redis, an
update with dns. Without checks, a host makes one update within REPEAT seconds. It has one address and HTTPS port 443, so
a check has one query over UDP, or two if the server does not add the AAAA records to the first answer. A host whose address changes makes further requests.
"""

import json
from pathlib import Path

import numpy
from storms import arrivals, peaks, queue, tries

FIGURES = json.loads(Path(__file__).with_name("figures.json").read_text())
COSTS = ("packets", "bytes", "us")
FLEETS = (10_000, 1_000_000)
REPEAT = 600  # seconds after which the service repeats an unchanged list
REFRESH = 540  # seconds within which the library writes an unchanged list again
LOOK = 60  # seconds between two checks of a connection to redis
CHECK_QUERIES = {"bind": 1, "knot": 2}
CHECKS = (60, 600, 0)  # values of the url's option check; 0: no checks
STORM_CHECKS = (60, 600)
HISTORY = 1_000  # history entries that redis keeps for each host
ABSENCES = ((0.5, "0.5 s"), (10, "10 s"), (600, "10 min"), (3600, "1 h"))
CROWD = 640  # hosts in the measured reconnection storms
CROWD_CHECK = 5  # seconds between the checks of these hosts
START = 0.2  # seconds that a server takes to start
SEED = 1


def short(number):
    """Returns a number with three digits and its unit prefix."""
    for limit, suffix in ((1e9, " G"), (1e6, " M"), (1e4, " k")):
        if number >= limit:
            return f"{number / (1e3 if suffix == ' k' else limit):.3g}{suffix}"
    return f"{number:.3g}" if number < 100 else f"{number:,.0f}"


def table(title, head, rows):
    print(f"\n{title}\n")
    print("| " + " | ".join(head) + " |")
    print("|" + "---|" * len(head))
    for row in rows:
        print("| " + " | ".join(row) + " |")


def loads(kinds):
    """Adds up rate times cost over the kinds of requests. Returns (rate, {commands, packets, bytes, us, ...})."""
    total = {}
    for rate, costs in kinds:
        for name, figure in costs.items():
            total[name] = total.get(name, 0) + rate * figure
    return total


def rates(hosts, check):
    """Returns the refreshes and checks per second. check: seconds between two checks, 0 for none."""
    if check == 0:
        return hosts / REPEAT, 0
    interval = min(check, REFRESH)
    refreshes = hosts / (REFRESH // interval * interval)
    return refreshes, hosts / interval - refreshes


def redis_rest(hosts):
    redis = FIGURES["redis"]
    same, look = (
        {"requests": 1, "commands": redis[kind]["protocol"][0]} | {key: redis[kind][key] for key in COSTS}
        for kind in ("same", "look")
    )
    refreshes, looks = rates(hosts, LOOK)
    load = loads([(refreshes, same), (looks, look)])
    memory = redis["memory"]
    start = hosts * (memory["connection"] + memory["host"])
    full = hosts * (memory["connection"] + memory["host"] + HISTORY * memory["history"])
    return [
        short(hosts),
        short(hosts),
        *(short(load[name]) for name in ("requests", "commands", "packets", "bytes")),
        f"{load['us'] / 1e6:.2g}",
        short(start) + "B",
        short(full) + "B",
    ]


def dns_load(hosts, check, server):
    figures = FIGURES[server]
    updates, checks = rates(hosts, check)
    update, look = (
        {"requests": 1, "messages": messages} | {key: figures[kind][key] for key in COSTS}
        for kind, messages in (("same", 1), ("check", CHECK_QUERIES[server]))
    )
    return loads([(updates, update), (checks, look)])


def dns_rest(hosts, check):
    load = dns_load(hosts, check, "bind")
    knot = dns_load(hosts, check, "knot")
    return [
        short(hosts),
        str(check),
        short(load["requests"]),
        short(2 * load["messages"]),
        short(load["packets"]),
        short(load["bytes"]),
        f"{load['us'] / 1e6:.2g}",
        f"{knot['us'] / 1e6:.2g}",
        short(hosts * FIGURES["bind"]["memory"]) + "B",
        short(hosts * FIGURES["knot"]["memory"]) + "B",
    ]


def return_cost(server):
    """Returns the server time of one host's reconnection, in microseconds.

    For redis, which has lost its data, it is the minimum of the measured storms. For dns, which still has its zone, it
    is the sum of opening, check and update.
    """
    figures = FIGURES[server]
    if server == "redis":
        return min(storm["us"] for storm in figures["storms"])
    return sum(figures[kind]["us"] for kind in ("open", "check", "same"))


def returns(hosts, server, lost, away, random):
    when, failures, failed = tries(lost, away, random)
    peak, last = arrivals(when)
    rate = 1e6 / return_cost(server)
    served = queue(when, failures, rate, random)
    return [short(len(when)), short(failed), short(peak), f"{last:.0f} s", f"{served:.0f} s"]


def storm_rows(random):
    for hosts in FLEETS:
        for away, word in ABSENCES:
            yield [short(hosts), word, "redis", *returns(hosts, "redis", numpy.zeros(hosts), away, random)]
        for check in STORM_CHECKS:
            for away, word in ABSENCES[1:]:
                lost = random.random(hosts) * min(check, REFRESH)
                cells = returns(hosts, "bind", lost, away, random)
                yield [short(hosts), word, f"dns, check={check}", *cells]


def wave_rows(random):
    """The load after all hosts have come back together, from the second minute on."""
    for server in ("redis", "knot"):
        figures = FIGURES[f"{server}_wave"]
        cells = [f"{figures['mean']}", f"{figures['peak']}", f"{figures['peak'] / figures['mean']:.2f}", ""]
        yield [f"{server}, measured", short(CROWD), "60", *cells]
    for hosts in (CROWD, *FLEETS):
        for check in STORM_CHECKS:
            mean, peak, second = peaks(hosts, min(check, REFRESH), random)
            cells = [f"{mean:.3g}", f"{peak:.3g}", f"{peak / mean:.2f}", f"{second / mean:.2f}"]
            yield ["computed", short(hosts), str(check), *cells]


def costs():
    """Returns the measured cost of each kind of request."""
    for server, names in (
        ("redis", ("connect", "first", "same", "changed", "look")),
        ("bind", ("open", "same", "changed", "check")),
        ("knot", ("open", "same", "changed", "check")),
    ):
        for name in names:
            figures = FIGURES[server][name]
            protocol = " / ".join(f"{n:,.0f}" for n in figures.get("protocol", []))
            cells = [f"{figures[key]:,.0f}" if key in figures else "" for key in COSTS]
            rate = f"{figures['rate']:,}" if name in ("first", "same", "changed", "check") else ""
            yield [f"{server}, {name}", protocol, *cells, rate]


def forecast(random):
    """Compares the measured storms with computed storms in which the server answers at once."""
    for server, spread in (("redis", 0), ("bind", CROWD_CHECK), ("knot", CROWD_CHECK)):
        for storm in FIGURES[server]["storms"]:
            lost = random.random(CROWD) * spread
            when, _, _ = tries(lost, storm["away"] + START, random)
            measured = [f"{storm['half']:.1f} s", f"{storm['all']:.1f} s", f"{storm['us']:.0f}"]
            computed = [f"{numpy.median(when):.1f} s", f"{when.max():.1f} s"]
            yield [server, f"{storm['away']} s", *computed, *measured]


def one_core():
    """Returns the number of hosts that one core serves if it does no other work."""
    redis = FIGURES["redis"]
    refreshes, looks = rates(1, LOOK)
    each = refreshes * redis["same"]["us"] + looks * redis["look"]["us"]
    yield ["redis", f"{1e6 / redis['same']['us']:,.0f}", f"{1e6 / redis['look']['us']:,.0f}", "", short(1e6 / each)]
    for server in ("bind", "knot"):
        figures = FIGURES[server]
        for check in CHECKS:
            each = dns_load(1, check, server)["us"]
            yield [
                f"{server}, check={check}",
                f"{1e6 / figures['same']['us']:,.0f}",
                f"{1e6 / figures['check']['us']:,.0f}",
                f"{1e6 / figures['changed']['us']:,.0f}",
                short(1e6 / each),
            ]


def main():
    random = numpy.random.default_rng(SEED)
    print(json.dumps(FIGURES["machine"]))
    head = ["request", "commands / bytes to / from", "packets", "bytes", "us of the server", "most a second"]
    table("one request; commands and bytes of the redis protocol, packets and bytes of the network", head, costs())
    head = ["hosts", "connections", "requests/s", "commands/s", "packets/s", "bytes/s", "cores"]
    table("redis at rest", [*head, "memory, new", "memory, histories full"], map(redis_rest, FLEETS))
    head = ["hosts", "check", "requests/s", "signatures/s", "packets/s", "bytes/s", "cores, BIND", "cores, Knot"]
    rows = [dns_rest(hosts, check) for hosts in FLEETS for check in CHECKS]
    table("dns at rest", [*head, "memory, BIND", "memory, Knot"], rows)
    table("one core", ["server", "repetitions/s", "looks/s", "changes/s", "hosts"], one_core())
    head = ["server", "away", "half, computed", "all, computed", "half", "all", "us a host"]
    table(f"return of {CROWD} hosts", head, forecast(random))
    head = ["hosts", "away", "back end", "notice", "tries while away", "peak/s", "all have come", "served"]
    table("after a restart; served by one core of this machine", head, storm_rows(random))
    head = ["", "hosts", "check", "requests/s", "most within 10 s, per s", "ratio", "ratio of 1 s"]
    table("load from the second minute after a common return", head, wave_rows(random))


main()
