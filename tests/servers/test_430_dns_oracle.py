"""Compares the DNS messages of the client library with dnspython. Updates and queries must have the right contents and
a valid signature. Exactly the authentic answers must be accepted."""

import base64
import os
import random
import subprocess
import types

import pytest
import surroundings
from host import BUILD

dns = pytest.importorskip("dns")
import dns.flags
import dns.message
import dns.name
import dns.opcode
import dns.rcode
import dns.rdata
import dns.rdataclass
import dns.rdatatype
import dns.rrset
import dns.tsig
import dns.update

ORACLE = BUILD / "tests" / "dns_oracle"
ALGORITHMS = ["hmac-sha1", "hmac-sha256", "hmac-sha384", "hmac-sha512"]
NOW = 1700000000
AAAA, HTTPS = dns.rdatatype.AAAA, dns.rdatatype.HTTPS
IN, NONE, ANY = dns.rdataclass.IN, dns.rdataclass.NONE, dns.rdataclass.ANY

pytestmark = pytest.mark.skipif(not ORACLE.exists(), reason="the client library was built without its back end dns")


class Oracle:
    """The program dns_oracle."""

    def __init__(self):
        place = surroundings.outside()
        environment = place.environment([ORACLE], dict(os.environ))
        pipes = {"stdin": subprocess.PIPE, "stdout": subprocess.PIPE, "text": True}
        self.process = subprocess.Popen(place.command([ORACLE]), env=environment, **pipes)

    def ask(self, *words):
        self.process.stdin.write(" ".join(str(word) for word in words) + "\n")
        self.process.stdin.flush()
        return self.process.stdout.readline().rstrip("\n")

    def message(self, kind, key, number, *words):
        """Returns the bytes of a request signed with `key`."""
        secret = base64.b64encode(key.secret).decode()
        algorithm = key.algorithm.to_text(omit_final_dot=True)
        name = key.name.to_text(omit_final_dot=True)
        return bytes.fromhex(self.ask(kind, number, NOW, name, algorithm, secret, *words))

    def judge(self, answer, now=NOW):
        return self.ask("answer", now, answer.hex())


@pytest.fixture
def oracle():
    program = Oracle()
    yield program
    program.process.stdin.close()
    assert program.process.wait() == 0


@pytest.fixture(autouse=True)
def fixed_time(monkeypatch):
    """Fixes dnspython's current time. Returns an object whose member `now` is this time; a test may change it."""
    clock = types.SimpleNamespace(now=NOW)
    monkeypatch.setattr(dns.message, "time", types.SimpleNamespace(time=lambda: clock.now))
    return clock


def make_key(seed):
    secret = seed.randbytes(seed.choice([1, 16, 20, 32, 64, 100, 200]))
    return dns.tsig.Key(f"key{seed.randrange(100)}.example", secret, seed.choice(ALGORITHMS))


def make_request(seed):
    """Returns the zone, ttl, name, full name, addresses and ports of one random update."""
    zone = ".".join(seed.choice(["example", "org", "a", "x" * 63, "lan-1"]) for _ in range(seed.randrange(1, 4)))
    label = seed.choice(["host1", "h", "a_b", "y" * 60])
    name, full = seed.choice([(label, f"{label}.{zone}"), (f"{label}.{zone}", f"{label}.{zone}"), (zone, zone)])
    addresses = [f"2001:db8::{seed.randrange(1 << 16):x}:{number:x}" for number in range(1, seed.randrange(1, 25))]
    ports = seed.sample(range(1, 65536), seed.randrange(4)) + ([443] if seed.random() < 0.5 else [])
    seed.shuffle(ports)
    return zone, seed.choice([0, 1, 60, 2**31 - 1]), name, full, addresses, ports


def https(text):
    return dns.rdata.from_text(IN, HTTPS, text)


