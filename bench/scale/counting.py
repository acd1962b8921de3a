"""How the cost of a request is counted: processor time of the server, and packets and bytes on the loopback.

Each time of a request is the minimum of ROUNDS repetitions, because other programs on the machine can only increase
it. Each rate is the maximum of the same repetitions. Repetitions of cases that are measured together are interleaved.
"""

import signal
import time
from pathlib import Path

import numpy

ROUNDS = 3
SECONDS = 2  # duration of one repetition
MANY = 64  # hosts that publish at the same time
NAMES = 156  # names under which each of these hosts publishes
CROWD = 640  # hosts of the storms, of the waves and of other measurements with many connections
PACED = 15  # requests, one after the other, during which packets are counted
PAUSE = 0.06  # seconds between these requests; longer than a delayed acknowledgement
SPEED = 10  # factor by which the clock runs faster for hosts whose load is measured over time
REPEAT = 600  # seconds after which the service repeats an unchanged list
WINDOW = 10  # seconds over which a load is averaged; the length of the service's cycle
ETHERNET = 14  # bytes per packet that the loopback counts in addition to IP


def wire():
    """Returns the packets that have crossed the loopback, and their bytes including the IP header."""
    words = next(line for line in Path("/proc/net/dev").read_text().splitlines() if "lo:" in line).split()
    packets = int(words[10])
    return packets, int(words[9]) - ETHERNET * packets


def counter(protocol, name):
    lines = Path("/proc/net/snmp").read_text().splitlines()
    names, values = (line.split() for line in lines if line.startswith(protocol + ":"))
    return int(values[names.index(name)])


def datagrams():
    """Returns the number of UDP datagrams that were received in this network."""
    return counter("Udp", "InDatagrams")


def accepted():
    """Returns the number of TCP connections that were accepted in this network."""
    return counter("Tcp", "PassiveOpens")


def crossed(action, count=1):
    """Returns packets and bytes per request. `action` makes `count` requests."""
    time.sleep(PAUSE)  # until the connections that were closed before have ended
    before = wire()
    action()
    time.sleep(PAUSE)
    packets, size = (now - then for now, then in zip(wire(), before, strict=True))
    return {"packets": round(packets / count, 1), "bytes": round(size / count)}


def paced(action):
    """Returns the packets and bytes of one action. The action is repeated PACED times."""

    def repeat():
        for _ in range(PACED):
            action()
            time.sleep(PAUSE)

    return crossed(repeat, PACED)


def cost(server, work):
    """Runs work, which returns its number of requests. Returns the server time per request in us, and the requests per
    second."""
    cpu, start = server.cpu(), time.monotonic()
    count = work()
    return (server.cpu() - cpu) / count * 1e6, count / (time.monotonic() - start)


def best(server, works):
    """Runs all works in turn, ROUNDS times. Returns the minimum time and the maximum rate for each name."""
    found = {name: [] for name in works}
    for _ in range(ROUNDS):
        for name, work in works.items():
            found[name].append(cost(server, work))
    return {
        name: {"us": round(min(us for us, _ in runs), 1), "rate": round(max(rate for _, rate in runs))}
        for name, runs in found.items()
    }


def storm(server, hosts, away):
    """Kills the server and starts it again after `away` seconds.

    Returns the seconds until half of the hosts and until all hosts have published to the server, and the server's
    processor time per host.
    """
    server.end(signal.SIGKILL)
    time.sleep(away)
    start = server.start()
    cpu = server.cpu()
    times = hosts.wait("published", CROWD, since=start - 0.05)
    time.sleep(0.5)
    return {
        "away": away,
        "half": round(times[len(times) // 2] - start, 1),
        "all": round(times[-1] - start, 1),
        "us": round((server.cpu() - cpu) / CROWD * 1e6, 1),
    }


def wave(server, hosts, away, count):
    """Kills the server and starts it again after `away` seconds, so that all hosts reconnect together. Measures the
    requests of the following two repetition intervals. Times and rates are those of the hosts' clock.

    count: returns the number of requests that the server has received so far.

    Returns the mean number of requests per second, the maximum of the averages over WINDOW, the requests in each WINDOW
    from the return on, and the connections that were lost. Mean, maximum and losses begin two windows after the last
    host has published, because until then hosts still reconnect. A loss shows that the machine was too slow for the
    fast clock.
    """
    hosts.order(f"repeat {REPEAT / SPEED}")
    hosts.wait("published", CROWD)
    time.sleep(1)
    hosts.events.clear()
    server.end(signal.SIGKILL)
    time.sleep(away / SPEED)
    start = server.start()
    samples = []
    since = None
    while since is None or time.monotonic() < since + 2 * (REPEAT + 2 * WINDOW) / SPEED:
        samples.append(((time.monotonic() - start) * SPEED, count()))
        if since is None and len(hosts.times("published")) == CROWD:
            since = time.monotonic()
        time.sleep(WINDOW / SPEED / 20)
    late = since * SPEED + 2 * WINDOW
    lost = len([kind for kind, _, when in hosts.events if kind == "lost" and when > late])
    return loads_of(samples, (since - start) * SPEED + 2 * WINDOW) | {"lost": lost}


def loads_of(samples, since):
    """samples: pairs of a time in seconds and the number of requests up to that time."""
    times, counts = zip(*samples, strict=True)
    begins = numpy.arange(times[0], times[-1] - WINDOW, WINDOW / 20)
    sums = numpy.interp(begins + WINDOW, times, counts) - numpy.interp(begins, times, counts)
    later = begins >= since
    total = numpy.interp([since, times[-1]], times, counts)
    return {
        "mean": round(float(total[1] - total[0]) / (times[-1] - since), 1),
        "peak": round(float(sums[later].max()) / WINDOW, 1),
        "windows": [round(float(each)) for each in sums[::20]],
    }
