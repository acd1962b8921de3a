"""redis_slots.py: prints the slots of keys in a Redis Cluster, as an independent model of rdbapi/open/redis/slots.cpp.

    python3 tests/support/redis_slots.py > tests/data/redis_slots.tsv

Python's library computes the checksum. A regular expression finds the part of the key that determines the slot.
tests/servers compares the same rows with a real server.
"""

import binascii
import random
import re

SLOTS = 16384
BYTES = [bytes([byte]) for byte in range(256)]
KEYS = [
    *(b"", b"{", b"}", b"{}", b"}{", b"{}a", b"a{", b"a{b", b"a{}b", b"a{b}", b"a{b}c", b"a{b}c{d}", b"{{b}}"),
    *(b"a{{b}", b"}{b}", b"foo{}{bar}", b"123456789", b"host1", b"rdb:tag:{host1}", b"rdb:value:{host1}"),
    *(b"rdb:history:{host1}", b"rdb:changed:{host1}", b"rdb:tag:{a}b{}", b"rdb:tag:{host0000001.example.test}"),
]


def slot_of(key):
    braces = re.search(rb"\{([^}]*)\}", key)
    part = braces[1] if braces and braces[1] else key
    return binascii.crc_hqx(part, 0) % SLOTS


def keys():
    """Returns the keys above, each single byte, and random keys of which many have braces."""
    chance = random.Random(1)
    found = KEYS + BYTES
    for _ in range(400):
        length = chance.randrange(1, 24)
        found.append(b"".join(chance.choice([*BYTES, b"{", b"}"] + [b"{", b"}"] * 40) for _ in range(length)))
    return found


if __name__ == "__main__":
    print("#  The slots of keys: the bytes of the key in hexadecimal, a tab, and the slot (support/redis_slots.py).")
    for key in keys():
        print(key.hex() + "\t" + str(slot_of(key)))
