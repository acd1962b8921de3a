"""The two tables in this folder: the tests that cover each source, and the reasons why a mutant may survive."""

from dataclasses import dataclass


def _rows(file):
    """Returns the lines of a table, without empty lines and comments."""
    if not file.exists():
        return
    for line in file.read_text(encoding="utf-8").splitlines():
        if line.strip() and not line.startswith("#"):
            yield line.strip()


@dataclass(frozen=True)
class Part:
    """A test program, or a program that is built from some of its test files. It may run other programs."""

    program: str
    sources: tuple = ()
    others: tuple = ()


class Covering:
    """tests_of.txt: "FILE PART... [| SYSTEM TEST...]", in the order in which the tests are run."""

    def __init__(self, file):
        self._units, self._systems = {}, {}
        for row in _rows(file):
            left, _, right = row.partition("|")
            name, *parts = left.split()
            self._units[name] = [self._part(part) for part in parts]
            self._systems[name] = right.split()

    @staticmethod
    def _part(text):
        text, _, others = text.partition("+")
        program, _, sources = text.partition(":")
        return Part(program, *(tuple(names.split(",")) if names else () for names in (sources, others)))

    def files(self):
        """Returns all sources, in the table's order."""
        return list(self._units)

    def units(self, file):
        """Returns the unit test programs of a source."""
        return self._units[file]

    def programs(self):
        """Returns every unit test program of the table, with all its tests."""
        others = {}
        for part in (part for parts in self._units.values() for part in parts):
            others.setdefault(part.program, {}).update(dict.fromkeys(part.others))
        return [Part(name, (), tuple(names)) for name, names in others.items()]

    def systems(self, file):
        """Returns the files of system tests of a source."""
        return self._systems[file]

    def targets(self, files, with_system):
        """Returns the targets that cmake must build for these sources."""
        targets = {name for file in files for part in self._units[file] for name in (part.program, *part.others)}
        if with_system and any(self._systems[file] for file in files):
            targets |= {"addrpubd", "recording_rdb_shared", "clockshim", "failshim"}
        return sorted(targets)


class Explained:
    """explained.txt: "FILE :: SOURCE TEXT :: OLD -> NEW :: REASON" for each mutant that may survive."""

    def __init__(self, file):
        self._reasons = {}
        for row in _rows(file):
            key, _, reason = row.rpartition(" :: ")
            self._reasons[key] = reason

    def reason(self, mutant):
        """Returns why the mutant may survive, or None without an explanation."""
        return self._reasons.get(mutant.key)

    def without_mutant(self, file, mutants):
        """Returns the explanations of a file that match no mutant, because the source has changed."""
        keys = {mutant.key for mutant in mutants}
        return [key for key in self._reasons if key.startswith(f"{file} :: ") and key not in keys]
