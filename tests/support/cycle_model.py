"""Predicts the service's calls and output. It simulates the passes of the service's loop, one every 100 ms. Predictions
are exact to the byte and the microsecond.

    model = CycleModel(settings, wall_ns)       # settings: the ini file's keys and values, as texts
    model.addresses = [...]                     # 16 bytes each; None instead of the list if it cannot be read
    model.start()                               # like -run, up to the first sleep
    model.event(RDB, CONNECTED)
    model.run(10)                               # ten seconds of passes
    model.end(15)                               # the exit signal 15
    model.calls, model.records, model.output    # client library calls, log records of all levels, console output

The model shares no code with the service.
"""

import datetime
import json
import socket
from typing import NamedTuple

from recording import CONNECTED, DISCONNECTED, expected_import, expected_query, expected_snapshot

RDB, DNS = "rdb", "dns"
ERR, INF, DBG = 10, 30, 40
LEVEL_NAMES = {ERR: "err", INF: "inf", DBG: "dbg"}
SECOND = 1_000_000_000
TURN = SECOND // 10
USABLE = 2
UNTOUCHED = -1  # value of import_class if rdb_taginport does not change the class
LAST_SEQNO = 2147483647


class Call(NamedTuple):
    """One call of the client library, made by the service or predicted by the model.

    function            number      payload
    rdb_connectex       reserved    url, user and password, each with its zero byte
    rdb_callmsg         length      the text
    rdb_tagget          0           the record as passed
    rdb_taginport       mode        the record as passed
    rdb_objputsnapshot  count       the records
    all others          0           nothing
    """

    wall_ns: int
    function: str
    handle: int
    result: int
    number: int
    payload: bytes

    @classmethod
    def of(cls, call):
        """Converts a recorded call into a Call."""
        texts = b"".join(text + b"\0" for text in (call.url, call.account, call.password))
        payload = texts if call.call == "rdb_connectex" else call.text or call.record
        number = call.reserved or call.length or call.mode or call.count
        return cls(call.wall_ns, call.call, call.handle, call.result, number, payload)


def publishable(address):
    """Returns whether an address (16 bytes) is to be published (address types: RFC 4291, section 2)."""
    number = int.from_bytes(address, "big")
    first_nine_bits = number >> 119
    multicast = address[0] == 0xFF
    link_or_site_local = first_nine_bits == 0xFE80 >> 7
    ipv4_mapped = number >> 32 == 0xFFFF
    loopback_or_ipv4_compatible = 1 <= number < 1 << 32
    return not (multicast or link_or_site_local or ipv4_mapped or loopback_or_ipv4_compatible)


def _port_list(text):
    """Returns the ports of a simple list: decimal numbers, commas and blanks."""
    numbers = [int(item) & 0xFFFF for item in text.split(",") if item.strip()]
    return [number for number in numbers if number != 0]


