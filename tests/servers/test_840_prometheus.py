"""The metrics of addrpubd-check --status with a real Prometheus, a real node exporter and a real Redis server."""

import json
import re
import shutil
import subprocess
import textwrap
from pathlib import Path

import pytest
import redis_bed
from host import BUILD
from rdb_client import CONNECTED, RdbClient
from sandbox import Sandbox, wait_until

TOP = Path(__file__).parents[2]
PAGE = TOP / "docs/user/monitoring.md"
ALERTS = TOP / "docs/user/examples/addrpubd-alerts.yml"
UNIT = TOP / "packaging/system/addrpubd-metrics.service.in"
PROGRAM = (BUILD / "addrpubd-check").resolve()
TEXTFILES = "/mnt/textfiles"
LABEL = "redis://127.0.0.1:6379/0"
CONFIGURATION = """
global: {scrape_interval: 100ms, scrape_timeout: 100ms, evaluation_interval: 100ms}
rule_files: [/mnt/alerts.yml]
scrape_configs: [{job_name: node, static_configs: [{targets: ["127.0.0.1:9100"]}]}]
"""
ASK = """
import sys, urllib.request
print(urllib.request.urlopen("http://127.0.0.1:9090" + sys.argv[1]).read().decode())
"""


def promtool(*words, **options):
    if not shutil.which("promtool"):
        pytest.skip("promtool is not installed (prometheus)")
    return subprocess.run(["promtool", *words], capture_output=True, text=True, check=False, **options)


class Scene:
    """Redis and a process with the client library in one sandbox; after start_monitoring() also the node exporter and
    Prometheus. The waits ("for") of the alerts last 100 ms."""

    def __init__(self):
        self.sandbox = Sandbox()
        self.sandbox.path("/run/addrpubd").mkdir()
        self.sandbox.path(TEXTFILES).mkdir()
        self.redis = redis_bed.Server(self.sandbox)
        self.redis.start()
        self.client = RdbClient(self.sandbox, redis_bed.LIBRARY, redis_bed.SHIM)
        self.handle = self.client.open("redis://127.0.0.1", "default", "none")
        self.client.wait_event(self.handle, CONNECTED)
        assert self.client.taginport(self.handle, "host1") == 0
        assert self.client.put(self.handle, "host1", "2001:db8::1") == 0
        self._commands = self._commands_of_the_unit()

    @staticmethod
    def _commands_of_the_unit():
        text = UNIT.read_text().replace("@CMAKE_INSTALL_FULL_SBINDIR@/addrpubd-check", str(PROGRAM))
        return re.findall(r"^ExecStart=(.*)$", text, re.MULTILINE)

    def start_monitoring(self):
        self.sandbox.path("/mnt/alerts.yml").write_text(re.sub(r"for: \d+m", "for: 100ms", ALERTS.read_text()))
        self.sandbox.path("/mnt/prometheus.yml").write_text(CONFIGURATION)
        self.sandbox.spawn(
            *("prometheus-node-exporter", "--collector.disable-defaults", "--collector.textfile"),
            *(f"--collector.textfile.directory={TEXTFILES}", "--web.listen-address=127.0.0.1:9100"),
        )
        self.prometheus = self.sandbox.spawn(
            *("prometheus", "--config.file=/mnt/prometheus.yml", "--storage.tsdb.path=/mnt/tsdb"),
            "--web.listen-address=127.0.0.1:9090",
        )
        wait_until(lambda: b"Server is ready" in self.prometheus.output_so_far(), "Prometheus")

    def write_metrics(self):
        """Runs the commands of the unit, as its timer does."""
        for command in self._commands:
            self.sandbox.run("/bin/sh", "-c", command, cwd=TEXTFILES)

    def ask(self, path):
        self.write_metrics()
        return json.loads(self.sandbox.run("/usr/bin/python3", "-I", "-c", ASK, path))["data"]

    def sample(self, query):
        """Returns the value of the only sample of a query, or None."""
        result = self.ask(f"/api/v1/query?query={query}")["result"]
        return result[0]["value"][1] if len(result) == 1 else None

    def firing(self):
        alerts = self.ask("/api/v1/alerts")["alerts"]
        return {alert["labels"]["alertname"] for alert in alerts if alert["state"] == "firing"}

    def close(self):
        self.client.close()
        self.sandbox.close()


@pytest.fixture
def scene():
    redis_bed.require()
    for program in ("prometheus", "prometheus-node-exporter"):
        if not shutil.which(program):
            pytest.skip(f"{program} is not installed ({program})")
    one = Scene()
    yield one
    one.close()


def test_841_the_alert_fires_while_the_server_is_away_and_clears_afterwards(scene):
    scene.start_monitoring()
    wait_until(lambda: scene.sample("addrpubd_server_confirmed") == "1", "the metrics")
    assert scene.sample("addrpubd_up") == "1" and scene.firing() == set()
    scene.redis.kill()
    wait_until(lambda: "AddrpubdServerNotConfirmed" in scene.firing(), "the alert")
    scene.redis.start()
    wait_until(lambda: scene.firing() == set(), "the end of the alert")
    assert scene.sample("addrpubd_server_confirmed") == "1"
    assert scene.redis.value() == "2001:db8::1"
    assert int(scene.sample("addrpubd_server_losses_total")) >= 1
    assert int(scene.sample("addrpubd_server_connections_total")) >= 2


def test_842_the_alert_of_a_killed_process_fires(scene):
    scene.start_monitoring()
    wait_until(lambda: scene.sample("addrpubd_up") == "1", "the metrics")
    scene.client.close()
    wait_until(lambda: scene.firing() == {"AddrpubdDown"}, "the alert")
    assert scene.sample("addrpubd_server_confirmed") is None


def test_843_promtool_accepts_the_metrics(scene):
    status, output = scene.sandbox.result(PROGRAM, "--status", "--prometheus")
    assert status == 0 and f'server="{LABEL}"'.encode() in output
    run = promtool("check", "metrics", input=output.decode())
    assert (run.returncode, run.stdout, run.stderr) == (0, "", "")


def test_844_promtool_accepts_the_alert_rules_and_their_cases(tmp_path):
    for file in (ALERTS, TOP / "tests/data/alerts_test.yml"):
        shutil.copy(file, tmp_path)
    assert promtool("check", "rules", ALERTS).returncode == 0
    run = promtool("test", "rules", "alerts_test.yml", cwd=tmp_path)
    assert run.returncode == 0, run.stdout + run.stderr


def test_845_the_settings_of_the_page_extend_those_of_debian(tmp_path):
    settings = re.search(r"^    rule_files:\n(?:    .*\n)+", PAGE.read_text(), re.MULTILINE)
    (tmp_path / "prometheus.yml").write_text(textwrap.dedent(settings[0]))
    shutil.copy(ALERTS, tmp_path)
    run = promtool("check", "config", tmp_path / "prometheus.yml")
    assert run.returncode == 0, run.stdout + run.stderr
    assert "1 rule files found" in run.stdout
    debian = Path("/etc/prometheus/prometheus.yml").read_text()
    assert re.search("^rule_files:", debian, re.MULTILINE) and "- job_name: node\n" in debian
