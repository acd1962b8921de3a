"""Checks a service's output: its log, the rows in its history, and the blocks in its hosts file.

All of these are compared with the ledger of the addresses, which does not depend on the service.
"""

import json
import re
import time

from addresses import VALUE_LIMIT, as_value, publishable
from service import PORTS
from troubles import FOUND_AGAIN

#  Seconds from the reading of a list to the time of its row. In this time the service queries the tag, imports it if
#  the query fails, and puts the value. The put sets the time of the row.
ROW_WINDOW = 1.0
#  Seconds from the reading of a list to its record. In this time the service queries the tag, imports it if the query
#  fails, and puts the value. Two of these calls may take 3 s, the time limit of a call.
RECORD_WINDOW = 6.5
CLOCK_STEP = 0.002  # the times of rows are whole milliseconds

_KNOWN = re.compile(
    r"\n?\s*start addrpubd\.\.\.|rdburl: .*|dnsurl: .*|addrpubd service started successfully\."
    r"|connect (rdb|dns) server \S+ success\.|rdb_taginport \S+ success|stop addrpubd service success\."
)
_CONSOLE = re.compile(r"\tstart addrpubd\.\.\.|Start success!|exit signal 15\.")


def clock(moment):
    return time.strftime("%H:%M:%S", time.localtime(moment))


