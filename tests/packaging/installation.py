"""A build that is installed below a temporary root."""

import os
import re
import stat
import subprocess
from pathlib import Path

SOURCE = Path(__file__).parents[2]
PACKAGING = SOURCE / "packaging"
BUILD = Path(os.environ.get("ADDRPUBD_BUILD", ".")).resolve()


def cached(name):
    """Returns the value of a cmake setting of the build."""
    cache = (BUILD / "CMakeCache.txt").read_text()
    found = re.search(rf"^{name}:\w+=(.*)$", cache, re.MULTILINE)
    return found.group(1) if found else ""


class Installation:
    """`root`: the temporary root. `prefix`, `folder`, `ini`: absolute paths, as written in the installed files."""

    def __init__(self, root):
        self.root = root
        self.prefix = Path(cached("CMAKE_INSTALL_PREFIX"))
        self.folder = self.prefix / "lib/addrpubd"
        self.ini = (Path("/") if self.prefix == Path("/usr") else self.prefix) / "etc/addrpubd/addrpubd.ini"
        subprocess.run(
            ["cmake", "--install", BUILD],
            env=os.environ | {"DESTDIR": str(root)},
            umask=0o022,
            capture_output=True,
            check=True,
        )

    def path(self, name):
        """Returns the path below the temporary root of the installed file whose absolute path is `name`."""
        return self.root / Path(name).relative_to("/")

    def tree(self):
        """Returns all installed paths. Each path has its mode or, for a link, its target."""
        return {"/" + str(path.relative_to(self.root)): kind(path) for path in self.root.rglob("*")}


def kind(path):
    if path.is_symlink():
        return "-> " + os.readlink(path)
    return stat.filemode(path.lstat().st_mode)


def settings(text):
    """Returns the settings of a text such as a unit file: each key with the list of its values."""
    found = {}
    for line in text.splitlines():
        key, equals, value = line.partition("=")
        if equals and not line.startswith("#"):
            found.setdefault(key, []).append(value)
    return found
