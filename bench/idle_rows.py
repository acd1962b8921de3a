"""The topic of the idle service: its memory and its wake-ups."""

import shutil
import time
from pathlib import Path

from programs import install, peers, real, standin
from rows import Bar, Result, Table, mb

IDLE_SECONDS = 30
SETTLE_SECONDS = 2
FOLDER = "/mnt/run"
STATE_FOLDER = "/run/addrpubd"
ADDRESS = "2001:db8::1"
INI = """hostname = {name}
logurl =
rdburl = {rdburl}
rdbuser = default
rdbpswd = none
dnsurl = {dnsurl}
dnsuser = {dnsuser}
dnspswd = {dnspswd}
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
    "inadyn": ["-n", f"--cache-dir={FOLDER}", "-I", "bench", "--config"],
    "ddclient": ["-foreground", "-cache", f"{FOLDER}/cache", "-file"],
}


class Idle:
    """A program in a sandbox. wakeups and busy are None until set_rates() is called.

    The program's memory addresses are not randomised. The kernel maps files in aligned windows of 64 KiB around each
    page fault, so random addresses would change the resident size by up to a tenth.
    """

    def __init__(self, sandbox, name, *argv):
        self.name = name
        self.wakeups = self.busy = None
        self._sandbox = sandbox
        self._process = sandbox.spawn("setarch", "-R", *argv, cwd=FOLDER)

    def _read(self, file):
        assert self._process.running(), f"{self.name} ended: {self._process.output_so_far()!r}"
        return self._sandbox.run("cat", f"/proc/{self._process.pid}/{file}").decode()

    def counters(self):
        """Returns the wake-ups of the main thread, and its processor time in ns."""
        status = dict(line.split(":") for line in self._read("status").splitlines())
        return int(status["voluntary_ctxt_switches"]), int(self._read("schedstat").split()[0])

    def set_rates(self, before):
        """Sets wake-ups per minute, and processor time per minute in ms. before: the counters IDLE_SECONDS ago."""
        after = self.counters()
        self.wakeups = (after[0] - before[0]) * 60 / IDLE_SECONDS
        self.busy = (after[1] - before[1]) * 60 / IDLE_SECONDS / 1e6

    def set_memory(self):
        """Sets resident and private bytes, and the resident bytes of each mapped file.

        Private pages are pages that the program has written and pages of its own files, which are in a file system in
        memory and therefore dirty. Unchanged pages of installed libraries are not private, because other processes may
        share them.
        """
        self.resident = self.private = 0
        self.files = {}
        name = ""
        for first, *words in map(str.split, self._read("smaps").splitlines()):
            if not first.endswith(":"):  # ADDRESSES MODE OFFSET DEVICE INODE [FILE]
                name = Path(words[4]).name if len(words) > 4 else "memory without a file"
            elif first == "Rss:":
                self.resident += int(words[0]) * 1024
                self.files[name] = self.files.get(name, 0) + int(words[0]) * 1024
            elif first == "Private_Dirty:":
                self.private += int(words[0]) * 1024

    def largest(self):
        """Returns a sentence that names the five files with the most resident bytes."""
        sizes = sorted(self.files.items(), key=lambda file: file[1], reverse=True)[:5]
        return "Of the resident bytes, " + ", ".join(f"{mb(size)} are {name}" for name, size in sizes) + "."


def service(sandbox, build, libraries, title, **settings):
    """Starts addrpubd on a host with one address, and returns the program."""
    install(sandbox.path(FOLDER), build, libraries)
    sandbox.path(f"{FOLDER}/addrpubd.ini").write_text(INI.format(**settings))
    sandbox.add_address(f"{ADDRESS}/128")
    return Idle(sandbox, title, "./addrpubd", "-run")


def executable_alone(sandbox, build):
    """Runs addrpubd with a client library without dependencies, the bare loop, and the peers at the same time."""
    unused = {"name": "host1", "rdburl": "rdb://192.0.2.1:900", "dnsurl": "dns://192.0.2.2:901"}
    own = service(sandbox, build, standin(build), "addrpubd, executable alone", dnsuser="u", dnspswd="p", **unused)
    folder = sandbox.path(FOLDER)
    shutil.copy(build / "bare_loop", folder)
    programs = [own, Idle(sandbox, "bare loop", "./bare_loop")]
    for name, program in peers(build).items():
        shutil.copy(program, folder)
        config = folder / f"{name}.conf"
        config.write_text(PEER_SETTINGS[name])
        config.chmod(0o600)
        programs.append(Idle(sandbox, name, f"./{name}", *PEER_WORDS[name], f"{FOLDER}/{name}.conf"))
    time.sleep(SETTLE_SECONDS)
    before = [program.counters() for program in programs]
    time.sleep(IDLE_SECONDS)
    for program, counters in zip(programs, before, strict=True):
        program.set_rates(counters)
        program.set_memory()
    return programs


def bare(sandbox, build, program, name):
    """Starts one of the programs of bare_libraries.c."""
    shutil.copy(build / program, sandbox.path(FOLDER))
    return Idle(sandbox, name, f"./{program}")


def published(program, condition, what, *floors):
    """Measures a service after it has published its address, and the memory of the programs in `floors`."""
    from sandbox import wait_until

    wait_until(condition, what)
    time.sleep(SETTLE_SECONDS)
    before = program.counters()
    time.sleep(IDLE_SECONDS)
    program.set_rates(before)
    for one in (program, *floors):
        one.set_memory()
    return [program, *floors]


def floor_of(name, title):
    """Returns the setup of a service whose client library only does what the bare program of this name does."""

    def setup(sandbox, build):
        unused = {"rdburl": "rdb://192.0.2.1:900", "dnsurl": "dns://192.0.2.2:901", "dnsuser": "u", "dnspswd": "p"}
        program = service(sandbox, build, [build / f"bench/{name}_rdb/librdbapix64.so"], title, name="host1", **unused)
        time.sleep(SETTLE_SECONDS)
        program.set_memory()
        return [program]

    return setup


def with_files(sandbox, build):
    sandbox.path(STATE_FOLDER).mkdir()
    urls = {"rdburl": f"sqlite://{FOLDER}/rdb.db", "dnsurl": f"hosts://{FOLDER}/hosts"}
    name = "addrpubd with SQLite and a hosts file"
    program = service(sandbox, build, real(build), name, name="host1", dnsuser="u", dnspswd="p", **urls)
    hosts, state = sandbox.path(f"{FOLDER}/hosts"), sandbox.path(f"{STATE_FOLDER}/state")

    def written():
        return hosts.exists() and ADDRESS in hosts.read_text() and state.exists() and ADDRESS in state.read_text()

    libc = bare(sandbox, build, "bare_libc", "libc alone")
    sqlite = bare(sandbox, build, "bare_sqlite", "libsqlite3 alone, with a database")
    return published(program, written, "the hosts file and the state file", libc, sqlite)


def with_servers(sandbox, build):
    from dns_servers import HOST_KEY, NAME, ZONE, Bind, secret

    sandbox.path(STATE_FOLDER).mkdir()
    names = Bind(sandbox)
    names.start()
    redis = sandbox.spawn("redis-server", "--bind", "127.0.0.1", "--save", "")
    redis.wait_for_output(b"Ready to accept connections")
    urls = {"rdburl": "redis://127.0.0.1", "dnsurl": f"dns://127.0.0.1/{ZONE}"}
    keys = {"dnsuser": HOST_KEY, "dnspswd": secret(HOST_KEY)}
    program = service(sandbox, build, real(build), "addrpubd with Redis and BIND", name=NAME, **urls, **keys)

    def answered():
        value = sandbox.run("redis-cli", "HGET", f"rdb:value:{{{NAME}}}", "value")
        return ADDRESS.encode() in value and ADDRESS in names.dig("+short", "AAAA", NAME)

    libraries = bare(sandbox, build, "bare_servers", "libhiredis, libldns and libnettle alone")
    return published(program, answered, "both servers to have the address", libraries)


def idle(figures):
    import sandbox as sandboxes

    if not sandboxes.permitted():
        print("-- idle service left out: namespaces are not available (root is needed)")
        return Result()
    programs = []
    sqlite_floor = floor_of("bare_sqlite", "addrpubd, libsqlite3 with a database")
    servers_floor = floor_of("bare_servers", "addrpubd, libhiredis, libldns and libnettle")
    for setup in (executable_alone, with_files, sqlite_floor, with_servers, servers_floor):
        sandbox = sandboxes.Sandbox()
        try:
            programs += setup(sandbox, figures.build)
        finally:
            sandbox.close()
    *alone, files, _, _, least_files, servers, _, least_servers = programs
    bars = alone_bars(*alone) + real_bars(alone[2:], (files, least_files), (servers, least_servers))
    return Result(bars, tables=[idle_table(programs)])


def alone_bars(own, loop, *others):
    limits = {"inadyn": 0.4, "ddclient": 0.12}
    met = own.resident <= 1.9e6 and all(own.resident <= limits[peer.name] * peer.resident for peer in others)
    return [
        Bar(
            "idle, executable alone, resident",
            f"{mb(own.resident)}; {beside(own, others)}; bare loop {mb(loop.resident)}",
            "at most 1.9 MB, 0.4 of inadyn, 0.12 of ddclient",
            met,
            why=own.largest(),
        ),
        Bar(
            "idle, executable alone, private",
            f"{own.private / 1024:.0f} KiB; bare loop {loop.private / 1024:.0f} KiB",
            "at most 320 KiB",
            own.private <= 320 * 1024,
        ),
        Bar("idle, executable alone, wake-ups a minute", f"{own.wakeups:.0f}", "at most 600", own.wakeups <= 600),
    ]


def real_bars(others, with_files, with_servers):
    """with_files and with_servers: pairs of the service and its floor, which is the service with a client library that
    only does the least work with the libraries of the back ends."""
    (files, least_files), (servers, least_servers) = with_files, with_servers
    return [
        Bar(
            "idle with SQLite and a hosts file, resident",
            f"{mb(files.resident)}; {beside(files, others)}; floor {mb(least_files.resident)}",
            "at most 3.8 MB",
            files.resident <= 3.8e6,
            why=files.largest(),
        ),
        Bar(
            "idle with SQLite and a hosts file, private",
            f"{mb(files.private)}; floor {mb(least_files.private)}",
            "at most 1.0 MB",
            files.private <= 1.0e6,
            why="These are the client library's own files, the written data of all its libraries, and the heap.",
        ),
        Bar(
            "idle with SQLite and a hosts file, wake-ups a minute",
            f"{files.wakeups:.0f}",
            "at most 600",
            files.wakeups <= 600,
        ),
        Bar(
            "idle with Redis and DNS servers, resident",
            f"{mb(servers.resident)}; {beside(servers, others)}; floor {mb(least_servers.resident)}",
            "at most 6.5 MB",
            servers.resident <= 6.5e6,
            why=servers.largest(),
        ),
    ]


def beside(own, others):
    return ", ".join(f"{own.resident / peer.resident:.2f} of {peer.name}" for peer in others)


def idle_table(programs):
    lines = []
    for one in programs:
        rates = ["", ""] if one.wakeups is None else [f"{one.wakeups:.0f}", f"{one.busy:.2f} ms"]
        lines.append([one.name, mb(one.resident), mb(one.private), *rates])
    head = ["program", "resident", "private", "wake-ups a minute", "processor time a minute"]
    note = (
        "The executable alone, the bare loop, inadyn and ddclient run side by side. The bare loop lists the addresses "
        "as the service does and does nothing else. The two services with real back ends run after them, one at a "
        "time, with the real client library, which writes its state file. The programs with libraries alone do the "
        "least work with them and wait: a database with one row; a DNS message and a signature. The floor of the "
        "service with real back ends is that of the service with a client library that does only this. Private pages "
        "are those that a program has written and those of its own files; pages of installed libraries are shared. "
        "Address space randomisation is off, because the resident size depends on it. Wake-ups and processor time are "
        "those of the service's own thread."
    )
    return Table("Idle", head, lines, note)
