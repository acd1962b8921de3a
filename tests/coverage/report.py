"""report.py BUILD EXCEPTIONS: prints a table of what was executed, with a row for each file, writes a part of the table
into the verification page, and compares what was not executed with the exceptions.

The exit status is 1 if a line or branch that was not executed is not an exception, if an exception no longer applies,
or if too few branches were executed.
"""

import sys
from dataclasses import dataclass
from pathlib import Path

import counted

sys.path.insert(1, str(Path(__file__).resolve().parents[1] / "support"))

import page_figures  # noqa: E402

ROOT = Path(__file__).resolve().parents[2]
FOLDERS = ("service", "com/olklib3")
MIN_BRANCHES = 95.0  # per cent


@dataclass
class Exempt:
    """One line of exceptions.txt."""

    written: str
    file: str
    text: str
    what: str
    applies: bool = False


def read_exceptions(path):
    found = []
    for written in path.read_text().splitlines():
        if written and not written.startswith("//"):
            fields = [field.strip() for field in written.split(" :: ")]
            assert len(fields) == 4 and fields[3], f"FILE :: SOURCE TEXT :: WHAT :: REASON expected: {written}"
            found.append(Exempt(written, *fields[:3]))
    return found


def missed(files):
    """Returns what was not executed: file, line number, text with "#2" for the second such line, and line or branch."""
    for name in sorted(files):
        seen = {}
        for number, line in sorted(files[name].items()):
            seen[line.text] = seen.get(line.text, 0) + 1
            text = line.text + (f" #{seen[line.text]}" if seen[line.text] > 1 else "")
            if line.count == 0:
                yield name, number, text, "line"
            elif line.never_taken():
                yield name, number, text, f"branches {line.never_taken()} of {len(line.branches)}"


def share(part, whole):
    return f"{100 * part / whole:.1f} %" if whole else "-"


def row(name, lines):
    """Returns the name and the figures of a row. The branches of a line that was not executed count as not taken."""
    branches = sum(len(line.branches) for line in lines)
    taken = branches - sum(line.never_taken() for line in lines)
    run = sum(line.count > 0 for line in lines)
    return name, f"{run} of {len(lines)}", share(run, len(lines)), f"{taken} of {branches}", share(taken, branches)


def table_of(files):
    """Returns the heading and a row for each file, each folder and the total."""
    rows = [("file", "lines", "", "branches", "")]
    rows += [row(name, files[name].values()) for name in sorted(files)]
    for folder in FOLDERS:
        inside = [line for name in files if name.startswith(folder + "/") for line in files[name].values()]
        rows.append(row(folder, inside))
    rows.append(row("all", [line for lines in files.values() for line in lines.values()]))
    return rows


def print_table(rows):
    for name, *cells in rows:
        print(f"{name:36}" + "".join(f"{cell:>14}" for cell in cells))


def write_figures(rows):
    """Writes to the page the folders, their total, and the files that were not executed completely."""
    head, *others = rows
    page_figures.write("coverage", "scripts/coverage", page_figures.table([head, *(r for r in others if not whole(r))]))


def whole(cells):
    """Returns whether the row is that of a file of which every line and branch was executed."""
    return cells[0].count(".") and cells[2] == "100.0 %" and cells[4] in ("100.0 %", "-")


def main(build, exceptions):
    files = counted.read(ROOT, build, FOLDERS)
    exempt = read_exceptions(exceptions)
    rows = table_of(files)
    print_table(rows)
    write_figures(rows)
    unnamed = []
    for name, number, text, what in missed(files):
        fitting = [one for one in exempt if (one.file, one.text, one.what) == (name, text, what)]
        for one in fitting:
            one.applies = True
        if not fitting:
            unnamed.append(f"{name}:{number} :: {text} :: {what}")
    stale = [one.written for one in exempt if not one.applies]
    lines = [line for file in files.values() for line in file.values()]
    branches = sum(len(line.branches) for line in lines)
    taken = branches - sum(line.never_taken() for line in lines)
    too_few = 100 * taken < MIN_BRANCHES * branches

    print(f"\n{len(exempt) - len(stale)} lines with an exception that applies")
    for title, entries in (("not run and without an exception", unnamed), ("exceptions that no longer apply", stale)):
        if entries:
            print(f"\n{title}:", *entries, sep="\n    ")
    if too_few:
        print(f"\nfewer than {MIN_BRANCHES:.0f} % of the branches have run")
    return 1 if unnamed or stale or too_few else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]).resolve(), Path(sys.argv[2])))
