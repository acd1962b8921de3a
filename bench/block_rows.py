"""Topics of the allocator."""

import statistics
import subprocess

from measure import preloaded
from rows import Result, Row, Table, mb, ns

CLASSES = (16, 32, 64, 96, 128, 256, 384, 512, 640, 800, 1024, 1424, 2048, 3072, 5120, 8192, 12288, 16384, 20480)
CLASSES += (24576, 32768, 49152, 65536, 131072, 262144, 409600, 655360, 1048576, 2097152, 4194304)
COUNTED = CLASSES[2::4]  # counting is slow, and the classes differ only in the steps of the search
ORDERS = ("lifo", "fifo", "random")
BATCH_SIZES = (64, 256, 1024, 4096, 16384, 65536)
BENCH = "build/bench/addrpubd_bench"


def pair(times, counts):
    times.run("^pair/", seconds=0.01, allocators=True)
    counts.run([f"pair/{who}/{size}" for who in ("olk", "minimum") for size in COUNTED], 1000)
    ratios = {size: times.ratio(f"pair/olk/{size}", f"pair/minimum/{size}") for size in CLASSES}
    counted = {size: counts[f"pair/olk/{size}"] for size in COUNTED}
    own = [times[f"pair/olk/{size}"] for size in CLASSES]
    worst = max(ratios.values())
    median = statistics.median(ratios.values())
    locks = 100 * times["pair/two_locks/64"] / statistics.median(own)
    result = Result()
    result.rows.append(
        Row(
            "pair of one size, each of the 30 classes",
            f"{min(ratios.values()):.2f} to {worst:.2f} times the minimum, {median:.2f} in the median; "
            f"{counted[64]:.0f} instructions at 64 bytes, the minimum has {counts['pair/minimum/64']:.0f}",
            "at most 1.05 times the minimum in every class",
            worst <= 1.05,
            "Single classes pass the bar by noise from run to run; what is more than the minimum is the walk's first "
            "step, the test for a heap to be grown and the hardening flags' landing pads.",
        )
    )
    result.rows.append(
        Row(
            "the same, stretch",
            f"{median:.2f} times; {counted[64]:.0f} instructions",
            "0.8 times and 105 instructions",
            median <= 0.8 and counted[64] <= 105,
            f"The two spin locks alone take {locks:.0f} % of the time; the minimum has them, too. A third of the "
            "instructions are the binary search for the class, which reads the size from each class's record. A table "
            "from size to class would replace the search, but the allocator has none: with the search the 105 "
            "instructions are out of reach.",
        )
    )
    result.rows.append(
        Row(
            "flat over the classes",
            f"dearest class {max(own) / min(own):.2f} times the cheapest; {min(counted.values()):.0f} to "
            f"{max(counted.values()):.0f} instructions",
            "flat",
            max(own) / min(own) <= 1.1,
            "Noise of the run: the instruction counts differ by the steps of the search only.",
        )
    )
    peers = [name for name in times.preloads if f"pair/{name}/64" in times]
    lines = [
        [size, ns(times[f"pair/olk/{size}"]), ns(times[f"pair/minimum/{size}"]), f"{ratios[size]:.2f}"]
        + [f"{counts[f'pair/{who}/{size}']:.0f}" if size in COUNTED else "" for who in ("olk", "minimum")]
        + [ns(times[f"pair/{peer}/{size}"]) for peer in peers]
        for size in CLASSES
    ]
    head = ["bytes", "olk", "minimum", "ratio", "olk instr.", "minimum instr.", *peers]
    note = f"Two takings and givings of an uncontended spin lock alone: {ns(times['pair/two_locks/64'])}."
    command = f"{BENCH} --benchmark_filter=^pair/"
    result.tables.append(Table("Pair: allocate and free one block", head, lines, command, note))
    result.plots["pair"] = [["bytes", "olk", "minimum", *peers]] + [
        [size, times[f"pair/olk/{size}"], times[f"pair/minimum/{size}"]]
        + [times[f"pair/{peer}/{size}"] for peer in peers]
        for size in CLASSES
    ]
    return result


def big(times, counts):
    times.run("^big/", seconds=0.05)
    sizes = (4194305, 16777216)
    counts.run([f"big/{who}/{sizes[0]}" for who in ("olk", "mmap")], 100)
    extra = counts[f"big/olk/{sizes[0]}"] - counts[f"big/mmap/{sizes[0]}"]
    ratios = [times.ratio(f"big/olk/{size}", f"big/mmap/{size}") for size in sizes]
    figures = ", ".join(f"{ratio:.2f} at {size}" for ratio, size in zip(ratios, sizes, strict=True))
    measured = f"{figures} bytes; {extra:.0f} instructions more"
    row = Row("block above 4 MiB", measured, "at most 1.1 times mmap, touch, munmap", max(ratios) <= 1.1)
    return Result([row])


