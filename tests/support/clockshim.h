//  The memory shared by a test and the processes whose clock it controls.
//
//      +--------------------+--------+--------+- ... -+
//      | ClockControl head  | slot 0 | slot 1 |       |     one file, mapped by all of them
//      +--------------------+--------+--------+- ... -+
//
//  Each process takes the next free slot when the shim is loaded. A child process takes its own slot at its first clock
//  call after fork; it starts with its parent's time. A slot is identified by the pid that the process itself sees. If
//  a pid occurs twice, the newest slot is used.
//
//  Time of a process = wall_start + now + wall_step. Only a sleep of the main thread advances `now`. If the sleep ends
//  by `limit`, `now` becomes the end of the sleep. Otherwise `now` becomes `limit` unless it is already later, and the
//  process is parked until the limit is raised or a signal handler has run. So if parked_limit equals the limit that
//  the test has set, the process has done everything that is due until then.
//
//  All times are in nanoseconds. Every field is one aligned word that is read and written atomically.
#ifndef TESTS_SUPPORT_CLOCKSHIM_H
#define TESTS_SUPPORT_CLOCKSHIM_H

#include <atomic>
#include <cstddef>
#include <cstdint>

struct ClockSlot {
    std::atomic<std::int32_t> pid;       // 0 while the slot is free or being filled
    std::atomic<std::uint32_t> changed;  // futex: the test adds 1 after raising limit
    std::atomic<std::uint32_t> parked;   // futex: the process adds 1 whenever it parks
    std::atomic<std::uint32_t> unused;
    std::atomic<std::int64_t> now;           // sum of the sleeps since wall_start
    std::atomic<std::int64_t> limit;         // initially initial_limit of ClockControl, then written by the test
    std::atomic<std::int64_t> wall_step;     // written by the test: sum of the wall clock's steps; a child copies it
    std::atomic<std::int64_t> parked_limit;  // the limit at which the process is parked; -1 while it runs
    std::atomic<std::uint64_t> sleeps;       // number of virtual sleeps, longer than 0, that have started
    std::atomic<std::int64_t> last_sleep;    // length of the last of these sleeps
};
static_assert(sizeof(ClockSlot) == 64);

constexpr std::uint32_t clock_slots = 63;

struct ClockControl {
    std::atomic<std::uint32_t> taken;  // number of slots taken
    std::atomic<std::uint32_t> unused;
    std::int64_t wall_start;     // since the epoch; written by the test before the first process starts
    std::int64_t initial_limit;  // limit of a new slot; written by the test before the first process starts
    std::uint64_t reserved[5];
    ClockSlot slots[clock_slots];
};
static_assert(sizeof(ClockControl) == 4096);

#endif
