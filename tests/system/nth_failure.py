"""The situations in which a call is made to fail. Each situation is run from its start until all its processes have
ended.

A run is recorded as a transcript of lines:

    text            a line of output. The time stamp at its start is omitted. A time stamp inside the line is replaced
                    by NOW if it has the day at which the controlled clock starts
    udp: text       the text of a log datagram
    > call HANDLE   a call that the client library received
    = fact          an exit status; the number of the service's descriptors after the last cycle; that the service then
                    holds the lock; that its pid is in the pid file; whether another holder of the lock lives; a time
                    stamp of another day; that a lock, a queue or a process remains

Pids are written as PID, the host's address as ADDRESS. All situations share one host. A run starts without processes of
the executable, queues and calls of an earlier run; the pid file may have the text of an earlier run.
"""

import collections
import re
import signal
import time
from pathlib import Path

import surroundings
from clock import Clock
from faults import Faults
from host import ACCESS_ERROR, BUILD, DIRECTORY, DNS, PIDFILE, RDB, Host
from recording import CONNECTED, Recording
from sandbox import PATIENCE, wait_until

HERE = Path(__file__).parent
CYCLES = 3
TODAY = "2025/4/11 "
EMPTY = "(an empty line)"
STAMP = re.compile(r"\[(?P<stamp>\d+/\d+/\d+ [\d:.]+)\] (?P<record>\[.*)")
INNER_STAMP = re.compile(rf"\[{TODAY}[\d:.]+\]")  # of a record that does not start a line
ADDRESS = "2001:db8:1:2:3:4:5:6"  # so long that a std::string must allocate memory for it
REQUEST = re.compile(
    re.escape('{"request":"ws_dnsupdate","seqno":NUMBER,"item":{"name":"host1",').replace("NUMBER", r"(\d+)")
    + re.escape(f'"ipv6s":["{ADDRESS}"],"ipv6":"{ADDRESS}","httpsports":[443,8443]}}}}')
)
UDP_LOG = "udp://127.0.0.1:5140/netsvc?level=dbg"


def epoch():
    """Returns the time stamp of the epoch, in local time."""
    t = time.localtime(0)
    return f"{t.tm_year}/{t.tm_mon}/{t.tm_mday} {t.tm_hour:02}:{t.tm_min:02}:{t.tm_sec:02}.000000"


def brief(text):
    """Returns one line of text. The address and each correct request are abbreviated."""
    text = REQUEST.sub(r"request \1", text).replace(ADDRESS, "ADDRESS")
    return text.rstrip(" ").replace("\t", "\\t").replace("\n", "\\n").replace("\r", "\\r")


def outcome(undisturbed, disturbed):
    """Compares a transcript with the undisturbed transcript. Returns the result in one line.

    same                   the same lines, in any order
    -line | +2x line       the missing lines and the additional lines
    all: line | line       all lines that are not empty, if that is shorter. The calls of the client library are last:
                           "usual calls" if they are the undisturbed ones, otherwise all calls or, if that is shorter,
                           the missing and the additional calls
    """
    changes = _changes(undisturbed, disturbed)
    if not changes:
        return "same"
    calls = [line for line in disturbed if line.startswith("> ")]
    changed_calls = _changes([line for line in undisturbed if line.startswith("> ")], calls)
    lines = [line for line in disturbed if line and not line.startswith("> ")]
    lines += min(calls, changed_calls, key=len) if changed_calls else ["usual calls"] * bool(calls)
    return min(" | ".join(changes), "all: " + " | ".join(lines), key=len)


def _changes(undisturbed, disturbed):
    before, after = collections.Counter(undisturbed), collections.Counter(disturbed)
    missing = [("-", line, count) for line, count in (before - after).items()]
    added = [("+", line, count) for line, count in (after - before).items()]
    return [f"{sign}{f'{count}x ' if count > 1 else ''}{line or EMPTY}" for sign, line, count in missing + added]