class CycleModel:
    """One service from start to end: its host has the given addresses, and its servers return the given results."""

    def __init__(self, settings, wall_ns):
        self._settings = {key: value or "" for key, value in settings.items()}
        self._wall_start = wall_ns
        self._limit = 0  # the time until which the service may run, nanoseconds since the start
        self._next_turn = TURN
        self._moment = 0  # the time of the current step
        self.wall_step = 0
        self.addresses = []
        self.answers = {}  # results by function, without rdb_create; functions that are not listed return 0
        self.query_class, self.import_class = USABLE, UNTOUCHED

        self.calls, self.records, self.output = [], [], bytearray()
        self._handles = {}
        self._connected = {RDB: False, DNS: False}
        self._last_cycle = 0
        self._put_value, self._put_mark = b"", 0  # the mark: time of the last put, in tenths of seconds
        self._sent_value, self._sent_time = b"", 0  # the time of the last request is in seconds
        self.seqno = 0

    #  Conditions

    def wall_ns(self):
        return self._wall_start + self._moment + self.wall_step

    def event(self, server, code):
        """Simulates a connection event that the client library reports."""
        url = self._text(server + "url")
        if code == CONNECTED:
            if server == RDB:
                self._put_mark = 0
            else:
                self._sent_time = 0
            self._connected[server] = True
            self._log(INF, b"connect %s server %s success." % (server.encode(), url))
        elif code == DISCONNECTED:
            self._connected[server] = False
            self._log(ERR, b"%s server %s disconnected." % (server.encode(), url))

    def reply(self, text):
        self._log(DBG, b"recv: " + text)

    def run(self, seconds):
        """Simulates the passes of this many seconds."""
        self._limit += round(seconds * SECOND)
        while self._next_turn <= self._limit:
            self._moment = self._next_turn
            self._next_turn += TURN
            self._turn()
        self._moment = self._limit

    #  Start and end

    def start(self):
        self.output += b"\n"
        self._log(INF, b"\n\tstart addrpubd...")
        for server in (RDB, DNS):
            self._connect(server)
        self._log(INF, b"addrpubd service started successfully.")
        self.output += b"Start success!\n\n"

    def _connect(self, server):
        texts = [self._text(server + key) for key in ("url", "user", "pswd")]
        if not all(texts):
            self._log(INF, server.encode() + b"url: not config.")
            return
        self._log(INF, server.encode() + b"url: " + texts[0])
        handle = self._handles[server] = len(self._handles)
        self.calls.append(Call(self.wall_ns(), "rdb_create", handle, handle, 0, b""))
        self._call("rdb_setmessagenotify", server)
        self._call("rdb_connectex", server, 0, b"".join(text + b"\0" for text in texts))

    def end(self, signal_number):
        self.output += b"exit signal %d.\n" % signal_number
        self._log(INF, b"stop addrpubd service success.")
        for server in self._handles:
            self._call("rdb_disconnect", server)
            self._call("rdb_destory", server)

    #  One pass

    def _turn(self):
        if not self._connected[RDB] and not self._connected[DNS]:
            return
        now = self.wall_ns() // SECOND
        if (now - self._last_cycle + 9) % (1 << 64) <= 18:
            return
        self._last_cycle = now
        value = self._address_list()
        if self._connected[RDB] and not self._rdb_step(now, value):
            return
        if self._connected[DNS]:
            self._dns_step(now, value)

    def _address_list(self):
        if self.addresses is None:
            self._log(ERR, b"get ipv6 address failed.")
            return b"null"
        texts = [socket.inet_ntop(socket.AF_INET6, address) for address in self.addresses if publishable(address)]
        return ",".join(texts).encode() or b"null"

    def _rdb_step(self, now, value):
        """Returns False if the cycle ends because the tag is not available."""
        if value == self._put_value and abs(now * 10 - self._put_mark) <= 5999:
            return True
        if not self._have_tag():
            return False
        name = self._text("hostname")
        result = self._call("rdb_objputsnapshot", RDB, 1, expected_snapshot(name, value))
        if result == 0:
            self._log(INF, b"rdb_objputsnapshot %s success,ipv6= %s" % (name, value))
        else:
            self._log(ERR, b"rdb_objputsnapshot %s failed, errcode %d" % (name, result))
        self._put_mark, self._put_value = now * 10, value
        return True

    def _have_tag(self):
        name = self._text("hostname")
        result = self._call("rdb_tagget", RDB, 0, expected_query(name))
        if result != 0:
            self._log(ERR, b"rdb_tagget %s failed, errcode %d" % (name, result))
        elif self.query_class == USABLE:
            return True
        if not self._import():
            return False
        if self.import_class not in (USABLE, UNTOUCHED):
            self._import()
        return True

    def _import(self):
        name = self._text("hostname")
        result = self._call("rdb_taginport", RDB, 16, expected_import(name))
        if result != 0:
            self._log(ERR, b"rdb_taginport %s failed, errcode %d" % (name, result))
        else:
            self._log(INF, b"rdb_taginport %s success" % name)
        return result == 0

    def _dns_step(self, now, value):
        if value == b"null":
            return
        if value == self._sent_value and abs(now - self._sent_time) <= 599:
            return
        self._send(value.split(b","))
        self._sent_time, self._sent_value = now, value

    def _send(self, addresses):
        number = 1
        if self.seqno != LAST_SEQNO:
            self.seqno = number = self.seqno + 1
        texts = [address.decode() for address in addresses]
        item = {"name": self._settings["hostname"], "ipv6s": texts, "ipv6": texts[0]}
        item["httpsports"] = _port_list(self._settings.get("dnshttpsports", ""))
        request = {"request": "ws_dnsupdate", "seqno": number, "item": item}
        text = json.dumps(request, separators=(",", ":"), ensure_ascii=False).replace("/", "\\/").encode()
        self._log(DBG, b"send: " + text)
        result = self._call("rdb_callmsg", DNS, len(text), text)
        if result != 0:
            self._log(ERR, b"updateDomain errorcode %d" % result)

    #  Calls and output

    def _text(self, key):
        return self._settings.get(key, "").encode()

    def _call(self, function, server, number=0, payload=b""):
        result = self.answers.get(function, 0)
        self.calls.append(Call(self.wall_ns(), function, self._handles[server], result, number, payload))
        return result

    def _log(self, level, text):
        self.records.append((level, text))
        if self._settings.get("logurl", "").lower() == "stdout":
            self.output += self._stamp(level) + text + b"\n"

    def _stamp(self, level):
        seconds, rest = divmod(self.wall_ns(), SECOND)
        t = datetime.datetime.fromtimestamp(seconds)
        return f"[{t.year}/{t.month}/{t.day} {t:%H:%M:%S}.{rest // 1000:06d}] [{LEVEL_NAMES[level]}] ".encode()
