"""Records when each address was on the host, as far as this is known outside the kernel. For each addition and each
removal only two moments are known, one before and one after it. All times are seconds of the wall clock (time.time()).
"""

import bisect
import math
from dataclasses import dataclass

FOREVER = math.inf


@dataclass
class Stay:
    """A time in which a link had an address. The address is certainly present from `settled` to `doubted`, and possibly
    present from `came` to `gone`."""

    came: float
    settled: float
    doubted: float = FOREVER
    gone: float = FOREVER


class Ledger:
    def __init__(self):
        self._stays = {}  # (link, address) -> list of Stay, the newest last
        self._links = {}  # address -> the links that ever had it
        self._ends = []  # ends of the changes, ascending
        self._begins = []  # starts of the changes, in the same order
        self.changes = 0

    def came(self, link, address, before, after):
        """Records that the address was absent at the time `before` and present at the time `after`."""
        self._stays.setdefault((link, address), []).append(Stay(before, after))
        self._links.setdefault(address, set()).add(link)
        self._note(before, after)

    def went(self, link, address, before, after):
        """Records that the address was present at the time `before` and absent at the time `after`."""
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
        """Returns whether no address changed between the times `low` and `high`."""
        at = bisect.bisect_left(self._ends, low)
        return all(begin > high for begin in self._begins[at:])

    def _stays_of(self, address):
        return [stay for link in self._links.get(address, ()) for stay in self._stays[link, address]]

    def might_have_been(self, address, low, high):
        return any(stay.came <= high and stay.gone >= low for stay in self._stays_of(address))

    def present(self, low, high):
        """Returns the addresses that were present during the whole time from `low` to `high`."""
        return {
            address
            for (_, address), stays in self._stays.items()
            if any(stay.settled <= low and stay.doubted >= high for stay in stays)
        }

    def judge(self, listed, low, high, publishable, complete=True):
        """Returns the error in a list of addresses that was read between the times `low` and `high`. Returns an empty
        text if the list is correct.

        `complete`: the list was not shortened.
        """
        never = [address for address in listed if not self.might_have_been(address, low, high)]
        if never:
            return f"lists addresses that were not there: {' '.join(never[:5])}"
        unfit = [address for address in listed if not publishable(address)]
        if unfit:
            return f"lists addresses that must not be published: {' '.join(unfit[:5])}"
        if not complete or not self.still(low, high):
            return ""
        missing = {address for address in self.present(low, high) if publishable(address)} - set(listed)
        return f"lacks addresses that were there: {' '.join(sorted(missing)[:5])}" if missing else ""
