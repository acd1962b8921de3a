"""When each address was on the host, as far as it can be known from outside the kernel: between two moments it came,
between two moments it went. All times are seconds of the wall clock (time.time()).
"""

import bisect
import math
from dataclasses import dataclass

FOREVER = math.inf


@dataclass
class Stay:
    """There for certain from settled to doubted, perhaps already from came, and perhaps still until gone."""

    came: float
    settled: float
    doubted: float = FOREVER
    gone: float = FOREVER


class Ledger:
    def __init__(self):
        self._stays = {}  # (link, address) -> its stays, the newest last
        self._links = {}  # address -> the links that ever had it
        self._ends = []  # of each change, ascending
        self._begins = []  # beside it
        self.changes = 0

    def came(self, link, address, before, after):
        """The address was not there before, and is after."""
        self._stays.setdefault((link, address), []).append(Stay(before, after))
        self._links.setdefault(address, set()).add(link)
        self._note(before, after)

    def went(self, link, address, before, after):
        """The address was there before, and is not any more after."""
        stay = self._stays[link, address][-1]
        stay.doubted, stay.gone = before, after
        self._note(before, after)

    def _note(self, before, after):
        at = bisect.bisect(self._ends, after)
        self._ends.insert(at, after)
        self._begins.insert(at, before)
        self.changes += 1

    def last_change(self):
        return self._ends[-1] if self._ends else 0.0

    def still(self, low, high):
        """Tells whether nothing changed between the two moments."""
        at = bisect.bisect_left(self._ends, low)
        return all(begin > high for begin in self._begins[at:])

    def _stays_of(self, address):
        return [stay for link in self._links.get(address, ()) for stay in self._stays[link, address]]

    def might_have_been(self, address, low, high):
        return any(stay.came <= high and stay.gone >= low for stay in self._stays_of(address))

    def present(self, low, high):
        """The addresses that were there all the time between the two moments."""
        return {
            address
            for (_, address), stays in self._stays.items()
            if any(stay.settled <= low and stay.doubted >= high for stay in stays)
        }

    def judge(self, listed, low, high, publishable, complete=True):
        """What is wrong with a list of addresses that was taken between the two moments; an empty text when nothing is.

        complete: nothing was cut off its end.
        """
        never = [address for address in listed if not self.might_have_been(address, low, high)]
        if never:
            return f"lists what was not there: {' '.join(never[:5])}"
        unfit = [address for address in listed if not publishable(address)]
        if unfit:
            return f"lists what must not be published: {' '.join(unfit[:5])}"
        if not complete or not self.still(low, high):
            return ""
        missing = {address for address in self.present(low, high) if publishable(address)} - set(listed)
        return f"lacks what was there: {' '.join(sorted(missing)[:5])}" if missing else ""
