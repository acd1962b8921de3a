"""The executables that are measured as whole programs: addrpubd with its client library, and Debian's inadyn and
ddclient."""

import shutil
import subprocess

PEERS = {"inadyn": "usr/bin/inadyn", "ddclient": "usr/bin/ddclient"}


def standin(build):
    """Returns the client library without dependencies. It is used to measure the executable alone."""
    return [build / "bench/quiet/librdbapix64.so"]


def real(build):
    """Returns the real client library, and its back ends if they are separate modules."""
    return [build / "librdbapix64.so", *sorted(build.glob("librdbapix64-*.so"))]


def install(folder, build, libraries):
    """Copies the executable and its client library to a new folder."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    for file in (build / "addrpubd", *libraries):
        shutil.copy(file, folder)


def peers(build):
    """Returns the executables of the peers. Their packages are unpacked, not installed, because installing them would
    start a service."""
    folder = build / "peers"
    folder.mkdir(exist_ok=True)
    found = {}
    for name, program in PEERS.items():
        if not (folder / program).exists():
            script = f"apt-get download {name} && dpkg -x {name}_*.deb ."
            subprocess.run(["sh", "-c", script], cwd=folder, capture_output=True, check=False)
        if (folder / program).exists():
            found[name] = folder / program
        else:
            print(f"-- benchmark peer left out: {name} cannot be downloaded")
    return found
