"""Generates random events of a host and its servers from a seed. Defines the kinds of events and how often they
occur."""

import random

from clock import SECOND
from cycle_model import DNS, RDB
from recording import CONNECTED, DISCONNECTED

USUAL = [f"2001:db8:{n:x}::{n * 77:x}" for n in range(1, 16)]
UNPUBLISHED = ["fe80::1:1", "fec0::1", "fe90:1::1"]
FLOOD = [f"fd00:1111:2222:3333:4444:5555:6666:{n:x}" for n in range(0x1000, 0x1040)]  # 64, each of 39 characters
STEPS = (-3600, -601, -600, -599, -11, -10, -9, -1, -0.05, 0.05, 1, 9, 10, 11, 599, 600, 601, 3600)
ERAS = ((0, 700), (2**31 - 300, 2**31 + 300), (2**32 - 300, 2**32 + 300))  # seconds since the epoch: 1970, 2038, 2106
TROUBLES = ("rdb_tagget", "rdb_taginport", "rdb_objputsnapshot", "rdb_callmsg")
ERRORS = (1, -1, 17, 2147483647, -2147483648)


class RandomLife:
    """Applies random events to a scenario. `changes` counts the addresses that these events have added or removed.

    The constructor adds the addresses USUAL and FLOOD, so that the service gets a list of maximum length early.
    """

    def __init__(self, scenario, seed):
        self._scenario = scenario
        self._random = random.Random(seed)
        self._present = set(USUAL + FLOOD)
        self._away = 0  # current offset of the wall clock from the initial era, nanoseconds
        self._can_list = True
        self.changes = 0
        scenario.add(*USUAL, *FLOOD)
        self._happenings = {
            self._address: 700,
            self._lost_or_back: 60,
            self._strange_event: 20,
            self._step: 25,
            self._other_era: 4,
            self._trouble: 12,
            self._recovery: 20,
            self._unable_to_list: 3,
            self._reply: 30,
            self._flood: 5,
        }

    def live(self, seconds, pause):
        """Runs this many whole seconds, with an event every `pause` seconds on average."""
        left = round(seconds * SECOND)
        while left > 0:
            length = min(left, round(self._random.choice((0.02, 0.1, 0.3, 1, 2.45)) * pause * 1.3 * 20) * SECOND // 20)
            self._scenario.run(length / SECOND)
            left -= length
            (happening,) = self._random.choices(list(self._happenings), self._happenings.values())
            happening()

    def _address(self):
        self._toggle(self._random.choice(USUAL + UNPUBLISHED))

    def _flood(self):
        self._toggle(*FLOOD)

    def _toggle(self, *addresses):
        for address in addresses:
            if address in self._present:
                self._scenario.network.remove(address)
            else:
                self._scenario.network.add(address)
        self._present ^= set(addresses)
        self.changes += len(addresses)
        self._scenario.look(self._can_list)

    def _lost_or_back(self):
        server = self._random.choice((RDB, DNS))
        self._scenario.event(server, self._random.choice((CONNECTED, CONNECTED, DISCONNECTED)))

    def _strange_event(self):
        self._scenario.event(self._random.choice((RDB, DNS)), self._random.choice((0, -1, 60000, 60002, 60004)))

    def _step(self):
        seconds = self._random.choice(STEPS)
        if self._scenario.wall_ns() + seconds * SECOND > 0:
            self._scenario.step(seconds)

    def _other_era(self):
        """Sets the clock to another era, or back to the initial era."""
        if self._away:
            self._scenario.step(-self._away / SECOND)
            self._away = 0
            return
        before = self._scenario.wall_ns()
        self._scenario.set_clock(self._random.randint(*self._random.choice(ERAS)))
        self._away = self._scenario.wall_ns() - before

    def _trouble(self):
        if self._random.random() < 0.3:
            self._scenario.tag_class(self._random.choice((0, 1, 2, 255)), self._random.choice((-1, 0, 2)))
        else:
            self._scenario.answer(self._random.choice(TROUBLES), self._random.choice(ERRORS))

    def _recovery(self):
        self._scenario.tag_class()
        for function in TROUBLES:
            self._scenario.answer(function, 0)

    def _unable_to_list(self):
        self._can_list = not self._can_list
        self._scenario.allow_listing(self._can_list)

    def _reply(self):
        if self._scenario.model.seqno > 0:
            self._scenario.reply(b'{"seqno":%d,"code":0}' % self._scenario.model.seqno)
