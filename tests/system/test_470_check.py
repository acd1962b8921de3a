"""addrpubd-check: its command line, its exit statuses, how it treats file modes, password files and UTF-16, and the
sample and the example ini files of the repository."""

import errno
import os
import re
import shutil
import subprocess
from pathlib import Path

import open_library
import pytest
import surroundings
from host import BUILD

PROGRAM = (BUILD / "addrpubd-check").resolve()
TOP = Path(__file__).parents[2]
SAMPLES = [TOP / "packaging/addrpubd.ini", *sorted((TOP / "docs/user/examples").glob("*.ini"))]
INSTALLED = TOP / "packaging/system/addrpubd.ini"
GOOD = "hostname = h\nrdburl = log:\nrdbuser = u\nrdbpswd = hunter2\n"

# Findings that depend on the machine: it does not have the password files and the addresses of the examples, and its
# name servers do not know the names in the examples.
OUTSIDE = re.compile(
    r": (\w+: the password file \S+ cannot be read: .*"
    r"|nothing is logged: its server is missing or its name cannot be resolved now"
    r"|\w+: only and skip leave none of the present addresses of this host, so none is published)$"
)


def run(*argv, **options):
    place = surroundings.outside()
    return subprocess.run(place.command(argv), env=place.environment(argv, dict(os.environ)), check=False, **options)


def check(*words, program=PROGRAM, **options):
    """Runs the tool. Returns its status, output and error output."""
    done = run(program, *words, capture_output=True, text=True, **options)
    return done.returncode, done.stdout, done.stderr


@pytest.fixture
def ini(tmp_path):
    """Returns a function that writes an ini file with this mode, independent of the umask."""

    def write(text, mode=0o600):
        path = tmp_path / "addrpubd.ini"
        path.write_text(text)
        path.chmod(mode)
        return path

    return write


def password_file(folder, mode):
    path = folder / "pw"
    path.write_text("hunter2\n")
    path.chmod(mode)
    return path


def findings(output):
    return [line for line in output.splitlines() if ": warning: " in line or ": error: " in line]


def test_471_settings_without_findings_return_status_0(ini):
    path = ini(GOOD)
    status, output, errors = check(path)
    assert (status, errors) == (0, "")
    assert output.endswith(f"\n{path}: no findings\n")


def test_472_a_warning_returns_status_1(ini):
    path = ini(GOOD + "ttl = 60\n")
    status, output, errors = check(path)
    assert (status, errors) == (1, "")
    assert findings(output) == [f'{path}:5: warning: unknown key "ttl", ignored']


def test_473_settings_that_prevent_the_start_return_status_2(ini):
    path = ini(GOOD.replace("= h\n", "= a:b\n"))
    status, output, errors = check(path)
    assert (status, errors) == (2, "")
    assert findings(output)[0].startswith(f"{path}:1: error: hostname contains")


def test_474_a_missing_file_returns_status_2(tmp_path):
    path = tmp_path / "missing.ini"
    status, output, errors = check(path)
    assert (status, errors) == (2, "")
    assert output.startswith(f"{path}: error: it cannot be opened ({os.strerror(errno.ENOENT)})")


@pytest.mark.parametrize("words", [("a", "b"), ("-x",), ("--help", "a"), ("",)])
def test_475_an_invalid_command_line_returns_status_2_and_the_usage(words):
    status, output, errors = check(*words)
    assert (status, output) == (2, "")
    assert errors.startswith("addrpubd-check: ") and "usage: addrpubd-check [FILE]" in errors


def test_476_help_is_printed_on_request():
    status, output, errors = check("--help")
    assert (status, errors) == (0, "")
    assert output.startswith("usage: addrpubd-check [FILE]\n")
    assert " ".join(output.partition("Exit status: ")[2].split()) == (
        "0 no warnings, 1 warnings, 2 the service would not start, or FILE cannot be examined. "
        "With --status: 0 all servers have confirmed the addresses, 1 a server has not, "
        "2 the service is not running, or its state cannot be read. "
        "With --connect: 0 everything is equal and allowed, 1 something is not, or cannot be asked, "
        "2 wrong settings, or the addresses of this host cannot be listed. "
        "With --remove: 0 no record remains, 1 records remain, or a server cannot be asked, 2 wrong settings. "
        "In every mode, 2 also means a wrong command line or output that cannot be written."
    )


def test_477_the_default_file_is_in_the_folder_of_the_program(tmp_path, ini):
    program = tmp_path / "addrpubd-check"
    shutil.copy(PROGRAM, program)
    path = ini(GOOD)
    link = tmp_path / "elsewhere"
    link.mkdir()
    (link / "addrpubd-check").symlink_to(program)
    for start in (program, link / "addrpubd-check"):
        status, output, _ = check(program=start, cwd="/")
        assert status == 0
        assert output.endswith(f"\n{path}: no findings\n")


@pytest.mark.parametrize("mode, status", [(0o600, 0), (0o640, 0), (0o644, 1), (0o604, 1)])
def test_478_a_password_that_everybody_can_read_is_reported(ini, mode, status):
    path = ini(GOOD, mode)
    found, output, _ = check(path)
    assert found == status
    assert [line for line in findings(output) if "everybody can read it" in line] == findings(output)


