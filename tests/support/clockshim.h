//  The memory that a test and the processes under its clock share.
//
//      +--------------------+--------+--------+- ... -+
//      | ClockControl head  | slot 0 | slot 1 |       |     one file, mapped by everybody
//      +--------------------+--------+--------+- ... -+
//
//  Each process takes the next free slot when the shim is loaded into it, and a child takes one of its own at its
//  first clock call after fork, beginning with its parent's time. A slot is found by its pid, as the process itself
//  sees it; the newest slot counts when a pid occurs twice.
//
//  Time of a process = wall_start + now + wall_step. Only a sleep of the main thread moves now, to its own end, and
//  never beyond limit: a sleep that ends later leaves now at limit and parks the process until the limit is raised or a
//  signal handler has run. So a test that raises the limit and waits until parked_limit equals it knows that the
//  process has done all there is to do up to that time.
//
//  All times are nanoseconds. Every field is one aligned word and is read and written whole.
#ifndef TESTS_SUPPORT_CLOCKSHIM_H
#define TESTS_SUPPORT_CLOCKSHIM_H

#include <atomic>
#include <cstddef>
#include <cstdint>

struct ClockSlot {
    std::atomic<std::int32_t> pid;       // 0 while the slot is free or being filled
    std::atomic<std::uint32_t> changed;  // futex: the test adds 1 after it raised limit
    std::atomic<std::uint32_t> parked;   // futex: the process adds 1 whenever it parks
    std::atomic<std::uint32_t> unused;
    std::atomic<std::int64_t> now;           // since wall_start, sleeps only
    std::atomic<std::int64_t> limit;         // written by the test
    std::atomic<std::int64_t> wall_step;     // written by the test: steps of the wall clock, may be negative
    std::atomic<std::int64_t> parked_limit;  // the limit the process is parked at; -1 while it runs
    std::atomic<std::uint64_t> sleeps;       // sleeps of the main thread that were begun
    std::atomic<std::int64_t> last_sleep;    // length of the last of them
};
static_assert(sizeof(ClockSlot) == 64);

constexpr std::uint32_t clock_slots = 63;

struct ClockControl {
    std::atomic<std::uint32_t> taken;  // slots taken so far
    std::atomic<std::uint32_t> unused;
    std::int64_t wall_start;     // since the epoch; written by the test before the first process starts
    std::int64_t initial_limit;  // limit of a new slot; written by the test before the first process starts
    std::uint64_t reserved[5];
    ClockSlot slots[clock_slots];
};
static_assert(sizeof(ClockControl) == 4096);

#endif