class Bench:
    """The host on which all runs take place."""

    def __init__(self):
        self.host = Host()
        self.host.sandbox.add_address(f"{ADDRESS}/64")
        self.faults = Faults(self.host.sandbox, BUILD / "tests/libfailshim.so")
        self._receiver = None

    def close(self):
        self.host.close()

    def run(self, situation, plan=""):
        """Runs one situation. Returns its transcript."""
        change, steps = SITUATIONS[situation]
        self._refresh()
        self.host.settings(**change)
        if change.get("logurl") == UDP_LOG and self._receiver is None:
            self._listen()
        run = Run(self, plan)
        try:
            steps(run)
            run.note_leftovers()
        finally:
            self._clear()
        return run.lines

    def _refresh(self):
        host = self.host
        host.clock = Clock(host.sandbox, BUILD / "tests/libclockshim.so")
        host.library.close()
        for name in ("calls", "control", "script"):
            host.sandbox.path(f"{DIRECTORY}/rdb.{name}").unlink(missing_ok=True)
        host.library = Recording(host.sandbox, DIRECTORY)

    def _clear(self):
        for pid in self.living():
            self.host.sandbox.request({"op": "kill", "pid": pid, "signal": int(signal.SIGKILL)})
        wait_until(lambda: not self.living(), "the end of all processes")
        kept = [process for process in self.host.sandbox._processes if process is self._receiver]
        for process in self.host.sandbox._processes:
            if process not in kept:
                process.close()
        self.host.sandbox._processes[:] = kept
        if self.queues():
            self.host.sandbox.run("ipcrm", "--all=msg")

    def processes(self):
        """Returns the executable's pids and their states. An ended process is listed until its exit status was read."""
        found = {}
        for entry in self.host.sandbox.path("/proc").iterdir():
            if entry.name.isdigit() and entry.name != "1":
                try:
                    name, state = (entry / "stat").read_text().split(" ", 1)[1].rsplit(") ", 1)
                except (FileNotFoundError, ProcessLookupError):
                    continue
                if name == f"({surroundings.COMM}":
                    found[int(entry.name)] = state[0]
        return found

    def living(self):
        return [pid for pid, state in self.processes().items() if state not in "ZX"]

    def queues(self):
        return self.host.sandbox.run("cat", "/proc/sysvipc/msg").splitlines()[1:]

    def _listen(self):
        command = ["/usr/bin/python3", "-I", "-S", HERE / "udp_receiver.py", "127.0.0.1", "5140"]
        self._receiver = self.host.sandbox.spawn(*command)
        self._receiver.wait_for_output(b"ready\n")
        self._received = len(self._receiver.output_so_far())

    def datagrams(self):
        """Returns the texts of the datagrams received since the last call, without header lines."""
        self.host.sandbox.run("/usr/bin/python3", "-I", "-S", HERE / "udp_sender.py", "127.0.0.1", "5140")
        end = b"end".hex().encode() + b"\n"
        wait_until(lambda: self._receiver.output_so_far()[self._received :].endswith(end), "the last datagram")
        lines = self._receiver.output_so_far()[self._received :].split()[:-1]
        self._received = len(self._receiver.output_so_far())
        return [bytes.fromhex(line.decode()).split(b"\n", 1)[1] for line in lines]


