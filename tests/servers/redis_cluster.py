"""A Redis Cluster in one sandbox: masters and replicas, each in a network namespace of its own.

    cluster = Cluster(sandbox, masters=3)       # three masters and three replicas, in the state "ok"
    cluster.value("host1"), cluster.history("host1")
    cluster.move("host1", cluster.other_master("host1"))
    node = cluster.master_of("host1"); node.kill(); cluster.wait_taken_over(node)

The namespaces are connected by a bridge. The client of the test runs at the bridge, which has no namespace of its own.
The nodes find each other in the files nodes.conf that the test writes, so that no node has to be introduced.
"""

import binascii
import re
import socket

from redis_bed import Server
from sandbox import wait_until

PORT = 6379
SLOTS = 16384
NODE_TIMEOUT = 1000  # ms

_NETWORK = """
set -e
ip link add br0 type bridge
ip address add 10.0.0.254/24 dev br0
ip link set br0 up
for number in {numbers}; do
    ip netns add node$number
    ip link add veth$number type veth peer name eth0 netns node$number
    ip link set veth$number master br0 up
    ip -n node$number address add 10.0.0.$number/24 dev eth0
    ip -n node$number link set lo up
    ip -n node$number link set eth0 up
done
"""


def slot_of(key):
    """Returns the slot of a key, computed independently of the library."""
    braces = re.search(r"\{(.*?)\}", key)
    part = braces[1] if braces and braces[1] else key
    return binascii.crc_hqx(part.encode(), 0) % SLOTS


def key_of(kind, name):
    return f"rdb:{kind}:{{{name}}}"


class Refusal(Exception):
    """The server has answered a command with an error."""


class Connection:
    """A connection to a server that returns answers as Python objects."""

    def __init__(self, path):
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(5)
        self._socket.connect(path)
        self._input = self._socket.makefile("rb")

    def call(self, *words):
        texts = [word if isinstance(word, bytes) else str(word).encode() for word in words]
        self._socket.sendall(b"*%d\r\n" % len(texts) + b"".join(b"$%d\r\n%s\r\n" % (len(t), t) for t in texts))
        return self.read()

    def read(self):
        """Returns the next answer or message."""
        kind, rest = (line := self._input.readline())[:1], line[1:-2]
        if kind == b"+":
            return rest.decode()
        if kind == b":":
            return int(rest)
        if kind == b"$":
            return None if rest == b"-1" else self._input.read(int(rest) + 2)[:-2].decode()
        if kind == b"*":
            return [self.read() for _ in range(int(rest))]
        raise Refusal(rest.decode()) if kind == b"-" else OSError("closed")

    def close(self):
        self._input.close()
        self._socket.close()


class Node(Server):
    def __init__(self, sandbox, number):
        super().__init__(sandbox, f"10.0.0.{number}", f"/mnt/node{number}")
        self.number = number
        self.address = f"10.0.0.{number}"
        self.id = f"{number:040x}"
        self._connection = None
        self._options = ()
        self.program = ["ip", "netns", "exec", f"node{number}", "redis-server"]

    def start(self, *options):
        self._options = options or self._options
        cluster = ["--cluster-enabled", "yes", "--cluster-node-timeout", NODE_TIMEOUT, "--protected-mode", "no"]
        cluster += ["--cluster-require-full-coverage", "no", "--cluster-allow-reads-when-down", "no"]
        cluster += ["--repl-diskless-sync-delay", 0, "--cluster-replica-validity-factor", 0]
        super().start(*map(str, cluster), *self._options)

    def kill(self):
        super().kill()
        self.forget_connection()

    def running(self):
        return self._process is not None and self._process.running()

    def call(self, *words):
        """Executes a command. Returns its answer, or raises Refusal."""
        if self._connection is None:
            self._connection = self.new_connection()
        try:
            return self._connection.call(*words)
        except OSError:
            self.forget_connection()
            raise

    def new_connection(self):
        return Connection(str(self._sandbox.path(self._socket)))

    def forget_connection(self):
        if self._connection is not None:
            self._connection.close()
        self._connection = None

    def state(self):
        return dict(line.split(":") for line in self.call("CLUSTER", "INFO").splitlines())["cluster_state"]

    def masters(self):
        """Returns, for each slot that has a master, the number of this master in the view of this node."""
        found = {}
        for first, last, master, *_ in self.call("CLUSTER", "SLOTS"):
            found |= {slot: int(master[2], 16) for slot in range(first, last + 1)}
        return found


