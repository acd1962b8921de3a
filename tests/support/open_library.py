"""The open client library of a build: librdbapix64.so and, in the same folder, the modules of the back ends that were
built."""

import shutil
from pathlib import Path

NAME = "librdbapix64.so"


def files(build):
    """Returns the library and its modules in the folder `build`."""
    return [Path(build, NAME), *sorted(Path(build).glob("librdbapix64-*.so"))]


def has(build, *back_ends):
    """Returns whether the library and the modules of all `back_ends` were built."""
    return all(Path(build, name).exists() for name in (NAME, *(f"librdbapix64-{name}.so" for name in back_ends)))


def install(build, folder):
    """Copies the library and its modules into `folder`."""
    for file in files(build):
        shutil.copy(file, folder)