class Run:
    """One run of a situation."""

    def __init__(self, bench, plan):
        self.bench = bench
        self.host = bench.host
        self.plan = plan
        self.lines = []
        self._pids = set()

    def begin(self, *words):
        """Starts the executable with the plan."""
        process = self.host.start(*words, env=self.bench.faults.env(self.host.clock, self.plan))
        self._pids.add(process.pid)
        return process

    def rests(self, process):
        """Waits until the process has reached its time limit. Returns its clock control, or None if the process has
        ended."""
        give_up = time.monotonic() + PATIENCE
        while process.running():
            slot = self.host.clock._slot_of(process.pid)
            if slot is not None and slot.parked_limit == slot.limit:
                return self.host.clock.of(process)
            assert time.monotonic() < give_up, f"neither ends nor reaches its time limit: {self._threads(process)}"
            time.sleep(0.0005)
        return None

    def ends(self, process):
        """Waits for the end of the process."""
        give_up = time.monotonic() + PATIENCE
        while process.running():
            assert time.monotonic() < give_up, f"does not end: {self._threads(process)}"
            time.sleep(0.0005)

    def _threads(self, process):
        """Describes each thread of a process that hangs: its state, the kernel function in which it waits, and its
        system call."""
        tasks = self.host.sandbox.path(f"/proc/{process.pid}/task").iterdir()
        looks = ((task / what for what in ("stat", "wchan", "syscall")) for task in tasks)
        return "; ".join(" | ".join(file.read_text().strip() for file in files) for files in looks)

    def live(self, process):
        """Lets a started service run its cycles. Before each cycle both servers connect. Ends the service with SIGTERM,
        as -stop does."""
        for cycle in range(CYCLES):
            control = self.rests(process)
            if control is None:
                return
            for handle in (RDB, DNS):
                self.host.library.tell(f"event {handle} {CONNECTED} 0")
            control.let_run(10 if cycle else 0.1)
        if self.rests(process) is not None:
            self._note_state(process)
            process.kill(signal.SIGTERM)
        self.ends(process)

    def _note_state(self, process):
        descriptors = surroundings.descriptors(self.host.sandbox.path(f"/proc/{process.pid}/fd"))
        self.lines.append(f"= descriptors {len(descriptors)}")
        if self.host.lock_holders() == [process.pid]:
            self.lines.append("= it holds the lock")
        if self.host.pidfile() == f"{process.pid}\n".encode():
            self.lines.append("= its pid is in the file")

    def child_of(self, parent):
        """Waits until the process `parent` has a child. Returns the child, or None if the parent ends without a
        child."""

        def found():
            children = set(self.bench.processes()) - {parent.pid}
            return children or not parent.running()

        children = wait_until(found, "a child")
        return None if children is True else self.host.sandbox.adopt(min(children))

    def note_output(self, output):
        for line in output.split(b"\n"):
            text = line.decode("latin-1")
            stamped = STAMP.fullmatch(text)
            if stamped:
                text = stamped["record"]
                if not stamped["stamp"].startswith(TODAY):
                    self.lines.append("= stamp " + stamped["stamp"].replace(epoch(), "of the epoch"))
            text = INNER_STAMP.sub("[NOW]", text)
            for pid in self._pids:
                text = text.replace(f"pid = {pid}", "pid = PID")
            self.lines.append(brief(text))

    def note_calls(self):
        self.lines += [f"> {name} {handle}" for name, handle in self.host.library.names()]

    def note_status(self, name, process):
        self.lines.append(f"= {name} ends with {process.wait()}")

    def note_leftovers(self):
        if self.host.lock_holders():
            self.lines.append("= the lock stays")
        if self.bench.queues():
            self.lines.append("= a queue stays")
        if self.bench.living():
            self.lines.append("= a process stays")

    def knows(self, process):
        self._pids.add(process.pid)

    def refuses(self, function, call):
        """Returns whether the plan makes this call of the function fail."""
        planned, nth, how = (self.plan or "none 0 once").split()[:3]
        return planned == function and (int(nth) == call or (int(nth) < call and how == "always"))


def service(run):
    """-run, with its cycles."""
    process = run.begin("-run")
    run.live(process)
    run.note_output(process.all_output())
    run.note_status("the service", process)
    run.note_calls()


def service_unknown_tag(run):
    """-run, with its cycles and a server that does not have the tag."""
    run.host.library.before_start("result rdb_tagget * 5")
    service(run)


def service_udp(run):
    service(run)
    run.lines += ["udp: " + brief(text.decode()) for text in run.bench.datagrams()]


def restless(run):
    """-run with sleeps that fail. The clock of the service never stops, so the service is ended after its first
    cycle."""
    run.host.library.before_start(f"during rdb_connectex * {CONNECTED}")
    process = run.begin("-run")
    wait_until(run.host.library.requests, "the first cycle")
    process.kill(signal.SIGTERM)
    run.note_output(process.all_output())
    run.note_status("the service", process)


def parent_and_child(run):
    """Starts in the background and waits until the parent ends. Returns the parent, and the child or None."""
    parent = run.begin("-start")
    run.rests(parent)
    child = run.child_of(parent)
    if child is not None:
        run.knows(child)
        run.rests(child)
    control = run.rests(parent)
    if control is not None:
        control.let_run(31)
    run.ends(parent)
    return parent, child