def churn(times, counts):
    times.run("^churn/", seconds=0.15, allocators=True)
    peers = [name for name in times.preloads if f"churn/{name}" in times]
    ratio = times.ratio("churn/olk", "churn/glibc")
    counts.run(["churn/olk"], 20_000)
    counts.run(["churn/malloc"], 20_000, program="addrpubd_bench_plain")
    counted = counts.ratio("churn/olk", "churn/malloc")
    own = f"{ratio:.2f} of glibc ({ns(times['churn/olk'])}), {counted:.2f} in instructions"
    others = ", ".join(f"{peer} {times.ratio(f'churn/{peer}', 'churn/glibc'):.2f}" for peer in peers)
    topic = "churn, 10,000 live blocks of 16 to 65,536 bytes"
    why = "A class of large blocks has dozens of heaps, and a block is looked for from the head on."
    row = Row(topic, f"{own}; {others}", "at most 0.33 of glibc", ratio <= 0.33, why)
    return Result([row])


def batch(times, counts):
    times.run("^batch/", seconds=0.03, allocators=True)
    peers = [name for name in times.preloads if "batch/" + name + "/lifo/64" in times]
    lines = []
    worst = (0.0, "")
    cases = [f"{order}/{size}" for order in ORDERS for size in BATCH_SIZES]
    counts.run([f"batch/olk/{case}" for case in cases], 3)
    counts.run([f"batch/malloc/{case}" for case in cases], 3, program="addrpubd_bench_plain")
    for order in ORDERS:
        for size in BATCH_SIZES:
            ratio = times.ratio(f"batch/olk/{order}/{size}", f"batch/glibc/{order}/{size}")
            worst = max(worst, (ratio, f"{order}, {size} bytes"))
            cells = [ns(times[f"batch/{who}/{order}/{size}"] / 1000) for who in ["olk", *peers]]
            instructions = [f"{counts[f'batch/{who}/{order}/{size}'] / 1000:.0f}" for who in ("olk", "malloc")]
            lines.append([order, size, *cells, f"{ratio:.2f}", *instructions])
    row = Row(
        "batches of 1,000, LIFO, FIFO, random; 64 to 65,536 bytes",
        f"at worst {worst[0]:.2f} of glibc ({worst[1]})",
        "at most glibc everywhere",
        worst[0] <= 1.0,
        "In the smallest classes glibc's fast bins stand against two locks a pair; where a batch needs more than three "
        "heaps, they are given back to the system and mapped afresh at every batch.",
    )
    table = Table(
        "Batches: 1,000 blocks taken, touched and given back, per block",
        ["order", "bytes", "olk", *peers, "olk/glibc", "olk instr.", "glibc instr."],
        lines,
        f"{BENCH} --benchmark_filter=^batch/",
    )
    plot = [["case", "olk", *peers]] + [
        [f"{order}/{size}"] + [times[f"batch/{who}/{order}/{size}"] / 1000 for who in ["olk", *peers]]
        for order in ORDERS
        for size in BATCH_SIZES
    ]
    return Result([row], [table], {"batches": plot})


def threads(times, _):
    times.run("^threads/", seconds=0.1, clock="real_time")
    apart, beside = (times.ratio(f"threads/two/{who}", f"threads/one/{who}") for who in ("64_and_1024", "96_and_128"))
    row = Row(
        "two threads in different classes, real time",
        f"{apart:.2f} of the time that one thread takes for both halves, for 64 and 1,024 bytes, {beside:.2f} for the "
        "neighbours 96 and 128",
        "half (within 5 %)",
        apart <= 0.525 and beside <= 0.525,
        "The classes' records lie 64 bytes apart, the first at byte 56 of a page, so a class's first word shares a "
        "cache line with the counters of the class made before it. Other pairs of classes share no line. Their figure "
        "is best when both processors are otherwise idle.",
    )
    return Result([row])


def left(times, _):
    def resident(program, size, library=None):
        command = [*preloaded(library), times.build / program, "--left", str(size)]
        return int(subprocess.run(command, check=True, capture_output=True).stdout)

    lines = []
    for size in (24, 100, 1000):
        own = resident("addrpubd_bench", size)
        others = [resident("addrpubd_bench_plain", size, library) for library in times.preloads.values()]
        lines.append([size, own, *others])
    most = max(line[1] for line in lines)
    row = Row(
        "memory left after freeing a million blocks of 24, 100, 1,000 bytes",
        ", ".join(mb(line[1]) for line in lines),
        "at most 2.8 MB",
        most <= 2.8e6,
    )
    cells = [[line[0], *map(mb, line[1:])] for line in lines]
    table = Table(
        "Resident memory left after a million blocks", ["bytes", "olk", *times.preloads], cells, f"{BENCH} --left 24"
    )
    return Result([row], [table])
