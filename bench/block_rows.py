"""Topics of the allocator."""

import subprocess

from measure import preloaded
from rows import Bar, Cost, Result, Table, mb

CLASSES = (16, 32, 64, 96, 128, 256, 384, 512, 640, 800, 1024, 1424, 2048, 3072, 5120, 8192, 12288, 16384, 20480)
CLASSES += (24576, 32768, 49152, 65536, 131072, 262144, 409600, 655360, 1048576, 2097152, 4194304)
SHOWN_CLASSES = CLASSES[2::4]
ORDERS = ("lifo", "fifo", "random")
BATCH_SIZES = (64, 256, 1024, 4096, 16384, 65536)


def pair(figures):
    timed = f"[a-z_]+/({'|'.join(map(str, SHOWN_CLASSES))})"
    figures.measure("pair", seconds=0.01, allocators=True, timed=timed)
    own = {size: figures.instructions(f"pair/olk/{size}") for size in CLASSES}
    floor = figures.instructions("pair/minimum/64")
    worst = max(figures.ratio(f"pair/olk/{size}", f"pair/minimum/{size}") for size in CLASSES)
    bars = [
        Bar(
            "pair of one size, each of the 30 classes",
            f"at most {worst:.3f} times the minimum",
            "at most 1.05 times the minimum in each class",
            worst <= 1.05,
            f"64 bytes: {figures.time('pair/olk/64')}, minimum {figures.time('pair/minimum/64')}",
        ),
        Bar(
            "pair, the slowest class compared with the fastest",
            f"{max(own.values()) / min(own.values()):.3f} times",
            "at most 1.1 times",
            max(own.values()) <= 1.1 * min(own.values()),
        ),
    ]
    cost = Cost(
        "pair of 64 bytes",
        f"{own[64]:.0f} instructions, {figures.time('pair/olk/64')}",
        "105 instructions",
        f"{floor:.0f} instructions, {figures.time('pair/minimum/64')}: the minimum with the same layout",
        "The class is found by a binary search that reads the size from the record of each class. The records have no "
        "table from size to class. A pair also takes two spin locks: two locks and unlocks alone are "
        f"{figures.instructions('pair/two_locks/64'):.0f} instructions and {figures.time('pair/two_locks/64')}.",
    )
    who = ["olk", "minimum", *figures.allocators]
    cells = [[f"{size:,}", *(figures.cell(f"pair/{name}/{size}") for name in who)] for size in SHOWN_CLASSES]
    table = Table("Pair: allocate and free one block", ["bytes", *who], cells)
    plot = [["bytes", *who]]
    plot += [[size, *(figures.instructions(f"pair/{name}/{size}") for name in who)] for size in CLASSES]
    return Result(bars, [cost], [table], {"pair": plot})


def big(figures):
    figures.measure("big", seconds=0.05)
    sizes = (4194305, 16777216)
    ratios = [figures.ratio(f"big/olk/{size}", f"big/mmap/{size}") for size in sizes]
    bar = Bar(
        "block above 4 MiB",
        ", ".join(f"{ratio:.2f} times at {size:,} bytes" for ratio, size in zip(ratios, sizes, strict=True)),
        "at most 1.1 times mmap, touch and munmap",
        max(ratios) <= 1.1,
        ", ".join(f"{figures.time_ratio(f'big/olk/{size}', f'big/mmap/{size}')} times" for size in sizes),
    )
    return Result([bar])


def churn(figures):
    figures.measure("churn", seconds=0.1, allocators=True)
    who = ["olk", *figures.allocators]
    ratio = figures.ratio("churn/olk", "churn/glibc")
    bar = Bar(
        "churn: 10,000 live blocks of 16 to 65,536 bytes",
        f"{ratio:.2f} of glibc",
        "at most 0.33 of glibc",
        ratio <= 0.33,
        f"{figures.time_ratio('churn/olk', 'churn/glibc')} of glibc",
        "An allocation searches the heaps of its class from the head of the list and skips full heaps. Page faults and "
        "cache misses dominate glibc's time; instructions do not show them.",
    )
    cells = [[figures.cell(f"churn/{name}") for name in who]]
    return Result([bar], tables=[Table("Churn: free one of 10,000 blocks, allocate another", who, cells)])


def batch(figures):
    figures.measure("batch", seconds=0.02, allocators=True)
    cases = [f"{order}/{size}" for order in ORDERS for size in BATCH_SIZES]
    worst, case = max((figures.ratio(f"batch/olk/{case}", f"batch/glibc/{case}"), case) for case in cases)
    bar = Bar(
        "batches of 1,000 blocks of 64 to 65,536 bytes; LIFO, FIFO, random",
        f"at most {worst:.2f} of glibc ({case.replace('/', ', ')} bytes)",
        "at most glibc in each case",
        worst <= 1.0,
        f"there {figures.time_ratio(f'batch/olk/{case}', f'batch/glibc/{case}')} of glibc",
        "glibc's fast bins have no lock; a pair has two.",
    )
    who = ["olk", *figures.allocators]
    cells = [[case.replace("/", ", "), *(figures.cell(f"batch/{name}/{case}") for name in who)] for case in cases]
    title = "Batches: allocate 1,000 blocks, write to each, free all; per batch"
    note = "From 4,096 bytes on, most of the time is page faults, which instructions do not show."
    plot = [["case", *who]]
    plot += [[case, *(figures.instructions(f"batch/{name}/{case}") / 1000 for name in who)] for case in cases]
    return Result([bar], tables=[Table(title, ["order, bytes", *who], cells, note)], plots={"batches": plot})


def threads(figures):
    figures.measure("threads", seconds=0.1, clock="real_time")
    apart, beside = (
        figures.time_ratio(f"threads/two/{classes}", f"threads/one/{classes}")
        for classes in ("64_and_1024", "96_and_128")
    )
    cost = Cost(
        "two threads, one in class 96 and one in class 128",
        f"{beside} of the time that one thread needs for both halves",
        "half",
        f"{apart} for classes 64 and 1,024, whose records share no cache line",
        "The records of the classes are 64 bytes apart, and the first is at byte 56 of a page. So the first word of a "
        "record is in the cache line of the counters of the record before it. Only neighbours share a line.",
    )
    return Result(costs=[cost])


def left(figures):
    def resident(program, size, library=None):
        command = [*preloaded(library), figures.build / program, "--left", str(size)]
        return int(subprocess.run(command, check=True, capture_output=True).stdout)

    lines = []
    for size in (24, 100, 1000):
        others = [resident("addrpubd_bench_plain", size, library) for library in figures.allocators.values()]
        lines.append([size, resident("addrpubd_bench", size), *others])
    bar = Bar(
        "memory that remains after a million blocks of 24, 100 and 1,000 bytes are freed",
        ", ".join(mb(line[1]) for line in lines),
        "at most 2.8 MB",
        max(line[1] for line in lines) <= 2.8e6,
    )
    cells = [[f"{line[0]:,}", *map(mb, line[1:])] for line in lines]
    title = "Resident memory that remains after a million blocks are freed"
    return Result([bar], tables=[Table(title, ["bytes", "olk", *figures.allocators], cells)])
