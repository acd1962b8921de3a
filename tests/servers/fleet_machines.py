"""The machines of docs/user/fleet.md and docs/user/quickstart.md in one sandbox.

    machines = Machines(sandbox)
    machines.run("admin", "ssh redis1.example.org hostname")    # as root, with bash, in /root/fleet if it exists

Each machine has its own network and host name, its own /root, /run, /var/lib/bind and /var/lib/redis, which at first
have no files, and its own copy of /etc, /usr/lib, /usr/sbin and /var. A bridge connects the networks. Four programs do
not work in such a machine and are replaced. The replacements are in the folder PROGRAMS, the first in PATH:

    ssh, scp    run a command on another machine, copy files to it
    apt-get     checks that a package of Debian is installed here; for a file *.deb, installs the service from the build
    systemctl   starts and stops servers with the command lines and the user of their units, and waits until a server
                other than the service listens. The service has the controlled clock: start_clock must be called before
                the service is started
"""

import shutil
import time
from pathlib import Path

import open_library
from clock import Clock
from host import BUILD
from sandbox import wait_until

PROGRAMS = "/mnt/programs"
PACKAGE = "/mnt/package"  # files of the build
INSTALLED = "/usr/lib/addrpubd"
SHIM = BUILD / "tests/libhurryshim.so"
#  Debian's unit of dnsmasq reads the same folder.
DNSMASQ = "/usr/sbin/dnsmasq --keep-in-foreground --conf-file=/dev/null --conf-dir=/etc/dnsmasq.d"
ADDRESSES = {"admin": "192.0.2.100", "ns1": "192.0.2.1", "ns2": "192.0.2.2"}
ADDRESSES |= {f"redis{number}": f"192.0.2.{10 + number}" for number in range(1, 7)}
ADDRESSES |= {f"host{number}": f"192.0.2.{100 + number}" for number in range(1, 4)}

_MACHINE = """
umask 022
hostname "$1"
for folder in etc usr/lib usr/sbin var; do
    changed=/mnt/changed/$1/$folder
    mkdir -p "$changed" "$changed.work"
    mount -t overlay overlay -o "lowerdir=/$folder,upperdir=$changed,workdir=$changed.work" "/$folder"
done
mount -t tmpfs -o mode=700 tmpfs /root
mount -t tmpfs -o "mode=750,uid=$(id -u redis)" tmpfs /var/lib/redis
mount -t tmpfs -o "mode=775,gid=$(id -g bind)" tmpfs /var/lib/bind
mount -t tmpfs -o mode=755 tmpfs /run
mkdir -m 777 /run/named
cp /mnt/hosts /etc/hosts
[ -s /etc/bind/rndc.key ] || rndc-confgen -a -u bind
ip link set lo up
echo made
exec sleep infinity
"""

_SSH = """#!/bin/bash
machine=/mnt/machines/${1%%.*}
[ -e "$machine" ] || { echo "ssh: unknown host $1" >&2; exit 255; }
shift
exec nsenter --target "$(cat "$machine")" --mount --net --uts bash -c "cd /root; $*"
"""

_SCP = """#!/bin/bash
target=${!#}
machine=${target%%:*}
exec cp "${@:1:$#-1}" "/proc/$(cat "/mnt/machines/${machine%%.*}")/root${target#*:}"
"""

_APT_GET = """#!/bin/bash
umask 022
[ "$1 $2" = "install --yes" ] || { echo "apt-get: $*" >&2; exit 100; }
for package in "${@:3}"; do
    if [[ $package = *.deb ]]; then
        [ -e "$package" ] || exit 100
        getent passwd addrpubd >/dev/null || useradd --system --user-group addrpubd
        mkdir -p /usr/lib/addrpubd /etc/addrpubd
        cp -r /mnt/package/. /usr/lib/addrpubd/
        ln -sf ../lib/addrpubd/addrpubd-check /usr/sbin/
        ln -sf /etc/addrpubd/addrpubd.ini /usr/lib/addrpubd/addrpubd.ini
        install -g addrpubd -m 640 /mnt/addrpubd.ini /etc/addrpubd/
        install -d -o addrpubd -g addrpubd /var/lib/addrpubd /var/lib/addrpubd/hosts.d
        install -o addrpubd -m 600 /dev/null /run/addrpubd.pid
    elif [ "$package" = dnsmasq ]; then
        dpkg --status dnsmasq-base >/dev/null || exit 100 # the package dnsmasq adds the unit
        mkdir -p /etc/dnsmasq.d
    else
        dpkg --status "$package" >/dev/null || exit 100
    fi
done
"""

#  The command line of the unit starts this script in place of ./addrpubd. setsid and setpriv, which run before in the
#  same process, do not load the clock shim, so that the clock of the process is that of the service.
_WITH_CLOCK = """#!/bin/bash
LD_PRELOAD="$SERVICE_PRELOAD:$LD_PRELOAD" exec ./addrpubd "$@"
"""

