"""Topics of the string, the request text, the logs and the address list."""

from measure import succeeds
from rows import Bar, Cost, Result, Table

STRING_BARS = (
    ("100000_bytes", "string of 100,000 single bytes", 0.65),
    ("400_bytes", "string of 400 single bytes", 0.95),
    ("39_made", "string of 39 bytes, constructed and destroyed", 1.2),
)
POOLED_PAIRS = 3  # blocks that the string of 12-byte pieces allocates and frees while it grows to 408 bytes


def string(figures):
    figures.measure("string", seconds=0.05)
    if "pair/minimum/64" not in figures:
        figures.measure("pair/minimum", seconds=0.001)
    result = Result()
    lines = []
    pieces = ("pieces_of_12", "string of 12-byte pieces to 408 bytes")
    for case, topic in [bar[:2] for bar in STRING_BARS] + [pieces]:
        own, peer = f"string/olk/{case}", f"string/std/{case}"
        lines.append([topic, figures.cell(own), figures.cell(peer)])
    for case, topic, goal in STRING_BARS:
        own, peer = f"string/olk/{case}", f"string/std/{case}"
        ratio = figures.ratio(own, peer)
        times = f"{figures.time_ratio(own, peer)} of std::string"
        result.bars.append(Bar(topic, f"{ratio:.2f} of std::string", f"at most {goal}", ratio <= goal, times))
    result.costs.append(pieces_cost(figures, pieces[1]))
    result.tables.append(Table("String", ["case", "olk", "std::string"], lines))
    return result


def pieces_cost(figures, topic):
    own, peer = "string/olk/pieces_of_12", "string/std/pieces_of_12"
    floor = POOLED_PAIRS * figures.instructions("pair/minimum/64")
    return Cost(
        topic,
        f"{figures.instructions(own):,.0f} instructions, {figures.ratio(own, peer):.2f} of std::string; "
        f"time {figures.time_ratio(own, peer)}",
        "0.6 of std::string",
        f"{floor:.0f} instructions for its {POOLED_PAIRS} blocks with the minimum allocator, "
        f"{floor / figures.instructions(peer):.2f} of std::string before any byte is appended",
        "The string takes its blocks from the pooled allocator: six spin locks, where std::string takes none.",
    )


REQUEST_GOALS = {2: 0.2, 32: 0.15, 1000: 0.17}
REQUEST_WHY = {
    2: "Two thirds of the instructions do not depend on the addresses: they write member names and numbers, and "
    "allocate and free the buffer.",
    32: "The buffer is reserved for 400 bytes and grows twice. An address that does not fit is written piece by piece. "
    "Both together take a quarter of the instructions.",
    1000: "The buffer is reserved for 400 bytes and is copied each time it grows.",
}


def request(figures):
    figures.measure("request", seconds=0.05)
    who = [name for name in ("olk", "rapidjson", "fmt", "std", "memcpy") if f"request/{name}/2" in figures]
    result = Result()
    for addresses, goal in REQUEST_GOALS.items() if "rapidjson" in who else []:
        own, peer = f"request/olk/{addresses}", f"request/rapidjson/{addresses}"
        ratio = figures.ratio(own, peer)
        topic = f"request text for {addresses:,} addresses"
        times = f"{figures.time_ratio(own, peer)} of RapidJSON"
        measured, why = f"{ratio:.2f} of RapidJSON", REQUEST_WHY[addresses]
        result.bars.append(Bar(topic, measured, f"at most {goal}", ratio <= goal, times, why))
    copies = figures.ratio("request/olk/2", "request/memcpy/2")
    result.bars.append(
        Bar(
            "request text for 2 addresses beside memcpy",
            f"{copies:.1f} times",
            "at most 12 times",
            copies <= 12,
            f"{figures.time_ratio('request/olk/2', 'request/memcpy/2')} times",
            "memcpy copies the finished text to an existing buffer, 32 bytes with each instruction. The writer "
            "allocates and frees its buffer, which alone is four times the instructions of memcpy, and checks each "
            "character.",
        )
    )
    cells = [[f"{n:,}", *(figures.cell(f"request/{name}/{n}") for name in who)] for n in REQUEST_GOALS]
    note = "memcpy copies the finished text to an existing buffer. fmt escapes no characters."
    result.tables.append(Table("Request text", ["addresses", *who], cells, note))
    plot = [[n, *(figures.instructions(f"request/{name}/{n}") for name in who)] for n in REQUEST_GOALS]
    result.plots["request"] = [["addresses", *who], *plot]
    return result


