"""The inputs that campaigns found: one archive for each target, tests/fuzz/corpus/TARGET.tar.

    found.py check       fails if write() would write an archive differently

The same inputs always give the same bytes: they are sorted by name and have no owner and no time. An input is named
found_ and the first eight digits of its SHA-1. cmake unpacks the archives into tests/fuzz/corpus of each build folder,
where the tests and the campaigns read them.
"""

import hashlib
import io
import subprocess
import sys
import tarfile
import tempfile
from pathlib import Path

CORPUS = Path(__file__).resolve().parent / "corpus"
UNPACKED = "tests/fuzz/corpus"  # in a build folder


def name_of(content):
    return "found_" + hashlib.sha1(content).hexdigest()[:8]


def archive_of(contents):
    """Returns the bytes of the archive of these inputs."""
    file = io.BytesIO()
    with tarfile.open(fileobj=file, mode="w", format=tarfile.USTAR_FORMAT) as archive:
        for name, content in sorted((name_of(content), content) for content in contents):
            entry = tarfile.TarInfo(name)
            entry.size = len(content)
            archive.addfile(entry, io.BytesIO(content))
    return file.getvalue()


def read(target):
    """Returns the inputs of the target's archive; none if there is no archive."""
    file = CORPUS / f"{target}.tar"
    if not file.exists():
        return []
    with tarfile.open(file) as archive:
        return [archive.extractfile(entry).read() for entry in archive]


def write(target, contents):
    (CORPUS / f"{target}.tar").write_bytes(archive_of(contents))


def keep(build, target, count):
    """Adds to the target's archive at most count inputs of its campaigns. Returns how many were added.

    libFuzzer selects inputs that reach code which no input of tests/fuzz/corpus reaches, the most useful ones first.
    """
    with tempfile.TemporaryDirectory() as name:
        kept = Path(name)
        known = read(target)
        seeds = known + [file.read_bytes() for file in sorted((CORPUS / target).glob("*"))]
        for content in seeds:
            (kept / name_of(content)).write_bytes(content)
        program = build / "tests" / f"{target}_fuzz"
        command = [program, "-set_cover_merge=1", "-max_len=400", kept, build / "campaign" / target / "corpus"]
        subprocess.run(command, check=True, stdin=subprocess.DEVNULL, capture_output=True)
        files = sorted(kept.iterdir(), key=lambda file: file.stat().st_mtime_ns)
        new = [content for file in files if (content := file.read_bytes()) not in seeds][:count]
    if new:
        write(target, known + new)
    return len(new)


def check():
    """Returns the names of the archives that write() would write differently."""
    return [file.name for file in sorted(CORPUS.glob("*.tar")) if file.read_bytes() != archive_of(read(file.stem))]


if __name__ == "__main__":
    if sys.argv[1:] != ["check"]:
        sys.exit(__doc__)
    if different := check():
        sys.exit(f"not as tests/fuzz/found.py writes it: {' '.join(different)}")
