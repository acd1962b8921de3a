//  How long a worker waits before it opens a failed back end again: 1 s after the first failure, doubled after each
//  further one, at most 48 s, and on top of that a random share of up to a quarter of it, so that clients that lost the
//  same server do not return in step, not even from their first wait:
//
//      failures in a row    1          2        3      4       5        6        7 and more
//      wait, s              1 - 1.25   2 - 2.5  4 - 5  8 - 10  16 - 20  32 - 40  48 - 60
#ifndef RDBAPI_OPEN_ENGINE_BACKOFF_H
#define RDBAPI_OPEN_ENGINE_BACKOFF_H

#include <chrono>
#include <cstdint>

namespace rdbopen {

inline constexpr std::chrono::milliseconds backoffMin{1000};
inline constexpr std::chrono::milliseconds backoffMaxBase{48000};  // without the random share

//  Returns the wait after failures failures in a row without a success between them. random is any number; equal
//  numbers give equal waits.
//  Requires: failures >= 1.
std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept;

}  // namespace rdbopen

#endif
