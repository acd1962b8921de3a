"""The topic of the start and end of a command: the instructions of the process from exec to exit."""

from measure import start_cost, succeeds
from programs import install, peers, real, standin
from rows import Bar, Cost, Result, Table

#  A private /run, because the command must not see the pid file of a service on this machine.
PRIVATE_RUN = ["unshare", "--mount", "--ipc", "sh", "-c", 'mount -t tmpfs tmpfs /run && exec "$@"', "sh"]


def start(figures):
    build = figures.build
    alone, whole = build / "run/alone", build / "run/real"
    install(alone, build, standin(build))
    install(whole, build, real(build))
    if not succeeds(*PRIVATE_RUN, "true"):
        print("-- start left out: namespaces are not available (root is needed)")
        return Result()
    costs = {
        "addrpubd -status": start_cost("./addrpubd", "-status", cwd=whole, wrap=PRIVATE_RUN),
        "addrpubd -ver": start_cost("./addrpubd", "-ver", cwd=whole),
        "addrpubd -ver, executable alone": start_cost("./addrpubd", "-ver", cwd=alone),
        "the support library's start, reading the time zone": start_cost(build / "bare_start"),
        "/bin/true": start_cost("/bin/true"),
    }
    found = peers(build)
    if "inadyn" in found:
        costs["inadyn --version"] = start_cost(found["inadyn"], "--version")
    if "ddclient" in found:
        costs["ddclient -version"] = start_cost(found["ddclient"], "-version")
    lines = [[name, *(f"{figure:,}" for figure in cost)] for name, cost in costs.items()]
    note = '"Executable alone" is the executable with a client library that has no dependencies.'
    table = Table("Start and end", ["command", "instructions", "of these outside the loader"], lines, note)
    return Result(start_bars(costs), [start_layout(costs)], [table])


def start_bars(costs):
    status, outside = costs["addrpubd -status"]
    bars = [
        Bar(
            "-status with the real client library",
            f"{status / 1e6:.2f} million instructions",
            "at most 0.5 million",
            status <= 500_000,
            why=f"Except for {outside:,} instructions, all are executed by the loader, for the libraries that the "
            "client library needs.",
        )
    ]
    if "inadyn --version" in costs:
        whole, alone, peer = (
            costs[name][0] for name in ("addrpubd -ver", "addrpubd -ver, executable alone", "inadyn --version")
        )
        bars.append(
            Bar(
                "-ver beside inadyn --version",
                f"executable alone {alone / peer:.3f}, with the real client library {whole / peer:.3f}",
                "executable alone at most 0.1",
                alone <= 0.1 * peer,
            )
        )
    return bars


def start_layout(costs):
    own, floor, least = (
        costs[name][1]
        for name in (
            "addrpubd -ver, executable alone",
            "the support library's start, reading the time zone",
            "/bin/true",
        )
    )
    return Cost(
        "-ver, executable alone, outside the loader",
        f"{own:,} instructions",
        f"1.1 times /bin/true, which is {1.1 * least:,.0f}",
        f"{floor:,} instructions: a program that only constructs the allocator and reads the time zone",
        "The allocator builds its 30 classes before main and destroys them after it, and tunes the C library's malloc, "
        "whatever the command word is.",
    )
