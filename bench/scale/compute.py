"""compute.py: computes the load of a fleet on its Redis and DNS servers from the costs of each request in figures.json,
and writes the tables of docs/user/scale.md.

A host in normal operation checks its data every LOOK seconds with redis. With dns, it checks its data at the interval
of the url's option `check`, but at least every REFRESH seconds. One check within each REFRESH seconds is a refresh
instead: a put with redis, an update with dns. Without checks, a host makes one update within REPEAT seconds. Each host
has one address and HTTPS port 443. So a check has one query over UDP, or two if the server does not add the AAAA
records to the first answer. A host whose address changes makes further requests.
"""

import json
import sys
from pathlib import Path

import numpy
from storms import arrivals, peaks, queue, tries

ROOT = Path(__file__).resolve().parents[2]
sys.path.append(str(ROOT / "tests/support"))
from page_figures import replace, table  # noqa: E402

PAGE = ROOT / "docs/user/scale.md"
FIGURES = json.loads(Path(__file__).with_name("figures.json").read_text())
COSTS = ("packets", "bytes", "us")
FLEETS = (10_000, 1_000_000)
REPEAT = 600  # seconds after which the service repeats an unchanged list
REFRESH = 540  # seconds within which the library writes an unchanged list again
LOOK = 60  # seconds between two checks of a connection to redis
CHECK_QUERIES = {"bind": 1, "knot": 2}
CHECKS = (60, 600, 0)  # values of the url's option `check`; 0: no checks
STORM_CHECKS = (60, 600)
HISTORY = 1_000  # history entries that redis keeps for each host
MASTERS = 3  # masters of the cluster; the reconnection of the hosts to one of them is computed
ABSENCES = ((0.5, "0.5 s"), (10, "10 s"), (600, "10 min"), (3600, "1 h"))
CROWD = 640  # hosts in the measured reconnection storms
CROWD_CHECK = 5  # seconds between the checks of these hosts
START = 0.2  # seconds that a server takes to start
SEED = 1
NAMES = {"redis": "redis", "bind": "BIND", "knot": "Knot"}


def short(number):
    """Returns a number with three digits, or four without a unit prefix, and its unit prefix."""
    for limit, suffix in ((1e9, " G"), (1e6, " M"), (1e4, " k")):
        if number >= limit:
            return f"{number / (1e3 if suffix == ' k' else limit):.3g}{suffix}"
    return f"{number:.3g}" if number < 100 else f"{number:,.0f}"


def loads(kinds):
    """Adds up rate times cost over the kinds of requests. Returns {requests, packets, bytes, us, ...} per second."""
    total = {}
    for rate, costs in kinds:
        for name, figure in costs.items():
            total[name] = total.get(name, 0) + rate * figure
    return total


