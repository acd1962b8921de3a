"""The topic of the time between an address change and the call that reports it."""

import random
import statistics

from rows import Bar, Result, Table

CHANGES = 200
STEP = 0.1  # seconds
PATIENCE = 60e9  # ns of the controlled clock


def latency(_):
    """Changes an address at moments that are spread over a cycle of the service. The topic controls the clock of the
    service, so the speed of the machine has no effect."""
    import sandbox as sandboxes

    if not sandboxes.permitted():
        print("-- address change left out: namespaces are not available (root is needed)")
        return Result()
    from host import DIRECTORY, DNS, RDB, Host

    host = Host()
    try:
        process, clock = host.run(RDB, DNS)
        waits = change_addresses(host, clock, host.sandbox.path(f"{DIRECTORY}/rdb.calls"))
        host.stop(process)
    finally:
        host.close()
    mean, most = statistics.mean(waits), max(waits)
    bar = Bar(
        "from an address change to the call that reports it",
        f"{most:.1f} s at most, {mean:.2f} s on average, {CHANGES} changes on a driven clock",
        "10.2 s at most, 5.1 s on average",
        most <= 10.2 and mean <= 5.1,
    )
    lines = [
        ["addrpubd", "10 s", f"{most:.1f} s", f"{mean:.2f} s", "measured"],
        ["inadyn, period = 30", "30 s", "30 s", "15 s", "from its configuration, not measured"],
        ["ddclient, daemon=60", "60 s", "60 s", "30 s", "from its configuration, not measured"],
    ]
    table = Table("From an address change to its report", ["program", "cycle", "at most", "average", ""], lines)
    plot = [["seconds"]] + [[f"{wait:.3f}"] for wait in sorted(waits)]
    return Result([bar], tables=[table], plots={"latency": plot})


def change_addresses(host, clock, log):
    """Replaces the address CHANGES times. Returns the seconds from each change to the call with the new address.

    log: the file that the recording client library extends with each call.
    """
    waits = []
    address = None
    moments = [10 * (i + 0.5) / CHANGES for i in range(CHANGES)]
    random.Random(1).shuffle(moments)
    for i, moment in enumerate(moments, 1):
        clock.advance(moment)
        if address is not None:
            host.sandbox.remove_address(address)
        address = f"2001:db8::{i:x}/128"
        host.sandbox.add_address(address)
        value = address.split("/")[0].encode()
        changed = clock.now_ns
        while not reported(host, clock, log, value):
            assert clock.now_ns - changed < PATIENCE, "the change was never reported"
        waits.append((clock.now_ns - changed) / 1e9)
    return waits


def reported(host, clock, log, value):
    """Lets STEP pass. Returns whether the library was called with the value in that time."""
    size = log.stat().st_size
    clock.advance(STEP)
    return log.stat().st_size != size and value in host.library.puts()
