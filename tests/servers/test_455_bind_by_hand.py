"""The commands for a name server in docs/user/operations.md, executed with BIND."""

import re
import shutil
from pathlib import Path

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_cases import fixture  # noqa: E402
from dns_servers import HOST_KEY, NAME, Bind, secret  # noqa: E402

__all__ = ["fixture"]

PAGE = Path(__file__).parents[2] / "docs/user/operations.md"
KEY = f'key "{HOST_KEY}" {{ algorithm hmac-sha256; secret "{secret(HOST_KEY)}"; }};\n'


def typed():
    """Returns the lines of the page's example. The server and the host name are replaced by those of the test."""
    example = PAGE.read_text().partition("$ nsupdate ")[2].partition("\n\n")[0]
    text = "".join(f"{line}\n" for line in re.findall(r"^ *> (.*)", example, re.MULTILINE))
    return text.replace("ns.example.org", "127.0.0.1").replace("host1.example.org", NAME)


class TestByHand:
    Server = Bind

    def test_456_the_example_removes_all_records_of_a_host_and_nothing_else(self, fixture):
        if not shutil.which("nsupdate"):
            pytest.skip("nsupdate is not installed (bind9-dnsutils)")
        others = fixture.server.others()
        fixture.connected("?check=0")
        fixture.update(["2001:db8::a"], [443, 8443])
        fixture.sandbox.path("/mnt/key").write_text(KEY)
        fixture.sandbox.path("/mnt/typed").write_text(typed())
        fixture.sandbox.run("nsupdate", "-k", "/mnt/key", "/mnt/typed")
        assert fixture.server.published() == []
        assert fixture.server.others() == others
