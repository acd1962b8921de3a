"""soak.py MINUTES: runs two services in real time for MINUTES in private namespaces. Prints a table at the end.

    steady      runs all the time in the background, with a UDP log; its files are on the disk
    restless    is stopped and started repeatedly, alternately in the background with a UDP log and in the foreground;
                its files are in a small file system in memory, which is sometimes full

Requires private mount, network, IPC and PID namespaces, and the build folder in ADDRPUBD_BUILD. scripts/soak sets up
both.
"""

import contextlib
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(1, str(Path(__file__).parents[1] / "support"))

import page_figures  # noqa: E402
from life import Life  # noqa: E402

SEED = 20251121
SMALL = "12m"  # size of the file system that is filled
LINES = 30.0  # seconds between two lines of progress
ENOUGH_CHANGES = 5000 / 30  # per minute
WHOLE = 1800.0  # seconds; a shorter trial does not replace the figures of the page


def progress(elapsed, lives):
    changes = sum(life.addresses.ledger.changes for life in lives)
    rows = sum(life.witness.rows for life in lives)
    checks = sum(life.checks for life in lives)
    resident = " ".join(str(life.figures.last("VmRSS")) for life in lives)
    complaints = sum(len(life.complaints) for life in lives)
    print(
        f"{int(elapsed) // 60:3}:{int(elapsed) % 60:02}  changes {changes:6}  publishes {rows:4}  checks {checks:4}"
        f"  RSS {resident} kB  complaints {complaints}",
        flush=True,
    )


def watch(lives):
    """Shows progress and complaints until both runs end. Returns the elapsed seconds."""
    began = time.monotonic()
    shown = [0] * len(lives)
    next_line = LINES
    while any(life.thread.is_alive() for life in lives):
        for life in lives:
            life.thread.join(1)
        for number, life in enumerate(lives):
            for complaint in life.complaints[shown[number] :]:
                print("  !", complaint, flush=True)
            shown[number] = len(life.complaints)
        if (elapsed := time.monotonic() - began) >= next_line:
            progress(elapsed, lives)
            next_line += LINES
    return time.monotonic() - began


def table_of(life):
    witness, troubles, figures = life.witness, life.troubles, life.figures
    return [
        ("changes of addresses", life.addresses.ledger.changes),
        ("maximum number of addresses at one time", life.most),
        ("checks after a pause in the changes", life.checks),
        ("values in the database's history", witness.rows),
        ("requests to the hosts file, answers", f"{witness.requests}, {witness.replies}"),
        ("latest, untroubled", f"{life.worst['untroubled']:.2f} s"),
        ("latest after the end of a disturbance", f"{life.worst['troubled']:.2f} s"),
        ("reads of the database, failed on a full disk", f"{life.database.reads}, {life.database.excused_reads}"),
        ("reads of the hosts file", life.hosts.reads),
        ("edits of the hosts file by another program", life.hosts.edits),
        ("times locked, full", f"{troubles.count('lock')}, {troubles.count('full')}"),
        ("errors in the log", witness.errors),
        ("starts, other commands", f"{life.service.starts}, {life.commands - life.service.starts}"),
        *figures.rows(),
        ("resident, most", f"{figures.most('VmRSS')} kB"),
        ("processor time", f"{figures.processor_time():.2f} s"),
        ("size of the database", f"{life.size} kB"),
        ("complaints", len(life.complaints)),
    ]


def joined(tables):
    """Returns the figures of both lives, side by side."""
    lines = [f"| {'':50} | {'steady':>20} | {'restless':>20} |", f"| :{'-' * 49} | {'-' * 19}: | {'-' * 19}: |"]
    names = list(dict.fromkeys(name for table in tables for name, _ in table))
    for name in names:
        cells = [str(dict(table).get(name, "")) for table in tables]
        lines.append(f"| {name:50} | {cells[0]:>20} | {cells[1]:>20} |")
    return "\n".join(lines)


@contextlib.contextmanager
def workshop():
    """Creates a folder that contains "tiny", a small file system in memory."""
    with tempfile.TemporaryDirectory(prefix="addrpubd-soak.", dir="/tmp") as work:
        tiny = Path(work, "tiny")
        tiny.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", f"size={SMALL}", "tmpfs", tiny], check=True)
        try:
            yield work
        finally:
            subprocess.run(["umount", "--lazy", tiny], check=True)


def make_lives(work, seconds):
    Path(work, "data").mkdir()
    restart = max(20.0, seconds / 6)
    return [
        Life("steady", f"{work}/data", SEED, seconds),
        Life("restless", f"{work}/tiny", SEED + 1, seconds, restart=restart, tiny=True),
    ]


def soak(seconds):
    """Runs the soak. Returns the two completed runs, their tables and the elapsed seconds."""
    with workshop() as work:
        lives = make_lives(work, seconds)
        for life in lives:
            life.thread.start()
        took = watch(lives)
        tables = [table_of(life) for life in lives]
        for life in lives:
            life.close()
    return lives, tables, took


def main():
    seconds = float(sys.argv[1]) * 60
    lives, tables, took = soak(seconds)
    changes = sum(life.addresses.ledger.changes for life in lives)
    complaints = [complaint for life in lives for complaint in life.complaints]
    if changes < ENOUGH_CHANGES * seconds / 60:
        complaints.append(f"only {changes} changes")
    summary = f"{took:.0f} s, {changes} changes, {len(complaints)} complaints"
    print(f"\n{joined(tables)}\n\n{summary}")
    for complaint in complaints:
        print("  !", complaint)
    if seconds >= WHOLE:
        page_figures.write("soak", "scripts/soak", f"{joined(tables)}\n\n{summary}")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
