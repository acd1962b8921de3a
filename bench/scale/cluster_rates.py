"""Compares the rate of a Redis Cluster of MASTERS masters with the rate of one Redis server. Each server gets the same
small share of a processor, so that the hosts, which run on the same machine, get enough processor time."""

import shutil
import subprocess
import time
from pathlib import Path

from counting import MANY, ROUNDS, SECONDS
from hosts import Hosts
from servers import Redis

MASTERS = 3
SLOTS = 16384
SHARE = 0.1  # part of one processor that each server gets
PERIOD = 20_000  # us; a server gets its share in each period


class Group:
    """A control group that limits a process to SHARE of a processor (cgroup version 1 or 2)."""

    def __init__(self, name):
        top = Path("/sys/fs/cgroup")
        one = (top / "cpu").is_dir()
        self.folder = top / ("cpu" if one else "") / name
        self.folder.mkdir(exist_ok=True)
        quota = round(SHARE * PERIOD)
        limits = {"cpu.cfs_period_us": PERIOD, "cpu.cfs_quota_us": quota} if one else {"cpu.max": f"{quota} {PERIOD}"}
        for file, value in limits.items():
            (self.folder / file).write_text(str(value))

    def add(self, pid):
        (self.folder / "cgroup.procs").write_text(str(pid))

    def remove(self):
        self.folder.rmdir()


class Master(Redis):
    def __init__(self, number):
        self.port = 7000 + number
        self.folder = f"/mnt/master{number}"
        Path(self.folder).mkdir()
        super().__init__()
        self.group = Group(f"addrpubd-scale-{number}")

    def start(self, cluster):
        words = f'port {self.port}\nbind 127.0.0.1\ndir {self.folder}\nsave ""\nmaxclients 20000\n'
        self.write("conf", words + ("cluster-enabled yes\ncluster-node-timeout 15000\n" if cluster else ""))
        super(Redis, self).start()

    def limit(self):
        self.group.add(self.process.pid)

    def end(self):
        super().end()
        self.group.remove()
        subprocess.run(["umount", self.folder], check=True)
        shutil.rmtree(self.folder)

    def call(self, *words):
        return super().call("-p", self.port, *words)


def rate(build, url, servers):
    """Returns the greatest number of changed values per second that the servers take from the hosts."""
    hosts = Hosts(build, "rdb", url, MANY)
    hosts.publish()
    for server in servers:
        server.limit()
    found = []
    for _ in range(ROUNDS):
        start = time.monotonic()
        calls = hosts.publish(seconds=SECONDS, fresh=True)
        found.append(calls / (time.monotonic() - start))
    hosts.end()
    return round(max(found))


def rate_of_one(build):
    server = Master(0)
    server.start(cluster=False)
    found = rate(build, f"redis://127.0.0.1:{server.port}", [server])
    server.end()
    return found


def rate_of_cluster(build):
    servers = [Master(number) for number in range(MASTERS)]
    for number, server in enumerate(servers):
        server.start(cluster=True)
        server.call("CLUSTER", "ADDSLOTSRANGE", SLOTS * number // MASTERS, SLOTS * (number + 1) // MASTERS - 1)
        server.call("CLUSTER", "MEET", "127.0.0.1", servers[0].port)
    while not all("cluster_state:ok" in server.call("CLUSTER", "INFO") for server in servers):
        time.sleep(0.1)
    found = rate(build, f"redis+cluster://127.0.0.1:{servers[0].port}", servers)
    for server in servers:
        server.end()
    return found


def measure(build):
    one, cluster = rate_of_one(build), rate_of_cluster(build)
    return {"share": SHARE, "one": one, "cluster": cluster, "factor": round(cluster / one, 2)}
