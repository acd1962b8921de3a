"""How the cost of a request is counted: processor time of the server, and packets and bytes on the loopback.

Each time is the minimum of ROUNDS repetitions, because other programs on the machine can only increase it. Each rate is
the maximum of the same repetitions. Repetitions of cases that are compared are interleaved.
"""

import signal
import time
from pathlib import Path

ROUNDS = 3
SECONDS = 2  # duration of one repetition
MANY = 64  # hosts that publish at the same time
NAMES = 156  # names under which each of these hosts publishes
CROWD = 640  # hosts that lose the connection to their server
PACED = 15  # requests, one after the other, during which packets are counted
PAUSE = 0.06  # seconds between these requests; longer than a delayed acknowledgement
ETHERNET = 14  # bytes per packet that the loopback counts in addition to IP


def wire():
    """Returns the packets that have crossed the loopback, and their bytes including the IP header."""
    words = next(line for line in Path("/proc/net/dev").read_text().splitlines() if "lo:" in line).split()
    packets = int(words[10])
    return packets, int(words[9]) - ETHERNET * packets


def datagrams():
    """Returns the number of UDP datagrams that were received in this network."""
    lines = Path("/proc/net/snmp").read_text().splitlines()
    names, values = (line.split() for line in lines if line.startswith("Udp:"))
    return int(values[names.index("InDatagrams")])


def crossed(action, count=1):
    """Returns packets and bytes per request. action makes count requests."""
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
    """Kills the server and starts it again after away seconds.

    Returns the seconds until half of the hosts and until all hosts have published to it, and the server time per host.
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
