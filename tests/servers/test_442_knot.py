"""The back end dns with Knot DNS. Knot answers BADKEY if its rules do not allow the request. It does not sign answers
about a zone that it does not have."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_address_cases import DnsAddressCases  # noqa: E402
from dns_bed import BACKEND_FAILED  # noqa: E402
from dns_cases import DnsCases, fixture  # noqa: E402
from dns_reply_cases import NOT_AUTH, DnsReplyCases, unsigned  # noqa: E402
from dns_servers import Knot  # noqa: E402

__all__ = ["fixture"]


class TestKnot(DnsCases):
    Server = Knot
    refused = "BADKEY"
    no_zone = "REFUSED"

    def key_without_permission(self, fixture, **changed):
        self.refused_until(fixture, "BADKEY", **changed)


class TestRepliesOfKnot(DnsReplyCases):
    Server = Knot
    without_zone = (BACKEND_FAILED, unsigned(NOT_AUTH))


class TestAddressesOfKnot(DnsAddressCases):
    Server = Knot