def wanted_records(full, addresses, ports):
    """Returns the record sets of a request, each as (owner, type, records)."""
    name = dns.name.from_text(full)
    hint = "ipv6hint=" + ",".join(addresses[:16])
    at_name = [f"{place} . port={port} {hint}" for place, port in enumerate(ports, 1)]
    if 443 in ports:
        at_name = [f"1 . {hint}"]
    sets = [(name, AAAA, [dns.rdata.from_text(IN, AAAA, address) for address in addresses])]
    sets.append((name, HTTPS, [https(text) for text in at_name if addresses]))
    for port in ports:
        if port != 443:
            owner = dns.name.from_text(f"_{port}._https.{full}")
            sets.append((owner, HTTPS, [https(f"1 {full}. {hint}")] if addresses else []))
    return sets


def flat(section):
    """Returns each record of a section as (owner, type, class, ttl, data). For a deletion, data is None."""
    records = []
    for rrset in section:
        for rdata in list(rrset) or [None]:
            deleted = rrset.deleting if rrset.deleting is not None else rrset.rdclass
            records.append((rrset.name, rrset.rdtype, deleted, rrset.ttl, rdata.to_wire() if rdata else None))
    return records


def test_431_updates_match_the_request_and_have_a_valid_signature(oracle):
    seed = random.Random(431)
    for _ in range(2000):
        key, number = make_key(seed), seed.randrange(1 << 16)
        zone, ttl, name, full, addresses, ports = make_request(seed)
        wire = oracle.message("update", key, number, zone, ttl, name, ",".join(addresses) or "-",
                              ",".join(map(str, ports)) or "-")
        message = dns.message.from_wire(wire, keyring={key.name: key}, one_rr_per_rrset=True)
        sets = wanted_records(full, addresses, ports)
        named = dict.fromkeys(owner for owner, _, records in sets if records)
        conditions = [(owner, dns.rdatatype.CNAME, NONE, 0, None) for owner in named]
        deletions = [(owner, kind, ANY, 0, None) for owner, kind, _ in sets]
        additions = [(owner, kind, IN, ttl, data.to_wire()) for owner, kind, records in sets for data in records]
        assert (message.id, message.opcode(), message.had_tsig) == (number, dns.opcode.UPDATE, True)
        assert [(zone_set.name, zone_set.rdtype) for zone_set in message.zone] == [
            (dns.name.from_text(zone), dns.rdatatype.SOA)]
        assert flat(message.prerequisite) == conditions
        assert not message.additional
        assert flat(message.update) == deletions + additions


def test_432_queries_are_for_one_record_set_and_have_a_valid_signature(oracle):
    seed = random.Random(432)
    for _ in range(500):
        key, number = make_key(seed), seed.randrange(1 << 16)
        kind = seed.choice([dns.rdatatype.SOA, AAAA, HTTPS])
        wire = oracle.message("query", key, number, "host1.example.org", int(kind))
        message = dns.message.from_wire(wire, keyring={key.name: key})
        assert (message.id, message.flags, message.had_tsig) == (number, 0, True)
        assert message.question == [dns.rrset.RRset(dns.name.from_text("host1.example.org"), IN, kind)]


def made_answer(query, seed=None, code=dns.rcode.NOERROR):
    answer = dns.message.make_response(query, our_payload=0)
    answer.use_edns(False)
    answer.flags |= dns.flags.AA
    answer.set_rcode(code)
    if seed is not None:
        texts = [f"2001:db8::{seed.randrange(1 << 16):x}" for _ in range(seed.randrange(4))]
        if texts:
            answer.answer.append(dns.rrset.from_text("host1.example.org.", 60, "IN", "AAAA", *texts))
    return answer


def signed(answer, key, request_mac, error=0, other=b""):
    answer.use_tsig(key, tsig_error=error, other_data=other)
    answer.request_mac = request_mac
    return answer.to_wire()


def make_query(oracle, key, number=1):
    wire = oracle.message("query", key, number, "host1.example.org", int(AAAA))
    return dns.message.from_wire(wire, keyring={key.name: key})


def test_433_authentic_answers_are_accepted_with_each_code_from_0_to_10(oracle):
    seed = random.Random(433)
    for _ in range(1000):
        key = make_key(seed)
        query = make_query(oracle, key, seed.randrange(1 << 16))
        code = seed.randrange(11)
        answer = signed(made_answer(query, seed, code), key, query.mac)
        assert oracle.judge(answer) == f"whole {code}"


