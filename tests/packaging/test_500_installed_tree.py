"""The installed files, their paths and their modes."""

import os
import re
import subprocess
from pathlib import Path

import open_library
from installation import BUILD, PACKAGING, SOURCE, cached

REQUIRES = ("cmake", "dpkg-parsechangelog")

PROGRAM = "-rwxr-xr-x"
FILE = "-rw-r--r--"
SECRET = "-rw-------"
FOLDER = "drwxr-xr-x"

#  The first bytes of a program or a library.
ELF = b"\x7fELF"

#  Matches the file of a link or a picture. A link to another site has a scheme and does not match.
LINK = re.compile(r"\]\((?!\w+:)([^)#]+)")

#  Every page of this folder is installed; pages of other folders are not.
USER = SOURCE / "docs/user"


def below_prefix():
    """Returns the paths that must exist below the prefix."""
    documents = {f"share/doc/addrpubd/{page.relative_to(USER)}": FILE for page in USER.rglob("*") if page.is_file()}
    modules = {f"lib/addrpubd/{file.name}": FILE for file in open_library.files(BUILD)}
    return documents | modules | {
        "lib/addrpubd/addrpubd": PROGRAM,
        "sbin/addrpubd": PROGRAM,
        "sbin/addrpubd-check": PROGRAM,
        "lib/systemd/system/addrpubd.service": FILE,
        "lib/systemd/system/addrpubd@.service": FILE,
        "lib/systemd/system/addrpubd-metrics.service": FILE,
        "lib/systemd/system/addrpubd-metrics.timer": FILE,
        "lib/sysusers.d/addrpubd.conf": FILE,
        "lib/tmpfiles.d/addrpubd.conf": FILE,
        "share/bash-completion/completions/addrpubd": FILE,
        "share/bash-completion/completions/addrpubd-check": "-> addrpubd",
        "share/man/man5/addrpubd.ini.5": FILE,
        "share/man/man8/addrpubd.8": FILE,
        "share/man/man8/addrpubd-check.8": FILE,
        "share/doc/addrpubd/examples/credentials.conf": FILE,
        "share/doc/addrpubd/examples/check-settings.conf": FILE,
    }


def test_501_the_files_are_exactly_these_with_these_modes(installed):
    expected = {f"{installed.prefix}/{name}": mode for name, mode in below_prefix().items()}
    expected[str(installed.ini)] = SECRET
    expected[f"{installed.folder}/addrpubd.ini"] = f"-> {installed.ini}"
    tree = installed.tree()
    folders = {str(parent) for name in expected for parent in Path(name).parents if parent != Path("/")}
    assert tree == expected | dict.fromkeys(folders, FOLDER)


def test_502_the_version_of_the_package_is_the_projects():
    command = ["dpkg-parsechangelog", "--file", PACKAGING / "debian/changelog", "--show-field", "Version"]
    version = subprocess.run(command, capture_output=True, check=True, text=True).stdout.strip()
    assert version == cached("CMAKE_PROJECT_VERSION")


def test_503_no_installed_text_has_an_unfilled_variable_of_a_template(installed):
    files = [name for name, mode in installed.tree().items() if mode.startswith("-r")]
    contents = {name: installed.path(name).read_bytes() for name in files}
    texts = {name: content for name, content in contents.items() if not content.startswith(ELF)}
    assert {template.stem for template in PACKAGING.rglob("*.in")} <= {Path(name).name for name in texts}
    assert [name for name, content in texts.items() if re.search(rb"@\w+@", content)] == []


def test_504_a_build_is_installed_only_below_its_configured_prefix(tmp_path):
    command = ["cmake", "--install", BUILD, "--prefix", "/other"]
    run = subprocess.run(command, env=os.environ | {"DESTDIR": str(tmp_path)}, capture_output=True, check=False)
    assert run.returncode != 0 and b"-DCMAKE_INSTALL_PREFIX=/other" in run.stderr
    assert list(tmp_path.iterdir()) == []


def test_505_links_of_installed_documents_point_to_installed_files(installed):
    documents = list(installed.path(installed.prefix / "share/doc/addrpubd").rglob("*.md"))
    links = [(page.name, page.parent, link) for page in documents for link in LINK.findall(page.read_text())]
    assert len(links) > 10
    assert [(page, link) for page, folder, link in links if not (folder / link).exists()] == []
