"""What docs/user/operations.md tells to type at a name server, with BIND."""

import re
import shutil
from pathlib import Path

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_cases import bed  # noqa: E402
from dns_servers import HOST_KEY, NAME, Bind, secret  # noqa: E402

__all__ = ["bed"]

PAGE = Path(__file__).parents[2] / "docs/user/operations.md"
KEY = f'key "{HOST_KEY}" {{ algorithm hmac-sha256; secret "{secret(HOST_KEY)}"; }};\n'


def typed():
    """The lines of the page's example, for the server and the name that are here."""
    example = PAGE.read_text().partition("$ nsupdate ")[2].partition("\n\n")[0]
    text = "".join(f"{line}\n" for line in re.findall(r"^ *> (.*)", example, re.MULTILINE))
    return text.replace("ns.example.org", "127.0.0.1").replace("host1.example.org", NAME)


class TestByHand:
    Server = Bind

    def test_456_the_example_removes_all_records_of_a_host_and_nothing_else(self, bed):
        if not shutil.which("nsupdate"):
            pytest.skip("nsupdate is not installed (bind9-dnsutils)")
        others = bed.server.others()
        bed.connected("?check=0")
        bed.update(["2001:db8::a"], [443, 8443])
        bed.sandbox.path("/mnt/key").write_text(KEY)
        bed.sandbox.path("/mnt/typed").write_text(typed())
        bed.sandbox.run("nsupdate", "-k", "/mnt/key", "/mnt/typed")
        assert bed.server.published() == []
        assert bed.server.others() == others