def rates(hosts, check):
    """Returns the refreshes and checks per second. check: seconds between two checks. With 0 there are no checks, and
    repetitions by the service replace the refreshes."""
    if check == 0:
        return hosts / REPEAT, 0
    interval = min(check, REFRESH)
    refreshes = hosts / (REFRESH // interval * interval)
    return refreshes, hosts / interval - refreshes


def redis_load(hosts):
    redis = FIGURES["redis"]
    kinds = ({"requests": 1} | {key: redis[kind][key] for key in COSTS} for kind in ("same", "look"))
    return loads(zip(rates(hosts, LOOK), kinds, strict=True))


def dns_load(hosts, check, server):
    figures = FIGURES[server]
    kinds = (
        {"requests": 1, "messages": messages} | {key: figures[kind][key] for key in COSTS}
        for kind, messages in (("same", 1), ("check", CHECK_QUERIES[server]))
    )
    return loads(zip(rates(hosts, check), kinds, strict=True))


def cost_rows():
    """The measured cost of each kind of request."""
    yield ["server", "request", "packets", "bytes", "server's time", "maximum rate seen, per second"]
    for server, kinds in (
        (
            "redis",
            {
                "connect": "opening",
                "first": "first publication",
                "changed": "changed address",
                "same": "refresh",
                "look": "check",
            },
        ),
        ("bind", {"open": "opening", "changed": "changed address", "same": "refresh", "check": "check"}),
        ("knot", {"open": "opening", "changed": "changed address", "same": "refresh", "check": "check"}),
    ):
        for kind, words in kinds.items():
            figures = FIGURES[server][kind]
            cells = [short(figures[key]) if key in figures else "" for key in COSTS[:2]]
            time = f"{figures['us']:.0f} us" if "us" in figures else ""
            rate = short(figures["rate"]) if kind in ("first", "same", "changed") else ""
            yield [NAMES[server], words, *cells, time, rate]
    yield ["redis", "return of a host to a server that lost its data", "", "", f"{return_cost('redis'):.0f} us", ""]


def capacity_rows():
    """The hosts that one core serves if it does no other work."""
    yield ["server", *(f"`check={check}`" for check in CHECKS)]
    yield ["redis", short(1e6 / redis_load(1)["us"]), "", ""]
    for server in ("bind", "knot"):
        yield [NAMES[server], *(short(1e6 / dns_load(1, check, server)["us"]) for check in CHECKS)]


def redis_rows():
    yield ["hosts", "requests/s", "packets/s", "bytes/s", "cores", "memory, new", "after ten changes", "histories full"]
    memory = FIGURES["redis"]["memory"]
    for hosts in FLEETS:
        load = redis_load(hosts)
        held = [
            hosts * (memory["connection"] + each)
            for each in (memory["host"], memory["changed host"], memory["host"] + HISTORY * memory["history"])
        ]
        cells = [short(load[name]) for name in ("requests", "packets", "bytes")]
        yield [short(hosts), *cells, f"{load['us'] / 1e6:.2g}", *(short(each) + "B" for each in held)]


def memory_rows():
    memory = FIGURES["redis"]["memory"]
    yield ["idle connection", "new host", "host after ten changes", "entry of a full history"]
    yield [f"{memory[key]:,.0f} bytes" for key in ("connection", "host", "changed host", "history")]


def dns_rows():
    yield ["server", "hosts", "check", "requests/s", "signatures/s", "packets/s", "bytes/s", "cores", "memory"]
    for server in ("bind", "knot"):
        for hosts in FLEETS:
            for check in CHECKS:
                load = dns_load(hosts, check, server)
                cells = [load["requests"], 2 * load["messages"], load["packets"], load["bytes"]]
                memory = short(hosts * FIGURES[server]["memory"]) + "B"
                yield [
                    NAMES[server],
                    short(hosts),
                    str(check),
                    *map(short, cells),
                    f"{load['us'] / 1e6:.2g}",
                    memory,
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


def return_cells(hosts, server, lost, away, random):
    """Returns the table cells for the reconnection of hosts to one server."""
    when, failures, failed = tries(lost, away, random)
    peak, last = arrivals(when)
    served = queue(when, failures, 1e6 / return_cost(server), random)
    return [short(len(when)), short(failed), short(peak), f"{last:.0f} s", f"{served:.0f} s"]


def restart_rows(random):
    yield ["server", "hosts", "outage", "detect it", "refused attempts", "peak", "come", "served"]
    for hosts in FLEETS:
        for away, word in ABSENCES:
            yield ["redis", short(hosts), word, *return_cells(hosts, "redis", numpy.zeros(hosts), away, random)]
    part = FLEETS[-1] // MASTERS
    for away, word in ABSENCES:
        cells = return_cells(part, "redis", numpy.zeros(part), away, random)
        yield [f"each of {MASTERS} masters of a redis cluster", short(part), word, *cells]
    for hosts in FLEETS:
        for check in STORM_CHECKS:
            for away, word in ABSENCES[1:]:
                lost = random.random(hosts) * min(check, REFRESH)
                cells = return_cells(hosts, "bind", lost, away, random)
                yield [f"BIND, `check={check}`", short(hosts), word, *cells]


def forecast_rows(random):
    """Compares the measured storms with computed storms in which the server answers at once."""
    yield ["server", "outage", "half, measured", "half, computed", "all, measured", "all, computed"]
    for server, spread in (("redis", 0), ("bind", CROWD_CHECK), ("knot", CROWD_CHECK)):
        for storm in FIGURES[server]["storms"]:
            lost = random.random(CROWD) * spread
            when, _, _ = tries(lost, storm["away"] + START, random)
            times = [storm["half"], numpy.median(when), storm["all"], when.max()]
            words = NAMES[server] + (f", `check={spread}`" if spread else "")
            yield [words, f"{storm['away']} s", *(f"{time:.1f} s" for time in times)]


def wave_rows(random):
    """The load after all hosts have reconnected together, starting 20 s after the last host has published."""
    yield ["hosts", "`check`", "requests/s", "maximum of 10 s, per second", "ratio", "ratio of 1 s"]
    for server in ("redis", "knot"):
        mean, peak = (FIGURES[f"{server}_wave"][key] for key in ("mean", "peak"))
        yield [f"{CROWD}, {NAMES[server]}, measured", "60", short(mean), short(peak), f"{peak / mean:.2f}", ""]
    for hosts in (CROWD, *FLEETS):
        for check in STORM_CHECKS:
            mean, peak, second = peaks(hosts, min(check, REFRESH), random)
            cells = [short(mean), short(peak), f"{peak / mean:.2f}", f"{second / mean:.2f}"]
            yield [f"{short(hosts)}, computed", str(check), *cells]


def limit_rows():
    cluster = FIGURES["redis_cluster"]
    yield ["comparison", "first", "second", "ratio"]
    pairs = (
        (
            "changes/s: a cluster of three masters, one server; a tenth of a processor for each server",
            *(f"{cluster[key]:,}" for key in ("cluster", "one")),
            f"{cluster['factor']:.2f}",
        ),
        (
            "update of BIND, 10,000 hosts with a key each: two rules for each host, one rule for all",
            *(f"{FIGURES['policies'][key]:.0f} us" for key in ("name", "selfsub")),
            f"{FIGURES['policies']['name'] / FIGURES['policies']['selfsub']:.2f}",
        ),
    )
    yield from map(list, pairs)


def main():
    random = numpy.random.default_rng(SEED)
    machine = FIGURES["machine"]
    dated = f"Measured on {machine['date']}, processor {machine['processor']}, load before the run {machine['load']}."
    blocks = {
        "machine": dated,
        "costs": table(cost_rows()),
        "capacity": table(capacity_rows()),
        "redis": table(redis_rows()),
        "memory": table(memory_rows()),
        "dns": table(dns_rows()),
        "restart": table(restart_rows(random)),
        "forecast": table(forecast_rows(random)),
        "wave": table(wave_rows(random)),
        "limits": table(limit_rows()),
    }
    for name, text in blocks.items():
        replace(name, text, PAGE)
        print(f"\n{name}\n\n{text}")


main()
