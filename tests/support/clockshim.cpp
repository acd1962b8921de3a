//  Preloaded into a program under test. The test then controls the program's wall clock and sleeps (see clockshim.h).
//
//  Replaces the sleeps nanosleep, clock_nanosleep, usleep and sleep, and for the wall clocks the functions time,
//  gettimeofday and clock_gettime. The monotonic clocks stay real, because the threads of the client library use them
//  for their time limits.
//
//  The sleeps of the main thread are virtual, except a sleep until an absolute time of a monotonic clock. A sleep of
//  another thread takes its real time and does not change the clock. So a thread of a client library can neither
//  advance the service's clock nor park the process.
//
//  CLOCKSHIM_FILE is the path of the shared file. If the variable is not set, or if the file cannot be mapped, all
//  functions work like the real ones.
#include "clockshim.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace {

constexpr std::int64_t second = 1'000'000'000;

ClockControl* g_control = nullptr;
std::atomic<ClockSlot*> g_slot{nullptr};

//  Takes the next free slot for this process. After a fork, the slot starts with the time of the parent's slot.
ClockSlot* take_slot(pid_t pid, const ClockSlot* parent) {
    const std::uint32_t index = g_control->taken.fetch_add(1);
    if (index >= clock_slots) {
        abort();
    }
    ClockSlot* const slot = &g_control->slots[index];
    slot->now = parent == nullptr ? 0 : parent->now.load();
    slot->wall_step = parent == nullptr ? 0 : parent->wall_step.load();
    slot->limit = g_control->initial_limit;
    slot->parked_limit = -1;
    slot->pid = pid;
    return slot;
}

//  Returns this process's slot, or null if the clock is real.
ClockSlot* own_slot() {
    if (g_control == nullptr) {
        return nullptr;
    }
    const pid_t pid = getpid();
    ClockSlot* slot = g_slot;
    if (slot == nullptr || slot->pid != pid) {
        slot = take_slot(pid, slot);
        g_slot = slot;
    }
    return slot;
}

__attribute__((constructor)) void map_control() {
    const char* const path = getenv("CLOCKSHIM_FILE");
    const int fd = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        return;
    }
    void* const map = mmap(nullptr, sizeof(ClockControl), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map != MAP_FAILED) {
        g_control = static_cast<ClockControl*>(map);
        own_slot();
    }
}

std::int64_t wall_now(const ClockSlot* slot) {
    return g_control->wall_start + slot->now + slot->wall_step;
}

std::int64_t nanoseconds(const timespec& t) {
    return t.tv_sec * second + t.tv_nsec;
}

timespec timespec_of(std::int64_t ns) {
    return {ns / second, ns % second};
}

//  Waits until the limit is raised. Returns false if a signal handler ran instead. The futex wait has a time limit,
//  because the kernel restarts a wait without a limit after a handler that was installed with SA_RESTART. The kernel
//  never restarts the sleeps that this wait simulates.
bool park(ClockSlot* slot, std::uint32_t seen) {
    const timespec long_time{3600, 0};
    const long result = syscall(SYS_futex, &slot->changed, FUTEX_WAIT, seen, &long_time, nullptr, 0);
    return !(result != 0 && errno == EINTR);
}

//  Advances the clock by `length` nanoseconds. Returns the remaining nanoseconds if a signal handler ran, else 0.
std::int64_t virtual_sleep(ClockSlot* slot, std::int64_t length) {
    slot->last_sleep = length;
    ++slot->sleeps;
    const std::int64_t end = slot->now + length;
    for (;;) {
        const std::uint32_t seen = slot->changed;
        const std::int64_t limit = slot->limit;
        if (end <= limit) {
            slot->now = end;
            return 0;
        }
        if (slot->now < limit) {
            slot->now = limit;
        }
        slot->parked_limit = limit;
        ++slot->parked;
        syscall(SYS_futex, &slot->parked, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
        const bool undisturbed = park(slot, seen);
        slot->parked_limit = -1;
        if (!undisturbed) {
            return end - slot->now;
        }
    }
}

//  Returns the slot whose clock applies to a sleep of this thread, or null if the sleep is real.
ClockSlot* sleeping_slot() {
    return gettid() == getpid() ? own_slot() : nullptr;
}

bool is_wall_clock(clockid_t id) {
    return id == CLOCK_REALTIME || id == CLOCK_REALTIME_COARSE;
}

int sleep_result(std::int64_t left, timespec* remaining) {
    if (left == 0) {
        return 0;
    }
    if (remaining != nullptr) {
        *remaining = timespec_of(left);
    }
    return EINTR;
}

}  // namespace

extern "C" {

int clock_gettime(clockid_t id, timespec* t) noexcept {
    const ClockSlot* const slot = is_wall_clock(id) ? own_slot() : nullptr;
    if (slot == nullptr) {
        return static_cast<int>(syscall(SYS_clock_gettime, id, t));
    }
    *t = timespec_of(wall_now(slot));
    return 0;
}

int gettimeofday(timeval* t, void*) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    t->tv_sec = now.tv_sec;
    t->tv_usec = now.tv_nsec / 1000;
    return 0;
}

time_t time(time_t* t) noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (t != nullptr) {
        *t = now.tv_sec;
    }
    return now.tv_sec;
}

int clock_nanosleep(clockid_t id, int flags, const timespec* request, timespec* remaining) {
    const bool absolute = (flags & TIMER_ABSTIME) != 0;
    ClockSlot* const slot = absolute && !is_wall_clock(id) ? nullptr : sleeping_slot();
    if (slot == nullptr) {
        return syscall(SYS_clock_nanosleep, id, flags, request, remaining) == 0 ? 0 : errno;
    }
    const std::int64_t length = nanoseconds(*request) - (absolute ? wall_now(slot) : 0);
    const std::int64_t left = length <= 0 ? 0 : virtual_sleep(slot, length);
    return sleep_result(left, absolute ? nullptr : remaining);
}

int nanosleep(const timespec* request, timespec* remaining) {
    const int error = clock_nanosleep(CLOCK_REALTIME, 0, request, remaining);
    if (error != 0) {
        errno = error;
        return -1;
    }
    return 0;
}

int usleep(useconds_t microseconds) {
    const timespec request = timespec_of(std::int64_t{microseconds} * 1000);
    return nanosleep(&request, nullptr);
}

unsigned sleep(unsigned seconds) {
    const timespec request{static_cast<time_t>(seconds), 0};
    timespec remaining{};
    return nanosleep(&request, &remaining) == 0 ? 0 : static_cast<unsigned>(remaining.tv_sec);
}
}
