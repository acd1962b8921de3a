"""Builds test programs with one changed source file. Only files that include that source are compiled again.

The base is a built copy of the tree. Each worker has a small tree for the sources under test and a folder for its
objects. So workers do not affect each other or the base.

    base/tree, base/build       the whole tree, unchanged, and the targets that cmake has built from it
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
    "librdbapix64-dns-tls.so",
    "librdbapix64-dns.so",
    "librdbapix64-dyndns2-https.so",
    "librdbapix64-hosts.so",
    "librdbapix64-redis.so",
    "librdbapix64-rediss.so",
    "librdbapix64-sqlite.so",
    "tests/libclockshim.so",
    "tests/libfailshim.so",
    "tests/recording/librdbapix64.so",
)
FLAGS = "-O0 -g0 -w"  # fast to compile; no test depends on optimisation


class DoesNotCompile(Exception):
    """The compiler or the linker rejects the change."""


def _run(command, folder):
    done = subprocess.run(command, cwd=folder, capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise DoesNotCompile(done.stderr)
    return done.stdout


def _mirror(source, target, left_out=frozenset()):
    """Makes the folder `target` equal to `source`, except for the names in `left_out`."""
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
    """The link command of a program or library in cmake's build."""

    folder: Path  # the folder in which the command runs
    command: tuple


class Base:
    """The built copy of the tree."""

    def __init__(self, folder):
        self.tree = folder / "tree"
        self.build = folder / "build"

    def fill(self, source):
        """Copies the tree at `source` and configures it with cmake. Unchanged files keep their time stamps, so few
        files are built again."""
        _mirror(source, self.tree, {".git", "build"})
        kind = ["-DCMAKE_BUILD_TYPE=Mutation", "-DBUILD_TESTING=ON", f"-DCMAKE_CXX_FLAGS_MUTATION={FLAGS}"]
        kind.append("-DADDRPUBD_UNITY=OFF")  # a part of a program consists of objects of single files
        command = ["cmake", "-S", self.tree, "-B", self.build, *kind, "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON"]
        subprocess.run(command, check=True, stdout=subprocess.DEVNULL)

    def make(self, targets, jobs):
        """Builds the targets with these names."""
        command = ["cmake", "--build", self.build, "--parallel", str(jobs), "--target", *targets]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise SystemExit(f"the unchanged tree does not build:\n{done.stdout[-3000:]}{done.stderr[-3000:]}")

    def read(self):
        """Reads the commands of each object, library and program from cmake's files."""
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
        """Returns the link command of a program or library, or None if it does not belong to this tree."""
        return self._link.get(made.resolve())

    def compiled(self, made):
        """Returns the folder and the command that compile an object."""
        return self._compile[made]

    def source_of(self, made):
        """Returns the source of an object."""
        return Path(self._compile[made][1][-1])

    def part(self, target, sources):
        """Returns the path of the unchanged program of a cmake target. If `sources` names test files, links another
        program with only these; otherwise `make` has built the program."""
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
        """Returns the names of the library objects that the linker uses for the program."""
        if (made, sources) not in self._members:
            linked = self.linked(made)
            command = [word for word in linked.command if not self.left_out(linked.folder / word, sources)]
            made_anew = self.build / f"traced{threading.get_ident()}"
            command[command.index("-o") + 1] = str(made_anew)
            #  Given twice, --trace also lists the members of libraries.
            listed = _run([*command, "-Wl,--trace,--trace"], linked.folder)
            made_anew.unlink()
            self._members[made, sources] = set(re.findall(r"^\(.*\)([\w.]+\.o)$", listed, re.MULTILINE))
        return self._members[made, sources]

    def left_out(self, made, sources):
        """Returns whether an object is a test that is not requested. Helpers of the tests are always included."""
        if made.suffix != ".o":
            return False
        name = self.source_of(made).stem
        return bool(sources) and name.endswith("_test") and name not in sources

    def includes(self, made):
        """Returns the files of the tree from which an object is compiled."""
        if made not in self._includes:
            text = made.with_name(made.name + ".d").read_text().replace("\\\n", " ")
            self._includes[made] = {word for word in text.split() if word.startswith(str(self.tree))}
        return self._includes[made]


class Worker:
    """A folder in which one source is changed, and in which programs are built from it."""

    def __init__(self, base, folder):
        self.base = base
        self.tree = folder / "tree"
        self.made = folder / "made"
        self.scratch = folder / "scratch"  # working directory of the programs
        shutil.rmtree(folder, ignore_errors=True)
        for name in UNDER_TEST:
            shutil.copytree(base.tree / name, self.tree / name)
        self.scratch.mkdir()

    def change(self, mutant):
        """Undoes the previous change and applies the mutant."""
        self.restore()
        self._changed = mutant.file
        file = self.tree / mutant.file
        file.write_text(mutant.apply(file.read_text()))
        shutil.rmtree(self.made, ignore_errors=True)
        self.made.mkdir()

    def restore(self):
        """Undoes the change."""
        if changed := getattr(self, "_changed", None):
            shutil.copyfile(self.base.tree / changed, self.tree / changed)
            self._changed = None

    def program(self, target, sources=()):
        """Builds the program of a cmake target. If `sources` names test files, the program has only their tests.
        Returns its path, or None if the program does not contain the change."""
        return self._make(self.base.build / target, sources)

    def build_with(self, executable):
        """Returns a folder that contains this executable. The system tests can use it as a build folder."""
        folder = self.made / "build"
        for name in SYSTEM_FILES:
            if (file := self.base.build / name).exists():
                (folder / name).parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(executable if name == "addrpubd" else file, folder / name)
        return folder

    def _place(self, original, tag=""):
        return self.made / (str(original.relative_to(self.base.build)).replace("/", "%") + tag)

    def _object(self, original):
        """Returns the object with the change, or None if it does not contain the change."""
        if str(self.base.tree / self._changed) not in self.base.includes(original):
            return None
        made = self._place(original)
        if not made.exists():
            folder, command = self.base.compiled(original)
            _run([self._moved(word) for word in command[:-4]] + ["-o", made, "-c", self._moved(command[-1])], folder)
        return made

    def _moved(self, word):
        """Returns a word of a command. The base's sources in it are replaced by the worker's."""
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
        """Returns a copy of the static library whose objects contain the mutant, or None if none of the objects that
        the program uses contains it. members: the names of these objects."""
        linked = self.base.linked(original)
        objects = [linked.folder / word for word in linked.command if Path(word).name in members]
        changed = [(file.name, new) for file in objects if (new := self._object(file))]
        if not changed:
            return None
        made = self._place(original, f"+{program}")
        if made.exists():
            return made  # already built
        folder = made.with_name(f"{made.name}.members")
        folder.mkdir()
        for name, new in changed:
            shutil.copyfile(new, folder / name)
        shutil.copyfile(original, made)
        _run(["ar", "r", made, *(folder / name for name, _ in changed)], folder)
        return made
