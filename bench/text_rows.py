"""Topics of the string, the request text, the logs and the address list."""

import subprocess
import sys

from rows import Result, Row, Table, ns

BENCH = "build/bench/addrpubd_bench"

STRING_BARS = (
    ("100000_bytes", "string of 100,000 single bytes", 0.65, 3),
    ("pieces_of_12", "string of 12-byte pieces to 408 bytes", 0.60, 300),
    ("400_bytes", "string of 400 single bytes", 0.95, 300),
    ("39_made", "string of 39 bytes made and dropped", 1.2, 1000),
)
STRING_WHY = {
    "100000_bytes": "A byte costs six instructions here, two loads and two stores among them, since length and "
    "capacity stand in front of the text; the rest is the loop and the copies of growing.",
    "pieces_of_12": "The three pooled pairs' six locks alone take about half the standard string's time, which "
    "outweighs the cheaper appends.",
    "400_bytes": "Six pooled pairs with their locks stand against five of glibc's without, and eat up what the cheaper "
    "bytes save.",
    "39_made": "It is one pair of the allocator: its two locks alone take as long as all of the standard string's.",
}


def string(times, counts):
    times.run("^string/", seconds=0.05)
    result = Result()
    lines = []
    for case, topic, bar, n in STRING_BARS:
        own, peer = f"string/olk/{case}", f"string/std/{case}"
        counts.run([own, peer], n)
        ratio, counted = times.ratio(own, peer), counts.ratio(own, peer)
        measured = f"{ratio:.2f} of std::string; {counted:.2f} in instructions"
        result.rows.append(Row(topic, measured, f"at most {bar:.2f}", ratio <= bar, STRING_WHY[case]))
        lines.append([topic, ns(times[own]), ns(times[peer]), f"{ratio:.2f}"])
        lines[-1] += [f"{counts[own]:.0f}", f"{counts[peer]:.0f}", f"{counted:.2f}"]
    head = ["case", "olk", "std", "ratio", "olk instr.", "std instr.", "ratio"]
    result.tables.append(Table("String", head, lines, f"{BENCH} --benchmark_filter=^string/"))
    return result


REQUEST_BARS = {2: 0.2, 32: 0.15, 1000: 0.17}
REQUEST_WHY = {
    2: "A quarter of the time is spent on allocating and freeing the buffer. Each of about twenty appends waits for "
    "the length that the append before it has stored.",
    32: "The buffer is made for a few addresses, so the text is moved twice while it grows.",
    1000: "The buffer is made for a few addresses, so the text is moved several times while it grows.",
}


def request(times, counts):
    times.run("^request/", seconds=0.05)
    peers = [who for who in ("rapidjson", "fmt", "std", "memcpy") if f"request/{who}/2" in times]
    result = Result()
    lines = []
    plot = [["addresses", "olk", *peers]]
    for addresses, bar in REQUEST_BARS.items():
        counts.run([f"request/{who}/{addresses}" for who in ["olk", *peers]], 20 if addresses == 1000 else 200)
        own = f"request/olk/{addresses}"
        if "rapidjson" in peers:
            peer = f"request/rapidjson/{addresses}"
            ratio = times.ratio(own, peer)
            measured = f"{ratio:.2f} of RapidJSON; {counts.ratio(own, peer):.2f} in instructions"
            topic = f"request text for {addresses} addresses"
            result.rows.append(Row(topic, measured, f"at most {bar}", ratio <= bar, REQUEST_WHY[addresses]))
        lines.append([addresses] + [ns(times[f"request/{who}/{addresses}"]) for who in ["olk", *peers]])
        lines[-1] += [f"{counts[f'request/{who}/{addresses}']:.0f}" for who in ["olk", *peers]]
        plot.append([addresses] + [times[f"request/{who}/{addresses}"] for who in ["olk", *peers]])
    copies = times.ratio("request/olk/2", "request/memcpy/2")
    why = (
        "The copy goes to a buffer that exists already. The text goes to one that is allocated and freed, which alone "
        "takes about seven times as long as the copy."
    )
    topic = "request text for 2 addresses beside memcpy"
    result.rows.append(Row(topic, f"{copies:.1f} times", "at most 12 times", copies <= 12, why))
    head = ["addresses", "olk", *peers, "olk instr.", *(f"{peer} instr." for peer in peers)]
    note = (
        "memcpy copies the finished text into a buffer that stands ready; fmt escapes nothing. The writer takes 16 "
        "characters at a time and an element in one piece, which the bar for 1,000 addresses needs: tried by hand, "
        "looking at single characters costs 0.7 of RapidJSON's time there, and appending an element's parts one by one "
        "0.35."
    )
    result.tables.append(Table("Request text", head, lines, f"{BENCH} --benchmark_filter=^request/", note))
    result.plots["request"] = plot
    return result


