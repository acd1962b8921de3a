//  The clocks of the library: the monotonic clock for time limits, the wall clock for time stamps, and both the wall
//  clock and the clock since boot for the state file.
#ifndef RDBAPI_OPEN_ENGINE_CLOCK_H
#define RDBAPI_OPEN_ENGINE_CLOCK_H

#include <chrono>
#include <cstdint>
#include <time.h>

namespace rdbopen {

//  The longest time for which a caller waits in a call.
inline constexpr std::chrono::milliseconds callLimit{3000};

//  Milliseconds of the monotonic clock, which setting the system time does not change.
inline std::chrono::milliseconds monotonicNow() noexcept {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::chrono::milliseconds(std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000);
}

//  Milliseconds since 1970-01-01 UTC.
inline std::int64_t wallNow() noexcept {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

//  One moment on two clocks, in milliseconds. Setting the system time changes wall only, so a difference of two values
//  of boot is always a true duration. boot continues while the system is suspended, unlike monotonicNow().
struct Moment {
    std::int64_t wall = 0;  // since 1970-01-01 UTC
    std::int64_t boot = 0;  // since the start of the system

    bool operator==(const Moment&) const = default;
};

inline Moment momentNow() noexcept {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return {wallNow(), std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000};
}

inline void sleepFor(std::chrono::milliseconds time) noexcept {
    const timespec duration{time.count() / 1000, time.count() % 1000 * 1000000};
    nanosleep(&duration, nullptr);
}

}  // namespace rdbopen

#endif
