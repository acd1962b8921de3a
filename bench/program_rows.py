"""Topics of the whole program: its start, its idle state, and how soon a change is told."""

import os
import random
import shutil
import statistics
import subprocess
import sys
import time
from pathlib import Path

from measure import by_object
from rows import Result, Row, Table, mb

ROOT = Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "tests/support"), str(ROOT / "tests/system")]

IDLE_SECONDS = 30
CHANGES = 200
INI = """hostname = host1
logurl =
rdburl = rdb://192.0.2.1:900
rdbuser = u
rdbpswd = p
dnsurl = dns://192.0.2.2:901
dnsuser = u
dnspswd = p
"""
PEER_SETTINGS = {
    "inadyn": """period = 30
custom bench {
    ddns-server = 192.0.2.2
    hostname = host1.example.net
}
""",
    "ddclient": """daemon=60
use=if, if=lo
protocol=dyndns2
server=192.0.2.2
login=u
password=p
host1.example.net
""",
}
PEER_WORDS = {
    "inadyn": ["-n", "--cache-dir=/mnt/run", "-I", "bench", "--config"],
    "ddclient": ["-foreground", "-cache", "/mnt/run/cache", "-file"],
}


def peers_unpacked(build):
    """The two peers' executables, unpacked beside the build and not installed: an installed one would start itself."""
    folder = build / "peers"
    found = {}
    for name, program in (("inadyn", "usr/bin/inadyn"), ("ddclient", "usr/bin/ddclient")):
        if not (folder / program).exists():
            folder.mkdir(exist_ok=True)
            script = f"apt-get download {name} && dpkg -x {name}_*.deb ."
            subprocess.run(["sh", "-c", script], cwd=folder, capture_output=True, check=False)
        if (folder / program).exists():
            found[name] = folder / program
        else:
            print(f"-- benchmark peer left out: {name} cannot be downloaded")
    return found


def without_loader(costs):
    return sum(cost for where, cost in costs.items() if "ld-linux" not in where)


def version(times, _):
    folder = times.build / "run"
    folder.mkdir(exist_ok=True)
    shutil.copy(times.build / "addrpubd", folder)
    shutil.copy(times.build / "bench/quiet/librdbapix64.so", folder)
    own = by_object("./addrpubd", "-ver", cwd=folder)
    least = by_object("/bin/true")
    peers = peers_unpacked(times.build)
    ratio = without_loader(own) / without_loader(least)
    of_all = without_loader(own) / sum(least.values())
    result = Result()
    result.rows.append(
        Row(
            "-ver from exec to exit, instructions outside the loader",
            f"{ratio:.2f} of /bin/true's outside its loader ({without_loader(own):,} and {without_loader(least):,}); "
            f"{of_all:.2f} of all of /bin/true's",
            "at most 1.1 of those outside its loader",
            ratio <= 1.1,
            "/bin/true does nothing; here some 7,300 instructions build the allocator's 30 classes before main and "
            "take them down after it, 4,200 read the time zone and 1,500 tune the C library's allocator, whatever the "
            "command word. The rest is the C library's own start and end and two printed lines.",
        )
    )
    lines = [["addrpubd -ver", f"{sum(own.values()):,}", f"{without_loader(own):,}"]]
    lines.append(["/bin/true", f"{sum(least.values()):,}", f"{without_loader(least):,}"])
    if "inadyn" in peers:
        other = by_object(peers["inadyn"], "--version")
        ratio = sum(own.values()) / sum(other.values())
        lines.append(["inadyn --version", f"{sum(other.values()):,}", f"{without_loader(other):,}"])
        why = "inadyn's start is nearly all its loader's work for the libraries that it needs."
        topic = "-ver beside inadyn --version, all instructions"
        result.rows.append(Row(topic, f"{ratio:.3f}", "at most 0.1", ratio <= 0.1, why))
    command = "valgrind --tool=callgrind ./addrpubd -ver, in a folder with bench/quiet/librdbapix64.so"
    result.tables.append(Table("Start and end", ["program", "instructions", "outside the loader"], lines, command))
    return result