def background(run):
    """-start: the parent, the child, and the child's cycles after the parent has ended."""
    parent, child = parent_and_child(run)
    if child is not None:
        run.live(child)
    run.note_output(parent.all_output())
    run.note_status("the parent", parent)
    if child is not None:
        run.note_status("the child", child)
    run.note_calls()


def background_hurried(run):
    """-start with a parent whose sleeps fail. A race determines what the parent prints and whether a queue remains."""
    parent, child = parent_and_child(run)
    run.live(child)
    run.note_status("the parent", parent)
    run.note_status("the child", child)
    run.host.sandbox.run("ipcrm", "--all=msg")


def background_restless(run):
    """-start with a child whose sleeps fail. Its clock never stops, so it is ended after its first cycle."""
    run.host.library.before_start(f"during rdb_connectex * {CONNECTED}")
    parent = run.begin("-start")
    control = run.rests(parent)
    child = run.child_of(parent)
    wait_until(run.host.library.requests, "the first cycle")
    control.let_run(31)
    child.kill(signal.SIGTERM)
    run.note_output(parent.all_output())
    run.note_status("the parent", parent)
    run.note_status("the child", child)


def one_command(*words):
    def steps(run):
        process = run.begin(*words)
        run.note_output(process.all_output())
        run.note_status("the command", process)

    return steps


def beside_a_holder(word, kind="process", sigterm="default"):
    """Runs a command while another process holds the lock. If the command ends that process, the command's clock
    stops until the process has ended."""

    def steps(run):
        holder = run.host.hold_lock(kind, sigterm)
        run.knows(holder)
        run.host.sandbox.path(PIDFILE).write_text(f"{holder.pid}\n")
        process = run.begin(word)
        control = run.rests(process)
        terminated = word == "-stop" and sigterm == "default" and not run.refuses("kill", 1)
        if control is not None:
            if terminated:
                run.ends(holder)
            control.let_run(400)
        output = process.all_output()
        run.note_output(output)
        run.note_status("the command", process)
        killed = (b"be killed!" in output or run.refuses("printf", 2)) and not run.refuses("kill", 2)
        if word == "-stop" and (killed or (terminated and ACCESS_ERROR not in output)):
            run.ends(holder)
        run.lines.append("= the holder lives" if holder.running() else "= the holder has ended")
        if holder.running():
            holder.kill(signal.SIGKILL)
            holder.wait()

    return steps


#  The name of a situation is the command, "no word" for none, and its conditions:
#
#      udp log       the log goes to a UDP server          held      another process holds the lock on the pid file
#      unknown tag   the server does not have the tag      deaf      as held, and this process ignores SIGTERM
#      hurried       one or all sleeps of the parent fail  unnamed   as held, and the lock has no pid
#      restless      all sleeps of the service fail
#
#  The values are the changed settings and the steps.
SITUATIONS = {
    "-run": ({}, service),
    "-run, udp log": ({"logurl": UDP_LOG}, service_udp),
    "-run, unknown tag": ({}, service_unknown_tag),
    "-run, restless": ({}, restless),
    "-start": ({}, background),
    "-start, hurried": ({}, background_hurried),
    "-start, restless": ({}, background_restless),
    "-stop": ({}, one_command("-stop")),
    "-stop, held": ({}, beside_a_holder("-stop")),
    "-stop, deaf": ({}, beside_a_holder("-stop", sigterm="ignore")),
    "-stop, unnamed": ({}, beside_a_holder("-stop", "description")),
    "-stop, deaf unnamed": ({}, beside_a_holder("-stop", "description", "ignore")),
    "-status": ({}, one_command("-status")),
    "-status, held": ({}, beside_a_holder("-status")),
    "-status, unnamed": ({}, beside_a_holder("-status", "description")),
    "-run, held": ({}, beside_a_holder("-run")),
    "-start, held": ({}, beside_a_holder("-start")),
    "-ver": ({}, one_command("-ver")),
    "no word": ({}, one_command()),
    "-x": ({}, one_command("-x")),
}
