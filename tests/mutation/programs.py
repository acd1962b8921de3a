"""Test programs with one source changed: only what includes that source is compiled anew.

The base is a built copy of the tree. Each worker has a small tree of its own for the sources under test and a folder for
its objects, so that workers do not meet and the base stays as it is.

    base/tree, base/build       everything, unchanged, built by cmake
    worker/tree                 service, com, rdbapi: one file changed at a time
    worker/made                 objects, libraries and programs that contain the change
"""

import json
import re
import shlex
import shutil
import subprocess
import threading
from dataclasses import dataclass
from pathlib import Path

UNDER_TEST = ("service", "com", "rdbapi")
SYSTEM_FILES = (
    "addrpubd",
    "librdbapix64.so",
    "librdbapix64-dns.so",
    "librdbapix64-hosts.so",
    "librdbapix64-redis.so",
    "librdbapix64-sqlite.so",
    "tests/libclockshim.so",
    "tests/libfailshim.so",
    "tests/recording/librdbapix64.so",
    "tests/journal/librdbapix64.so",
)
FLAGS = "-O0 -g0 -w"  # quick to compile; no test depends on what the compiler makes of the code


class DoesNotCompile(Exception):
    """The change is refused by the compiler or the linker."""


def _run(command, folder):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise DoesNotCompile(done.stderr)
    return done.stdout


def _mirror(source, target, left_out=frozenset()):
    """Makes target the same as source, but for the names left out."""
    target.mkdir(parents=True, exist_ok=True)
    names = {entry.name for entry in source.iterdir()} - left_out
    for entry in target.iterdir():
        if entry.name not in names:
            shutil.rmtree(entry) if entry.is_dir() else entry.unlink()
    for name in sorted(names):
        old, new = source / name, target / name
        if old.is_dir():
            _mirror(old, new, frozenset({"__pycache__", ".pytest_cache"}))
        elif not new.exists() or old.read_bytes() != new.read_bytes():
            shutil.copy(old, new)


@dataclass(frozen=True)
class Linked:
    """A program or a library as cmake links it."""

    folder: Path  # where its command runs
    command: tuple