def test_434_answers_of_another_key_algorithm_request_or_number_are_refused(oracle):
    seed = random.Random(434)
    for _ in range(500):
        key = make_key(seed)
        query = make_query(oracle, key, seed.randrange(1 << 16))
        others = [
            (dns.tsig.Key("other.example", key.secret, key.algorithm), query.mac),
            (dns.tsig.Key(key.name, key.secret + b"\1", key.algorithm), query.mac),
            (dns.tsig.Key(key.name, key.secret, seed.choice([a for a in ALGORITHMS if a != str(key.algorithm)[:-1]])),
             query.mac),
            (key, b""),
            (key, bytes([query.mac[0] ^ 1]) + query.mac[1:]),
            (key, query.mac[:-1]),
        ]
        for other, mac in others:
            wire = signed(made_answer(query, seed), other, mac)
            assert oracle.judge(wire) == "none: the signature of the answer is wrong"
        wrong = made_answer(query, seed)
        wrong.id ^= 1
        assert oracle.judge(signed(wrong, key, query.mac)) == "none: the answer belongs to another request"
        bare = made_answer(query, seed)
        bare.tsig = None
        assert oracle.judge(bare.to_wire()) == "none: the answer is not signed"


def test_435_the_time_may_differ_up_to_the_fudge(oracle, fixed_time):
    key = dns.tsig.Key("key1", b"secret", "hmac-sha256")
    query = make_query(oracle, key)
    for away in (-100000, -301, -300, -1, 0, 1, 300, 301, 100000):
        fixed_time.now = NOW + away
        wire = signed(made_answer(query), key, query.mac)
        late = f"none: the answer was signed at another time, {abs(away)} s away"
        assert oracle.judge(wire) == ("whole 0" if abs(away) <= 300 else late)


@pytest.mark.parametrize("away", [-86400, -301, 301, 5000])
def test_436_the_difference_of_the_clocks_is_reported(oracle, away):
    key = dns.tsig.Key("key1", b"secret", "hmac-sha256")
    query = make_query(oracle, key)
    answer = made_answer(query, code=dns.rcode.NOTAUTH)
    wire = signed(answer, key, query.mac, dns.rcode.BADTIME, (NOW + away).to_bytes(6, "big"))
    side = "ahead" if away > 0 else "behind"
    assert oracle.judge(wire) == f"refusal: BADTIME: the clocks differ, the server's is {abs(away)} s {side}"


def case_of_a_name(wire, position, bit, key):
    """Returns whether a flipped bit only changes the case of a letter in the two names of the signature. These names
    are signed in lower case."""
    name, algorithm = key.name.to_wire(), key.algorithm.to_wire()
    start = wire.rindex(name)
    places = list(range(start, start + len(name)))
    start = wire.rindex(algorithm)
    places += range(start, start + len(algorithm))
    return position in places and bit == 5 and chr(wire[position]).isalpha()


@pytest.mark.parametrize("algorithm", ALGORITHMS)
def test_437_an_answer_with_a_flipped_bit_is_refused_except_for_the_case_of_a_name(oracle, algorithm):
    key = dns.tsig.Key("key1", b"secret", algorithm)
    query = make_query(oracle, key)
    wire = signed(made_answer(query, random.Random(437)), key, query.mac)
    for position in range(len(wire)):
        for bit in range(8):
            altered = bytearray(wire)
            altered[position] ^= 1 << bit
            taken = oracle.judge(bytes(altered)).startswith("whole")
            assert taken == case_of_a_name(wire, position, bit, key), (position, bit)


def test_438_a_truncated_or_extended_answer_is_refused(oracle):
    key = dns.tsig.Key("key1", b"secret", "hmac-sha256")
    query = make_query(oracle, key)
    wire = signed(made_answer(query, random.Random(438)), key, query.mac)
    assert oracle.judge(wire) == "whole 0"
    for size in range(len(wire)):
        assert oracle.judge(wire[:size]).startswith("none: ")
    for more in (b"\0", wire, wire[12:]):
        assert oracle.judge(wire + more).startswith("none: ")