#  `port` is the port at which the server listens as soon as it is ready.
_SYSTEMCTL = """#!/bin/bash
set -euo pipefail
action=$1
[ "$1 ${2:-}" != "disable --now" ] || { action=stop; shift; }
case $2 in
    redis-server) unit=/lib/systemd/system/redis-server.service port=6379 folder=/ ;;
    named) unit=/lib/systemd/system/named.service port=53 folder=/ ;;
    dnsmasq) unit=/mnt/dnsmasq.service port=53 folder=/ ;;
    addrpubd) unit=/mnt/addrpubd.service port='' folder=/usr/lib/addrpubd ;;
    *) echo "systemctl: no unit $2" >&2; exit 5 ;;
esac
runs() {
    grep -qs '^State:.[^Z]' "/proc/$1/status"
}
pid=$(cat "/run/$2.unit" 2>/dev/null || true)
if [ -n "$pid" ] && runs "$pid"; then
    stop=$(sed -n 's/^ExecStop=//p' "$unit")
    ${stop:-kill $pid}
    while runs "$pid"; do sleep 0.02; done
fi
rm -f "/run/$2.unit"
[ "$action" != stop ] || exit 0
[ "$action" = restart ]
[ "$2" != named ] || ! grep -q 'port 853' /etc/bind/named.conf || port=853
user=$(sed -n 's/^User=//p' "$unit")
OPTIONS=
[ ! -e "/etc/default/$2" ] || . "/etc/default/$2"
command=$(sed -n 's/^ExecStart=//p' "$unit")
command=${command/.\\/addrpubd/with-clock}
cd "$folder"
setsid setpriv --reuid "${user:-root}" --regid "${user:-root}" --init-groups \\
    ${command/\\$OPTIONS/$OPTIONS} </dev/null >"/mnt/logs/$(hostname).$2" 2>&1 &
echo $! >"/run/$2.unit"
cp "/run/$2.unit" "/mnt/logs/$(hostname).$2.pid"
while [ -n "$port" ] && [ -z "$(ss -Hltn "sport = :$port")" ]; do
    runs $! || { cat "/mnt/logs/$(hostname).$2" >&2; exit 1; }
    sleep 0.02
done
"""


class Machines:
    def __init__(self, sandbox):
        self._sandbox = sandbox
        self._clock = None
        self._environment = {"HOME": "/root", "PATH": f"{PROGRAMS}:/usr/sbin:/usr/bin:/sbin:/bin"}
        self._write_files()
        self._start()

    def start_clock(self):
        """Creates the clock of the services that start from now on. The clock starts at the real time, so that
        existing certificates are valid."""
        self._clock = Clock(self._sandbox, BUILD / "tests/libclockshim.so", time.time_ns())
        self._environment["SERVICE_PRELOAD"] = f"{INSTALLED}/{SHIM.name} {self._clock.env['LD_PRELOAD']}"
        self._environment["CLOCKSHIM_FILE"] = self._clock.env["CLOCKSHIM_FILE"]

    def clock_of(self, machine):
        """Returns the control of the clock of a machine's service."""
        return self._clock.of(self.process(machine, "addrpubd"))

    def _write_files(self):
        for folder in ("programs", "package", "machines", "logs", "changed"):
            self._sandbox.path(f"/mnt/{folder}").mkdir()
            self._sandbox.path(f"/mnt/{folder}").chmod(0o755)
        programs = {"ssh": _SSH, "scp": _SCP, "apt-get": _APT_GET, "systemctl": _SYSTEMCTL, "with-clock": _WITH_CLOCK}
        for name, text in programs.items():
            file = self._sandbox.path(f"{PROGRAMS}/{name}")
            file.write_text(text)
            file.chmod(0o755)
        names = [(address, f"{name}.example.org") for name, address in ADDRESSES.items()]
        names += [(address, "redis.example.org") for name, address in ADDRESSES.items() if name.startswith("redis")]
        lines = "".join(f"{address} {name}\n" for address, name in names)
        self._sandbox.path("/mnt/hosts").write_text(f"127.0.0.1 localhost\n{lines}")
        open_library.install(BUILD, self._sandbox.path(PACKAGE))
        for file in (BUILD / "addrpubd", BUILD / "addrpubd-check", SHIM):
            shutil.copy(file, self._sandbox.path(PACKAGE))
        packaging = Path(__file__).parents[2] / "packaging/system"
        shutil.copy(packaging / "addrpubd.service.in", self._sandbox.path("/mnt/addrpubd.service"))
        shutil.copy(packaging / "addrpubd.ini", self._sandbox.path("/mnt/addrpubd.ini"))
        self._sandbox.path("/mnt/dnsmasq.service").write_text(f"ExecStart={DNSMASQ}\n")

    def _start(self):
        """Starts all machines and connects them."""
        started = {}
        for name in ADDRESSES:
            command = ["unshare", "--mount", "--net", "--uts", "/bin/bash", "-e", "-c", _MACHINE, "machine", name]
            started[name] = self._sandbox.spawn(*command)
        lines = ["link add br0 type bridge", "link set br0 up"]
        for name, process in started.items():
            process.wait_for_output(b"made\n")
            self._sandbox.path(f"/mnt/machines/{name}").write_text(f"{process.pid}\n")
            lines.append(f"link add {name} master br0 up type veth peer name eth0 netns {process.pid}")
        self._sandbox.path("/mnt/network").write_text("".join(f"{line}\n" for line in lines))
        self._sandbox.run("ip", "-batch", "/mnt/network")
        for name, address in ADDRESSES.items():
            self.run(name, f"ip address add {address}/24 dev eth0; ip link set eth0 up")

    def run(self, machine, script):
        """Runs a script, which ends at its first failing command. The script must succeed. Returns its output."""
        pid = self._sandbox.path(f"/mnt/machines/{machine}").read_text().strip()
        command = ["nsenter", "--target", pid, "--mount", "--net", "--uts", "/bin/bash", "-euo", "pipefail", "-c"]
        place = "cd /root/fleet 2>/dev/null || true\n"
        return self._sandbox.run(*command, place + script, env=self._environment).decode()

    def process(self, machine, unit):
        """Returns the process of a running unit."""
        return self._sandbox.adopt(int(self._sandbox.path(f"/mnt/logs/{machine}.{unit}.pid").read_text()))

    def log(self, machine, unit):
        return self._sandbox.path(f"/mnt/logs/{machine}.{unit}").read_text()

    def wait_log(self, machine, unit, *texts):
        wait_until(lambda: all(text in self.log(machine, unit) for text in texts), f"{texts} in the log of {machine}")