def udp(figures):
    figures.measure("udp", seconds=0.1)
    figures.measure("filtered", seconds=0.01)
    extra = figures.instructions("udp/olk") - figures.instructions("udp/sendto")
    filtered = figures.instructions("filtered/olk/udp")
    bars = [
        Bar(
            "one UDP record",
            f"{extra:.0f} instructions more than bare sendto",
            "at most 1,000 more",
            extra <= 1000,
            f"{figures.time_ratio('udp/olk', 'udp/sendto')} of bare sendto",
        ),
        Bar("one record that the level filters out", f"{filtered:.0f} instructions", "under 30", filtered < 30),
    ]
    if "udp/spdlog" in figures:
        ratio = figures.ratio("udp/olk", "udp/spdlog")
        times = f"{figures.time_ratio('udp/olk', 'udp/spdlog')} of spdlog"
        why = "Most of the instructions are those of the C library's vsnprintf."
        measured = f"{ratio:.2f} of spdlog's UDP sink"
        bars.append(Bar("one UDP record beside spdlog", measured, "under 1", ratio < 1, times, why))
    who = [name for name in ("olk", "sendto", "spdlog") if f"udp/{name}" in figures]
    table = Table("UDP record", who, [[figures.cell(f"udp/{name}") for name in who]])
    return Result(bars, tables=[table])


CONSOLE_CASES = {
    "olk": "add",
    "olk_push": "push (flushes)",
    "printf": "printf, same line",
    "spdlog": "spdlog (flushes)",
}


def console(figures):
    figures.measure("console", seconds=0.05)
    figures.count_writes("console")
    who = [name for name in CONSOLE_CASES if f"console/{name}" in figures]
    cells = [["instructions (time)", *(figures.cell(f"console/{name}") for name in who)]]
    cells.append(["calls of write(2)", *(f"{figures.writes(f'console/{name}'):.3f}" for name in who)])
    table = Table("Console record, to /dev/null", ["", *(CONSOLE_CASES[name] for name in who)], cells)
    if "spdlog" not in who:
        return Result(tables=[table])
    writes = figures.writes("console/olk") / figures.writes("console/spdlog")
    ratio = figures.ratio("console/olk_push", "console/spdlog")
    bars = [
        Bar(
            "one console record, calls of write(2)",
            f"{writes:.3f} of spdlog's stdout sink",
            "at most 0.9",
            writes <= 0.9,
            f"{figures.time_ratio('console/olk', 'console/spdlog')} of spdlog",
        ),
        Bar(
            "one console record, flushed as spdlog does, instructions",
            f"{ratio:.2f} of spdlog's stdout sink",
            "at most 0.9",
            ratio <= 0.9,
            f"{figures.time_ratio('console/olk_push', 'console/spdlog')} of spdlog",
            "printf formats the prefix with date and time. The same line by printf alone is "
            f"{figures.ratio('console/printf', 'console/spdlog'):.2f} of spdlog, which has a formatter of its own and "
            "formats the date once a second.",
        ),
    ]
    return Result(bars, tables=[table])


ADD_ADDRESSES = """ip link set lo up; ip -6 addr flush dev lo
seq -f 'addr add 2001:db8::%g/128 dev lo nodad' "$0" | ip -6 -batch -
exec "$@" """


def addresses(figures):
    """Measures the address list in network namespaces with 1, 100 and 1,000 addresses on lo."""
    ratios = {}
    times = []
    for number in (1, 100, 1000):
        wrap = ["unshare", "--net", "sh", "-c", ADD_ADDRESSES, str(number)]
        if not succeeds(*wrap, "true"):
            print("-- address list left out: network namespaces are not available (root is needed)")
            return Result()
        own, walk = f"addresses/{number}/olk", f"addresses/{number}/walk"
        figures.measure("addresses", 0.05, wrap=wrap, rename=("addresses/", f"addresses/{number}/"))
        ratios[number] = figures.ratio(own, walk)
        times.append(f"{figures.time_ratio(own, walk)} of a bare walk at {number:,} ({figures.time(own)})")
    bar = Bar(
        "address list of 1, 100 and 1,000 addresses",
        ", ".join(f"{ratio:.3f} at {number:,}" for number, ratio in ratios.items()) + " of a bare walk",
        "at most 1.05",
        max(ratios.values()) <= 1.05,
        "; ".join(times),
    )
    return Result([bar])