def udp(times, counts):
    times.run("^udp/", seconds=0.1)
    counts.run(["filtered/olk/udp", "udp/olk", "udp/sendto"], 1000)
    ratio = times.ratio("udp/olk", "udp/sendto")
    result = Result()
    why = (
        "Formatting takes some 150 ns, most of it in the C library's vsnprintf: how much that is beside the system "
        "call depends on the kernel."
    )
    extra = counts["udp/olk"] - counts["udp/sendto"]
    own, bare = ns(times["udp/olk"]), ns(times["udp/sendto"])
    figures = f"{ratio:.3f} of bare sendto ({own}, {bare}), {extra:.0f} instructions more"
    result.rows.append(Row("one UDP record", figures, "at most 1.08", ratio <= 1.08, why))
    if "udp/spdlog" in times:
        beside = times.ratio("udp/olk", "udp/spdlog")
        measured = f"{beside:.3f} of spdlog's UDP sink"
        why = "Both are the system call and little else: within a few hundredths they change places from run to run."
        result.rows.append(Row("one UDP record beside spdlog", measured, "ahead of spdlog", beside < 1, why))
    filtered = counts["filtered/olk/udp"]
    result.rows.append(Row("a filtered record", f"{filtered:.0f} instructions", "under 30 instructions", filtered < 30))
    return result


def console(times, counts):
    times.run("^console/", seconds=0.05)
    result = Result()
    why = {
        "null": "A flushed record costs one system call and printf's formatting. With a prefix that was formatted "
        "without printf the ratios were 0.89, and 0.91 to a pipe; the service never flushes a line, so it keeps the "
        "simpler code.",
        "pipe": "The reason is that of /dev/null.",
    }
    lines = []
    for where in ("null", "pipe"):
        who = [name for name in ("olk", "olk_push", "printf", "spdlog") if f"console/{name}/{where}" in times]
        lines.append([where] + [ns(times[f"console/{name}/{where}"]) for name in who])
        if "spdlog" in who:
            ratio = times.ratio(f"console/olk/{where}", f"console/spdlog/{where}")
            flushed = times.ratio(f"console/olk_push/{where}", f"console/spdlog/{where}")
            topic = "one console record to " + ("/dev/null" if where == "null" else "a pipe")
            counts.run([f"console/{name}/{where}" for name in who], 1000)
            lines[-1] += [f"{counts[f'console/{name}/{where}']:.0f}" for name in who]
            result.rows.append(Row(topic, f"{ratio:.2f} of spdlog's stdout sink", "at most 0.9", ratio <= 0.9))
            measured = f"{flushed:.2f} of spdlog's stdout sink"
            topic += ", flushed as spdlog does"
            result.rows.append(Row(topic, measured, "at most 0.9", flushed <= 0.9, why[where]))
    head = ["to", "add", "push (flushes)", "printf, same line", "spdlog (flushes)"]
    head += ["add instr.", "push instr.", "printf instr.", "spdlog instr."] if len(lines[0]) > len(head) else []
    head = head[: len(lines[0])]
    result.tables.append(Table("Console record", head, lines, f"{BENCH} --benchmark_filter=^console/"))
    return result


def addresses(times, counts):
    """In a network namespace of its own, with so many addresses on lo."""
    result = Result()
    figures = []
    worst = 0.0
    for number in (1, 100, 1000):
        script = "ip link set lo up; ip -6 addr flush dev lo; i=0; while [ $i -lt $0 ]; do i=$((i + 1));"
        script += ' printf "addr add 2001:db8::%x/128 dev lo nodad\\n" $i; done | ip -6 -batch -; exec "$@"'
        prefix = ["unshare", "--net", "sh", "-c", script, str(number)]
        if subprocess.run([*prefix, "true"], capture_output=True, check=False).returncode != 0:
            print("-- address list left out: no network namespace to be had (root is needed)", file=sys.stderr)
            return result
        times.run("^addresses/", prefix=prefix, seconds=0.05, rename=("addresses/", f"addresses/{number}/"))
        counts.run(["addresses/olk", "addresses/walk"], 20, prefix=prefix)
        ratio = times.ratio(f"addresses/{number}/olk", f"addresses/{number}/walk")
        counted = counts.ratio("addresses/olk", "addresses/walk")
        worst = max(worst, ratio)
        own = ns(times[f"addresses/{number}/olk"])
        figures.append(f"{ratio:.3f} at {number} ({own}; {counted:.2f} in instructions)")
    why = (
        "On top of the walk, which has 2,800 instructions an address, come 90 for the address's kind and the joined "
        "text: it moves around the bar from run to run."
    )
    topic = "address list of 1, 100, 1,000 addresses"
    result.rows.append(Row(topic, ", ".join(figures), "at most 1.05 of a bare walk", worst <= 1.05, why))
    return result
