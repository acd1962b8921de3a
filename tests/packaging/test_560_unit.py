"""The unit file: systemd's analysis, consistency with other files, and the effect of its command."""

import re
import shlex
import subprocess

import pytest
from installation import PACKAGING, settings

REQUIRES = ("systemd-analyze", "stdbuf")
NAMESPACES = True

UNIT = "lib/systemd/system/addrpubd.service"
INSTANCES = "lib/systemd/system/addrpubd@.service"
METRICS = [f"lib/systemd/system/addrpubd-metrics.{kind}" for kind in ("service", "timer")]
WORST_EXPOSURE = 1.5
SETTINGS = b"hostname = host1\nlogurl = stdout\nrdburl = sqlite:///mnt/rdb.db\nrdbuser = local\nrdbpswd = local\n"


@pytest.fixture
def unit(installed):
    return settings(installed.path(installed.prefix / UNIT).read_text())


def analyze(*words):
    run = subprocess.run(["systemd-analyze", *words], capture_output=True, check=False, text=True)
    return run.returncode, run.stdout + run.stderr


@pytest.mark.parametrize("file", [UNIT, INSTANCES, *METRICS])
def test_561_systemd_finds_no_error(installed, file):
    assert analyze("verify", "--man=no", installed.path(installed.prefix / file)) == (0, "")


@pytest.mark.parametrize("file", [UNIT, INSTANCES])
@pytest.mark.parametrize("example", ["credentials.conf", "check-settings.conf"])
def test_562_systemd_finds_no_error_in_the_example(installed, tmp_path, file, example):
    unit = tmp_path / file.rpartition("/")[2]
    unit.write_text(installed.path(installed.prefix / file).read_text())
    drop_in = tmp_path / f"{unit.name}.d" / example
    drop_in.parent.mkdir()
    drop_in.write_text(installed.path(installed.prefix / "share/doc/addrpubd/examples" / example).read_text())
    assert analyze("verify", "--man=no", unit) == (0, "")


@pytest.mark.parametrize("file", [UNIT, INSTANCES])
def test_563_the_exposure_level_is_low(installed, file):
    _, text = analyze("security", "--offline=true", "--no-pager", installed.path(installed.prefix / file))
    exposure = re.search(r"Overall exposure level for \S+: ([\d.]+)", text)
    assert exposure and float(exposure.group(1)) <= WORST_EXPOSURE, text


def test_564_only_an_abnormal_end_causes_a_restart(unit):
    #  A failed start exits with a status. The causes of an abnormal end are a signal, a watchdog or a time limit.
    assert unit["Restart"] == ["on-abnormal"]
    assert int(unit["StartLimitBurst"][0]) * int(unit["RestartSec"][0]) < int(unit["StartLimitIntervalSec"][0])


def test_565_user_and_pid_file_are_consistent_and_no_other_user_can_lock_the_file(installed, unit):
    (user,) = unit["User"]
    (pid_file,) = unit["ReadWritePaths"]
    users = installed.path(installed.prefix / "lib/sysusers.d/addrpubd.conf").read_text()
    files = installed.path(installed.prefix / "lib/tmpfiles.d/addrpubd.conf").read_text()
    assert re.search(rf"^u +{user} ", users, re.MULTILINE)
    assert re.search(rf"^f +{pid_file} +0600 {user} +{user} ", files, re.MULTILINE)


def test_566_the_packaged_settings_keep_their_files_in_the_state_folders(unit):
    sample = settings((PACKAGING / "system/addrpubd.ini").read_text().replace(" = ", "="))
    folders = [f"/var/lib/{name}" for name in unit["StateDirectory"][0].split()]
    assert [sample[key][0].partition("://")[2].rpartition("/")[0] for key in ("rdburl", "dnsurl")] == folders


def start(machine, installed, unit):
    """Runs the unit's command in the unit's working directory. The output goes to a pipe."""
    (command,), (folder,) = unit["ExecStart"], unit["WorkingDirectory"]
    assert folder == str(installed.folder)
    return machine.spawn(*shlex.split(command), cwd=folder)


def test_567_a_log_line_reaches_a_pipe_while_the_service_runs(machine, installed, unit):
    machine.path(str(installed.ini)).write_bytes(SETTINGS)
    process = start(machine, installed, unit)
    process.wait_for_output(b"[inf] rdb_objputsnapshot host1 success,ipv6= null\n")
    assert process.running()
    process.kill()
    assert process.all_output().endswith(b"[inf] stop addrpubd service success.\n")
    assert process.wait() == 0


def test_568_with_the_packaged_settings_the_service_ends_and_logs_the_reason(machine, installed, unit):
    machine.path(str(installed.ini)).write_bytes((PACKAGING / "system/addrpubd.ini").read_bytes())
    process = start(machine, installed, unit)
    reason = f"[err] not config hostname in {installed.folder}/addrpubd.ini\nStart failed!\n"
    assert process.all_output().endswith(reason.encode())
    assert process.wait() == 0


def test_569_an_instance_differs_from_the_service_only_in_its_name_and_files(installed):
    text = installed.path(installed.prefix / UNIT).read_text()
    whole = installed.path(installed.prefix / INSTANCES).read_text()
    assert whole.startswith(text)
    assert settings(text)["RuntimeDirectory"] == ["addrpubd"]
    assert settings(text)["RuntimeDirectoryMode"] == ["0755"]  # all users may read the state
    assert settings(text)["RuntimeDirectoryPreserve"] == ["yes"]  # the folder also contains the folders of instances
    own = settings(whole.removeprefix(text))
    runtime, pid_file = "addrpubd/%i", settings(text)["ReadWritePaths"][0]
    assert own == {
        "Description": [f"Publisher of this host's IPv6 addresses, settings {installed.ini.parent}/%i.ini"],
        "AssertPathExists": [f"{installed.ini.parent}/%i.ini"],
        "SyslogIdentifier": ["addrpubd@%i"],
        "BindReadOnlyPaths": [f"{installed.ini.parent}/%i.ini:{installed.ini}"],
        "RuntimeDirectory": ["", runtime],
        "RuntimeDirectoryMode": ["0755"],
        "RuntimeDirectoryPreserve": ["no"],
        "ReadWritePaths": [""],
        "BindPaths": [f"-/run/{runtime}/addrpubd.pid:{pid_file}"],
        "ExecStartPre": [f"/usr/bin/install -m 600 /dev/null /run/{runtime}/addrpubd.pid"],
    }