def test_479_without_permission_the_tool_reports_that_it_cannot_open_the_file():
    #  The folder is in /tmp, because other users have no access to pytest's own folders.
    folder = Path(subprocess.run(["mktemp", "-d"], capture_output=True, check=True, text=True).stdout.strip())
    try:
        folder.chmod(0o755)
        program = folder / "addrpubd-check"
        shutil.copy(PROGRAM, program)
        program.chmod(0o755)
        path = folder / "addrpubd.ini"
        path.write_text(GOOD)
        path.chmod(0o600)
        status, output, _ = check(path, program=program, user=65534, group=65534, extra_groups=[])
        assert status == 2
        assert output.startswith(f"{path}: error: it cannot be opened ({os.strerror(errno.EACCES)})")
    finally:
        shutil.rmtree(folder)


def test_480_a_password_file_is_reported_without_its_contents(ini, tmp_path):
    secret = password_file(tmp_path, 0o600)
    path = ini(GOOD.replace("hunter2", f"file:{secret}"))
    status, output, _ = check(path)
    assert status == 0
    assert f'  rdbpswd       = in the file "{secret}"\n' in output
    assert "hunter2" not in output
    secret.unlink()
    assert check(path)[0] == 1


def test_481_a_pipe_is_read_like_a_file():
    read, write = os.pipe()
    os.write(write, GOOD.encode())
    os.close(write)
    status, output, _ = check("/dev/stdin", stdin=read)
    os.close(read)
    assert status == 0
    assert '  hostname      = "h"\n' in output


@pytest.mark.parametrize("mode", ["FILE", "--help", "--connect", "--remove"])
def test_482_a_failure_to_write_the_output_returns_status_2(ini, mode):
    settings = ini("hostname = h\n")
    words = {"FILE": [settings], "--help": [mode]}.get(mode, [mode, settings])
    assert check(*words)[0] in (0, 1)
    with open("/dev/full", "wb") as full:
        done = run(PROGRAM, *words, stdout=full, stderr=subprocess.PIPE)
    assert done.returncode == 2
    assert done.stderr == b"addrpubd-check: the output cannot be written\n"


def faults(ini, text):
    """Returns the findings of a sample that do not depend on the machine."""
    schemes = re.findall(r"^(?:rdb|dns)url *= *([\w+]+):", text, re.MULTILINE)
    assert schemes
    modules = {scheme: (scheme.replace("+", "-"), scheme.partition("+")[0]) for scheme in schemes if scheme != "log"}
    if missing := [scheme for scheme in modules if not any(open_library.has(BUILD, name) for name in modules[scheme])]:
        pytest.skip(f"the open client library was built without {', '.join(missing)}")
    status, output, errors = check(ini(text))
    assert errors == ""
    assert status == 0 or findings(output)
    return [line for line in findings(output) if not OUTSIDE.search(line)]


@pytest.mark.parametrize("sample", SAMPLES, ids=lambda path: path.name)
def test_483_the_sample_and_the_examples_have_only_findings_that_depend_on_the_machine(ini, sample):
    assert faults(ini, sample.read_text()) == []


def test_4831_the_ini_file_of_an_installation_lacks_only_the_hostname(ini):
    text = INSTALLED.read_text()
    (finding,) = faults(ini, text)
    assert ': error: hostname is missing or empty; the service logs "not config hostname"' in finding
    assert faults(ini, re.sub("^hostname =", "hostname = h", text, flags=re.MULTILINE)) == []


@pytest.mark.parametrize(
    "mode, verbs", [(0o640, []), (0o644, ["read"]), (0o602, ["write"]), (0o606, ["read", "write"])]
)
def test_484_a_password_file_that_everybody_can_read_or_write_is_reported(ini, tmp_path, mode, verbs):
    secret = password_file(tmp_path, mode)
    path = ini(GOOD.replace("hunter2", f"file:{secret}"))
    status, output, _ = check(path)
    assert status == (1 if verbs else 0)
    remark = ": warning: rdbpswd: everybody can {} the password file {}: chmod o= removes this access"
    assert findings(output) == [f"{path}:4" + remark.format(verb, secret) for verb in verbs]


def test_485_settings_that_everybody_can_write_are_reported(ini):
    path = ini(GOOD, 0o602)
    status, output, _ = check(path)
    assert status == 1
    assert findings(output) == [f"{path}: warning: everybody can write it: chmod o= removes this access"]


def test_486_a_secret_in_an_option_of_a_url_is_not_shown(ini):
    path = ini(GOOD.replace("= log:", "= redis://h?auth=hunter3&expire=660"))
    status, output, _ = check(path)
    assert status == 2
    assert '  rdburl        = "redis://h?auth=***&expire=660"\n' in output
    assert "hunter" not in output


@pytest.mark.parametrize("encoding", ["utf-16", "utf-16-le", "utf-16-be"])
def test_487_a_file_in_utf16_is_one_error(tmp_path, encoding):
    path = tmp_path / "addrpubd.ini"
    path.write_bytes(GOOD.encode(encoding))
    path.chmod(0o600)
    status, output, errors = check(path)
    assert (status, errors) == (2, "")
    assert output.splitlines() == [
        f"{path}: error: it is UTF-16, in which the service finds no setting: save it as UTF-8",
        f"{path}: 1 error: the service would not start",
    ]
