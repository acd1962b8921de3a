"""Changes of a host's addresses from a fixed seed. There are several kinds of activity, each with its own pattern."""

import random
import time

from network import MANAGE_TEMPORARY

MOST = 450  # maximum number of addresses that are added together; a request with them fits into a log datagram
LOOK = 0.1  # seconds between two checks for addresses that expire
TEMPORARIES = 8  # maximum number of addresses for which the kernel makes temporary addresses
UNPUBLISHED = ["fe80::1:1", "fec0::1", "fe90:1::1", "::192.0.2.1", "::ffff:192.0.2.2"]


class Deck:
    """Returns its items in random order. Each item is returned once before an item is repeated, so that a short run has
    every kind."""

    def __init__(self, cards, source):
        self._cards, self._source, self._left = cards, source, []

    def draw(self):
        if not self._left:
            self._left = self._source.sample(self._cards, len(self._cards))
        return self._left.pop()


class Activities:
    def __init__(self, addresses, seed):
        self._addresses = addresses
        self._random = random.Random(seed)
        self._usual = [f"2001:db8:aa::{number:x}" for number in range(1, 13)]
        self._usual += [f"fd12:3456:789a::{number:x}" for number in range(1, 5)]
        self._flood = []  # (link, address) of the addresses that _pour has added together
        self._fresh = 0
        kinds = [self._still, self._few, self._flicker, self._flood_or_ebb, self._renumber, self._empty]
        self._deck = Deck(kinds + [self._lifetimes, self._twice, self._storm, self._flood_or_ebb], self._random)

    def begin(self):
        """Adds MOST addresses at once, so that the service gets a long list early."""
        for address in UNPUBLISHED:
            self._addresses.put(address, self._link())
        self._pour(MOST)

    def next(self):
        self._deck.draw()()

    def few(self):
        """Adds or removes an address, one to three times without a pause."""
        for _ in range(self._random.randint(1, 3)):
            self._toggle()

    def pause(self, seconds):
        until = time.monotonic() + seconds
        while (left := until - time.monotonic()) > 0:
            time.sleep(min(LOOK, left))
            self._addresses.look()

    def _link(self):
        return self._random.choice(self._addresses.links)

    def _new(self):
        self._fresh += 1
        prefix = self._random.choice(("2001:db8", "2a00:1450", "fd00:aaaa", "fc01:2", "2002:c000"))
        return f"{prefix}:{self._random.randrange(1, 1 << 16):x}::{self._fresh:x}"

    def _put(self, address=None, link=None, **options):
        place = (link or self._link(), address or self._new())
        self._addresses.put(place[1], place[0], **options)
        return place

    def _toggle(self):
        place = (self._random.choice(self._addresses.links), self._random.choice(self._usual))
        if place in self._addresses.mine:
            self._addresses.take(*place)
        else:
            self._put(place[1], place[0])

    #  The kinds

    def _still(self):
        self.pause(self._random.uniform(1, 8))

    def _few(self):
        for _ in range(self._random.randint(1, 6)):
            self._toggle()
            self.pause(self._random.uniform(0, 1.5))

    #  Adds addresses, each of which is removed after at most 0.4 s, so mostly before the next cycle.
    def _flicker(self):
        for _ in range(30):
            place = self._put()
            self.pause(self._random.choice((0, 0.01, 0.05, 0.4)))
            self._addresses.take(*place)

    def _flood_or_ebb(self):
        if self._flood:
            for place in self._flood:
                if place in self._addresses.mine:
                    self._addresses.take(*place)
            self._flood = []
        else:
            self._pour(self._random.randint(100, MOST - 100))

    def _pour(self, count):
        self._flood = [self._put() for _ in range(count)]

    #  Replaces the addresses without a lifetime by a few new ones, except those of UNPUBLISHED.
    def _renumber(self):
        self._take_all()
        for _ in range(self._random.randint(3, 12)):
            self._put()

    def _take_all(self):
        for place in list(self._addresses.mine):
            if place[1] not in UNPUBLISHED:
                self._addresses.take(*place)
        self._flood = []

    def _empty(self):
        self._take_all()
        for address in UNPUBLISHED[:2]:
            place = next((place for place in self._addresses.mine if place[1] == address), None)
            if place:
                self._addresses.take(*place)
                self._put(address)

    def _lifetimes(self):
        self._put(preferred=0)
        self._put(preferred=self._random.randint(1, 4))
        self._put(preferred=1, valid=self._random.randint(2, 6))
        self._put(preferred=3, valid=self._random.randint(7, 12))
        with_temporaries = [place for place, prefix in self._addresses.mine.items() if prefix == 64]
        if len(with_temporaries) >= TEMPORARIES:
            self._addresses.take(*with_temporaries[0])
        self._put(link=self._addresses.links[1], flags=MANAGE_TEMPORARY, prefix=64)

    def _twice(self):
        address = self._new()
        for link in self._addresses.links:
            self._put(address, link)

    #  About ten changes per second for about one cycle.
    def _storm(self):
        until = time.monotonic() + self._random.uniform(8, 14)
        while time.monotonic() < until:
            self._toggle()
            self.pause(self._random.expovariate(15))