class Cluster:
    def __init__(self, sandbox, masters=3, replicas=True, options=()):
        self._sandbox = sandbox
        self._masters = masters
        count = 2 * masters if replicas else masters
        sandbox.run("/bin/sh", "-c", _NETWORK.format(numbers=" ".join(str(n + 1) for n in range(count))))
        self.nodes = [Node(sandbox, number + 1) for number in range(count)]
        for node in self.nodes:
            self._introduce(sandbox, node)
            node.start(*options)
        self.wait_ok()

    def _introduce(self, sandbox, own):
        lines = []
        for node in self.nodes:
            flags = "myself," if node is own else ""
            epoch = (node.number - 1) % self._masters + 1
            if node.number <= self._masters:
                width = SLOTS / self._masters
                slots = f" {round((node.number - 1) * width)}-{round(node.number * width) - 1}"
                role = f"{flags}master -"
            else:
                slots, role = "", f"{flags}slave {self.nodes[node.number - 1 - self._masters].id}"
            lines.append(f"{node.id} {node.address}:{PORT}@{PORT + 10000} {role} 0 0 {epoch} connected{slots}\n")
        lines.append(f"vars currentEpoch {self._masters} lastVoteEpoch 0\n")
        sandbox.path(f"/mnt/node{own.number}/nodes.conf").write_text("".join(lines))

    def url(self, count=2, scheme="redis+cluster", rest=""):
        return f"{scheme}://" + ",".join(f"{node.address}:{PORT}" for node in self.nodes[:count]) + rest

    def running(self):
        return [node for node in self.nodes if node.running()]

    def wait_ok(self):
        """Waits until all running nodes agree about all slots, and the replicas have what their masters have now. A
        replica whose link is connected may still lack the newest changes."""
        wait_until(self._is_ok, "the cluster")
        roles = {node: node.call("ROLE") for node in self.running()}
        for node, role in roles.items():
            if role[0] == "master" and role[2]:
                wait_until(lambda n=node, o=role[1]: self._replicated(n, o), f"the replica of node {node.number}")

    @staticmethod
    def _replicated(master, offset):
        """Returns whether a replica has confirmed `offset`. A replica sends a confirmation once a second."""
        return any(int(confirmed) >= offset for *_, confirmed in master.call("ROLE")[2])

    def _is_ok(self):
        try:
            views = [node.masters() for node in self.running()]
            states = {node.state() for node in self.running()}
            links = {self._link(node) for node in self.running()}
        except (OSError, Refusal):
            return False
        whole = len(views[0]) == SLOTS and all(view == views[0] for view in views)
        return whole and states == {"ok"} and links <= {"master", "connected"}

    @staticmethod
    def _link(node):
        role = node.call("ROLE")
        return "master" if role[0] == "master" else role[3]

    def master_of(self, name):
        """Returns the running master that serves the keys of `name`."""

        def find():
            for node in self.running():
                try:
                    if node.call("ROLE")[0] == "master":
                        node.call("TYPE", key_of("tag", name))
                        return node
                except (OSError, Refusal):
                    continue
            return None

        return wait_until(find, f"a master of {name}")

    def other_master(self, name):
        """Returns a master that does not serve the keys of `name`."""
        mine = self.master_of(name)
        return next(n for n in self.running() if n is not mine and n.call("ROLE")[0] == "master" and n.call("TIME"))

    def value(self, name):
        return self.master_of(name).call("HGET", key_of("value", name), "value")

    def history(self, name):
        entries = self.master_of(name).call("LRANGE", key_of("history", name), 0, -1)
        return [entry.split(" ", 2)[2] for entry in entries]

    def start_moving(self, slot, source, target):
        """Marks the slot as moving from `source` to `target`. The keys of the slot do not move yet."""
        target.call("CLUSTER", "SETSLOT", slot, "IMPORTING", source.id)
        source.call("CLUSTER", "SETSLOT", slot, "MIGRATING", target.id)

    def move_keys(self, slot, source, target):
        while keys := source.call("CLUSTER", "GETKEYSINSLOT", slot, 100):
            source.call("MIGRATE", target.address, PORT, "", 0, 5000, "KEYS", *keys)

    def end_moving(self, slot, source, target):
        for node in (target, source):
            node.call("CLUSTER", "SETSLOT", slot, "NODE", target.id)

    def move(self, name, target):
        """Moves the slot of `name` with all its keys to the node `target`."""
        slot, source = slot_of(key_of("tag", name)), self.master_of(name)
        self.start_moving(slot, source, target)
        self.move_keys(slot, source, target)
        self.end_moving(slot, source, target)

    def cut_off(self, node, reachable):
        """Cuts `node` off from the other nodes and, unless `reachable` is true, from the clients."""
        if reachable:
            self._route(node, "add")
        else:
            self._sandbox.run("ip", "link", "set", f"veth{node.number}", "down")

    def reunite(self, node):
        """Undoes cut_off."""
        self._sandbox.run("ip", "link", "set", f"veth{node.number}", "up")
        self._route(node, "del")

    def _route(self, node, action):
        orders = "".join(f"route {action} blackhole {n.address}\n" for n in self.nodes if n is not node)
        self._sandbox.run("/bin/sh", "-c", f"printf '%s' '{orders}' | ip -n node{node.number} -force -batch - || true")

    def wait_taken_over(self, node):
        """Waits until replicas have taken over all slots of a node that does not run or is not connected."""
        others = [other for other in self.running() if other is not node]
        wait_until(lambda: all(self._is_free(other, node) for other in others), f"the replica of node {node.number}")

    @staticmethod
    def _is_free(other, node):
        try:
            return node.number not in other.masters().values() and other.state() == "ok"
        except (OSError, Refusal):
            return False