class Base:
    """The built copy."""

    def __init__(self, folder):
        self.tree = folder / "tree"
        self.build = folder / "build"

    def fill(self, source):
        """Copies the tree at source. Files that are the same keep their time, so little is built again."""
        _mirror(source, self.tree, {".git", "build"})
        kind = ["-DCMAKE_BUILD_TYPE=Mutation", "-DBUILD_TESTING=ON", f"-DCMAKE_CXX_FLAGS_MUTATION={FLAGS}"]
        command = ["cmake", "-S", self.tree, "-B", self.build, *kind, "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)

    def make(self, targets, jobs):
        """Builds targets."""
        command = ["cmake", "--build", self.build, "--parallel", str(jobs), "--target", *targets]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise SystemExit(f"the unchanged tree does not build:\n{done.stdout[-3000:]}{done.stderr[-3000:]}")

    def read(self):
        """Learns from cmake's files how each object, library and program is made."""
        self._compile = {}
        for entry in json.loads((self.build / "compile_commands.json").read_text()):
            command = shlex.split(entry["command"])
            made = Path(entry["directory"]) / command[command.index("-o") + 1]
            self._compile[made] = (Path(entry["directory"]), command)
        self._link = {}
        for file in self.build.rglob("link.txt"):
            folder = file.parent.parent.parent
            command = shlex.split(file.read_text().splitlines()[0])
            made = command[2] if command[0].endswith("ar") else command[command.index("-o") + 1]
            self._link[(folder / made).resolve()] = Linked(folder, tuple(command))
        self._includes = {}
        self._members = {}

    def linked(self, made):
        """How the program or library is made; None for one that is not of this tree."""
        return self._link.get(made.resolve())

    def compiled(self, made):
        """Folder and command of an object."""
        return self._compile[made]

    def source_of(self, made):
        """The source of an object."""
        return Path(self._compile[made][1][-1])

    def part(self, target, sources):
        """Makes the program of some test files of cmake's target, unchanged. Returns its path."""
        original = self.build / "tests" / target
        if not sources:
            return original
        made = self.build / "parts" / "+".join((target, *sources))
        linked = self.linked(original)
        command = [word for word in linked.command if not self.left_out(linked.folder / word, sources)]
        command[command.index("-o") + 1] = str(made)
        made.parent.mkdir(exist_ok=True)
        _run(command, linked.folder)
        return made

    def members(self, made, sources):
        """The names of the libraries' objects that the linker takes for the program."""
        if (made, sources) not in self._members:
            linked = self.linked(made)
            command = [word for word in linked.command if not self.left_out(linked.folder / word, sources)]
            made_anew = self.build / f"traced{threading.get_ident()}"
            command[command.index("-o") + 1] = str(made_anew)
            listed = _run([*command, "-Wl,--trace,--trace"], linked.folder)  # twice: with the members of libraries
            made_anew.unlink()
            self._members[made, sources] = set(re.findall(r"^\(.*\)([\w.]+\.o)$", listed, re.MULTILINE))
        return self._members[made, sources]

    def left_out(self, made, sources):
        """Tells whether an object is a test that was not asked for. Helpers of the tests are always in."""
        if made.suffix != ".o":
            return False
        name = self.source_of(made).stem
        return bool(sources) and name.endswith("_test") and name not in sources

    def includes(self, made):
        """The files that an object is made of."""
        if made not in self._includes:
            text = made.with_name(made.name + ".d").read_text().replace("\\\n", " ")
            self._includes[made] = {word for word in text.split() if word.startswith(str(self.tree))}
        return self._includes[made]


class Worker:
    """One place to change a source and to make programs with it."""

    def __init__(self, base, folder):
        self.base = base
        self.tree = folder / "tree"
        self.made = folder / "made"
        self.scratch = folder / "scratch"  # working folder of what is run
        shutil.rmtree(folder, ignore_errors=True)
        for name in UNDER_TEST:
            shutil.copytree(base.tree / name, self.tree / name)
        self.scratch.mkdir()

    def change(self, mutant):
        """Puts the mutant in place of whatever was changed before."""
        self.restore()
        self._changed = mutant.file
        file = self.tree / mutant.file
        file.write_text(mutant.apply(file.read_text()))
        shutil.rmtree(self.made, ignore_errors=True)
        self.made.mkdir()

    def restore(self):
        """Takes the change back."""
        if changed := getattr(self, "_changed", None):
            shutil.copyfile(self.base.tree / changed, self.tree / changed)
            self._changed = None

    def program(self, target, sources=()):
        """Makes the program of cmake's target. With sources only these of its tests are in it. Returns its path, None
        when it does not contain the change."""
        return self._make(self.base.build / target, sources)

    def build_with(self, executable):
        """A folder that the system tests take for a build, with this executable."""
        folder = self.made / "build"
        for name in SYSTEM_FILES:
            if (file := self.base.build / name).exists():
                (folder / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(executable if name == "addrpubd" else file, folder / name)
        return folder

    def _place(self, original, tag=""):
        return self.made / (str(original.relative_to(self.base.build)).replace("/", "%") + tag)

    def _object(self, original):
        """The object with the change, None when it has none."""
        if str(self.base.tree / self._changed) not in self.base.includes(original):
            return None
        made = self._place(original)
        if not made.exists():
            folder, command = self.base.compiled(original)
            _run([self._moved(word) for word in command[:-4]] + ["-o", made, "-c", self._moved(command[-1])], folder)
        return made

    def _moved(self, word):
        """A word of a command, with the worker's sources for the base's."""
        for name in UNDER_TEST:
            word = re.sub(f"{re.escape(str(self.base.tree))}/{name}(?=/|$)", f"{self.tree}/{name}", word)
        return word

    def _make(self, original, sources=()):
        linked = self.base.linked(original)
        made = self._place(original, "+".join(("", *sources)))
        if made.exists():
            return made
        members = self.base.members(original, sources)
        changed, command = False, []
        for word in linked.command:
            file = linked.folder / word
            new = None
            if self.base.left_out(file, sources):
                continue
            if word.endswith(".o"):
                new = self._object(file)
            elif word.endswith(".a") and self.base.linked(file):
                new = self._library(file.resolve(), members, made.name)
            changed = changed or new is not None
            command.append(str(new or word))
        if not changed:
            return None
        command[command.index("-o") + 1] = str(made)
        _run(command, linked.folder)
        return made

    def _library(self, original, members, program):
        """The library with the change in those members that the program takes; None when they have none."""
        linked = self.base.linked(original)
        objects = [linked.folder / word for word in linked.command if Path(word).name in members]
        changed = [(file.name, new) for file in objects if (new := self._object(file))]
        if not changed:
            return None
        made = self._place(original, f"+{program}")
        if made.exists():
            return made  # named twice
        folder = made.with_name(f"{made.name}.members")
        folder.mkdir()
        for name, new in changed:
            shutil.copyfile(new, folder / name)
        shutil.copyfile(original, made)
        _run(["ar", "r", made, *(folder / name for name, _ in changed)], folder)
        return made
