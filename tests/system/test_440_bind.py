"""The back end dns with BIND."""

import pytest

pytest.importorskip("dns.tsigkeyring", reason="dnspython is not installed (python3-dnspython)")

from dns_bed import SERVER_REFUSED  # noqa: E402
from dns_cases import DnsCases, bed  # noqa: E402
from dns_reply_cases import NOT_AUTH, DnsReplyCases  # noqa: E402
from dns_servers import Bind  # noqa: E402

__all__ = ["bed"]


class TestBind(DnsCases):
    Server = Bind
    refused = "REFUSED"
    no_zone = "REFUSED"

    def key_without_permission(self, bed, **changed):
        self.refused_update_until(bed, **changed)


class TestRepliesOfBind(DnsReplyCases):
    Server = Bind
    without_zone = (SERVER_REFUSED, NOT_AUTH)
