//  How long a worker waits before it opens a failed back end again: 1 s after the first failure, doubled after each
//  further one, at most 60 s, and then a random share of up to a quarter less, so that clients that lost the same server
//  do not return in step. Never less than 1 s.
#ifndef RDBAPI_OPEN_BACKOFF_H
#define RDBAPI_OPEN_BACKOFF_H

#include <chrono>
#include <cstdint>

namespace rdbopen {

inline constexpr std::chrono::milliseconds backoffLeast{1000};
inline constexpr std::chrono::milliseconds backoffMost{60000};

//  Returns the wait after failures failures in a row without a success between them. random is any number; equal
//  numbers give equal waits.
//  Requires: failures >= 1.
std::chrono::milliseconds backoffDelay(unsigned failures, std::uint32_t random) noexcept;

}  // namespace rdbopen

#endif
