"""addrpubd-check on the options only=, skip= and ptr= of a url: it compares them with the addresses of the host."""

import open_library
import pytest
from host import BUILD
from sandbox import Sandbox

WARNING = "dnsurl: only and skip leave none of the present addresses of this host, so none is published"


@pytest.fixture
def sandbox():
    one = Sandbox()
    yield one
    one.close()


def warns(sandbox, url, text=WARNING):
    sandbox.path("/mnt/ini").write_text(
        f"hostname = host1\nlogurl = stdout\nrdburl = log:\nrdbuser = u\nrdbpswd = p\n"
        f"dnsurl = {url}\ndnsuser = key\ndnspswd = c2VjcmV0\n"
    )
    output = sandbox.run("/bin/sh", "-c", f"{BUILD}/addrpubd-check /mnt/ini || true").decode()
    assert "dnsurl" in output
    return text in output


@pytest.mark.parametrize("url", ["hosts:///mnt/hosts", "dns://192.0.2.53/example.org"])
def test_765_options_that_leave_no_address_are_reported(sandbox, url):
    if not open_library.has(BUILD, url.split(":")[0]):
        pytest.skip("the open client library was built without this back end")
    assert not warns(sandbox, url + "?only=2001:db8:1::/48")  # the host has no address
    sandbox.add_address("2001:db8::a/64")
    assert warns(sandbox, url + "?only=2001:db8:1::/48")
    assert warns(sandbox, url + "?skip=if:*")
    assert not warns(sandbox, url + "?skip=if:*0")
    assert not warns(sandbox, url)
    sandbox.add_address("2001:db8:1::a/64")
    assert not warns(sandbox, url + "?only=2001:db8:1::/48")


def test_766_a_reverse_zone_without_an_address_of_the_host_is_reported(sandbox):
    if not open_library.has(BUILD, "dns"):
        pytest.skip("the open client library was built without this back end")
    zone = "8.b.d.0.1.0.0.2.ip6.arpa"
    url = f"dns://192.0.2.53/example.org?ptr={zone}"
    warning = f"dnsurl: no present address of this host is in {zone}, a zone of ptr"
    assert not warns(sandbox, url, warning)  # the host has no address
    sandbox.add_address("2001:db9::a/64")
    assert warns(sandbox, url, warning)
    sandbox.add_address("2001:db8::a/64")
    assert not warns(sandbox, url, warning)
    assert warns(sandbox, url + "&only=2001:db9::/32", warning)
