"""Computes how hosts reconnect to a server that was unavailable, with the back-off of rdbapi/open/engine. Times are in
seconds.

In arrivals() the server serves any number of hosts at the same time. In queue() it serves a given number per second,
one after the other; a host gives up after GIVE_UP and pauses again.
"""

import numpy

MIN_BASE, MAX_BASE = 1000, 48000  # milliseconds
DOUBLINGS = 6
GIVE_UP = 10.0  # seconds; the time limit of opening a connection
STEP = 0.1  # seconds


def delays(failures, random):
    """Returns a delay for each host. failures: the number of consecutive failures of each host."""
    base = numpy.minimum(MIN_BASE * 2 ** numpy.minimum(failures - 1, DOUBLINGS), MAX_BASE)
    return (base + random.integers(0, 1 << 32, len(failures)) % (base // 4 + 1)) / 1000


def tries(lost, away, random):
    """lost: when each host detects that the server is unavailable. Hosts that would detect it only after the server's
    return are left out.

    Returns three results for the other hosts: the time between the return of the server and the host's reconnection,
    the failures of each host, and the number of failed attempts of all hosts.
    """
    when = lost[lost < away]
    failures = numpy.ones(len(when), dtype=numpy.int64)
    when = when + delays(failures, random)
    failed = len(when)
    while len(late := numpy.flatnonzero(when < away)):
        failures[late] += 1
        when[late] += delays(failures[late], random)
        failed += len(late)
    return when - away, failures, failed


def arrivals(when):
    """Returns the maximum number of hosts within one second, and the time of the last host."""
    if len(when) == 0:
        return 0, 0.0
    ordered = numpy.sort(when)
    within = numpy.searchsorted(ordered, ordered + 1.0) - numpy.arange(len(ordered))
    return int(within.max()), float(ordered[-1])


def peaks(hosts, interval, random):
    """Computes the load of hosts that have all connected at the same time. Each host makes one request per interval, at
    a random time that it keeps. interval: whole seconds.

    Returns the mean number of requests per second, and the maximum of the averages over 10 s and over 1 s.
    """
    first = random.random(hosts) * interval
    each = numpy.bincount(first.astype(numpy.int64), minlength=interval)
    around = numpy.concatenate([each, each[:9]])  # the same hosts return in the next interval
    return hosts / interval, float(numpy.convolve(around, numpy.ones(10), "valid").max()) / 10, float(each.max())


def queue(when, failures, rate, random):
    """Returns when the last host is served, at `rate` hosts per second. A host that has given up costs the server no
    time."""
    failures = failures.copy()
    buckets = {}

    def put(hosts, times):
        slots = numpy.ceil(times / STEP).astype(numpy.int64)
        order = numpy.argsort(slots, kind="stable")
        starts = numpy.flatnonzero(numpy.diff(slots[order], prepend=-1))
        for part in numpy.split(order, starts[1:]):
            buckets.setdefault(int(slots[part[0]]), []).append(hosts[part])

    put(numpy.arange(len(when)), when)
    waiting = []  # (slot of arrival, hosts)
    left, slot, credit = len(when), 0, 0.0
    while left:
        if slot in buckets:
            waiting.append((slot, numpy.concatenate(buckets.pop(slot))))
        while waiting and (slot - waiting[0][0]) * STEP >= GIVE_UP:
            _, hosts = waiting.pop(0)
            failures[hosts] += 1
            put(hosts, slot * STEP + delays(failures[hosts], random))
        credit = min(credit, rate * STEP) + rate * STEP if waiting else 0.0
        while waiting and credit >= 1:
            since, hosts = waiting.pop(0)
            served = min(len(hosts), int(credit))
            credit -= served
            left -= served
            if served < len(hosts):
                waiting.insert(0, (since, hosts[served:]))
        slot += 1
    return slot * STEP
