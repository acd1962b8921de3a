"""How a request's cost is counted: processor time of the server, packets and bytes of the loopback.

Every time is the least of ROUNDS repetitions, which are interleaved where cases are compared: what else runs on the
machine can only add to it. Rates are the most of the same repetitions.
"""

import signal
import time
from pathlib import Path

ROUNDS = 3
SECONDS = 2  # of one repetition
MANY = 64  # hosts that publish at once
NAMES = 156  # names of each of them
CROWD = 640  # hosts that lose their server
PACED = 15  # requests whose packets are counted, one after the other
PAUSE = 0.06  # seconds between them: longer than a delayed acknowledgement
ETHERNET = 14  # bytes that the loopback counts for each packet beyond IP


def wire():
    """Packets that have crossed the loopback, and their bytes from IP up."""
    words = next(line for line in Path("/proc/net/dev").read_text().splitlines() if "lo:" in line).split()
    packets = int(words[10])
    return packets, int(words[9]) - ETHERNET * packets


def opened():
    """TCP connections accepted in this network so far."""
    lines = Path("/proc/net/snmp").read_text().splitlines()
    names, values = (line.split() for line in lines if line.startswith("Tcp:"))
    return int(values[names.index("PassiveOpens")])


def crossed(action, count=1):
    """Packets and bytes of one of the count requests that action makes."""
    time.sleep(PAUSE)  # until what was closed before has said good-bye
    before = wire()
    action()
    time.sleep(PAUSE)
    packets, size = (now - then for now, then in zip(wire(), before, strict=True))
    return {"packets": round(packets / count, 1), "bytes": round(size / count)}


def paced(action):
    """Packets and bytes of one action, made PACED times."""

    def repeat():
        for _ in range(PACED):
            action()
            time.sleep(PAUSE)

    return crossed(repeat, PACED)


def cost(server, work):
    """Runs work, which returns how many requests it made: microseconds of the server, and requests a second."""
    cpu, start = server.cpu(), time.monotonic()
    count = work()
    return (server.cpu() - cpu) / count * 1e6, count / (time.monotonic() - start)


def best(server, works):
    """Runs all of works ROUNDS times in turn: for each name the least microseconds and the most requests a second."""
    found = {name: [] for name in works}
    for _ in range(ROUNDS):
        for name, work in works.items():
            found[name].append(cost(server, work))
    return {
        name: {"us": round(min(us for us, _ in runs), 1), "rate": round(max(rate for _, rate in runs))}
        for name, runs in found.items()
    }


def storm(server, hosts, away):
    """Kills the server and starts it again after so many seconds. Returns the seconds until half, and until all hosts
    have published to it, and what one host's return costs the server."""
    server.end(signal.SIGKILL)
    time.sleep(away)
    start = server.start()
    cpu = server.cpu()
    times = hosts.wait("told", CROWD, since=start - 0.05)
    time.sleep(0.5)
    return {
        "away": away,
        "half": round(times[len(times) // 2] - start, 1),
        "all": round(times[-1] - start, 1),
        "us": round((server.cpu() - cpu) / CROWD * 1e6, 1),
    }