class Idle:
    """One program in the sandbox, looked at twice."""

    def __init__(self, sandbox, name, *argv, **options):
        self.name = name
        self._sandbox = sandbox
        self._process = sandbox.spawn(*argv, **options)

    def _read(self, what):
        return self._sandbox.run("cat", f"/proc/{self._process.pid}/{what}").decode()

    def _figures(self):
        status = dict(line.split(":") for line in self._read("status").splitlines())
        return int(status["voluntary_ctxt_switches"]), int(self._read("schedstat").split()[0])

    def begin(self):
        assert self._process.running(), f"{self.name} ended: {self._process.output_so_far()!r}"
        self._before = self._figures()

    def finish(self):
        """Sets resident and private bytes, wake-ups a minute and processor time a minute in ms."""
        after = self._figures()
        self.wakeups = (after[0] - self._before[0]) * 60 / IDLE_SECONDS
        self.busy = (after[1] - self._before[1]) * 60 / IDLE_SECONDS / 1e6
        sizes = {}
        for line in self._read("smaps_rollup").splitlines()[1:]:
            key, value = line.split()[:2]
            sizes[key.rstrip(":")] = int(value) * 1024
        self.resident = sizes["Rss"]
        self.private = sizes["Private_Clean"] + sizes["Private_Dirty"]
        assert self._process.running(), f"{self.name} ended: {self._process.output_so_far()!r}"


def start_all(sandbox, build):
    inside = "/mnt/run"
    folder = sandbox.path(inside)
    folder.mkdir()
    for file in ("addrpubd", "bench/quiet/librdbapix64.so", "bare_loop"):
        shutil.copy(build / file, folder)
    (folder / "addrpubd.ini").write_text(INI)
    sandbox.add_address("2001:db8::1/128")
    programs = [Idle(sandbox, "addrpubd", "./addrpubd", "-run", cwd=inside)]
    programs.append(Idle(sandbox, "bare loop", "./bare_loop", cwd=inside))
    for name, program in peers_unpacked(build).items():
        shutil.copy(program, folder)
        config = folder / f"{name}.conf"
        config.write_text(PEER_SETTINGS[name])
        config.chmod(0o600)
        programs.append(Idle(sandbox, name, f"./{name}", *PEER_WORDS[name], f"{inside}/{name}.conf", cwd=inside))
    return programs


def idle(times, _):
    import sandbox as sandboxes

    if not sandboxes.permitted():
        print("-- idle service left out: no namespaces to be had (root is needed)", file=sys.stderr)
        return Result()
    sandbox = sandboxes.Sandbox()
    try:
        programs = start_all(sandbox, times.build)
        time.sleep(3)
        for program in programs:
            program.begin()
        time.sleep(IDLE_SECONDS)
        for program in programs:
            program.finish()
    finally:
        sandbox.close()
    return idle_rows(programs)