class Witness:
    def __init__(self, name, ledger, troubles, complain):
        self._name, self._ledger, self._troubles, self._complain = name, ledger, troubles, complain
        self._put_success = re.compile(rf"rdb_objputsnapshot {re.escape(name)} success,ipv6= (.*)")
        self._tag_is_new = True  # the database does not have the tag until the first import
        self.connected = {"rdb": False, "dns": False}
        self.puts = self.requests = self.replies = self.errors = self.rows = 0
        self._puts = []  # time and value of the successful puts that were not yet compared with rows
        self._rows = []  # rows for which no put was found so far
        self._current = None  # value of the row before the first of _rows
        self.sent = []  # the last list sent
        self._blocks = {()}  # blocks that the hosts file may contain
        self._older_blocks = set()
        self._seen_blocks = set()
        self.begin_run()

    def begin_run(self):
        """Must be called when the service was started: the numbers of its requests start at 1."""
        self._sent_number = 0
        self._unanswered = []
        self.connected = dict.fromkeys(self.connected, False)

    def end_run(self):
        """Must be called when the service has ended. At most one request may be without an answer: the service may have
        ended before it logged the answer."""
        if len(self._unanswered) > 1:
            self._complain(f"requests without an answer: {self._unanswered}")

    #  The log

    def take_records(self, records):
        for record in records:
            if record.level in ("", "?"):
                self._line(record)
            elif record.level == "err":
                self._error(record)
            elif record.text.startswith("send: "):
                self._send(record)
            elif record.text.startswith("recv: "):
                self._receive(record)
            elif match := self._put_success.fullmatch(record.text):
                self._put(record, match[1])
            else:
                self._event(record)

    def _line(self, record):
        if record.level == "?" or not _CONSOLE.fullmatch(record.text):
            self._complain(f"the log has an unknown line: {record.text!r}")

    def _event(self, record):
        if record.text and not _KNOWN.fullmatch(record.text):
            self._complain(f"an unknown record: {record.level} {record.text[:200]!r}")
        for server in self.connected:
            if record.text.startswith(f"connect {server} server"):
                self.connected[server] = True

    def _error(self, record):
        self.errors += 1
        for server in self.connected:
            if record.text.startswith(f"{server} server") and "disconnected" in record.text:
                self.connected[server] = False
        if record.text.startswith("updateDomain errorcode"):
            del self._unanswered[-1:]  # the last request was not accepted
        if self._tag_is_new and record.text == f"rdb_tagget {self._name} failed, errcode 1011":
            self._tag_is_new = False
        elif not self._troubles.explain(record.text, record.time):
            self._complain(f"an error without a reason: {record.text}")

    def _put(self, record, text):
        self.puts += 1
        listed = [] if text == "null" else text.split(",")
        self._judge("the put", listed, record.time, RECORD_WINDOW)
        self._puts.append((record.time, as_value(listed)))

    def _send(self, record):
        self.requests += 1
        request = json.loads(record.text.removeprefix("send: "))
        item = request["item"]
        self._sent_number += 1
        if request["seqno"] != self._sent_number:
            self._complain(f"request {request['seqno']} where {self._sent_number} was due")
            self._sent_number = request["seqno"]
        listed = item["ipv6s"]
        if (request["request"], item["name"], item["httpsports"]) != ("ws_dnsupdate", self._name, PORTS):
            self._complain(f"another request: {record.text[:200]}")
        if item["ipv6"] != listed[0]:
            self._complain(f"request {request['seqno']}: its first address is not the list's")
        self._judge(f"request {request['seqno']}", listed, record.time, RECORD_WINDOW)
        self._unanswered.append(request["seqno"])
        self.sent = listed
        self._blocks.add(tuple(dict.fromkeys(listed)))

    def _receive(self, record):
        self.replies += 1
        reply = json.loads(record.text.removeprefix("recv: "))
        if self._unanswered[:1] != [reply["seqno"]]:
            self._complain(f"an answer is out of order: {record.text}, due was {self._unanswered[:1]}")
        self._unanswered = [number for number in self._unanswered if number > reply["seqno"]]
        if reply["code"] != 0 and self._troubles.near(record.time, record.time, RECORD_WINDOW) is None:
            self._complain(f"a request was refused although no disturbance was near: {record.text}")

    #  File contents

    def take_rows(self, rows):
        for moment, value in rows:
            self.rows += 1
            listed = [] if value == "null" else value.split(",")
            complete = len(value) < VALUE_LIMIT
            self._judge("the database", listed if complete else listed[:-1], moment, ROW_WINDOW, complete)
        self._rows += rows

    def compare_puts_with_rows(self):
        """Checks that each successful put of a changed value has a row. The rows must have been read after the log."""
        for moment, value in self._puts:
            places = [place for place, row in enumerate(self._rows) if row[1] == value and row[0] <= moment]
            if not places:
                if value != self._current:
                    self._complain(f"the put of {clock(moment)} has no row: {value[:200]}")
                continue
            #  If several rows have this value, the last belongs to the put. The library itself put the earlier rows.
            self._rows_without_put(self._rows[: places[-1]])
            del self._rows[: places[-1] + 1]
            self._current = value
        self._puts.clear()
        old = [row for row in self._rows if row[0] < time.time() - RECORD_WINDOW]
        self._rows_without_put(old)
        del self._rows[: len(old)]
        self._current = old[-1][1] if old else self._current

    #  The library itself repeats failed puts. So after a disturbance a row may have no put in the log.
    def _rows_without_put(self, rows):
        for moment, value in rows:
            if self._troubles.near(moment, moment, FOUND_AGAIN + RECORD_WINDOW) is None:
                self._complain(f"the row of {clock(moment)} has no put in the log: {value[:200]}")

    def take_blocks_later(self, blocks):
        """Stores the blocks (lines of the service) that readers of the hosts file saw. They are judged after the next
        log records."""
        self._seen_blocks.update(blocks)

    def judge_blocks(self):
        allowed = self._blocks | self._older_blocks
        for block in self._seen_blocks - allowed:
            self._complain(f"a reader saw a block of {len(block)} lines that was never sent: {block[:3]}")
        self._seen_blocks = set()
        self._older_blocks, self._blocks = self._blocks, {tuple(dict.fromkeys(self.sent))}

    def _judge(self, what, listed, moment, window, complete=True):
        low, high = moment - window, moment + CLOCK_STEP
        trouble = self._troubles.near(moment, moment, FOUND_AGAIN + RECORD_WINDOW)
        if trouble is not None:
            low = min(low, trouble - window)
        if wrong := self._ledger.judge(listed, low, high, publishable, complete):
            self._complain(f"{what} of {clock(moment)} {wrong}")
