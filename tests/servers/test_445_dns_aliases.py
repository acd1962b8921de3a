"""Aliases at the names of the host, with BIND and Knot DNS."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_alias_cases import DnsAliasCases  # noqa: E402
from dns_cases import fixture  # noqa: E402
from dns_servers import Bind, Knot  # noqa: E402

__all__ = ["fixture"]


class TestBindAliases(DnsAliasCases):
    Server = Bind


class TestKnotAliases(DnsAliasCases):
    Server = Knot
