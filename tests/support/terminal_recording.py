"""The terminal session that the README shows, in docs/maintainer/session.svg.

The commands run in a sandbox, with the executable, the checker and the client library of the build, an SQLite file, a
hosts file and dnsmasq. The clock of the service is controlled, so a run does not wait. scripts/recording writes the
picture; test_795 compares it with a new run.

The picture has one <text> for each line, and no scripts. It has colours for light and dark pages.
"""

import re
import sys
from pathlib import Path
from xml.etree import ElementTree
from xml.sax.saxutils import escape

import open_library
from clock import Clock
from host import BUILD, DIRECTORY, INI, PlainHost
from sandbox import wait_until

PICTURE = Path(__file__).parents[2] / "docs/maintainer/session.svg"
NAME = "host1.example.org"
START, WAIT = "./addrpubd -start", "# ten seconds later"

#  Commands that change nothing. They are repeated until their output contains the pattern.
READERS = ("./addrpubd-check", "./addrpubd -status", "dig ")

#  Each command, and a pattern that its output must contain. WAIT lets the time pass for the service.
COMMANDS = (
    ("./addrpubd-check", "no findings"),
    (START, "Start success!"),
    ("./addrpubd -status", "is runing!"),
    ("./addrpubd-check --status", r"(ok .*published.*\n){2}"),
    (f"dig +short AAAA {NAME} @127.0.0.1", "^2001:db8::1\n$"),
    ("ip address add 2001:db8::2/64 dev lo && ip address del 2001:db8::1/64 dev lo", "^$"),
    (WAIT, "^$"),
    (f"dig +short AAAA {NAME} @127.0.0.1", "^2001:db8::2\n$"),
    ("./addrpubd -stop", "stoped gracefully!"),
)

SETTINGS = f"""hostname = {NAME}
logurl = stdout
rdburl = sqlite:///run/rdb.db
rdbuser = local
rdbpswd = local
dnsurl = hosts:///run/names/addrpubd
dnsuser = local
dnspswd = local
"""
DNSMASQ = (
    "dnsmasq --keep-in-foreground --conf-file=/dev/null --no-resolv --no-hosts --listen-address=127.0.0.1 "
    "--bind-interfaces --user=root --hostsdir=/run/names"
)


class Session:
    """A host with the service. At first only dnsmasq runs."""

    def __init__(self):
        self._host = PlainHost()
        sandbox = self._host.sandbox
        for folder in ("/run/addrpubd", "/run/names"):
            sandbox.path(folder).mkdir()
        open_library.install(BUILD, sandbox.path(DIRECTORY))
        self._host.install(BUILD / "addrpubd-check")
        self._host.ini(SETTINGS.encode())
        sandbox.path(INI).chmod(0o600)
        sandbox.add_address("2001:db8::1/64")
        self._dnsmasq = sandbox.spawn(*DNSMASQ.split())
        wait_until(lambda: b":53 " in sandbox.run("ss", "-Hltn"), "dnsmasq")
        self._clock = Clock(sandbox, BUILD / "tests/libclockshim.so")
        self._service = None

    def close(self):
        self._dnsmasq.kill()
        self._host.close()

    def _shell(self, command):
        return self._host.sandbox.spawn("bash", "-c", command, cwd=DIRECTORY).all_output().decode()

    def _start(self):
        """Starts the service in the background and lets it publish. Returns the output of the command."""
        parent = self._host.sandbox.spawn(*START.split(), cwd=DIRECTORY, env=self._clock.env)
        control = self._clock.of(parent)
        control.wait_parked()
        child = wait_until(lambda: [pid for pid in self._clock.pids() if pid != parent.pid], "the service")[0]
        self._service = self._clock.of(self._host.sandbox.adopt(child))
        self._service.wait_parked()
        control.let_run(31)
        output = parent.all_output().decode()
        wait_until(lambda: self._shell("./addrpubd-check --status").count("connected, ") == 2, "both connections")
        self._service.advance(0.1)
        return output

    def _repeat(self, command, expected):
        """Runs a command until its output contains the pattern. Returns the output."""
        outputs = []

        def shown():
            outputs.append(self._shell(command))
            return re.search(expected, outputs[-1])

        wait_until(shown, f"{expected} from {command}")
        return outputs[-1]

    def run(self, command, expected):
        """Runs a command. Returns its output, which contains the pattern."""
        if command == WAIT:
            self._service.advance(10)
            return ""
        if command.startswith(READERS):
            return self._repeat(command, expected)
        output = self._start() if command == START else self._shell(command)
        assert re.search(expected, output), f"{command}: {output}"
        return output


def record():
    """Runs all commands. Returns the lines of the terminal."""
    session = Session()
    try:
        lines = []
        for command, expected in COMMANDS:
            output = re.sub(r"[^\n]*\r", "", session.run(command, expected)).expandtabs()
            lines += [f"$ {command}", *(line.rstrip() for line in output.split("\n") if line.strip())]
        return lines
    finally:
        session.close()


def shape(lines):
    """Returns `lines` without the parts that differ between two runs: times, durations, process numbers, the order of
    the two servers in the state, and the log lines of connections that were open before -start returned."""
    text = re.sub(r"\[\d+/\d+/\d+ [\d:.]+\]", "[TIME]", "\n".join(lines))
    text = re.sub(r"^\[TIME\] \[inf\] connect \w+ server .* success\.\n", "", text, flags=re.M)
    text = re.sub(r"\b\d+ (?:\w*seconds?|minutes?|hours?)\b", "DURATION", text)
    text = re.sub(r"\bpid = \d+", "pid = PID", text)
    return re.sub(r"^(ok .*)\n(ok .*)$", lambda pair: "\n".join(sorted(pair.groups())), text, flags=re.M).split("\n")


def picture(lines):
    """Returns the text of the SVG."""
    width, height = 8 * max(map(len, lines)) + 32, 18 * len(lines) + 28
    texts = "".join(
        f'<text x="16" y="{30 + 18 * number}" class="{"command" if line.startswith("$ ") else "output"}">'
        f"{escape(line)}</text>\n"
        for number, line in enumerate(lines)
    )
    return f"""<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}">
<title>A terminal session: check the settings, start, show the state, change an address, stop</title>
<style>
rect {{ fill: #f6f8fa; stroke: #d0d7de }}
text {{ font: 13px monospace; white-space: pre; fill: #1f2328 }}
.command {{ font-weight: bold; fill: #0550ae }}
@media (prefers-color-scheme: dark) {{
rect {{ fill: #161b22; stroke: #30363d }}
text {{ fill: #e6edf3 }}
.command {{ fill: #79c0ff }}
}}
</style>
<rect x="0.5" y="0.5" width="{width - 1}" height="{height - 1}" rx="6"/>
{texts}</svg>
"""


def lines_of(svg):
    """Returns the lines in the text of a picture."""
    return [element.text for element in ElementTree.fromstring(svg).iter("{http://www.w3.org/2000/svg}text")]


if __name__ == "__main__":
    PICTURE.write_text(picture(record()), encoding="utf-8")
    sys.stdout.write("\n".join(lines_of(PICTURE.read_text(encoding="utf-8"))) + "\n")
