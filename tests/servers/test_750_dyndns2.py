"""The service with a provider of dynamic names: what the provider gets, and when it gets nothing."""

import time
from pathlib import Path

import dns_bed
import open_library
import pytest
from certificates import Authority
from host import BUILD, DIRECTORY, Host
from rdb_client import Syslog
from sandbox import wait_until

PROVIDER = Path(__file__).parent.parent / "support" / "dyndns_provider.py"
FOLDER = "/mnt/provider"
NAME = "host1.dyn.test"
A, B = "2001:db8::a", "2001:db8::b"


class Scene:
    """The provider and the service run. The first cycle, which publishes the address A, has run."""

    def __init__(self, answer="good"):
        self.host = Host(time.time_ns() + 60 * 10**9)  # the certificates made below are valid from now on
        self.sandbox = self.host.sandbox
        open_library.install(BUILD, self.sandbox.path(DIRECTORY))
        authority = Authority(self.sandbox, "/mnt/pki")
        files = authority.issue("provider", "IP:127.0.0.1")
        self.folder = self.sandbox.path(FOLDER)
        self.folder.mkdir()
        self.password = self.folder / "password"
        self.password.write_text("geheim\n")
        self.answer(answer)
        provider = self.sandbox.spawn("/usr/bin/python3", PROVIDER, files.certificate, files.key, FOLDER)
        provider.wait_for_output(b"listening")
        self.log = Syslog(self.sandbox)
        self.url = f"dyndns2+https://127.0.0.1/nic/update?ca={authority.certificate}"
        self.sandbox.add_address(A + "/64")
        self.host.settings(
            hostname=NAME, rdburl="", dnsurl=self.url, dnsuser="me", dnspswd=f"file:{FOLDER}/password"
        )
        environment = {"LD_PRELOAD": f"{dns_bed.SHIM.resolve()} {self.host.clock.env['LD_PRELOAD']}"}
        self.process = self.host.start("-run", tty=True, env=environment)
        self.control = self.host.clock.of(self.process)
        self.control.wait_parked()
        self.process.wait_for_output(f"connect dns server {self.url} success.\r\n".encode())
        self.control.advance(0.1)

    def answer(self, text):
        (self.folder / "answer").write_text(text)

    def requests(self):
        file = self.folder / "requests"
        return file.read_text().splitlines() if file.exists() else []

    def wait_requests(self, count):
        wait_until(lambda: len(self.requests()) >= count, f"request {count} at the provider")
        return self.requests()

    def wait_answers(self, count, code=0):
        text = f'"code":{code},'.encode()
        wait_until(lambda: self.process.output_so_far().count(text) >= count, f"reply {count}")


@pytest.fixture
def make():
    if not open_library.has(BUILD, "dyndns2-https"):
        pytest.skip("the open client library was built without its back end dyndns2-https")
    made = []

    def scene(**options):
        made.append(Scene(**options))
        return made[0]

    yield scene
    for one in made:
        one.host.close()


def test_750_the_provider_gets_each_change_once(make):
    scene = make()
    requests = scene.wait_requests(1)
    assert requests[0].startswith(f"/nic/update?hostname={NAME}&myip={A} me:geheim addrpubd/")
    scene.wait_answers(1)
    scene.control.advance(600)
    scene.wait_answers(2)
    scene.sandbox.remove_address(A + "/64")
    scene.sandbox.add_address(B + "/64")
    scene.control.advance(10)
    scene.wait_answers(3)
    requests = scene.wait_requests(2)
    assert [request.split()[0] for request in requests] == [f"/nic/update?hostname={NAME}&myip={a}" for a in (A, B)]


@pytest.mark.refusal
def test_751_after_a_refused_login_nothing_is_sent_until_the_password_file_changes(make):
    scene = make(answer="badauth")
    scene.wait_requests(1)
    reason = "the provider rejects user or password (badauth)"
    scene.log.wait(f"rdbapi: dyndns2+https://127.0.0.1:443/nic/update: {reason}; "
                   "nothing is sent until the password or a setting changes")
    scene.control.advance(600)
    scene.wait_answers(2, 1017)
    assert len(scene.requests()) == 1
    scene.answer("good")
    scene.password.write_text("right\n")
    requests = scene.wait_requests(2)
    assert "me:right" in requests[1]
    scene.log.wait("rdbapi: dyndns2+https://127.0.0.1:443/nic/update: works again")