def idle_rows(programs):
    own, loop, *peers = programs
    beside = ", ".join(f"{own.resident / peer.resident:.2f} of {peer.name}" for peer in peers)
    bars = {"inadyn": 0.4, "ddclient": 0.12}
    resident_met = own.resident <= 1.9e6 and all(own.resident <= bars[peer.name] * peer.resident for peer in peers)
    result = Result()
    result.rows += [
        Row(
            "the idle service, resident",
            f"{mb(own.resident)}; {beside}; bare loop {mb(loop.resident)}",
            "at most 1.9 MB, 0.4 of inadyn and 0.12 of ddclient",
            resident_met,
            "Most of it is the C library's own pages, shared with every other process of the machine.",
        ),
        Row(
            "the idle service, private",
            f"{own.private / 1024:.0f} kB; bare loop {loop.private / 1024:.0f} kB",
            "at most 320 kB",
            own.private <= 320 * 1024,
            "A page that is private here is one that no other process has mapped at the time, the program's own code "
            "included.",
        ),
        Row("the idle service, wake-ups a minute", f"{own.wakeups:.0f}", "at most 600", own.wakeups <= 600),
        Row(
            "the idle service, processor time",
            f"{own.busy / loop.busy:.2f} of the bare loop ({own.busy:.2f} and {loop.busy:.2f} ms a minute)",
            "at most 1.1 of the bare loop",
            own.busy <= 1.1 * loop.busy,
            f"A few milliseconds a minute, most of it the kernel's for 600 sleeps, over {IDLE_SECONDS} seconds: noise "
            "moves it by a tenth.",
        ),
    ]
    lines = [
        [one.name, mb(one.resident), f"{one.private / 1024:.0f} kB", f"{one.wakeups:.0f}", f"{one.busy:.2f} ms"]
        for one in programs
    ]
    head = ["program", "resident", "private", "wake-ups a minute", "processor time a minute"]
    note = f"All side by side in one set of namespaces for {IDLE_SECONDS} seconds."
    result.tables.append(Table("Idle", head, lines, "scripts/bench idle", note))
    return result


def latency(times, _):
    """200 changes at moments all over a cycle, on a driven clock: the service's own waiting, not the machine's."""
    import sandbox as sandboxes

    if not sandboxes.permitted():
        print("-- address change left out: no namespaces to be had (root is needed)", file=sys.stderr)
        return Result()
    os.environ["ADDRPUBD_BUILD"] = str(times.build)
    from host import DNS, RDB, Host

    host = Host()
    try:
        process, hand = host.run(RDB, DNS)
        waits = one_change_after_another(host, hand, random.Random(1))
        host.stop(process)
    finally:
        host.close()
    mean, most = statistics.mean(waits), max(waits)
    row = Row(
        "an address change to the call that reports it",
        f"{most:.1f} s at most, {mean:.2f} s in the mean, over {CHANGES} changes on a driven clock",
        "at most 10.2 s, 5.1 s in the mean",
        most <= 10.2 and mean <= 5.1,
        "A cycle begins when the clock's whole second is ten on from the last one, and the wake-ups come every 100 ms: "
        "the mean is half of that.",
    )
    lines = [["addrpubd", "10 s", f"{most:.1f} s", f"{mean:.2f} s", "measured"]]
    lines.append(["inadyn, period = 30", "30 s", "30 s", "15 s", "from its configuration, not measured"])
    lines.append(["ddclient, daemon=60", "60 s", "60 s", "30 s", "from its configuration, not measured"])
    head = ["program", "shortest period", "at most", "mean", ""]
    note = "The changes are spread evenly over a cycle, in a shuffled order; the clock is driven, so nobody waits."
    table = Table("From an address change to its report", head, lines, "scripts/bench latency", note)
    return Result([row], [table], {"latency": [["seconds"]] + [[f"{wait:.3f}"] for wait in sorted(waits)]})


def one_change_after_another(host, hand, order):
    """Moves one address on and on. Returns, for each change, the seconds until the snapshot was put that tells it."""
    step = 0.1
    waits = []
    device_address = None
    moments = [10 * (i + 0.5) / CHANGES for i in range(CHANGES)]
    order.shuffle(moments)
    for i, moment in enumerate(moments):
        hand.advance(moment)
        if device_address is not None:
            host.sandbox.remove_address(device_address)
        device_address = f"2001:db8::{i + 1:x}/128"
        host.sandbox.add_address(device_address)
        wanted = device_address.split("/")[0].encode()
        changed = hand.now_ns
        while wanted not in host.library.puts():
            hand.advance(step)
            assert hand.now_ns - changed < 60e9, "the change was never told"
        waits.append((hand.now_ns - changed) / 1e9)
    return waits
